#pragma once

#include "OrvServiceRegistryClient.h"

#include <mutex>
#include <new>
#include <utility>

namespace orvx::serviceregistryclient {

/// The result of a synchronous registration of a set, while it is collected.
struct ServiceCollectionSyncRegistryData {
    std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse> responses;
    /// Intentionally eight bits wide: a count of 256 or more is never reached.
    std::uint8_t answeredCount = 0;
    bool allSucceeded = true;

    static SyncOrvRegistrationResponse entry(OrvRegistrationResponse response) {
        return {std::move(response), {}};
    }
};

/// The result of a synchronous withdrawal of all services, while it is collected.
struct ServiceCollectionRegistryData {
    std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse> responses;
    /// Intentionally eight bits wide: a count of 256 or more is never reached.
    std::uint8_t answeredCount = 0;
    bool allSucceeded = true;

    static OrvRegistrationResponse entry(OrvRegistrationResponse response) { return response; }
};

/// One synchronous call for several services: collects their answers and wakes the caller with the
/// last one. Only the caller owns the state; callbacks hold weak references, so an answer after the
/// return of the call does nothing.
template <typename Data>
class ServiceCollectionCall {
  public:
    using ServiceCallback = IOrvServiceRegistryClient::ServiceCallback;
    using Promise = std::shared_ptr<std::promise<OrvRegistrationResponse>>;
    using Result = std::pair<bool, decltype(Data::responses)>;

    ServiceCallback collector(Promise promise, std::uint64_t count) const {
        return [weakMutex = std::weak_ptr(mutex_), weakData = std::weak_ptr(data_),
                promise = std::move(promise), count](std::shared_ptr<common::ServiceModel> service,
                                                     OrvRegistrationResponse response) {
            const auto mutex = weakMutex.lock();
            if (!mutex) {
                return;
            }
            const std::lock_guard lock(*mutex);
            const auto data = weakData.lock();
            if (!data) {
                return;
            }
            data->allSucceeded &= response.status == OrvRegistrationResponse::OK;
            try {
                data->responses.insert_or_assign(std::move(service),
                                                 Data::entry(std::move(response)));
            } catch (const std::bad_alloc&) {
                // The answer is missing, but counts, because a caller waits.
                data->allSucceeded = false;
            }
            if (++data->answeredCount == count) {
                promise->set_value({OrvRegistrationResponse::OK, OrvRegistrationResponse::NONE});
            }
        };
    }

    Result take(const OrvRegistrationResponse& waited) const {
        const std::lock_guard lock(*mutex_);
        return {waited.status == OrvRegistrationResponse::OK && data_->allSucceeded,
                std::exchange(data_->responses, {})};
    }

  private:
    std::shared_ptr<std::mutex> mutex_ = std::make_shared<std::mutex>();
    std::shared_ptr<Data> data_ = std::make_shared<Data>();
};

}  // namespace orvx::serviceregistryclient
