// Runs a fuzz target over saved inputs without libFuzzer, so that an ordinary
// build keeps the target compiling and replays its corpus as a test.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool replay(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return true;
}

// The regular files of a directory, in name order so runs are repeatable.
std::vector<std::filesystem::path> inputsOf(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
        return 2;
    }
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& input : inputsOf(argv[i])) {
            if (!replay(input)) {
                return 1;
            }
            ++count;
        }
    }
    if (count == 0) {
        std::fprintf(stderr, "replay: no inputs found\n");
        return 1;
    }
    std::printf("replayed %zu inputs\n", count);
    return 0;
}
