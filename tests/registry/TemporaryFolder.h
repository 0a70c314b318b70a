#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace orvx::registry {

/// A new folder, which the destructor removes.
class TemporaryFolder {
  public:
    explicit TemporaryFolder(
        const std::filesystem::path& where = std::filesystem::temp_directory_path()) {
        std::string name = where / "orvx-registry.XXXXXX";
        path_ = ::mkdtemp(name.data());
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const char* file) const { return path_ / file; }

  private:
    std::filesystem::path path_;
};

}  // namespace orvx::registry
