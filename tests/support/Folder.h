#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace orvx::testing {

/// The content of a file; empty when the file cannot be read.
inline std::string contentOf(const std::string& name) {
    std::ifstream stream(name);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// A new temporary folder. The destructor removes it with its content.
class Folder {
  public:
    Folder() {
        std::string pattern = std::filesystem::temp_directory_path() / "orvx-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary folder");
        }
        path_ = pattern;
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    /// Replaces the content of the file, and returns its path.
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(file(name)) << content;
        return file(name);
    }

  private:
    std::string path_;
};

}  // namespace orvx::testing
