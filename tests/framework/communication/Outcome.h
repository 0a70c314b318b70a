#pragma once

#include <orvx/communication/IClientHttpSession.h>
#include <orvx/utility/Mutex.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace orvx::testing {

/// The outcome of one request, received by the one handler that this object provides. Thread-safe.
class Outcome {
  public:
    static constexpr std::chrono::seconds kPatience{10};

    /// A handler that calls `before` and then stores the outcome here.
    communication::ResponseHandler handler(std::function<void()> before = {});

    /// Waits until the handler is called. Fails the test, and returns status Other, if it is not.
    communication::HttpResponse response() const;
    communication::CommunicationStatus status() const;
    int statusCode() const;

    /// Waits until the handler is destroyed.
    bool waitUntilDestroyed(std::chrono::milliseconds timeout = kPatience) const;

    int calls() const;
    bool isDestroyed() const;
    /// The name of the thread that called the handler.
    std::string callingThread() const;

  private:
    struct State {
        mutable utility::Mutex mutex;
        mutable std::condition_variable changed;
        std::optional<communication::HttpResponse> response ORVX_GUARDED_BY(mutex);
        std::string thread ORVX_GUARDED_BY(mutex);
        int calls ORVX_GUARDED_BY(mutex) = 0;
        bool isDestroyed ORVX_GUARDED_BY(mutex) = false;
    };
    struct Token;

    std::shared_ptr<State> state_ = std::make_shared<State>();
};

/// The name of the calling thread, as the system shows it.
std::string threadName();

}  // namespace orvx::testing
