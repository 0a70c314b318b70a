// A client with short times, and the information about its checks in its log.
//
// Threads: the client's threads write the log, and the users' threads read it; mutex_, a leaf lock,
// guards its set. The rest belongs to the thread that owns the announcer.

#include "Announcer.h"

#include <utility>

namespace orvx::stress {

using serviceregistryclient::ClientTestAccess;
using serviceregistryclient::OrvServiceRegistryClient;
using utility::MutexLock;

namespace {

class LoggerFactory final : public utility::ILoggerFactory {
  public:
    explicit LoggerFactory(std::shared_ptr<CheckLog> log) : log_(std::move(log)) {}

    std::shared_ptr<utility::ILogger> createLogger(const std::string& /*component*/,
                                                   const std::string& /*name*/) override {
        return std::make_shared<Logger>(log_);
    }
    void flush() override {}
    utility::ILogger::LogLevel getLogLevel() const override {
        return utility::ILogger::LogLevel::Info;
    }
    void setLogLevel(utility::ILogger::LogLevel /*level*/) override {}

  private:
    class Logger final : public utility::ILogger {
      public:
        explicit Logger(std::shared_ptr<CheckLog> log) : log_(std::move(log)) {}
        void log(const std::string& text, int /*level*/) override { log_->note(text); }
        bool isEnabled(LogLevel level) const override { return level <= LogLevel::Info; }

      private:
        const std::shared_ptr<CheckLog> log_;
    };

    const std::shared_ptr<CheckLog> log_;
};

}  // namespace

void CheckLog::note(const std::string& line) {
    static const std::string kNotRegistered =
        "sendHeadRequest called but service is not REGISTERED. id=";
    if (line == "callback: Head State TIMEOUT") {
        ++timeOuts_;
    } else if (line == "TIMEOUT on head request, ignore response.") {
        ++ignored_;
    } else if (line.rfind(kNotRegistered, 0) == 0) {
        const MutexLock lock(mutex_);
        endedByWithdrawal_.insert(std::stoull(line.substr(kNotRegistered.size())));
    }
}

std::set<std::uint64_t> CheckLog::endedByWithdrawal() const {
    const MutexLock lock(mutex_);
    return endedByWithdrawal_;
}

Announcer::Announcer(Ledger& ledger, const Options& options) : ledger_(ledger), options_(options) {
    communication::HttpConfig http;
    http.requestTimeout = kRequestTimeout;
    http.connectTimeout = kRequestTimeout / 2;
    http.connectionsPerEndpoint = options.connections;
    context_.setHttpConfig(http);
    context_.setLoggerFactory(std::make_shared<LoggerFactory>(log_));
    context_.setCheckInterval(kCheckInterval);
    context_.setRetryInterval(kRetryInterval);
    context_.setInitialMaxRetryCount(options.maxRetryCount);
    context_.setHeadTimeout(options.headTimeout);
    context_.setSyncCallUnregisterTimeout(options.unregisterTimeout);
    context_.enableResilience(options.resilience);
    context_.init();
    replaceListener();
}

void Announcer::replaceListener() {
    client().addServiceRegisterStatusListener(ledger_.listener(mark_));
}

ClientTestAccess Announcer::access() {
    return ClientTestAccess(static_cast<OrvServiceRegistryClient&>(client()));
}

std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> Announcer::held() {
    return access().services();
}

std::size_t Announcer::heldCount() {
    return registrations().size();
}

std::chrono::milliseconds Announcer::stop() {
    return stop([this] { context_.deinit(); });
}

std::chrono::milliseconds Announcer::pause() {
    return stop([this] { static_cast<OrvServiceRegistryClient&>(client()).deinit(); });
}

void Announcer::resume() {
    *mark_ = false;
    static_cast<OrvServiceRegistryClient&>(client()).init();
}

// With resilience a stop answers waiting callers.
std::chrono::milliseconds Announcer::stop(const std::function<void()>& end) {
    const auto begin = std::chrono::steady_clock::now();
    const Ledger::Caller caller(options_.resilience);
    end();
    *mark_ = true;
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

}  // namespace orvx::stress
