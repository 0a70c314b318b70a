// With resilience: selects the next request of an entry and sends it. Entered by the user's
// threads, the timer's thread and the I/O thread, under the lock.

#include "ResilientRecords.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>
#include <new>

namespace orvx::serviceregistryclient {

/// Called after a change of the wanted state: makes a request that is needed now due at once.
/// Throws nothing, because the change stays: if memory runs out, the callback thread continues.
void OrvServiceRegistryClient::ResilientUpkeep::wantedChangedLocked(Entry& entry) {
    const Request next = nextRequest(entry);
    if (entry.outstanding == Request::None && (next == Request::Put || next == Request::Delete)) {
        planLocked(entry, std::max(now(), entry.notBefore));
    }
    try {
        reconcileLocked(entry);
    } catch (const std::bad_alloc&) {
        if (entry.outstanding == Request::None && next != Request::Put && next != Request::Delete) {
            planLocked(entry, now());
        }
    }
    try {
        armLocked();
    } catch (const std::bad_alloc&) {
        client_.callbackExecutor.add(std::move(retryTask_));
    }
}

/// Sends the next request if it is due. `reason` is the answer that caused the call.
void OrvServiceRegistryClient::ResilientUpkeep::reconcileLocked(Entry& entry,
                                                                const HttpResponse* reason) {
    if (entry.outstanding == Request::Put || entry.outstanding == Request::Delete) {
        return;
    }
    removeWithdrawnLocked(entry, reason);
    const Request next = nextRequest(entry);
    if (entry.members.empty() && next == Request::None) {
        eraseLocked(entry);
        return;
    }
    if (entry.outstanding == Request::Head) {
        if (next == Request::Head) {
            return;
        }
        entry.outstanding = Request::None;  // its answer will be ignored
        planLocked(entry, std::max(now(), entry.notBefore));
    }
    if (next == Request::None) {
        planLocked(entry, kNever);
    } else if (entry.due->first <= now()) {
        try {
            sendLocked(entry, next);
        } catch (const std::bad_alloc&) {
            planLocked(entry, now() + Milliseconds(10));
        }
    }
}

OrvServiceRegistryClient::ResilientUpkeep::Request
OrvServiceRegistryClient::ResilientUpkeep::nextRequest(const Entry& entry) const {
    const Member* const latest = latestWanted(entry);
    if (latest == nullptr) {
        return entry.known == Known::Present   ? Request::Delete
               : entry.known == Known::Unknown ? Request::Put
                                               : Request::None;
    }
    if (entry.known != Known::Present || entry.held != latest->first) {
        return Request::Put;
    }
    return client_.context.isCheckEnabled() ? Request::Head : Request::None;
}

/// The latest registration that is not withdrawn; null if there is none.
OrvServiceRegistryClient::ResilientUpkeep::Member*
OrvServiceRegistryClient::ResilientUpkeep::latestWanted(const Entry& entry) {
    const auto latest = std::find_if(entry.members.rbegin(), entry.members.rend(),
                                     [](const Member* member) ORVX_REQUIRES(ORVX_CLIENT_LOCK) {
                                         return !member->second.withdrawn;
                                     });
    return latest == entry.members.rend() ? nullptr : *latest;
}

void OrvServiceRegistryClient::ResilientUpkeep::sendLocked(Entry& entry, Request request) {
    const std::uint32_t number = entry.number + 1;
    const auto shared = entry.shared_from_this();
    if (request == Request::Put) {
        const Member* const latest = latestWanted(entry);
        const Member& member = latest != nullptr ? *latest : *entry.members.back();
        const auto container = member.second.request;
        client_.usableSessionLocked(*container->serviceInfo)
            ->sendPutRequestJson(*container->uri, container->body->data(), container->body->size(),
                                 [this, shared, number, container](const HttpResponse& response) {
                                     handlePut(shared, number, response);
                                 });
        entry.sent = member.first;
        entry.held = 0;
    } else if (request == Request::Head) {
        client_.usableSessionLocked(*entry.endpoint.info)
            ->sendHeadRequestWithin(headTimeout(), "/" + entry.uuid,
                                    [this, shared, number](const HttpResponse& response) {
                                        handleHead(shared, number, response);
                                    });
        entry.mustRecheck = false;
    } else {
        client_.usableSessionLocked(*entry.endpoint.info)
            ->sendDeleteRequest("/" + entry.uuid, "application/json",
                                [this, shared, number](const HttpResponse& response) {
                                    handleDelete(shared, number, response);
                                });
        entry.held = 0;
    }
    entry.isOrderUnknown = false;
    entry.number = number;
    entry.outstanding = request;
    for (Member* const member : entry.members) {
        member->second.facts.requestSent();
    }
    planLocked(entry, request == Request::Head ? now() + headTimeout() : kNever);
}

}  // namespace orvx::serviceregistryclient
