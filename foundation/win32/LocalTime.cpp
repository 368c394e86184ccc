#include "foundation/LocalTime.h"

#include <time.h>

namespace Tarvik500 {

bool BreakDownLocalTime(int64_t i_nTimeT, std::tm& o_fields) {
    const __time64_t t = static_cast<__time64_t>(i_nTimeT);
    return _localtime64_s(&o_fields, &t) == 0;
}

}  // namespace Tarvik500
