#include "SessionManager.h"

#include <chrono>
#include <cstring>
#include <new>

#include "foundation/Trace.h"

namespace ostrel {

namespace {

const SWCharString s_ssDummyKey(SSO_DUMMY_KEY);
const SWCharString s_ssDummyKeyCachingOff(SSO_DUMMY_KEY_CACHING_IS_OFF);

CSmartRefCountPtr<SSOHandler> HandlerFor(const SWCharString& i_ssProvider, const char* i_pNullTrace) {
    CSmartRefCountPtr<SSOHandler> pHandler = SSOHandlerFactory::instance()->GetHandler(i_ssProvider);
    if (pHandler == nullptr) {
        SASSERT(false, "pHandler");
        STRACE(i_pNullTrace, i_ssProvider);
        throw MakeSSOException(STATUS_FAILURE, MSG_NO_HANDLER, i_ssProvider);
    }
    return pHandler;
}

// The host's copy of the handler's token; the handler's own buffer goes back to it.
void HandOverToken(SSOHandler& i_handler, void*& io_pvToken, void** o_ppvBuffer, size_t* o_pnBufferLength) {
    if (io_pvToken == nullptr) {
        *o_pnBufferLength = 0;
    }
    SessionManager::CopyToExternalBuffer(io_pvToken, o_ppvBuffer, *o_pnBufferLength);
    i_handler.FreeBuffer(io_pvToken);
    io_pvToken = nullptr;
}

void DropToken(SSOHandler& i_handler, void*& io_pvToken, void** o_ppvBuffer, size_t* o_pnBufferLength) {
    delete[] static_cast<unsigned char*>(*o_ppvBuffer);
    *o_ppvBuffer = nullptr;
    *o_pnBufferLength = 0;
    if (io_pvToken != nullptr) {
        i_handler.FreeBuffer(io_pvToken);
    }
    io_pvToken = nullptr;
}

}  // namespace

// ---- SessionCache ----

SessionCache::~SessionCache() {
    STRACE("ssoplugin: SessionCache::~SessionCache() -- Shutting down with %1 partially formed sessions in cache.",
           static_cast<unsigned long long>(m_Sessions.size()));
    m_Sessions.clear();
}

int64_t SessionCache::NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

SSOSessionPtr SessionCache::GetSession(const SSOSession::SessionIdentifier& i_Key) {
    CSmartReadLocker lock(m_SessionLock);
    auto it = m_Sessions.find(i_Key);
    if (it == m_Sessions.end()) {
        STRACE("ssoplugin: SessionCache::GetSession() -- No session found for key");
        return nullptr;
    }
    if (it->second.pSession == nullptr) {
        SASSERT_MSG(false, "pSession", "ssoplugin: SessionCache::GetSession() -- Key is valid, but found a NULL session!");
        throw SSOException(STATUS_FAILURE);
    }
    it->second.nLastUseMs.store(NowMs(), std::memory_order_relaxed);
    return it->second.pSession;
}

void SessionCache::SweepIdle(int64_t i_nNowMs) {
    while (!m_Queue.empty()) {
        auto it = m_Sessions.find(m_Queue.front());
        Entry& entry = it->second;
        if (i_nNowMs - entry.nQueuedMs <= m_nMaxIdleMs) {
            return;  // the rest joined the queue later still
        }
        if (i_nNowMs - entry.nLastUseMs.load(std::memory_order_relaxed) <= m_nMaxIdleMs) {
            // Used since it joined: once more to the back.
            m_Queue.splice(m_Queue.end(), m_Queue, entry.itQueued);
            entry.nQueuedMs = i_nNowMs;
            continue;
        }
        STRACE("ssoplugin: SessionCache::CreateSession() -- Releasing a partially formed session idle for over %1 ms.",
               static_cast<long long>(m_nMaxIdleMs));
        m_Queue.pop_front();
        m_Sessions.erase(it);
    }
}

SSOSessionPtr SessionCache::CreateSession(CSmartRefCountPtr<SSOHandler> i_pHandler, const ParasSeq* i_pParas) {
    SSOSessionPtr pSession;
    try {
        pSession = i_pHandler->CreateSession(i_pParas);
    } catch (SSOException&) {
        STRACE("ssoplugin: SessionCache::CreateSession() -- Could not create a new session object!");
        throw;
    }
    if (pSession == nullptr) {
        SASSERT_MSG(false, "pSession", "ssoplugin: SessionCache::CreateSession() -- NULL Session object returned!");
        throw SSOException(STATUS_FAILURE);
    }
    const SSOSession::SessionIdentifier id(pSession.get());
    const int64_t nNowMs = NowMs();
    CSmartWriteLocker lock(m_SessionLock);
    SweepIdle(nNowMs);
    if (m_Sessions.size() >= m_nMaxSessions) {
        STRACE("ssoplugin: SessionCache::CreateSession() -- %1 partially formed sessions in cache; refusing a new "
               "login.",
               static_cast<unsigned long long>(m_Sessions.size()));
        throw SSOException(STATUS_FAILURE);
    }
    if (m_Sessions.find(id) != m_Sessions.end()) {
        SASSERT_FAIL("ssoplugin: SessionCache::CreateSession() -- Session Key already in use!");
        throw SSOException(STATUS_FAILURE);
    }
    Entry& entry = m_Sessions.try_emplace(id, pSession).first->second;
    try {
        entry.itQueued = m_Queue.insert(m_Queue.end(), id);
    } catch (...) {
        m_Sessions.erase(id);
        throw;
    }
    entry.nQueuedMs = nNowMs;
    entry.nLastUseMs.store(nNowMs, std::memory_order_relaxed);
    return pSession;
}

void SessionCache::ReleaseSession(const SSOSession::SessionIdentifier& i_Key) {
    // The session may die here; let that happen outside the lock.
    SSOSessionPtr pSession;
    CSmartWriteLocker lock(m_SessionLock);
    auto it = m_Sessions.find(i_Key);
    if (it == m_Sessions.end()) {
        STRACE("ssoplugin: SessionCache::ReleaseSession() -- No session found for key");
        return;
    }
    pSession = it->second.pSession;
    if (pSession == nullptr) {
        SASSERT_MSG(false, "pSession",
                    "ssoplugin: SessionCache::ReleaseSession() -- Key is valid but found a NULL session!");
        throw SSOException(STATUS_FAILURE);
    }
    m_Queue.erase(it->second.itQueued);
    m_Sessions.erase(it);
}

uint64_t SessionCache::GetCount() {
    CSmartReadLocker lock(m_SessionLock);
    return m_Sessions.size();
}

// ---- SessionManager ----

SessionManager::SessionManager(CSmartRefCountPtr<SecContextCache> i_pContextCache)
    : m_pContextCache(std::move(i_pContextCache)) {
    SASSERT(m_pContextCache != nullptr, "m_pContextCache");
    if (m_pContextCache == nullptr) {
        throw SSOException(STATUS_FAILURE);
    }
}

SessionManager::~SessionManager() { m_pContextCache = nullptr; }

uint32_t SessionManager::GenerateClientContext(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                                               const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                               const void* i_pvBuffer, size_t i_nBufferLength,
                                               const SWCharString& i_ssSessionKey, void** o_ppvBuffer,
                                               size_t* o_pnBufferLength, SWCharString& o_ssSessionKey) {
    SWCharString ssProvider(i_ssProvider);
    SSOSession::SessionIdentifier id(i_ssSessionKey);
    SSOSessionPtr pSession;
    if (ssProvider.isEmpty()) {
        pSession = m_SessionCache.GetSession(id);
        if (pSession == nullptr) {
            STRACE("ssoplugin: SessionManager::GenerateClientContext() -- Could not determine SSOProvider: No cached "
                   "session!");
            throw SSOException(STATUS_FAILURE);
        }
        ssProvider = pSession->GetProvider();
        STRACE("ssoplugin: SessionManager::GenerateClientContext() -- SSO Provider from cache is %1", ssProvider);
    }
    CSmartRefCountPtr<SSOHandler> pHandler =
        HandlerFor(ssProvider, "ssoplugin: SessionManager::GenerateClientContext() -- NULL handler for session type %1");
    if (pSession == nullptr) {
        pSession = m_SessionCache.CreateSession(pHandler, i_pParameters);
        if (pSession == nullptr) {
            SASSERT(false, "pSession");
            STRACE("ssoplugin: SessionManager::GenerateClientContext() -- NULL Session object.");
            throw SSOException(STATUS_FAILURE);
        }
        id = SSOSession::SessionIdentifier(pSession.get());
    }

    // A login that fails is gone: the host cannot continue it.
    try {
        // Fresh credentials every pass; empty names on later passes ask for the caller's own identity.
        SSOCredentialsPtr pCredentials =
            pHandler->CreateClientCredentials(i_ssUsername, i_ssPassword, SSOCredentialsClient);
        if (pCredentials == nullptr) {
            SASSERT_FAIL("ssoplugin: SessionManager::GenerateClientContext() -- Credentials object is NULL!");
            throw SSOException(STATUS_FAILURE);
        }
        o_ssSessionKey = id.ToString();

        void* pvToken = nullptr;
        uint32_t nStatus = 0;
        try {
            nStatus = static_cast<uint32_t>(pHandler->InitializeContext(pCredentials, pSession, i_pvBuffer,
                                                                        i_nBufferLength, &pvToken, o_pnBufferLength));
            if (nStatus >= STATUS_FAILURE) {
                SASSERT_FAIL("ssoplugin: SessionManager::GenerateClientContext() failed.");
                throw SSOException(nStatus, MSG_DEFAULT);
            }
            HandOverToken(*pHandler, pvToken, o_ppvBuffer, o_pnBufferLength);
        } catch (...) {
            DropToken(*pHandler, pvToken, o_ppvBuffer, o_pnBufferLength);
            throw;
        }
        if (nStatus == SSEC_STATUS_OK) {
            // A client keeps no finished context.
            m_SessionCache.ReleaseSession(id);
            o_ssSessionKey = s_ssDummyKey;
        } else {
            o_ssSessionKey = id.ToString();
        }
        return nStatus;
    } catch (...) {
        m_SessionCache.ReleaseSession(id);
        throw;
    }
}

uint32_t SessionManager::GenerateServerContext(const SWCharString& i_ssProvider, const SWCharString& i_ssSessionKey,
                                               const void* i_pvBuffer, size_t i_nBufferLength, void** o_ppvBuffer,
                                               size_t* o_pnBufferLength, bool i_bGetLogonInfo, Parameters& o_params,
                                               SWCharString& o_ssSessionKey) {
    CSmartRefCountPtr<SSOHandler> pHandler =
        HandlerFor(i_ssProvider, "ssoplugin: SessionManager::GenerateServerContext() -- NULL handler for session type %1");
    SSOSession::SessionIdentifier id(i_ssSessionKey);
    SSOSessionPtr pSession = m_SessionCache.GetSession(id);
    if (pSession == nullptr) {
        // An empty or stale key starts a login.
        pSession = m_SessionCache.CreateSession(pHandler, nullptr);
        id = SSOSession::SessionIdentifier(pSession.get());
    }

    uint32_t nStatus = 0;
    try {
        SSOCredentialsPtr pCredentials = pHandler->CreateServerCredentials(SSOCredentialsServer);
        void* pvToken = nullptr;
        try {
            nStatus = static_cast<uint32_t>(pHandler->AcceptContext(pCredentials, pSession, i_pvBuffer,
                                                                    i_nBufferLength, &pvToken, o_pnBufferLength,
                                                                    i_bGetLogonInfo, o_params));
            if (nStatus >= STATUS_FAILURE) {
                SASSERT_FAIL("ssoplugin: SessionManager::GenerateServerContext() failed.");
                throw SSOException(nStatus, MSG_DEFAULT);
            }
            HandOverToken(*pHandler, pvToken, o_ppvBuffer, o_pnBufferLength);
        } catch (SSOException&) {
            DropToken(*pHandler, pvToken, o_ppvBuffer, o_pnBufferLength);
            throw;
        }

        if (nStatus == STATUS_CONTINUE) {
            o_ssSessionKey = id.ToString();
        } else if (nStatus == SSEC_STATUS_OK || nStatus == SSEC_STATUS_COMPLETE_NO_OUTPUT) {
            if (pHandler->IsCachingOn()) {
                CSmartRefCountPtr<StaticToken> pToken = pSession->GetStaticToken();
                o_ssSessionKey = m_pContextCache->Insert(pToken);
            } else {
                o_ssSessionKey = s_ssDummyKeyCachingOff;
            }
            m_SessionCache.ReleaseSession(id);
            nStatus = STATUS_SERVER_DONE;
        } else {
            STRACE("ssoplugin: SessionManager::GenerateServerContext() -- Unexpected result from AcceptLogin: %1",
                   nStatus);
            throw SSOException(STATUS_FAILURE);
        }
    } catch (...) {
        m_SessionCache.ReleaseSession(id);
        throw;
    }
    STRACE("ssoplugin: SessionManager::GenerateServerContext() -- returning %1", nStatus);
    return nStatus;
}

uint32_t SessionManager::AcquireCurrentContext(const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                               SWCharString& o_ssSessionID) {
    CSmartRefCountPtr<SSOHandler> pHandler =
        HandlerFor(i_ssProvider, "ssoplugin: SessionManager::AcquireCurrentContext() -- NULL handler for session type %1");
    if (!pHandler->IsCachingOn()) {
        STRACE("ssoplugin: SessionManager::AcquireCurrentContext() -- Caching is turned off.  No sense in continuing!");
        throw SSOException(STATUS_FAILURE, MSG_CACHING_OFF);
    }
    SSOSessionPtr pSession = m_SessionCache.CreateSession(pHandler, nullptr);
    const SSOSession::SessionIdentifier id(pSession.get());
    uint32_t nStatus = 0;
    try {
        const Parameters params(i_pParameters);
        nStatus = static_cast<uint32_t>(pHandler->AcquireCurrentContext(params, pSession));
        if (nStatus == SSEC_STATUS_OK) {
            CSmartRefCountPtr<StaticToken> pToken = pSession->GetStaticToken();
            o_ssSessionID = m_pContextCache->Insert(pToken);
        }
    } catch (...) {
        m_SessionCache.ReleaseSession(id);
        throw;
    }
    // The session lasted this one call; the host never saw its key.
    m_SessionCache.ReleaseSession(id);
    return nStatus;
}

void* SessionManager::AllocateExternalBuffer(size_t i_Size) {
    SASSERT(i_Size > 0, "i_Size > 0");
    if (i_Size == 0) {
        throw SSOException(STATUS_FAILURE);
    }
    unsigned char* pbBuffer = nullptr;
    try {
        pbBuffer = new unsigned char[i_Size];
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("ssoplugin: SessionManager::AllocateExternalBuffer() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    return pbBuffer;
}

void SessionManager::CopyToExternalBuffer(const void* i_pbSource, void** o_ppbExternalBuffer, size_t i_nLength) {
    if (o_ppbExternalBuffer == nullptr) {
        SASSERT(false, "o_ppbExternalBuffer");
        throw SSOException(STATUS_FAILURE);
    }
    SASSERT(*o_ppbExternalBuffer == nullptr, "*o_ppbExternalBuffer == NULL");
    if (i_pbSource == nullptr || i_nLength == 0) {
        STRACE("ssoplugin: SessionManager::CopyToExternalBuffer() -- Zero-length source specified.");
        *o_ppbExternalBuffer = nullptr;
        return;
    }
    *o_ppbExternalBuffer = nullptr;
    void* pBuffer = AllocateExternalBuffer(i_nLength);
    std::memcpy(pBuffer, i_pbSource, i_nLength);
    *o_ppbExternalBuffer = pBuffer;
}

}  // namespace ostrel
