#pragma once

#include <chrono>

namespace orvx::testing {

/// The longest time that a stop may take, also of instrumented code on a busy machine. It is below
/// the shortest time-out that a wrong stop would wait for, that of a connection: 5 s.
inline constexpr std::chrono::milliseconds kStopBound{4000};

}  // namespace orvx::testing
