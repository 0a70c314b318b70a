// Builds scripts from steps. HostileConnection carries them out.
//
// Threads: a plain value, no shared state. No locks.

#include "Script.h"

#include <utility>

namespace orvx::testing {

Script& Script::add(Step step) {
    steps_.push_back(std::move(step));
    return *this;
}

Script& Script::readRequest() {
    return add(step::ReadRequest{});
}

Script& Script::readBytes(std::size_t count) {
    return add(step::ReadBytes{count});
}

Script& Script::send(std::string bytes) {
    const auto size = bytes.size();
    return add(step::Send{std::move(bytes), size, size, {}});
}

Script& Script::drip(std::string bytes, std::chrono::milliseconds interval) {
    const auto size = bytes.size();
    return add(step::Send{std::move(bytes), size, 1, interval});
}

Script& Script::sendEndlessly(std::string bytes, std::size_t cap,
                              std::chrono::milliseconds interval) {
    // Fewer bytes at a time would cost the server more than the peer.
    constexpr std::size_t kWorthwhile = 16384;
    const std::string round = bytes;
    while (interval.count() == 0 && !round.empty() && bytes.size() < kWorthwhile) {
        bytes += round;
    }
    const auto size = bytes.size();
    return add(step::Send{std::move(bytes), size == 0 ? 0 : cap, size, interval});
}

Script& Script::pause(std::chrono::milliseconds duration) {
    return add(step::Pause{duration});
}

Script& Script::waitForRelease(std::string gate) {
    return add(step::WaitForRelease{std::move(gate)});
}

Script& Script::silence() {
    return add(step::Silence{});
}

Script& Script::stall() {
    return add(step::Stall{});
}

Script& Script::shutdownWrite() {
    return add(step::ShutdownWrite{});
}

Script& Script::close() {
    return add(step::Close{});
}

Script& Script::reset() {
    return add(step::Reset{});
}

}  // namespace orvx::testing
