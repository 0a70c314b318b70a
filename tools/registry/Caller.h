#pragma once

#include <boost/asio/ip/address.hpp>
#include <memory>
#include <string>
#include <string_view>

#include "Entry.h"
#include "Tokens.h"

namespace orvx::registry {

/// The other side of a connection.
struct Peer {
    boost::asio::ip::address address{};
    std::string certificate{};  ///< the subject of its certificate, which was verified; or empty
};

/// The client that sends a request.
struct Caller {
    std::string name{};  ///< of the token or the certificate; empty if the request has neither
    std::string address{};
    std::shared_ptr<const Token> token{};  ///< null if the registry needs no tokens

    Owner owner() const { return token ? token->owner() : Owner{}; }
    bool mayRead() const { return !token || token->mayRead; }
    /// Whether the caller may renew, replace and withdraw the entry of that path.
    bool mayAnnounce(std::string_view path) const { return !token || token->mayAnnounce(path); }
};

}  // namespace orvx::registry
