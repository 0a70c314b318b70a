#pragma once

#include "OrvServiceRegistryClient.h"

#include <mutex>
#include <new>
#include <utility>

namespace orvx::serviceregistryclient {

/// What a synchronous registration of a set has gathered so far.
struct ServiceCollectionSyncRegistryData {
    std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse> responses;
    /// Eight bits wide, on purpose: it never reaches a count of 256 or more.
    std::uint8_t answeredCount = 0;
    bool allSucceeded = true;

    static SyncOrvRegistrationResponse entry(OrvRegistrationResponse response) {
        return {std::move(response), {}};
    }
};

/// What a synchronous withdrawal of all services has gathered so far.
struct ServiceCollectionRegistryData {
    std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse> responses;
    /// As above.
    std::uint8_t answeredCount = 0;
    bool allSucceeded = true;

    static OrvRegistrationResponse entry(OrvRegistrationResponse response) { return response; }
};

/// One synchronous call over several services: gathers their answers and wakes the caller at the
/// last one. The caller alone owns it; the callbacks know it weakly, so an answer that comes after
/// the call has returned does nothing.
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
                data->allSucceeded = false;  // it is missing, but counts: somebody waits
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
