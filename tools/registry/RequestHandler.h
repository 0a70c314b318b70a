#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Caller.h"
#include "EntryBackend.h"
#include "EntryWriter.h"

namespace orvx::registry {

using Request = boost::beast::http::request<boost::beast::http::string_body>;
using Response = boost::beast::http::response<boost::beast::http::string_body>;

/// The answer to a request.
struct Answer {
    Response response;
    /// Writes the rest of the response's body, whose length is unknown.
    std::optional<EntryWriter> rest{};
    std::string remark{};  ///< an additional field of the log line; may be empty
    /// The change that was carried out, with the last state of the entry.
    std::optional<std::pair<Change, Entry>> change{};
};

/// Answers a complete request. Every answer is JSON; an answer to HEAD has neither a body nor a
/// Content-Length. Reports on stderr when the store's file fails. `done`: called once, from inside
/// the call or later, as the backend does. `backend` must exist until then; the other arguments
/// need not.
///
/// Thread-safety: that of `backend`. No sockets are involved.
void answer(EntryBackend& backend, const Request& request, const Caller& caller,
            std::function<void(Answer)> done);

/// An answer whose body the writer writes.
Answer write(const EntryStore& store, EntryWriter writer);

/// An answer with that value as JSON.
Response makeResponse(boost::beast::http::status status, const nlohmann::json& body);

/// An answer `{"error": why}`.
Response failure(boost::beast::http::status status, std::string_view why);

/// Turns an answer into an answer to HEAD, without a body and a Content-Length.
void dropBody(Response& response);

/// The answer 403: the token does not allow `what`, a verb such as "read".
Response forbidden(std::string_view what);

/// The answer 503, for a time in which etcd does not answer.
Response unavailable();

/// The answer 405, for a method other than GET, HEAD, PUT and DELETE.
Response methodNotAllowed();

}  // namespace orvx::registry
