#pragma once

#include <vector>

/// The programs of a page of the documentation, each as a function.
using Programs = std::vector<void (*)()>;

extern const Programs guide;
extern const Programs howto_replicas;
extern const Programs howto_testing;
extern const Programs howto_tls;

/// What stands in the programs in place of the port that a registry listens at by default.
extern unsigned short portOfTheRegistry;
