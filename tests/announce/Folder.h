#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace orvx::announce {

/// A folder that is removed at the end, with everything in it.
class Folder {
  public:
    Folder() {
        std::string pattern = std::filesystem::temp_directory_path() / "orvx-announce-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no folder");
        }
        path_ = pattern;
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string file(const std::string& name, const std::string& content) const {
        std::ofstream(file(name)) << content;
        return file(name);
    }

  private:
    std::string path_;
};

inline std::string contentOf(const std::string& name) {
    std::ifstream stream(name);
    return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace orvx::announce
