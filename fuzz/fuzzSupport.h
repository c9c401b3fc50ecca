// Helpers shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace qyFuzz
{

/// Writes the input to a file of this process and returns its path; the readers that take
/// a file name read it from there.
inline std::string writeTempFile(const std::uint8_t* data, std::size_t size, const char* ext)
{
    const std::string path = (std::filesystem::temp_directory_path() /
                              ("qygeom_fuzz_" + std::to_string(long(getpid())) + "." + ext))
                                 .string();
    if (FILE* f = std::fopen(path.c_str(), "wb"))
    {
        if (size)
            std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    return path;
}

} // namespace qyFuzz
