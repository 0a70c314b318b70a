#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

namespace orvx::fuzz {

/// The bytes of one run, read from front to back. After their end every value is zero or empty, so
/// that each input is valid.
class Input {
  public:
    Input(const std::uint8_t* bytes, std::size_t size)
        : rest_(reinterpret_cast<const char*>(bytes), size) {}

    bool isEmpty() const { return rest_.empty(); }
    unsigned byte() {
        const auto taken = take(1);
        return taken.empty() ? 0 : static_cast<unsigned char>(taken.front());
    }
    unsigned below(unsigned limit) { return byte() % limit; }
    /// Reads a byte with the length, and that many bytes.
    std::string text() { return std::string(take(byte())); }
    std::string rest() { return std::string(take(rest_.size())); }
    /// Reads eight bytes.
    std::uint64_t number() {
        std::uint64_t number = 0;
        for (int i = 0; i < 8; ++i) {
            number = number << 8U | byte();
        }
        return number;
    }

  private:
    std::string_view take(std::size_t size) {
        const std::string_view taken = rest_.substr(0, size);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    std::string_view rest_;
};

/// A finding: prints the fault and ends the process, so that the input is kept.
inline void require(bool holds, std::string_view what) {
    if (!holds) {
        std::cerr << "NOT TRUE: " << what << std::endl;
        std::abort();
    }
}

template <typename Left, typename Right>
void requireSame(const Left& actual, const Right& expected, std::string_view what) {
    if (!(actual == expected)) {
        std::cerr << what << " is\n  " << actual << "\ninstead of\n  " << expected << std::endl;
        std::abort();
    }
}

/// Follows the table of well-formed byte sequences in the Unicode standard.
inline bool isUtf8(std::string_view text) {
    const auto in = [&text](std::size_t at, unsigned least, unsigned most) {
        const unsigned byte = at < text.size() ? static_cast<unsigned char>(text[at]) : 0x100;
        return byte >= least && byte <= most;
    };
    const auto tails = [&in](std::size_t count) {
        std::size_t at = 2;
        while (at < 2 + count && in(at, 0x80, 0xBF)) {
            ++at;
        }
        return at == 2 + count;
    };
    while (!text.empty()) {
        std::size_t length = 0;
        if (in(0, 0, 0x7F)) {
            length = 1;
        } else if (in(0, 0xC2, 0xDF) && in(1, 0x80, 0xBF)) {
            length = 2;
        } else if (((in(0, 0xE0, 0xE0) && in(1, 0xA0, 0xBF)) ||
                    (in(0, 0xED, 0xED) && in(1, 0x80, 0x9F)) ||
                    (in(0, 0xE1, 0xEF) && !in(0, 0xED, 0xED) && in(1, 0x80, 0xBF))) &&
                   tails(1)) {
            length = 3;
        } else if (((in(0, 0xF0, 0xF0) && in(1, 0x90, 0xBF)) ||
                    (in(0, 0xF4, 0xF4) && in(1, 0x80, 0x8F)) ||
                    (in(0, 0xF1, 0xF3) && in(1, 0x80, 0xBF))) &&
                   tails(2)) {
            length = 4;
        } else {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace orvx::fuzz

/// Defined by each fuzzer: one run.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);
