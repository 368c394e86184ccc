// The process-wide store of finished security contexts by key, and its cleaner.
#pragma once

#include <atomic>
#include <cstddef>

#include "ContextTable.h"
#include "StaticToken.h"
#include "foundation/Containers.h"
#include "foundation/Locks.h"
#include "foundation/Threads.h"

namespace ostrel {

class SecContextCache;

// Once a minute removes what has expired (unless impersonated) and gives the
// rest a chance to renew. It walks the cache in short slices, so that no lock
// is held for long however many contexts there are.
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
    struct SliceEntry;
    template <class Slice>
    bool ScanSlices(const SDateTime& i_now, Slice&& i_nextSlice);

    SecContextCache* m_pCache;  // the cache owns the thread and stops it before it goes
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

    // Keys that are the decimal text of a number live by that number, spread
    // over shards so that look-ups on many threads rarely meet on one lock.
    static constexpr size_t kShards = 64;
    struct alignas(64) Shard {
        CRWLock m_Lock;
        ContextTable m_table;
    };
    // Where a key lives: a shard and the key's mixed number, or the map of other texts.
    struct Place {
        Shard* pShard = nullptr;
        uint64_t nMixed = 0;
    };
    Place PlaceOf(const SWCharString& i_ssKey);
    CRWLock& LockOf(const Place& i_place) { return i_place.pShard != nullptr ? i_place.pShard->m_Lock : m_Lock; }
    // Under the place's lock.
    StaticToken* FindAt(const Place& i_place, const SWCharString& i_ssKey);
    CSmartRefCountPtr<StaticToken> TakeAt(const Place& i_place, const SWCharString& i_ssKey);
    // Gives back the token the key held before, if any.
    CSmartRefCountPtr<StaticToken> PutAt(const Place& i_place, const SWCharString& i_ssKey,
                                         const CSmartRefCountPtr<StaticToken>& i_pToken);
    static SWCharString KeyText(uint64_t i_nMixed);

    Shard m_arrShards[kShards];
    std::atomic<uint64_t> m_nCount{0};
    SIMap<SWCharString, CSmartRefCountPtr<StaticToken>> m_mapCachedContexts;  // the other texts
    CRWLock m_Lock;  // guards m_mapCachedContexts
    JTCHandleT<TerminatingThread> m_hUpdateThread;
    CS_Wrapper m_csUpdateThread;
};

}  // namespace ostrel
