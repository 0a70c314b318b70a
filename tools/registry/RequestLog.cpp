// Makes a line of a request and writes it at once, so that it can be followed.
// Entered by the thread that runs the server.
// There is no lock.

#include "RequestLog.h"

#include <array>
#include <ctime>

#include "LineStream.h"

namespace orvx::registry {

namespace {

constexpr std::size_t kLongestRemark = 1'000;

std::string now() {
    const std::time_t time = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&time, &local);
    std::array<char, 40> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%d/%b/%Y:%H:%M:%S %z", &local)};
}

/// Nothing in it can end the field, or the line, or steer a terminal.
std::string escaped(std::string_view text) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    std::string safe;
    for (const char letter : text) {
        if (letter >= ' ' && letter < '\x7f' && letter != '"' && letter != '\\') {
            safe += letter;
            continue;
        }
        const auto byte = static_cast<unsigned char>(letter);
        safe += {'\\', 'x', kDigits[byte / 16U], kDigits[byte % 16U]};
    }
    return safe;
}

std::string oneWord(std::string_view text) {
    std::string safe = escaped(text);
    for (auto at = safe.find(' '); at != std::string::npos; at = safe.find(' ', at)) {
        safe.replace(at, 1, "\\x20");
    }
    return safe;
}

}  // namespace

RequestLog::RequestLog(const std::string& path) : output_("log", path, dropLine) {}

bool RequestLog::write(std::string_view address, std::string_view user, std::string_view request,
                       unsigned status, std::size_t size, std::string_view remark) {
    std::string line(address);
    line += " - " + (user.empty() ? "-" : oneWord(user)) + " [" + now() + "] \"" +
            (request.empty() ? "-" : escaped(request)) + "\" ";
    line += status == 0 ? "-" : std::to_string(status);
    line += size == 0 ? " -" : ' ' + std::to_string(size);
    line += remark.empty() ? "\n" : " \"" + escaped(remark.substr(0, kLongestRemark)) + "\"\n";
    return output_.write(line);
}

}  // namespace orvx::registry
