#include "SSOSession.h"

#include "Keys.h"
#include "SSOException.h"
#include "foundation/Trace.h"

namespace ostrel {

SSOSession::SSOSession(const ParasSeq* i_pParas)
    : m_ssProvider(OSTREL_T("Undefined")), m_Parameters(i_pParas), m_nId(NewKey()) {}

SSOSession::SessionIdentifier::SessionIdentifier(const SWCharString& i_ssKey) {
    uint64_t nValue = 0;
    if (!ToUInt64(i_ssKey, nValue)) {
        STRACE("ssoplugin: SSOSession::SessionIdentifier::SessionIdentifier() -- Could not convert %1 to a number.",
               i_ssKey);
        throw SSOException(STATUS_FAILURE);
    }
    m_nId = nValue;
}

SWCharString SSOSession::SessionIdentifier::ToString() const {
    return SWCharStringConv::ToString(static_cast<unsigned long long>(m_nId), 10);
}

}  // namespace ostrel
