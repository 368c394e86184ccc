// The front for everything a host does with a finished context by key.
#pragma once

#include "SecContextCache.h"

namespace ostrel {

class ContextManager : public CRefCount {
public:
    explicit ContextManager(const CSmartRefCountPtr<SecContextCache>& i_pContextCache);

    void Impersonate(const SWCharString& i_ssKey) { m_pContextCache->Impersonate(i_ssKey); }
    void Revert(const SWCharString& i_ssKey) { m_pContextCache->Revert(i_ssKey); }
    bool Associate(const SWCharString& i_ssKey, const SWCharString& i_ssNewKey) {
        return m_pContextCache->AddAssociation(i_ssKey, i_ssNewKey);
    }
    bool Lookup(const SWCharString& i_ssKey) { return m_pContextCache->Lookup(i_ssKey); }
    bool Release(const SWCharString& i_ssKey) { return m_pContextCache->Release(i_ssKey); }
    void ReleaseAll() { m_pContextCache->ReleaseAll(); }
    void StartUpdateThread() { m_pContextCache->StartUpdateThread(); }
    void StopUpdateThread() { m_pContextCache->StopUpdateThread(); }

protected:
    ~ContextManager() override = default;

private:
    CSmartRefCountPtr<SecContextCache> m_pContextCache;
};

}  // namespace ostrel
