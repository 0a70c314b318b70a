#pragma once

#include <orvx/communication/IClientHttpFactory.h>
#include <orvx/utility/ILoggerFactory.h>

#include <memory>

namespace orvx::communication {

/// HTTP/1.1 for a client: one I/O thread ("ORVX_HttpIO") for all sessions and requests.
///
/// Thread-safety: setters, init() and deinit() are called by one thread at a time; the getters, and
/// the sessions, from any thread at any time.
class OrvClientCommunicationContext {
  public:
    OrvClientCommunicationContext();
    /// De-initialises.
    ~OrvClientCommunicationContext();
    OrvClientCommunicationContext(const OrvClientCommunicationContext&) = delete;
    OrvClientCommunicationContext& operator=(const OrvClientCommunicationContext&) = delete;

    /// Used from the next init() on. Without one nothing is logged.
    void setLoggerFactory(std::shared_ptr<utility::ILoggerFactory> loggerFactory);
    /// What matters less is not logged. Used from the next init() on.
    void setLogLevel(utility::ILogger::LogLevel level);
    /// What sessions are made with; see getHttpConfig(). Used from the next init() on.
    void setHttpConfig(HttpConfig config);

    /// Starts the I/O thread; does nothing while it runs. Sessions made before work from here on.
    /// Throws utility::OrvFoundationException when the HTTP configuration makes no sense or
    /// descriptors ran out, and std::system_error when the thread cannot be made.
    void init();

    /// Gives up every outstanding request without calling its handler, closes every connection and
    /// ends the I/O thread. When it returns no handler runs any more; it takes at most a second
    /// beside a handler that is running. Inside a handler it does not wait for that handler.
    /// Sessions stay and work again after the next init(); what is sent meanwhile is dropped.
    /// In a forked child it does nothing, and leaks.
    void deinit();

    /// A copy of the HTTP configuration, for new sessions.
    HttpConfig getHttpConfig() const;
    /// Lives as long as the context.
    IClientHttpFactory& getClientHttpFactory() const;
    /// A session that answers each request with NoSession, on the I/O thread like any other.
    std::shared_ptr<IClientHttpSession> getUnavailableSession() const;
    /// For new sessions to report to. Never null.
    std::shared_ptr<HealthCheck> getHealthCheck() const;
    /// As getHealthCheck(). They are those of the HTTP configuration, or, without, the context's
    /// own.
    std::shared_ptr<ClientStatistics> getClientStatistics() const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace orvx::communication
