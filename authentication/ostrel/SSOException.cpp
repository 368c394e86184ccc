#include "SSOException.h"

namespace ostrel {

const SSOException g_OutOfMemoryException(STATUS_OUT_OF_MEMORY, MSG_OUT_OF_MEMORY);

SSOException MakeSSOException(uint32_t i_nStatus, uint32_t i_nMessageId, const SWCharString& i_ssSubst) {
    SIArray<SWCharString> arrSubst;
    arrSubst.Add(i_ssSubst);
    return SSOException(i_nStatus, i_nMessageId, arrSubst);
}

}  // namespace ostrel
