#include "ContextManager.h"

#include "SSOException.h"
#include "foundation/Trace.h"

namespace ostrel {

ContextManager::ContextManager(const CSmartRefCountPtr<SecContextCache>& i_pContextCache)
    : m_pContextCache(i_pContextCache) {
    SASSERT(m_pContextCache != nullptr, "m_pContextCache");
    if (m_pContextCache == nullptr) {
        throw SSOException(STATUS_FAILURE);
    }
}

}  // namespace ostrel
