#pragma once

#include <cstdint>

namespace orvx::serviceregistryclient {

/// The states of a registration, repeated here so that tests notice a change of their values.
namespace state {
constexpr std::uint32_t registering = 0;
constexpr std::uint32_t reregistering = 1;
constexpr std::uint32_t registered = 2;
constexpr std::uint32_t unregistering = 3;
/// Never set; handled like unregistering.
constexpr std::uint32_t alsoUnregistering = 4;
constexpr std::uint32_t created = 5;
}  // namespace state

/// The states of the status check.
namespace check {
constexpr std::uint32_t idle = 0;
constexpr std::uint32_t timeout = 1;
constexpr std::uint32_t responded = 2;
constexpr std::uint32_t pending = 3;
}  // namespace check

}  // namespace orvx::serviceregistryclient
