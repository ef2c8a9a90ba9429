// Temporary folders and files for tests, and the files of the build tree.
#ifndef ZARVO_TESTKIT_FILES_H
#define ZARVO_TESTKIT_FILES_H

#include <filesystem>
#include <string>

namespace zarvo {
namespace testkit {

/// A fresh folder, named after the running test, removed with everything in
/// it at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return directory; }
    /// The path of `name` in the folder.
    std::string file(const std::string& name) const { return (directory / name).string(); }
    /// Writes `text` to `name` in the folder; gives its path.
    std::string write(const std::string& name, const std::string& text) const;

private:
    std::filesystem::path directory;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

/// A file of the build tree, from the ZARVO_BINARY_DIR the test runs with.
std::string builtFile(const std::string& relative);

}  // namespace testkit
}  // namespace zarvo

#endif
