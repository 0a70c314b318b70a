#include <cstdint>  // Boost 1.83 uses std::uint32_t without it

#include <boost/beast/src.hpp>
