// Replays inputs through a fuzz target without libFuzzer, so that any compiler builds the targets
// and CTest re-runs the seed corpus. Arguments are files or directories (every regular file inside);
// the inputs run in name order.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "FuzzCheck.hpp"

namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i)
    {
        if (!fs::is_directory(argv[i]))
        {
            files.emplace_back(argv[i]);
            continue;
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
        {
            if (entry.is_regular_file())
            {
                files.push_back(entry.path());
            }
        }
    }
    if (files.empty())
    {
        std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY... (no input found)\n", argv[0]);
        return 2;
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files)
    {
        std::ifstream stream(file, std::ios::binary);
        if (!stream)
        {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        // A heap copy of exactly the input's size, so that an overread hits the sanitizer's redzone.
        const std::vector<std::uint8_t> input((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("replayed %zu inputs\n", files.size());
    return 0;
}
