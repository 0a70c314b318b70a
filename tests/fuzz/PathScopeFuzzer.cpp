// Paths and scopes with any content. If a token may announce a path, every reader interprets the
// path as one within the scope: whether it decodes once or twice, resolves dot segments before or
// after that, or drops the parameters of segments. Plain paths within the scope are not refused.
// One thread; there is no lock.

#include "Input.h"
#include "PathScope.h"
#include "Tokens.h"

#include <array>
#include <cctype>
#include <functional>
#include <utility>
#include <vector>

namespace {

using orvx::fuzz::Input;
using orvx::fuzz::require;
using orvx::registry::isWithin;
using orvx::registry::scopeOf;
using orvx::registry::Token;

/// An invalid escape stays unchanged.
std::string decoded(const std::string& text) {
    std::string made;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isEscape = text[at] == '%' && at + 2 < text.size() &&
                              std::isxdigit(static_cast<unsigned char>(text[at + 1])) != 0 &&
                              std::isxdigit(static_cast<unsigned char>(text[at + 2])) != 0;
        made +=
            isEscape ? static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16)) : text[at];
        at += isEscape ? 2 : 0;
    }
    return made;
}

std::string withoutLastSegment(const std::string& path) {
    return path.substr(0, std::min(path.rfind('/'), path.size()));
}

/// As in RFC 3986, section 5.2.4.
std::string withoutDots(std::string input) {
    const auto begins = [&input](const char* text) { return input.rfind(text, 0) == 0; };
    std::string output;
    while (!input.empty()) {
        if (begins("../")) {
            input.erase(0, 3);
        } else if (begins("./") || begins("/./")) {
            input.erase(0, 2);
        } else if (input == "/.") {
            input = "/";
        } else if (begins("/../") || input == "/..") {
            input.replace(0, std::min<std::size_t>(4, input.size()), "/");
            output = withoutLastSegment(output);
        } else if (input == "." || input == "..") {
            input.clear();
        } else {
            const auto end = input.find('/', 1);
            output += input.substr(0, end);
            input.erase(0, end);
        }
    }
    return output;
}

std::string withoutParameters(const std::string& path) {
    std::string made;
    bool isParameter = false;
    for (const char letter : path) {
        isParameter = letter != '/' && (isParameter || letter == ';');
        if (!isParameter) {
            made += letter;
        }
    }
    return made;
}

std::string withSlashes(std::string path) {
    for (char& letter : path) {
        letter = letter == '\\' ? '/' : letter;
    }
    return path;
}

std::string asC(const std::string& path) {
    return path.c_str();
}

/// The steps with which one reader interprets a path.
using Reader = std::vector<std::function<std::string(const std::string&)>>;

std::string read(const Reader& reader, std::string path) {
    for (const auto& step : reader) {
        path = step(path);
    }
    return path;
}

const std::vector<Reader>& readers() {
    static const std::vector<Reader> kReaders{
        {decoded},
        {decoded, decoded},
        {decoded, withoutDots},
        {withoutDots, decoded},
        {decoded, decoded, withoutDots},
        {withoutDots, decoded, withoutDots, decoded, withoutDots},
        {decoded, withSlashes, withoutDots},
        {withSlashes, withoutDots, decoded},
        {decoded, asC, withoutDots},
    };
    return kReaders;
}

const std::vector<Reader>& readersWithoutParameters() {
    static const std::vector<Reader> kReaders{
        {withoutParameters, decoded, withoutDots},
        {decoded, withoutParameters, withoutDots},
    };
    return kReaders;
}

std::string pathFrom(Input& input) {
    static constexpr std::array kPieces{"/",    "/",    "/lamps", "/lamps", "lamps", "a",    ".",
                                        "..",   "%2e",  "%2E",    "%2f",    "%5c",   "\\",   "%25",
                                        "%",    ";",    "%3b",    "?",      "%3f",   "%00",  "%20",
                                        "\xc3", "\xa4", "%c3",    "%a4",    "#",     "%252e"};
    std::string path;
    for (unsigned left = input.below(12); left > 0; --left) {
        const unsigned which = input.below(kPieces.size() + 1);
        path += which < kPieces.size() ? kPieces[which] : input.text();
    }
    return path;
}

bool isSimple(const std::string& path) {
    bool wasSlash = false;
    for (const char letter : path) {
        const bool isSlash = letter == '/';
        if ((isSlash && wasSlash) || (!isSlash && (letter < 'a' || letter > 'z'))) {
            return false;
        }
        wasSlash = isSlash;
    }
    return path.size() > 1 && path.front() == '/';
}

void compare(const std::string& scope, const std::string& target) {
    Token token;
    token.scope = scopeOf(scope);
    if (!token.scope) {
        return require(!isSimple(scope), "a simple scope is one");
    }
    if (token.scope->empty()) {
        return require(token.mayAnnounce(target), "the widest scope has every path");
    }
    const bool mayAnnounce = token.mayAnnounce(target);
    if (isSimple(scope) && isSimple(target)) {
        const std::string begin = scope.back() == '/' ? scope : scope + '/';
        require(mayAnnounce == ((target + '/').rfind(begin, 0) == 0), "simple paths are compared");
    }
    if (!mayAnnounce) {
        return;
    }
    const std::string path = target.substr(0, target.find('?'));
    for (const Reader& reader : readers()) {
        require(isWithin(read(reader, path), *token.scope),
                "every reader finds the path within the scope");
    }
    for (const Reader& reader : readersWithoutParameters()) {
        require(isWithin(read(reader, path), *token.scope),
                "without parameters the path is within the scope");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    const std::string scope = pathFrom(input);
    // Most paths begin like the scope, because otherwise almost none would be within it.
    const std::string begin = input.below(4) == 0 ? "" : scope;
    compare(scope, begin + pathFrom(input));
    return 0;
}
