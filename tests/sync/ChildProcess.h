#pragma once

#include <gtest/gtest.h>

#include <functional>

namespace orvx::testing {

/// To be called by a child at the point from which on nothing but a return could still happen.
using Report = std::function<void()>;

/// Runs `call` in a child process, and succeeds when it has reported but not returned a while
/// after, long enough for any return. The child is killed in the end. To be used while this process
/// has no threads but the caller's.
::testing::AssertionResult neverReturns(const std::function<void(const Report&)>& call);

}  // namespace orvx::testing
