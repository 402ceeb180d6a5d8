// Replays inputs through a fuzz target without libFuzzer, so that any compiler builds the targets
// and CTest re-runs the seed corpus. Arguments are files or directories (every regular file inside,
// in name order).
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "FuzzCheck.hpp"

namespace
{

bool RunFile(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
    {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    // A fresh heap copy of exactly the input's size, so that an overread hits the sanitizer's redzone.
    std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.empty() ? nullptr : input.data(), input.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
        return 2;
    }
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i)
    {
        const std::filesystem::path argument(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(argument, error))
        {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(argument))
            {
                if (entry.is_regular_file())
                {
                    files.push_back(entry.path());
                }
            }
            std::sort(files.begin(), files.end());
            if (files.empty())
            {
                std::fprintf(stderr, "no inputs in %s\n", argv[i]);
                return 1;
            }
            for (const auto& file : files)
            {
                if (!RunFile(file))
                {
                    return 1;
                }
                ++count;
            }
        }
        else
        {
            if (!RunFile(argument))
            {
                return 1;
            }
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return 0;
}
