#include "foundation/LocalTime.h"

#include <time.h>

namespace Tarvik500 {

bool BreakDownLocalTime(int64_t i_nTimeT, std::tm& o_fields) {
    const time_t t = static_cast<time_t>(i_nTimeT);
    return localtime_r(&t, &o_fields) != nullptr;
}

}  // namespace Tarvik500
