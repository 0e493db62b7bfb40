#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace quorvix::tests {

// A folder of its own for one test, gone with it.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "quorvix-XXXXXX").string();
        if (!mkdtemp(name.data())) std::abort();
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string path(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string readWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeWholeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

}  // namespace quorvix::tests
