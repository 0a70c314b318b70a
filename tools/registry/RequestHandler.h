#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Caller.h"
#include "EntryStore.h"
#include "EntryWriter.h"

namespace orvx::registry {

using Request = boost::beast::http::request<boost::beast::http::string_body>;
using Response = boost::beast::http::response<boost::beast::http::string_body>;

/// What belongs to an answer beside the response.
struct AnswerExtras {
    std::string remark{};  ///< what the log is to say of the request
    /// Has what follows the body of the response, whose length is not known then.
    std::optional<EntryWriter> rest{};
};

/// What the registry answers to a request that arrived whole, ready to be sent. Every answer is
/// JSON; one to HEAD has neither a body nor its length. Reports on stderr when the store's file
/// fails. `extras`: may be null; the body is whole then.
///
/// Thread-safety: that of `store`. No sockets are involved.
Response answer(EntryStore& store, const Request& request, const Caller& caller = {},
                AnswerExtras* extras = nullptr);

/// What that writer writes: the first piece, or all if `extras` is null.
Response write(const EntryStore& store, EntryWriter writer, AnswerExtras* extras);

/// An answer with that text in JSON.
Response makeResponse(boost::beast::http::status status, const nlohmann::json& body);

/// An answer `{"error": why}`.
Response failure(boost::beast::http::status status, std::string_view why);

/// The answer to a method other than the four.
Response methodNotAllowed();

}  // namespace orvx::registry
