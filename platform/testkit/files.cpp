#include <zarvo/testkit/files.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace zarvo {
namespace testkit {

TemporaryDirectory::TemporaryDirectory() {
    static std::atomic<int> counter{0};
    std::string name = "zarvo-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    if (const auto* info = ::testing::UnitTest::GetInstance()->current_test_info()) {
        name += std::string("-") + info->test_suite_name() + "-" + info->name();
    }
    for (char& c : name) {
        if (c == '/') {
            c = '_';
        }
    }
    directory = std::filesystem::temp_directory_path() / name;
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

std::string TemporaryDirectory::write(const std::string& name, const std::string& text) const {
    const std::string path = file(name);
    writeFile(path, text);
    return path;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string builtFile(const std::string& relative) {
    const char* directory = std::getenv("ZARVO_BINARY_DIR");
    return std::string(directory != nullptr ? directory : ".") + "/" + relative;
}

}  // namespace testkit
}  // namespace zarvo
