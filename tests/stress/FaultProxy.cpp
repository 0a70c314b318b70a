// Forwards between a client and a server, with planned faults. Each connection is a Link with two
// pipes that read, wait and write in turn. A Link lives while one of its operations is outstanding.
//
// Threads: all state belongs to the proxy's thread. Orders of other threads are run there while the
// caller waits. No locks.

#include "FaultProxy.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <future>
#include <utility>

namespace orvx::stress {

using boost::asio::ip::tcp;
using Error = boost::system::error_code;
using std::chrono::microseconds;
using std::chrono::milliseconds;

namespace {

/// Whether the peer has ended the connection, even if bytes are left to be read.
bool hasEnded(tcp::socket& socket) {
    pollfd poll{socket.native_handle(), POLLRDHUP, 0};
    return ::poll(&poll, 1, 0) == 1;
}

}  // namespace

class FaultProxy::Link : public std::enable_shared_from_this<Link> {
  public:
    Link(FaultProxy& proxy, tcp::socket client, const Plan& plan)
        : proxy_(proxy),
          client_(std::move(client)),
          server_(proxy.io_),
          tap_(proxy.tapMaker_ ? proxy.tapMaker_() : nullptr),
          up_{client_, server_, plan.toServer, proxy.io_},
          down_{server_, client_, plan.toClient, proxy.io_} {
        proxy_.links_.insert(this);
    }
    ~Link() { proxy_.links_.erase(this); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    void connect() {
        const tcp::endpoint server(boost::asio::ip::address_v4::loopback(), proxy_.serverPort_);
        server_.async_connect(server, [self = shared_from_this()](const Error& error) {
            if (error) {
                self->end();
                return;
            }
            self->begin();
        });
    }

    void cease() {
        const bool hasLost = up_.hasLost || down_.hasLost;
        for (Pipe* const pipe : {&up_, &down_}) {
            pipe->faults = {};
            pipe->timer.cancel();  // a waiting pipe continues immediately
        }
        if (hasLost) {
            reset();
        }
    }

  private:
    struct Pipe {
        Pipe(tcp::socket& source, tcp::socket& sink, const Faults& plan,
             boost::asio::io_context& io)
            : from(source), to(sink), faults(plan), timer(io) {}

        tcp::socket& from;
        tcp::socket& to;
        Faults faults;
        boost::asio::steady_timer timer;
        std::array<char, 16'384> buffer;
        std::size_t begin = 0;  // the beginning of the bytes that are left to be forwarded
        std::size_t end = 0;
        std::size_t forwarded = 0;
        bool hasLost = false;
    };

    void begin() {
        Error ignored;
        client_.set_option(tcp::no_delay(true), ignored);
        server_.set_option(tcp::no_delay(true), ignored);
        read(up_);
        read(down_);
    }

    void read(Pipe& pipe) {
        pipe.from.async_read_some(
            boost::asio::buffer(pipe.buffer),
            [self = shared_from_this(), &pipe](const Error& error, std::size_t size) {
                if (error == boost::asio::error::eof) {
                    Error ignored;
                    pipe.to.shutdown(tcp::socket::shutdown_send, ignored);
                } else if (error) {
                    self->end();
                } else {
                    self->take(pipe, size);
                }
            });
    }

    void take(Pipe& pipe, std::size_t size) {
        if (tap_) {
            const std::string_view bytes(pipe.buffer.data(), size);
            &pipe == &up_ ? tap_->sentByClient(bytes) : tap_->sentByServer(bytes);
        }
        if (pipe.faults.blackHole) {
            ++proxy_.counters_.swallowed;
            pipe.hasLost = true;
            read(pipe);
            return;
        }
        pipe.begin = 0;
        pipe.end = size;
        forward(pipe);
    }

    void forward(Pipe& pipe) {
        const Faults& faults = pipe.faults;
        if (pipe.forwarded >= faults.resetAfter) {
            reset();
        } else if (pipe.forwarded >= faults.closeAfter) {
            ++proxy_.counters_.closes;
            end();
        } else if (pipe.begin == pipe.end) {
            read(pipe);
        } else {
            const std::size_t left = pipe.end - pipe.begin;
            const std::size_t size =
                std::min({left, faults.pieceBytes, faults.resetAfter - pipe.forwarded,
                          faults.closeAfter - pipe.forwarded});
            proxy_.counters_.sliced += size < left ? 1 : 0;
            wait(pipe, size);
        }
    }

    void wait(Pipe& pipe, std::size_t size) {
        const microseconds delay = delayOf(pipe.faults, size);
        if (delay == microseconds::zero()) {
            write(pipe, size);
            return;
        }
        ++proxy_.counters_.delayed;
        pipe.timer.expires_after(delay);
        pipe.timer.async_wait([self = shared_from_this(), &pipe, size](const Error& /*ceased*/) {
            self->write(pipe, size);
        });
    }

    microseconds delayOf(const Faults& faults, std::size_t size) {
        const microseconds longest = faults.longestDelay;
        const microseconds random(
            std::uniform_int_distribution<microseconds::rep>(0, longest.count())(proxy_.random_));
        return random + microseconds(static_cast<microseconds::rep>(size * 1'000'000 /
                                                                    faults.bytesPerSecond));
    }

    void write(Pipe& pipe, std::size_t size) {
        // Read before the forwarding: bytes that the client sends after it has ended this
        // connection arrive later.
        const bool isLate = &pipe == &up_ && hasEnded(client_);
        boost::asio::async_write(
            pipe.to, boost::asio::buffer(pipe.buffer.data() + pipe.begin, size),
            [self = shared_from_this(), &pipe, isLate](const Error& error, std::size_t written) {
                pipe.begin += written;
                pipe.forwarded += written;
                if (self->tap_ && &pipe == &self->up_) {
                    self->tap_->reachedServer(written, isLate);
                }
                error ? self->end() : self->forward(pipe);
            });
    }

    void reset() {
        ++proxy_.counters_.resets;
        Error ignored;
        for (tcp::socket* const socket : {&client_, &server_}) {
            socket->set_option(boost::asio::socket_base::linger(true, 0), ignored);
        }
        end();
    }

    /// Sends a FIN, unless reset() was called before.
    void end() {
        Error ignored;
        client_.close(ignored);
        server_.close(ignored);
    }

    FaultProxy& proxy_;
    tcp::socket client_;
    tcp::socket server_;
    const std::unique_ptr<ITap> tap_;
    Pipe up_;
    Pipe down_;
};

FaultProxy::FaultProxy(std::uint16_t serverPort, std::uint64_t seed, TapMaker tapMaker)
    : reservation_(testing::bindLoopback()),
      port_(testing::portOf(reservation_)),
      tapMaker_(std::move(tapMaker)),
      random_(seed),
      serverPort_(serverPort) {
    listen();
    thread_ = std::thread([this] { io_.run(); });
}

// The io_context destroys the handlers that keep the links alive.
FaultProxy::~FaultProxy() {
    io_.stop();
    thread_.join();
}

void FaultProxy::setServerPort(std::uint16_t port) {
    order([&] { serverPort_ = port; });
}

void FaultProxy::setPlanner(Planner planner) {
    order([&] { planner_ = std::move(planner); });
}

void FaultProxy::cease() {
    order([&] {
        planner_ = {};
        for (Link* const link : links_) {
            link->cease();
        }
    });
}

void FaultProxy::stopListening() {
    order([&] {
        ++counters_.refusals;
        acceptor_.close();
    });
}

void FaultProxy::listenAgain() {
    order([&] { listen(); });
}

FaultProxy::Counters FaultProxy::counters() {
    Counters counters;
    order([&] {
        counters = counters_;
        counters.open = links_.size();
    });
    return counters;
}

void FaultProxy::order(const std::function<void()>& what) {
    std::packaged_task<void()> task(what);
    boost::asio::post(io_, [&task] { task(); });
    task.get_future().get();
}

void FaultProxy::listen() {
    if (acceptor_.is_open()) {
        return;
    }
    const testing::Socket socket = testing::bindLoopback(testing::Loopback::V4, port_);
    testing::listenOn(socket, boost::asio::socket_base::max_listen_connections);
    acceptor_.assign(tcp::v4(), ::dup(socket.fd()));
    accept();
}

void FaultProxy::accept() {
    acceptor_.async_accept([this](const Error& error, tcp::socket client) {
        if (!error) {
            link(std::move(client));
        }
        if (acceptor_.is_open() && error != boost::asio::error::operation_aborted) {
            accept();
        }
    });
}

void FaultProxy::link(tcp::socket client) {
    ++counters_.connections;
    const Plan plan = planner_ ? planner_(random_) : Plan{};
    std::make_shared<Link>(*this, std::move(client), plan)->connect();
}

}  // namespace orvx::stress
