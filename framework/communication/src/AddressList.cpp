// Keeps the addresses of a host name in the order in which they are tried.
// Runs on the I/O thread only; there is no lock. The search is linear: a name has at most 64
// addresses, and they are searched when a connection is made or ends without an answer, not for
// each request.

#include "AddressList.h"

#include <algorithm>
#include <utility>

namespace orvx::communication {

void AddressList::replace(Addresses found) noexcept {
    auto end = found.end();
    for (auto avoided = firstAvoided(); avoided != addresses_.end(); ++avoided) {
        const auto again = std::find(found.begin(), end, *avoided);
        if (again != end) {
            std::rotate(again, again + 1, found.end());
            --end;
        }
    }
    avoided_ = static_cast<std::size_t>(found.end() - end);
    addresses_ = std::move(found);
}

void AddressList::prefer(const Address& address) noexcept {
    const auto accepting = std::find(addresses_.begin(), addresses_.end(), address);
    if (accepting != addresses_.end()) {
        avoided_ -= accepting < firstAvoided() ? 0 : 1;
        std::rotate(addresses_.begin(), accepting, accepting + 1);
    }
}

bool AddressList::avoid(const Address& address) noexcept {
    const auto silent = std::find(addresses_.begin(), addresses_.end(), address);
    if (silent == addresses_.end()) {
        return !addresses_.empty();
    }
    avoided_ += silent < firstAvoided() ? 1 : 0;
    std::rotate(silent, silent + 1, addresses_.end());
    return addresses_.size() > 1;
}

}  // namespace orvx::communication
