#include "SecContextCache.h"

#include <cstring>
#include <new>
#include <optional>
#include <typeinfo>
#include <vector>

#include "Keys.h"
#include "SSOException.h"
#include "foundation/Trace.h"
#include "ostrel_platform/ITokenApi.h"

namespace ostrel {

namespace {

// The most a cache lock is held for by a scan: one slice of this many entries.
constexpr size_t kSliceEntries = 256;

// The thread library names its exceptions by class; a host thread it has never
// seen shows up as this one.
bool IsUnknownThreadException(const JTCException& i_exception) {
    return std::strstr(typeid(i_exception).name(), "JTCUnknownThreadException") != nullptr;
}

// The one expiry test: the mechanism's verdict first, then the configured limit.
bool IsValid(StaticToken* i_pToken) {
    return i_pToken != nullptr && !i_pToken->IsExpired(SDateTime::GetCurrentDateTime());
}

// A new reference of the caller's own to a token the cache holds.
CSmartRefCountPtr<StaticToken> Retain(StaticToken* i_pToken) {
    if (i_pToken != nullptr) {
        i_pToken->addRef();
    }
    return CSmartRefCountPtr<StaticToken>(i_pToken);
}

}  // namespace

// ---------------------------------------------------------------------------
// SecContextUpdateThread

SecContextUpdateThread::~SecContextUpdateThread() {
    SASSERT(isStopped(), "isStopped()");
    m_pCache = nullptr;
}

void SecContextUpdateThread::run() {
    // A new thread takes its creator's identity on some systems; this one works as the process.
    if (!platform::Tokens().RevertToSelf()) {
        STRACE("ssoplugin: SecContextUpdateThread::run() -- Could not take the process's own identity.");
    }
    if (m_pCache == nullptr) {
        SASSERT_FAIL("ssoplugin: SecContextUpdateThread::run() -- No cache for this thread to manage!");
        return;
    }
    STRACE("ssoplugin: SecContextUpdateThread::run() -- Thread starting up.");
    try {
        while (!isStopped()) {
            CleanUp();
            STRACE("ssoplugin: SecContextUpdateThread::run() -- Thread sleeping for 60s.");
            if (sleep_with_stop_alarm(s_nPeriodMs)) {
                STRACE("ssoplugin: SecContextUpdateThread::run() -- Thread has been stopped.");
                break;
            }
        }
    } catch (SSOException&) {
        SASSERT_FAIL("ssoplugin: SecContextUpdateThread::run() -- Caught an internal exception!");
    } catch (...) {
        SASSERT_FAIL("ssoplugin: SecContextUpdateThread::run() -- Caught an unknown exception!");
    }
    STRACE("ssoplugin: SecContextUpdateThread::run() -- Thread stopped.");
}

// One entry of a slice: where its key lives, the key's text for the map of other
// texts, and a reference that keeps the token alive whatever the cache does meanwhile.
struct SecContextUpdateThread::SliceEntry {
    SecContextCache::Place place;
    SWCharString ssKey;
    CSmartRefCountPtr<StaticToken> pToken;
};

// Takes slices from i_nextSlice until one comes back short; false when stopped.
template <class Slice>
bool SecContextUpdateThread::ScanSlices(const SDateTime& i_now, Slice&& i_nextSlice) {
    std::vector<SliceEntry> arrSlice;
    arrSlice.reserve(kSliceEntries);
    for (;;) {
        arrSlice.clear();
        i_nextSlice(arrSlice);
        for (const SliceEntry& entry : arrSlice) {
            if (isStopped()) {
                STRACE(
                    "ssoplugin: SecContextUpdateThread::CleanUp() -- Thread has been stopped; aborting cleanup scan");
                return false;
            }
            auto keyText = [&] {
                return entry.place.pShard != nullptr ? SecContextCache::KeyText(entry.place.nMixed) : entry.ssKey;
            };
            StaticToken* pToken = entry.pToken.get();
            bool bHandled = false;
            if (pToken->IsExpired(i_now)) {
                CSmartRefCountPtr<StaticToken> pRemoved;  // dies after the lock, with the slice
                CSmartWriteLocker lock(m_pCache->LockOf(entry.place));
                // Tested again under the write lock, so no Impersonate slips in before the removal.
                if (pToken->IsExpired(i_now)) {
                    if (pToken->IsImpersonated()) {
                        STRACE(
                            "ssoplugin: SecContextUpdateThread::CleanUp() -- %1 is expired but impersonated -- "
                            "remove later.",
                            keyText());
                    } else {
                        // By key: what is under it now goes, if anything.
                        pRemoved = m_pCache->TakeAt(entry.place, entry.ssKey);
                        STRACE("ssoplugin: SecContextUpdateThread::CleanUp() -- %1 has been removed.", keyText());
                    }
                    bHandled = true;
                }
            }
            if (!bHandled) {
                // Outside every cache lock: a renegotiation can take a network round trip.
                pToken->Renegotiate(i_now);
            }
        }
        if (arrSlice.size() < kSliceEntries) {
            return true;
        }
    }
}

void SecContextUpdateThread::CleanUp() {
    try {
        if (m_pCache == nullptr) {
            SASSERT_FAIL("ssoplugin: SecContextUpdateThread::CleanUp() -- No cache for this thread to manage!");
            return;
        }
        SecContextCache& cache = *m_pCache;
        const SDateTime i_now = SDateTime::GetCurrentDateTime();
        for (SecContextCache::Shard& shard : cache.m_arrShards) {
            uint64_t nAfter = 0;
            const bool bGoOn = ScanSlices(i_now, [&](auto& o_arrSlice) {
                ContextTable::Entry arrEntries[kSliceEntries];
                size_t nCopied = 0;
                {
                    CSmartReadLocker lock(shard.m_Lock);
                    nCopied = shard.m_table.CopyAfter(nAfter, arrEntries, kSliceEntries);
                    for (size_t i = 0; i < nCopied; ++i) {
                        arrEntries[i].pToken->addRef();
                    }
                }
                for (size_t i = 0; i < nCopied; ++i) {
                    o_arrSlice.push_back(SliceEntry{SecContextCache::Place{&shard, arrEntries[i].nMixed},
                                                    SWCharString(), CSmartRefCountPtr<StaticToken>(arrEntries[i].pToken)});
                    nAfter = arrEntries[i].nMixed;
                }
            });
            if (!bGoOn) {
                return;
            }
        }
        SWCharString ssAfter;
        bool bFirst = true;
        ScanSlices(i_now, [&](auto& o_arrSlice) {
            CSmartReadLocker lock(cache.m_Lock);
            using Map = SIMap<SWCharString, CSmartRefCountPtr<StaticToken>>;
            Map::Iterator itr =
                bFirst ? Map::Iterator(cache.m_mapCachedContexts) : Map::Iterator::After(cache.m_mapCachedContexts, ssAfter);
            bFirst = false;
            for (; !itr.isAtEnd() && o_arrSlice.size() < kSliceEntries; ++itr) {
                o_arrSlice.push_back(SliceEntry{SecContextCache::Place{}, itr.key(), itr.value()});
                ssAfter = itr.key();
            }
        });
    } catch (SSOException&) {
        SASSERT_FAIL("ssoplugin: SecContextUpdateThread::CleanUp() -- Caught an internal exception!");
    } catch (...) {
        SASSERT_FAIL("ssoplugin: SecContextUpdateThread::CleanUp() -- Caught an unknown exception!");
    }
}

// ---------------------------------------------------------------------------
// SecContextCache

SecContextCache::SecContextCache(bool i_bStartThread) {
    if (i_bStartThread) {
        try {
            StartUpdateThread();
        } catch (SSOException&) {
            // The first Insert tries again.
        }
    }
}

SecContextCache::~SecContextCache() {
    // Whatever ends the cache ends its cleaner first: it holds a plain pointer to it.
    bool bThread = false;
    {
        CSmartCS guard(m_csUpdateThread);
        bThread = static_cast<bool>(m_hUpdateThread);
    }
    if (bThread) {
        StopUpdateThread();
    }
    STRACE("ssoplugin: SecContextCache::~SecContextCache() -- Shutting down cleanly with %1 cached contexts",
           GetCount());
    for (Shard& shard : m_arrShards) {
        shard.m_table.TakeAll([](StaticToken* i_pToken) { i_pToken->release(); });
    }
}

SWCharString SecContextCache::KeyText(uint64_t i_nMixed) {
    return SWCharStringConv::ToString(static_cast<unsigned long long>(UnmixKey(i_nMixed)), 10);
}

SecContextCache::Place SecContextCache::PlaceOf(const SWCharString& i_ssKey) {
    uint64_t nKey = 0;
    if (!ParseCanonicalKey(i_ssKey, nKey)) {
        return Place{};
    }
    const uint64_t nMixed = MixKey(nKey);
    return Place{&m_arrShards[nMixed % kShards], nMixed};
}

StaticToken* SecContextCache::FindAt(const Place& i_place, const SWCharString& i_ssKey) {
    if (i_place.pShard != nullptr) {
        return i_place.pShard->m_table.Find(i_place.nMixed);
    }
    const CSmartRefCountPtr<StaticToken>* ppToken = m_mapCachedContexts.Find(i_ssKey);
    return ppToken != nullptr ? ppToken->get() : nullptr;
}

CSmartRefCountPtr<StaticToken> SecContextCache::TakeAt(const Place& i_place, const SWCharString& i_ssKey) {
    CSmartRefCountPtr<StaticToken> pToken;
    if (i_place.pShard != nullptr) {
        pToken = i_place.pShard->m_table.Take(i_place.nMixed);  // the table's reference, handed over
    } else if (m_mapCachedContexts.Lookup(i_ssKey, pToken)) {
        m_mapCachedContexts.RemoveKey(i_ssKey);
    }
    if (pToken != nullptr) {
        m_nCount.fetch_sub(1, std::memory_order_relaxed);
    }
    return pToken;
}

CSmartRefCountPtr<StaticToken> SecContextCache::PutAt(const Place& i_place, const SWCharString& i_ssKey,
                                                      const CSmartRefCountPtr<StaticToken>& i_pToken) {
    CSmartRefCountPtr<StaticToken> pReplaced;
    try {
        if (i_place.pShard != nullptr) {
            pReplaced = i_place.pShard->m_table.Put(i_place.nMixed, i_pToken.get());
            i_pToken->addRef();
        } else {
            m_mapCachedContexts.Lookup(i_ssKey, pReplaced);
            m_mapCachedContexts.SetAt(i_ssKey, i_pToken);
        }
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("ssoplugin: SecContextCache::Insert() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    if (pReplaced == nullptr) {
        m_nCount.fetch_add(1, std::memory_order_relaxed);
    }
    return pReplaced;
}

SWCharString SecContextCache::Insert(CSmartRefCountPtr<StaticToken>& i_pToken) {
    StartUpdateThread();
    if (i_pToken == nullptr) {
        SASSERT(false, "i_pToken");
        throw SSOException(STATUS_FAILURE);
    }
    try {
        // Found once here, outside every cache lock, for the look-ups to come.
        i_pToken->Handler();
    } catch (...) {
        // The expiry test will report it.
    }
    SWCharString ssKey = SWCharStringConv::ToString(static_cast<unsigned long long>(i_pToken->GetKey()), 10);
    const Place place = PlaceOf(ssKey);
    CSmartRefCountPtr<StaticToken> pReplaced;  // released after the lock
    CSmartWriteLocker lock(LockOf(place));
    pReplaced = PutAt(place, ssKey, i_pToken);
    STRACE("ssoplugin: SecContextCache::Insert() -- %1 contexts now in cache.", GetCount());
    return ssKey;
}

void SecContextCache::Impersonate(const SWCharString& i_ssKey) {
    const Place place = PlaceOf(i_ssKey);
    {
        CSmartReadLocker lock(LockOf(place));
        StaticToken* pToken = FindAt(place, i_ssKey);
        if (IsValid(pToken)) {
            pToken->Impersonate();
            return;
        }
    }
    STRACE("ssoplugin: ContextManager::Impersonate() -- token for %1 not found or expired.", i_ssKey);
    throw SSOException(STATUS_FAILURE, MSG_NO_TOKEN);
}

void SecContextCache::Revert(const SWCharString& i_ssKey) {
    const Place place = PlaceOf(i_ssKey);
    CSmartReadLocker lock(LockOf(place));
    StaticToken* pToken = FindAt(place, i_ssKey);
    if (pToken == nullptr) {
        STRACE("ssoplugin: ContextManager::Revert() -- token for %1 not found.", i_ssKey);
        throw SSOException(STATUS_FAILURE, MSG_TOKEN_NOT_FOUND);
    }
    pToken->Revert();
}

bool SecContextCache::AddAssociation(const SWCharString& i_ssKey, const SWCharString& i_ssNewKey) {
    const Place from = PlaceOf(i_ssKey);
    const Place to = PlaceOf(i_ssNewKey);
    CRWLock* pFirst = &LockOf(from);
    CRWLock* pSecond = &LockOf(to);
    // Two locks in one order everywhere: the shards', then the map's.
    auto rank = [&](const Place& i_place) { return i_place.pShard != nullptr ? i_place.pShard - m_arrShards : kShards; };
    if (rank(to) < rank(from)) {
        std::swap(pFirst, pSecond);
    }
    CSmartRefCountPtr<StaticToken> pReplaced;  // both released after the locks
    CSmartRefCountPtr<StaticToken> pMoved;
    CWriteLocker firstLock(pFirst);
    std::optional<CWriteLocker> secondLock;
    if (pSecond != pFirst) {
        secondLock.emplace(pSecond);
    }
    pMoved = Retain(FindAt(from, i_ssKey));
    if (pMoved == nullptr) {
        STRACE("ssoplugin: SecContextCache::AddAssociation() -- Token for %1 is not in cache.", i_ssKey);
        return false;
    }
    if (i_ssKey == i_ssNewKey) {
        return true;
    }
    // A move, not a second key; whatever the new key held loses the cache's reference.
    pReplaced = PutAt(to, i_ssNewKey, pMoved);
    TakeAt(from, i_ssKey);
    return true;
}

bool SecContextCache::Lookup(const SWCharString& i_ssKey) {
    const Place place = PlaceOf(i_ssKey);
    CSmartReadLocker lock(LockOf(place));
    return IsValid(FindAt(place, i_ssKey));
}

bool SecContextCache::Release(const SWCharString& i_ssKey) {
    const Place place = PlaceOf(i_ssKey);
    CSmartRefCountPtr<StaticToken> pToken;
    CSmartWriteLocker lock(LockOf(place));
    pToken = TakeAt(place, i_ssKey);
    return pToken != nullptr;
}

void SecContextCache::ReleaseAll() {
    for (Shard& shard : m_arrShards) {
        CSmartWriteLocker lock(shard.m_Lock);
        shard.m_table.TakeAll([this](StaticToken* i_pToken) {
            m_nCount.fetch_sub(1, std::memory_order_relaxed);
            i_pToken->release();
        });
    }
    CSmartWriteLocker lock(m_Lock);
    m_nCount.fetch_sub(m_mapCachedContexts.GetCount(), std::memory_order_relaxed);
    m_mapCachedContexts.RemoveAll();
}

bool SecContextCache::Remove(const SWCharString& i_ssKey, CSmartRefCountPtr<StaticToken>& o_pToken) {
    const Place place = PlaceOf(i_ssKey);
    CSmartWriteLocker lock(LockOf(place));
    CSmartRefCountPtr<StaticToken> pToken = TakeAt(place, i_ssKey);
    if (pToken == nullptr) {
        return false;
    }
    o_pToken = pToken;
    return true;
}

void SecContextCache::StartUpdateThread() {
    CSmartCS guard(m_csUpdateThread);
    // A thread that ended by itself is not replaced: only StopUpdateThread empties the handle.
    if (m_hUpdateThread) {
        return;
    }

    try {
        m_hUpdateThread = new SecContextUpdateThread(this);
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("ssoplugin: SecContextCache::StartUpdateThread() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    } catch (JTCException& e) {
        m_hUpdateThread = nullptr;
        if (IsUnknownThreadException(e)) {
            // A host thread: make it known to the thread library and try once more.
            [[maybe_unused]] JTCAdoptCurrentThread adopt;
            try {
                m_hUpdateThread = new SecContextUpdateThread(this);
            } catch (std::bad_alloc&) {
                m_hUpdateThread = nullptr;
                SASSERT_FAIL("ssoplugin: SecContextCache::StartUpdateThread() -- Out of memory!");
                throw SSOException(g_OutOfMemoryException);
            } catch (...) {
                m_hUpdateThread = nullptr;
                SASSERT_FAIL("ssoplugin: SecContextCache::StartUpdateThread() -- Unknown exception");
                throw SSOException(STATUS_FAILURE);
            }
        }
    } catch (SSOException&) {
        throw;
    } catch (...) {
        SASSERT_FAIL("ssoplugin: SecContextCache::StartUpdateThread() -- Unknown exception");
        throw SSOException(STATUS_FAILURE);
    }

    try {
        // A thread-library failure swallowed above leaves nothing to start.
        if (!m_hUpdateThread) {
            throw SSOException(STATUS_FAILURE);
        }
        if (!m_hUpdateThread->isAlive()) {
            STRACE("ssoplugin: SecContextCache::StartUpdateThread() -- Starting update thread.");
            m_hUpdateThread->start();
            STRACE("ssoplugin: SecContextCache::StartUpdateThread() -- Update thread started.");
        }
    } catch (...) {
        // The handle keeps the thread that did not start, so no later call tries again.
        SASSERT_FAIL("ssoplugin: SecContextCache::StartUpdateThread() -- Could not start update thread!");
        throw SSOException(STATUS_FAILURE);
    }
}

void SecContextCache::StopUpdateThread() {
    CSmartCS guard(m_csUpdateThread);
    STRACE("ssoplugin: SecContextCache::StopUpdateThread() -- stopping the thread.");
    if (!m_hUpdateThread) {
        return;
    }
    m_hUpdateThread->stop();
    if (m_hUpdateThread->isCurrent()) {
        // The cleaner itself: it sees the stop at its next entry, and nobody waits.
        m_hUpdateThread = nullptr;
        return;
    }
    // A renegotiation in progress is waited for; the cleaner never takes m_csUpdateThread.
    do {
        try {
            m_hUpdateThread->join(5000);
        } catch (JTCInterruptedException&) {
        } catch (...) {
            SASSERT_FAIL(
                "ssoplugin: SecContextCache::StopUpdateThread() -- Unexpected exception while joining the "
                "thread.");
            break;
        }
    } while (m_hUpdateThread && m_hUpdateThread->isAlive());
    m_hUpdateThread = nullptr;
}

uint64_t SecContextCache::GetCount() { return m_nCount.load(std::memory_order_relaxed); }

bool SecContextCache::IsUpdateThreadRunning() {
    CSmartCS guard(m_csUpdateThread);
    return m_hUpdateThread && m_hUpdateThread->isAlive();
}

void SecContextCache::WakeUpdateThreadForTesting() {
    CSmartCS guard(m_csUpdateThread);
    if (m_hUpdateThread) {
        m_hUpdateThread->awake();
    }
}

}  // namespace ostrel
