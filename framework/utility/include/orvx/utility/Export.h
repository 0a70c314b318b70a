#pragma once

/// Marks what a shared library of this framework offers to its users; all else stays hidden.
#define ORVX_EXPORT __attribute__((visibility("default")))
