// Runs a fuzz target over files and folders given, for builds without libFuzzer. A crash is the failure; so is a
// run without any input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (entry.is_regular_file())
                files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto& path : files) {
        std::printf("%s\n", path.c_str());
        std::fflush(stdout); // the last name is the one that crashed
        std::ifstream file(path, std::ios::binary);
        const std::string data{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
