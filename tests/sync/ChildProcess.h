#pragma once

#include <gtest/gtest.h>

#include <functional>

namespace orvx::testing {

/// Called by a child when everything has happened except a return from its call.
using Report = std::function<void()>;

/// Runs `call` in a child process. Succeeds if the child has reported, and its call has not
/// returned within a time that is long enough for any return. Kills the child in the end. This
/// process must have no thread except the caller's.
::testing::AssertionResult neverReturns(const std::function<void(const Report&)>& call);

}  // namespace orvx::testing
