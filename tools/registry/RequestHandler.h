#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string_view>

#include "EntryStore.h"

namespace orvx::registry {

using Request = boost::beast::http::request<boost::beast::http::string_body>;
using Response = boost::beast::http::response<boost::beast::http::string_body>;

/// What the registry answers to a request that arrived whole, ready to be sent. Every answer is
/// JSON; one to HEAD has neither a body nor its length.
///
/// Thread-safety: that of `store`. No sockets are involved.
Response answer(EntryStore& store, const Request& request);

/// An answer `{"error": why}`.
Response failure(boost::beast::http::status status, std::string_view why);

}  // namespace orvx::registry
