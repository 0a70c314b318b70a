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

/// Who makes a request.
struct Caller {
    std::string name{};  ///< of the token, or of the certificate; empty: nobody says
    std::string address{};
    std::shared_ptr<const Token> token{};  ///< null: none is needed

    Owner owner() const { return token ? token->owner() : Owner{}; }
    bool mayRead() const { return !token || token->mayRead; }
    /// Whether the caller may renew, replace and withdraw the entry of that path.
    bool mayAnnounce(std::string_view path) const { return !token || token->mayAnnounce(path); }
};

}  // namespace orvx::registry
