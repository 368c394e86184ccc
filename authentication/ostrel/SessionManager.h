// Logins under way between their passes, and the driver of a pass.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <map>

#include "HandlerFactory.h"
#include "SSOSession.h"
#include "SecContextCache.h"

namespace ostrel {

// A login whose host goes quiet for longer than the idle age is released, and
// past the limit no new login starts: a client that sends one token and goes
// away must not be able to fill the process.
class SessionCache {
public:
    static constexpr int64_t s_nMaxIdleMs = 5 * 60 * 1000;
    static constexpr size_t s_nMaxSessions = 100000;

    SessionCache() = default;
    ~SessionCache();
    SessionCache(const SessionCache&) = delete;
    SessionCache& operator=(const SessionCache&) = delete;

    // NULL when there is none; the caller decides whether that is an error.
    SSOSessionPtr GetSession(const SSOSession::SessionIdentifier& i_Key);
    SSOSessionPtr CreateSession(CSmartRefCountPtr<SSOHandler> i_pHandler, const ParasSeq* i_pParas);
    // A second release of one key does no harm.
    void ReleaseSession(const SSOSession::SessionIdentifier& i_Key);

    uint64_t GetCount();

private:
    friend class SessionCacheTestAccess;
    using Queue = std::list<SSOSession::SessionIdentifier>;
    struct Entry {
        explicit Entry(SSOSessionPtr i_pSession) : pSession(std::move(i_pSession)) {}
        SSOSessionPtr pSession;
        Queue::iterator itQueued;
        int64_t nQueuedMs = 0;                // when it last joined the back of the queue
        std::atomic<int64_t> nLastUseMs{0};  // set under the read lock by GetSession
    };

    static int64_t NowMs();
    // Releases what has been idle too long, oldest first; under the write lock.
    void SweepIdle(int64_t i_nNowMs);

    CRWLock m_SessionLock;
    std::map<SSOSession::SessionIdentifier, Entry> m_Sessions;
    Queue m_Queue;  // in order of nQueuedMs
    int64_t m_nMaxIdleMs = s_nMaxIdleMs;
    size_t m_nMaxSessions = s_nMaxSessions;
};

class SessionManager : public CRefCount {
public:
    explicit SessionManager(CSmartRefCountPtr<SecContextCache> i_pContextCache);

    uint32_t GenerateClientContext(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                                   const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                   const void* i_pvBuffer, size_t i_nBufferLength, const SWCharString& i_ssSessionKey,
                                   void** o_ppvBuffer, size_t* o_pnBufferLength, SWCharString& o_ssSessionKey);
    uint32_t GenerateServerContext(const SWCharString& i_ssProvider, const SWCharString& i_ssSessionKey,
                                   const void* i_pvBuffer, size_t i_nBufferLength, void** o_ppvBuffer,
                                   size_t* o_pnBufferLength, bool i_bGetLogonInfo, Parameters& o_params,
                                   SWCharString& o_ssSessionKey);
    uint32_t AcquireCurrentContext(const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                   SWCharString& o_ssSessionID);

    // Token bytes for the host: array new here, array delete in SSOFreeBuffer.
    static void* AllocateExternalBuffer(size_t i_Size);
    static void CopyToExternalBuffer(const void* i_pbSource, void** o_ppbExternalBuffer, size_t i_nLength);

    uint64_t GetSessionCount() { return m_SessionCache.GetCount(); }
    // Test seam: the shared cache, for tests that drive its cleaner.
    CSmartRefCountPtr<SecContextCache> GetContextCacheForTesting() { return m_pContextCache; }

protected:
    ~SessionManager() override;

private:
    SessionCache m_SessionCache;
    CSmartRefCountPtr<SecContextCache> m_pContextCache;
};

}  // namespace ostrel
