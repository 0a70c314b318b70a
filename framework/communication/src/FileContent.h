#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace orvx::communication {

/// The content of a file; nothing if it cannot be read, then errno says why. A program that is
/// started meanwhile does not inherit the file. Throws std::bad_alloc.
inline std::optional<std::string> contentOf(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rbe"),
                                                               std::fclose);
    if (!file) {
        return std::nullopt;
    }
    std::string content;
    std::array<char, 4096> bytes;
    std::size_t size = 0;
    while ((size = std::fread(bytes.data(), 1, bytes.size(), file.get())) > 0) {
        content.append(bytes.data(), size);
    }
    return std::ferror(file.get()) == 0 ? std::make_optional(std::move(content)) : std::nullopt;
}

}  // namespace orvx::communication
