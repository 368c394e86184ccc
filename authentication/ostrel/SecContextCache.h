// The process-wide store of finished security contexts by key, and its cleaner.
#pragma once

#include "StaticToken.h"
#include "foundation/Containers.h"
#include "foundation/Locks.h"
#include "foundation/Threads.h"

namespace ostrel {

class SecContextCache;

// Once a minute removes what has expired (unless impersonated) and gives the
// rest a chance to renew.
class SecContextUpdateThread : public TerminatingThread {
public:
    static constexpr int s_nPeriodMs = 60000;

    explicit SecContextUpdateThread(SecContextCache* i_pCache) : m_pCache(i_pCache) {}
    ~SecContextUpdateThread() override;

    // One scan.
    void CleanUp();

protected:
    void run() override;

private:
    SecContextCache* m_pCache;  // the cache owns the thread and outlives it
};

class SecContextCache : public CRefCount {
public:
    explicit SecContextCache(bool i_bStartThread);

    SWCharString Insert(CSmartRefCountPtr<StaticToken>& i_pToken);
    void Impersonate(const SWCharString& i_ssKey);
    void Revert(const SWCharString& i_ssKey);
    bool AddAssociation(const SWCharString& i_ssKey, const SWCharString& i_ssNewKey);
    bool Lookup(const SWCharString& i_ssKey);
    bool Release(const SWCharString& i_ssKey);
    void ReleaseAll();
    bool Remove(const SWCharString& i_ssKey, CSmartRefCountPtr<StaticToken>& o_pToken);
    void StartUpdateThread();
    void StopUpdateThread();

    uint64_t GetCount();
    bool IsUpdateThreadRunning();
    // Test seam: wakes the cleaner so that its next scan runs now, not in a minute.
    void WakeUpdateThreadForTesting();

protected:
    ~SecContextCache() override;

private:
    friend class SecContextUpdateThread;

    SIMap<SWCharString, CSmartRefCountPtr<StaticToken>> m_mapCachedContexts;
    CRWLock m_Lock;
    JTCHandleT<TerminatingThread> m_hUpdateThread;
    CS_Wrapper m_csUpdateThread;
};

}  // namespace ostrel
