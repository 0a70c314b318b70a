#pragma once

#include "AddressList.h"
#include "Request.h"
#include "Resolver.h"

#include <optional>

namespace orvx::communication {

/// The addresses to which one endpoint connects: fixed ones, or the result of a look-up, which is
/// kept for a while.
///
/// For the I/O thread only. Functions do not throw unless stated.
class EndpointAddresses {
  public:
    /// The arguments must outlive it.
    EndpointAddresses(const EndpointSettings& settings, Resolver& resolver)
        : settings_(settings), resolver_(resolver) {}

    /// Whether the addresses are known. If not, starts a look-up unless one is under way. Throws
    /// std::bad_alloc, or std::system_error if the thread of the look-up cannot be made.
    bool find();
    /// Takes the result of a look-up. Nothing if none is awaited, or if it is for another name.
    std::optional<CommunicationStatus> take(const Resolver::LookUp& lookUp);
    /// No connection could be made: the addresses may have changed, and must be found again.
    void doubt();

    /// The addresses in the order in which they are tried.
    const Addresses& inOrder() const { return list_.inOrder(); }
    void prefer(const Address& address) { list_.prefer(address); }
    /// Returns false if there is no other address.
    bool avoid(const Address& address) { return list_.avoid(address); }

  private:
    std::optional<Addresses> fixed() const;
    void set(Addresses found);

    const EndpointSettings& settings_;
    Resolver& resolver_;
    AddressList list_;
    Clock::time_point end_ = Clock::time_point::min();
    bool isLookingUp_ = false;
};

}  // namespace orvx::communication
