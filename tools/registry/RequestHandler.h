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
    /// Writes the remainder of the response's body, whose length is unknown.
    std::optional<EntryWriter> rest{};
    std::string remark{};  ///< an additional field of the log line; may be empty
    /// The change that was carried out, with the last state of the entry.
    std::optional<std::pair<Change, Entry>> change{};
};

/// Answers a request that arrived whole. Every answer is JSON; one to HEAD has neither a body nor
/// its length. Reports on stderr when the store's file fails. `done`: called once, from inside the
/// call or later, as the backend does; `backend` has to exist until then, the other arguments need
/// not.
///
/// Thread-safety: that of `backend`. No sockets are involved.
void answer(EntryBackend& backend, const Request& request, const Caller& caller,
            std::function<void(Answer)> done);

/// The answer that the writer writes.
Answer write(const EntryStore& store, EntryWriter writer);

/// An answer with that text in JSON.
Response makeResponse(boost::beast::http::status status, const nlohmann::json& body);

/// An answer `{"error": why}`.
Response failure(boost::beast::http::status status, std::string_view why);

/// Makes an answer one to HEAD: without a body and without its length.
void dropBody(Response& response);

/// The answer to what a token does not allow.
Response forbidden(std::string_view what);

/// The answer while the place where the entries are kept does not answer.
Response unavailable();

/// The answer to a method other than the four.
Response methodNotAllowed();

}  // namespace orvx::registry
