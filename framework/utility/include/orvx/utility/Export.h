#pragma once

/// Marks what a shared library of this framework offers to its users; all else stays hidden.
#define ORVX_EXPORT __attribute__((visibility("default")))
/// Marks a member of an exported class that only the library itself calls.
#define ORVX_HIDDEN __attribute__((visibility("hidden")))
