#pragma once

#include <boost/asio/ip/address.hpp>
#include <string>

#include "Entry.h"

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
    Owner owner{};
    bool mayRenew = true;  ///< whether a HEAD of an entry is a check of it
};

}  // namespace orvx::registry
