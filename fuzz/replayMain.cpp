// Replays a fuzz target's corpus: feeds every file of the given directories (or the given
// files) to LLVMFuzzerTestOneInput once. Built with the ordinary compiler as a test, so that
// every input the fuzzer ever found stays fixed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i)
    {
        const std::filesystem::path p(argv[i]);
        if (std::filesystem::is_directory(p))
        {
            for (const auto& e : std::filesystem::directory_iterator(p))
                if (e.is_regular_file())
                    inputs.push_back(e.path());
        }
        else
        {
            inputs.push_back(p);
        }
    }
    if (inputs.empty())
    {
        std::fprintf(stderr, "no inputs\n");
        return 1;
    }
    for (const auto& p : inputs)
    {
        std::ifstream in(p, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                      std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
