// Runs a fuzz target over saved inputs without libFuzzer, so that an ordinary
// build keeps the target compiling and replays its corpus as a test.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    // Every regular file named, or in a folder named, in name order so that
    // runs are repeatable.
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            inputs.emplace_back(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            if (entry.is_regular_file())
                inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto& input : inputs) {
        std::ifstream in(input, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "replay: cannot read %s\n", input.c_str());
            return 1;
        }
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...: no inputs found\n", argv[0]);
        return 1;
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
