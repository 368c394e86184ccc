// The one piece of local-time handling the C library does not offer portably.
#pragma once

#include <cstdint>
#include <ctime>

namespace Tarvik500 {

// Breaks seconds since 1970 down into local fields; false when the C library cannot.
bool BreakDownLocalTime(int64_t i_nTimeT, std::tm& o_fields);

}  // namespace Tarvik500
