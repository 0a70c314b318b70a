#pragma once

#include "Address.h"

#include <cstddef>

namespace orvx::communication {

/// The addresses of one name, in the order in which they are tried: first those without a known
/// failure, then those that gave no answer, the oldest failure first.
///
/// Thread-safety: none. Functions do not throw.
class AddressList {
  public:
    const Addresses& inOrder() const { return addresses_; }

    /// Replaces the addresses by the result of a look-up. Addresses that gave no answer stay at the
    /// end.
    void replace(Addresses found) noexcept;
    /// Moves an address that accepted a connection to the front.
    void prefer(const Address& address) noexcept;
    /// Moves an address that gave no answer to the end. Returns false if there is no other.
    bool avoid(const Address& address) noexcept;

  private:
    Addresses::iterator firstAvoided() {
        return addresses_.end() - static_cast<std::ptrdiff_t>(avoided_);
    }

    Addresses addresses_;
    std::size_t avoided_ = 0;  // The number of addresses at the end that gave no answer.
};

}  // namespace orvx::communication
