// Helpers of the file-format tests: a scratch directory and whole-file text.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace qyIoTest
{

/// A fresh directory per test process, removed at exit.
inline const std::filesystem::path& scratchDir()
{
    static const std::filesystem::path dir = []
    {
        auto d = std::filesystem::temp_directory_path() /
                 ("qygeom_io_" + std::to_string(long(getpid())));
        std::filesystem::create_directories(d);
        return d;
    }();
    static const struct Cleanup
    {
        ~Cleanup()
        {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    } cleanup;
    return dir;
}

/// Writes `text` to scratchDir()/name and returns the full path.
inline std::string writeFile(const std::string& name, const std::string& text)
{
    const std::string path = (scratchDir() / name).string();
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

inline std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

} // namespace qyIoTest
