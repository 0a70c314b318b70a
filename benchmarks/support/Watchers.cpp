// The first reader gets the whole list and tells the others where the stream continues, because the
// list for each of them would take gigabytes. One thread, no lock.

#include "Watchers.h"

#include "Measure.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace orvx::benchmarks {

Watchers::Watchers(std::uint16_t port, std::size_t count) : watchers_(count) {
    const std::string lastId = lastIdOfList(port);
    for (std::size_t i = 0; i < count; ++i) {
        watchers_[i].socket = connectTo(port);
        follow(watchers_[i].socket, i);
        begin(watchers_[i].socket, lastId);
    }
}

Watchers::~Watchers() {
    for (const Watcher& watcher : watchers_) {
        ::close(watcher.socket);
    }
}

void Watchers::begin(int socket, const std::string& lastId) {
    const std::string request =
        "GET /-/watch?checks=no HTTP/1.1\r\nHost: 127.0.0.1\r\nLast-Event-ID: " + lastId +
        "\r\n\r\n";
    require(::send(socket, request.data(), request.size(), MSG_NOSIGNAL) > 0,
            "a watch does not begin");
}

std::string Watchers::lastIdOfList(std::uint16_t port) const {
    const std::string end = "event: listed\nid: ";
    const int socket = connectTo(port);
    begin(socket, "");
    std::array<char, 65536> bytes;
    std::string text;
    std::size_t found = std::string::npos;
    while (found == std::string::npos || text.find('\n', found + end.size()) == std::string::npos) {
        const auto size = ::recv(socket, bytes.data(), bytes.size(), 0);
        require(size > 0, "the list ends too early");
        text.erase(0, text.size() - std::min<std::size_t>(text.size(), 256));
        text.append(bytes.data(), static_cast<std::size_t>(size));
        found = text.find(end);
    }
    ::close(socket);
    found += end.size();
    return text.substr(found, text.find('\n', found) - found);
}

void Watchers::receive() {
    std::array<epoll_event, 16> events{};  // other sources wait meanwhile
    const int ready = ::epoll_wait(epoll(), events.data(), events.size(), 0);
    for (int i = 0; i < ready; ++i) {
        read(watchers_[events[static_cast<std::size_t>(i)].data.u64]);
    }
}

void Watchers::read(Watcher& watcher) {
    static std::array<char, 65536> bytes;
    const auto size = ::recv(watcher.socket, bytes.data(), bytes.size(), 0);
    require(size > 0, "a stream has ended");
    const auto now = std::chrono::nanoseconds(Time::clock::now().time_since_epoch()).count();
    watcher.rest.append(bytes.data(), static_cast<std::size_t>(size));
    const std::string_view text = watcher.rest;
    std::size_t at = text.find(kChanged);
    const std::size_t end = text.rfind('\n') + 1;
    for (; at < end; at = text.find(kChanged, at + 1)) {
        std::int64_t time = 0;
        std::from_chars(text.data() + at + kChanged.size(), text.data() + end, time);
        lags_.push_back(static_cast<double>(now - time) / 1e6);
    }
    watcher.rest.erase(0, end);
}

}  // namespace orvx::benchmarks
