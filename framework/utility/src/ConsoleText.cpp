// Escapes and cuts text for a terminal, because any text may come from the network. The text is
// processed character by character; a byte that begins no character is processed alone.
// Entered by any thread; no state, no lock.

#include "ConsoleText.h"

#include <array>
#include <cstddef>

namespace orvx::utility {

namespace {

constexpr std::size_t kLongestText = 4096;

unsigned byteAt(std::string_view text, std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
}

/// The length in bytes of the character that begins with `lead`; 0 if no character does.
std::size_t lengthByLead(unsigned lead) {
    if (lead < 0x80) {
        return 1;
    }
    return lead < 0xC0 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : 0;
}

/// The length of the UTF-8 character at the beginning of `text`; 0 if there is none. Overlong
/// forms, surrogates and values beyond the last code point are invalid.
std::size_t characterLength(std::string_view text) {
    static constexpr std::array<unsigned, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
    const auto lead = byteAt(text, 0);
    const auto length = lengthByLead(lead);
    auto codePoint = length == 1 ? lead : lead & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = byteAt(text, i);
        if ((byte & 0xC0) != 0x80) {
            return 0;
        }
        codePoint = codePoint << 6 | (byte & 0x3F);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint < 0xE000;
    const bool valid = length > 0 && codePoint >= kSmallest[length] && codePoint <= 0x10FFFF;
    return valid && !surrogate ? length : 0;
}

bool isControl(std::string_view character) {
    const auto first = byteAt(character, 0);
    return first < 0x20 || first == 0x7F || (first == 0xC2 && byteAt(character, 1) < 0xA0);
}

/// Whether the character controls the writing direction of its surroundings, which can make a line
/// appear as another one.
bool isDirectionControl(std::string_view character) {
    const auto isBetween = [character](std::string_view first, std::string_view last) {
        return character.size() == first.size() && character >= first && character <= last;
    };
    // NOLINTNEXTLINE(misc-misleading-bidirectional): these characters are searched for.
    return character == "\u061c" || isBetween("\u200e", "\u200f") ||
           isBetween("\u202a", "\u202e") ||  // NOLINT(misc-misleading-bidirectional)
           isBetween("\u2066", "\u2069");    // NOLINT(misc-misleading-bidirectional)
}

void appendHex(std::string& out, std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const auto byte = byteAt(bytes, i);
        out.append({'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]});
    }
}

void appendCharacter(std::string& out, std::string_view character, bool valid) {
    if (character == "\n") {
        out += "\\n";
    } else if (character == "\\") {
        out += "\\\\";
    } else if (!valid || isControl(character) || isDirectionControl(character)) {
        appendHex(out, character);
    } else {
        out += character;
    }
}

}  // namespace

std::string toConsoleText(std::string_view text) {
    std::string out;
    std::size_t done = 0;
    while (done < text.size()) {
        const auto valid = characterLength(text.substr(done));
        const auto length = valid > 0 ? valid : 1;
        if (done + length > kLongestText) {
            return out + "... (" + std::to_string(text.size() - done) + " bytes more)";
        }
        appendCharacter(out, text.substr(done, length), valid > 0);
        done += length;
    }
    return out;
}

}  // namespace orvx::utility
