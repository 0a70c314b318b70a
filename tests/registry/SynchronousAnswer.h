#pragma once

#include <optional>

#include "Dispatcher.h"
#include "RequestHandler.h"

namespace orvx::registry {

/// The reaction of a dispatcher that uses its own store, which reacts from inside the call.
inline Reaction reactionOf(Dispatcher& dispatcher, const Request& request,
                           const Caller& caller = {}) {
    std::optional<Reaction> reaction;
    dispatcher.react(request, caller, [&reaction](Reaction made) { reaction = std::move(made); });
    return std::move(reaction).value();
}

/// The answer from that store, with its complete body.
inline Response answerOf(EntryStore& store, const Request& request) {
    LocalBackend backend(store);
    std::optional<Response> response;
    answer(backend, request, {}, [&](Answer made) {
        while (made.rest && !made.rest->isDone()) {
            made.response.body() += made.rest->next(store).value();
        }
        if (made.rest) {
            made.response.prepare_payload();
        }
        response = std::move(made.response);
    });
    return std::move(response).value();
}

}  // namespace orvx::registry
