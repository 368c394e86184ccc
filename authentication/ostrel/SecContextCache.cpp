#include "SecContextCache.h"

#include <cstring>
#include <new>
#include <typeinfo>

#include "SSOException.h"
#include "foundation/Trace.h"

namespace ostrel {

namespace {

using TokenMap = SIMap<SWCharString, CSmartRefCountPtr<StaticToken>>;

// The thread library names its exceptions by class; a host thread it has never
// seen shows up as this one.
bool IsUnknownThreadException(const JTCException& i_exception) {
    return std::strstr(typeid(i_exception).name(), "JTCUnknownThreadException") != nullptr;
}

// The one expiry test: the mechanism's verdict first, then the configured limit.
bool IsValid(const CSmartRefCountPtr<StaticToken>& i_pToken) {
    if (i_pToken == nullptr) {
        return false;
    }
    return !i_pToken->IsExpired(SDateTime::GetCurrentDateTime());
}

}  // namespace

// ---------------------------------------------------------------------------
// SecContextUpdateThread

SecContextUpdateThread::~SecContextUpdateThread() {
    SASSERT(isStopped(), "isStopped()");
    m_pCache = nullptr;
}

void SecContextUpdateThread::run() {
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

void SecContextUpdateThread::CleanUp() {
    try {
        if (m_pCache == nullptr) {
            SASSERT_FAIL("ssoplugin: SecContextUpdateThread::CleanUp() -- No cache for this thread to manage!");
            return;
        }
        // The copy's references keep every token alive whatever the cache does meanwhile,
        // and one linear copy keeps the read lock short.
        TokenMap mapCopy;
        {
            CSmartReadLocker lock(m_pCache->m_Lock);
            mapCopy = m_pCache->m_mapCachedContexts;
        }
        const SDateTime i_now = SDateTime::GetCurrentDateTime();

        TokenMap::Iterator itr(mapCopy);
        while (!itr.isAtEnd()) {
            if (isStopped()) {
                STRACE(
                    "ssoplugin: SecContextUpdateThread::CleanUp() -- Thread has been stopped; aborting cleanup scan");
                return;
            }
            const SWCharString& ssKey = itr.key();
            const CSmartRefCountPtr<StaticToken>& pToken = itr.value();
            if (pToken == nullptr) {
                ++itr;
                continue;
            }

            bool bHandled = false;
            if (pToken->IsExpired(i_now)) {
                CSmartWriteLocker lock(m_pCache->m_Lock);
                // Tested again under the write lock, so no Impersonate slips in before the removal.
                if (pToken->IsExpired(i_now)) {
                    if (pToken->IsImpersonated()) {
                        STRACE(
                            "ssoplugin: SecContextUpdateThread::CleanUp() -- %1 is expired but impersonated -- "
                            "remove later.",
                            ssKey);
                    } else {
                        m_pCache->m_mapCachedContexts.RemoveKey(ssKey);
                        STRACE("ssoplugin: SecContextUpdateThread::CleanUp() -- %1 has been removed.", ssKey);
                    }
                    bHandled = true;
                }
            }
            if (!bHandled) {
                // Outside every cache lock: a renegotiation can take a network round trip.
                pToken->Renegotiate(i_now);
            }
            ++itr;
        }
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
    STRACE("ssoplugin: SecContextCache::~SecContextCache() -- Shutting down cleanly with %1 cached contexts",
           m_mapCachedContexts.GetCount());
}

SWCharString SecContextCache::Insert(CSmartRefCountPtr<StaticToken>& i_pToken) {
    StartUpdateThread();

    const auto nIdentity = static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(i_pToken.get()));
    SWCharString ssKey = SWCharStringConv::ToString(nIdentity, 10);

    CSmartWriteLocker lock(m_Lock);
    m_mapCachedContexts.SetAt(ssKey, i_pToken);
    STRACE("ssoplugin: SecContextCache::Insert() -- %1 contexts now in cache.", m_mapCachedContexts.GetCount());
    return ssKey;
}

void SecContextCache::Impersonate(const SWCharString& i_ssKey) {
    {
        CSmartReadLocker lock(m_Lock);
        CSmartRefCountPtr<StaticToken> pToken;
        if (m_mapCachedContexts.Lookup(i_ssKey, pToken) && IsValid(pToken)) {
            pToken->Impersonate();
            return;
        }
    }
    STRACE("ssoplugin: ContextManager::Impersonate() -- token for %1 not found or expired.", i_ssKey);
    throw SSOException(STATUS_FAILURE, MSG_NO_TOKEN);
}

void SecContextCache::Revert(const SWCharString& i_ssKey) {
    CSmartReadLocker lock(m_Lock);
    CSmartRefCountPtr<StaticToken> pToken;
    if (!m_mapCachedContexts.Lookup(i_ssKey, pToken)) {
        STRACE("ssoplugin: ContextManager::Revert() -- token for %1 not found.", i_ssKey);
        throw SSOException(STATUS_FAILURE, MSG_TOKEN_NOT_FOUND);
    }
    SASSERT(pToken != nullptr, "pToken");
    if (pToken == nullptr) {
        throw SSOException(STATUS_FAILURE);
    }
    pToken->Revert();
}

bool SecContextCache::AddAssociation(const SWCharString& i_ssKey, const SWCharString& i_ssNewKey) {
    CSmartWriteLocker lock(m_Lock);
    CSmartRefCountPtr<StaticToken> pToken;
    if (!m_mapCachedContexts.Lookup(i_ssKey, pToken)) {
        STRACE("ssoplugin: SecContextCache::AddAssociation() -- Token for %1 is not in cache.", i_ssKey);
        return false;
    }
    // A move, not a second key; whatever the new key held loses the cache's reference.
    m_mapCachedContexts.RemoveKey(i_ssKey);
    m_mapCachedContexts.SetAt(i_ssNewKey, pToken);
    return true;
}

bool SecContextCache::Lookup(const SWCharString& i_ssKey) {
    CSmartReadLocker lock(m_Lock);
    CSmartRefCountPtr<StaticToken> pToken;
    return m_mapCachedContexts.Lookup(i_ssKey, pToken) && IsValid(pToken);
}

bool SecContextCache::Release(const SWCharString& i_ssKey) {
    CSmartWriteLocker lock(m_Lock);
    return m_mapCachedContexts.RemoveKey(i_ssKey);
}

void SecContextCache::ReleaseAll() {
    CSmartWriteLocker lock(m_Lock);
    m_mapCachedContexts.RemoveAll();
}

bool SecContextCache::Remove(const SWCharString& i_ssKey, CSmartRefCountPtr<StaticToken>& o_pToken) {
    CSmartWriteLocker lock(m_Lock);
    CSmartRefCountPtr<StaticToken> pToken;
    if (!m_mapCachedContexts.Lookup(i_ssKey, pToken) || pToken == nullptr) {
        return false;
    }
    const bool bRemoved = m_mapCachedContexts.RemoveKey(i_ssKey);
    SASSERT(bRemoved, "m_mapCachedContexts.RemoveKey( i_ssKey )");
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

uint64_t SecContextCache::GetCount() {
    CSmartReadLocker lock(m_Lock);
    return m_mapCachedContexts.GetCount();
}

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
