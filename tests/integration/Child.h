#pragma once

#include <functional>

namespace orvx::testing {

/// Runs `work` in a forked child, which then leaves through exit(); its wait status. A child that
/// hangs is ended by an alarm.
int statusOfChild(const std::function<void()>& work);

}  // namespace orvx::testing
