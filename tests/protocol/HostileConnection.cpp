// One connection of the hostile server: carries out a script as a state machine over a non-blocking
// socket. A step is tried again at each event until it is complete.
//
// Threads: the server's thread only; the script source has its own lock. No locks here.

#include "HostileConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace orvx::testing {

HostileConnection::HostileConnection(Socket socket, std::size_t index, const Script& script,
                                     IScriptSource& source)
    : socket_(std::move(socket)), index_(index), source_(source), steps_(script.steps()) {}

void HostileConnection::run(short revents) {
    if (!hasCause(revents)) {
        return;
    }
    // A step that reads sees the peer's end after the peer's last bytes; any other step sees it
    // here.
    const bool ended = (revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
    Outcome outcome = ended && (events_ & POLLIN) == 0 ? Outcome::PeerGone : Outcome::Done;
    while (outcome == Outcome::Done) {
        outcome = next();
    }
    if (outcome == Outcome::PeerGone) {
        state_ = State::ClosedByPeer;
    } else if (outcome == Outcome::Closed) {
        state_ = State::ClosedByServer;
    }
}

bool HostileConnection::hasCause(short revents) const {
    const bool isNew = events_ == 0;
    const bool mayBeReleased =
        !steps_.empty() && std::holds_alternative<step::WaitForRelease>(steps_.front());
    return revents != 0 || isNew || mayBeReleased || (due_ && isDue());
}

HostileConnection::Outcome HostileConnection::next() {
    if (steps_.empty()) {
        return serve();
    }
    const Outcome outcome =
        std::visit([this](auto& step) { return perform(step); }, steps_.front());
    if (outcome == Outcome::Done) {
        steps_.pop_front();
        due_.reset();
    }
    return outcome;
}

HostileConnection::Outcome HostileConnection::serve() {
    Request request;
    const Outcome outcome = readRequest(request);
    if (outcome == Outcome::Done) {
        steps_ = source_.scriptFor(request).steps();
    }
    return outcome;
}

HostileConnection::Outcome HostileConnection::perform(step::ReadRequest&) {
    Request request;
    return readRequest(request);
}

HostileConnection::Outcome HostileConnection::perform(step::ReadBytes& step) {
    while (input_.size() < step.count) {
        const Outcome outcome = readSome(step.count - input_.size());
        if (outcome != Outcome::Done) {
            return outcome;
        }
    }
    input_.erase(0, step.count);
    return Outcome::Done;
}

// Sends once in each call, so that an endless step leaves time for the other connections.
HostileConnection::Outcome HostileConnection::perform(step::Send& step) {
    if (step.left == 0) {
        return Outcome::Done;
    }
    if (!isDue()) {
        return wait(POLLRDHUP);
    }
    const auto size = std::min({step.piece, step.left, step.bytes.size() - step.position});
    const auto sent = ::send(socket_.fd(), step.bytes.data() + step.position, size, MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN ? wait(POLLOUT | POLLRDHUP) : Outcome::PeerGone;
    }
    step.left -= static_cast<std::size_t>(sent);
    step.position = (step.position + static_cast<std::size_t>(sent)) % step.bytes.size();
    if (step.left == 0) {
        return Outcome::Done;
    }
    if (step.interval.count() == 0) {
        return wait(POLLOUT | POLLRDHUP);
    }
    due_ = Clock::now() + step.interval;
    return wait(POLLRDHUP);
}

HostileConnection::Outcome HostileConnection::perform(step::Pause& step) {
    if (!due_) {
        due_ = Clock::now() + step.duration;
    }
    return isDue() ? Outcome::Done : wait(POLLRDHUP);
}

HostileConnection::Outcome HostileConnection::perform(step::WaitForRelease& step) {
    return source_.isReleased(step.gate) ? Outcome::Done : wait(POLLRDHUP);
}

HostileConnection::Outcome HostileConnection::perform(step::Silence&) {
    Outcome outcome = Outcome::Done;
    while (outcome == Outcome::Done) {
        input_.clear();
        outcome = readSome(Script::kUncapped);
    }
    return outcome;
}

HostileConnection::Outcome HostileConnection::perform(step::Stall&) {
    return wait(POLLRDHUP);
}

HostileConnection::Outcome HostileConnection::perform(step::ShutdownWrite&) {
    ::shutdown(socket_.fd(), SHUT_WR);
    return Outcome::Done;
}

HostileConnection::Outcome HostileConnection::perform(step::Close&) {
    while (readSome(Script::kUncapped) == Outcome::Done) {
    }
    return Outcome::Closed;
}

HostileConnection::Outcome HostileConnection::perform(step::Reset&) {
    const linger atOnce{1, 0};
    ::setsockopt(socket_.fd(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    return Outcome::Closed;
}

HostileConnection::Outcome HostileConnection::readRequest(Request& request) {
    std::optional<Request> found;
    while (!(found = firstRequest(input_))) {
        const Outcome outcome = readSome(Script::kUncapped);
        if (outcome != Outcome::Done) {
            return outcome;
        }
    }
    input_.erase(0, found->raw.size());
    request = std::move(*found);
    request.connection = index_;
    source_.record(request);
    return Outcome::Done;
}

HostileConnection::Outcome HostileConnection::readSome(std::size_t limit) {
    std::array<char, 65536> buffer;
    const auto size = ::recv(socket_.fd(), buffer.data(), std::min(limit, buffer.size()), 0);
    if (size < 0 && errno == EAGAIN) {
        return wait(POLLIN);
    }
    if (size <= 0) {
        return Outcome::PeerGone;
    }
    input_.append(buffer.data(), static_cast<std::size_t>(size));
    return Outcome::Done;
}

HostileConnection::Outcome HostileConnection::wait(short events) {
    events_ = events;
    return Outcome::Waiting;
}

}  // namespace orvx::testing
