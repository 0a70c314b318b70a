#pragma once

/// Marks the symbols that a shared library exports; all others are hidden.
#define ORVX_EXPORT __attribute__((visibility("default")))
/// Marks a member of an exported class that only the library itself calls.
#define ORVX_HIDDEN __attribute__((visibility("hidden")))
