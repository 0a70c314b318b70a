#pragma once

#include <functional>

namespace orvx::testing {

/// Runs `work` in a forked child, which then calls exit(). Returns its wait status. An alarm ends a
/// child that hangs.
int statusOfChild(const std::function<void()>& work);

}  // namespace orvx::testing
