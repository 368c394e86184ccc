#include "ThreadTokenHandler.h"

#include <new>

#include "foundation/Trace.h"
#include "ostrel_platform/ISystemApi.h"
#include "ostrel_platform/ITokenApi.h"

namespace ostrel {

using platform::System;
using platform::Tokens;

namespace {
// TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY
constexpr DWORD s_nTokenAccess = 14;
constexpr int64_t s_nDefaultExpiryMs = 86400000;  // 24 hours
}  // namespace

SWCharString LastErrorText() {
    const DWORD nError = System().GetLastError();
    LPWSTR pBuffer = nullptr;
    // FORMAT_MESSAGE_ALLOCATE_BUFFER | FROM_SYSTEM | IGNORE_INSERTS, neutral language.
    const DWORD nChars =
        System().FormatMessageW(4864, nullptr, nError, 1024, reinterpret_cast<LPWSTR>(&pBuffer), 0, nullptr);
    SWCharString ssText;
    if (nChars != 0 && pBuffer != nullptr) {
        ssText = reinterpret_cast<const ostrel_char*>(pBuffer);
        ssText.trimRight();
    }
    if (pBuffer != nullptr) {
        System().LocalFree(pBuffer);
    }
    if (ssText.isEmpty()) {
        ssText = OSTREL_T("Unknown error.");
    }
    return ssText;
}

ThreadTokenHandler::ThreadTokenHandler() : SSOHandler(true, s_nDefaultExpiryMs, 5, false) {}

void ThreadTokenHandler::InitHandler(const Parameters& i_params) {
    try {
        int64_t nSeconds = 0;
        if (!i_params.GetParameter(g_ssKeyCacheExpiry, nSeconds)) {
            return;
        }
        CSmartWriteLocker lock(m_HandlerLock);
        // Wraps like the 64-bit multiplication it is; no size check on purpose.
        m_tsCacheExpiry = STimeSpan(static_cast<int64_t>(static_cast<uint64_t>(nSeconds) * 1000u));
        STRACE("ssoplugin: ThreadTokenHandler::InitHandler() -- Setting cache timeout to %1",
               static_cast<long long>(nSeconds));
    } catch (SSOException&) {
        SASSERT_FAIL("ssoplugin: ThreadTokenHandler::InitHandler() -- Type mismatch getting the cache expiry time.");
        throw;
    }
}

void ThreadTokenHandler::GetRequiredParameters(Parameters& /*o_params*/) {}

int ThreadTokenHandler::InitializeContext(SSOCredentialsPtr /*i_pCredentials*/, SSOSessionPtr /*i_pSession*/,
                                          const void* /*i_pvBuffer*/, size_t /*i_nBufferSize*/,
                                          void** /*o_ppvBuffer*/, size_t* /*o_pnBufferSize*/) {
    throw SSOException(STATUS_NOT_SUPPORTED);
}

int ThreadTokenHandler::AcceptContext(SSOCredentialsPtr /*i_pCredentials*/, SSOSessionPtr /*i_pSession*/,
                                      const void* /*i_pvBuffer*/, size_t /*i_nBufferSize*/, void** /*o_ppvBuffer*/,
                                      size_t* /*o_pnBufferSize*/, bool /*i_bGetLogonInfo*/,
                                      Parameters& /*o_params*/) {
    throw SSOException(STATUS_NOT_SUPPORTED);
}

int ThreadTokenHandler::AcquireCurrentContext(const Parameters& /*i_params*/, SSOSessionPtr i_pSession) {
    if (i_pSession == nullptr) {
        SASSERT(false, "i_pSession");
        throw SSOException(STATUS_FAILURE);
    }
    auto* pSession = i_pSession.as<ThreadTokenSession>();
    if (pSession == nullptr) {
        SASSERT_FAIL("ssoplugin: ThreadTokenHandler::AcquireCurrentContext() -- Wrong type of SSOSessionPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    HANDLE hToken = nullptr;
    if (!Tokens().OpenThreadToken(Tokens().GetCurrentThread(), s_nTokenAccess, TRUE, &hToken)) {
        STRACE("ssoplugin: ThreadTokenHandler::AcquireCurrentContext() -- OpenThreadToken() failed.  Trying process "
               "token.");
        hToken = nullptr;
        if (!Tokens().OpenProcessToken(Tokens().GetCurrentProcess(), s_nTokenAccess, &hToken)) {
            STRACE("ssoplugin: ThreadTokenHandler::AcquireCurrentSecurityContext() -- Could not get token for thread "
                   "nor process: %1",
                   LastErrorText());
            throw SSOException(STATUS_FAILURE, MSG_NO_TOKEN);
        }
    }
    pSession->m_hToken = hToken;
    return SSEC_STATUS_OK;
}

SSOSessionPtr ThreadTokenHandler::CreateSession(const ParasSeq* i_pParas) {
    STRACE("ssoplugin: ThreadTokenHandler::CreateSession() -- Creating a new session.");
    try {
        return SSOSessionPtr(new ThreadTokenSession(i_pParas));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("ssoplugin: ThreadTokenHandler::CreateSession() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    } catch (SSOException&) {
        STRACE("ssoplugin: ThreadTokenHandler::CreateSession() -- Creation failed.");
        throw;
    }
}

SSOCredentialsPtr ThreadTokenHandler::CreateClientCredentials(const SWCharString& /*i_ssUsername*/,
                                                              const SWCharString& /*i_ssPassword*/, int /*i_nType*/) {
    throw SSOException(STATUS_NOT_SUPPORTED);
}

SSOCredentialsPtr ThreadTokenHandler::CreateServerCredentials(int /*i_nType*/) {
    throw SSOException(STATUS_NOT_SUPPORTED);
}

void* ThreadTokenHandler::AllocateBuffer(size_t /*i_nSize*/) { throw SSOException(STATUS_NOT_SUPPORTED); }

void ThreadTokenHandler::FreeBuffer(void* /*i_pvBuffer*/) { throw SSOException(STATUS_NOT_SUPPORTED); }

ThreadTokenSession::ThreadTokenSession(const ParasSeq* i_pParas) : SSOSession(i_pParas) {
    m_ssProvider = g_ssProviderThreadToken;
}

ThreadTokenSession::~ThreadTokenSession() {
    if (m_hToken != nullptr) {
        const BOOL bClosed = Tokens().CloseHandle(m_hToken);
        m_hToken = nullptr;
        SASSERT_MSG(bClosed, "bClosed", "ssoplugin: ThreadTokenSession::~ThreadTokenSession() -- Failed to close handle!");
    }
}

CSmartRefCountPtr<StaticToken> ThreadTokenSession::GetStaticToken() {
    CSmartRefCountPtr<StaticToken> pToken;
    try {
        pToken = CSmartRefCountPtr<StaticToken>(new ThreadStaticToken(m_hToken));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("ssoplugin: SSPISession::GetStaticToken() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    if (pToken == nullptr) {
        SASSERT(false, "pToken");
        throw SSOException(STATUS_FAILURE);
    }
    m_hToken = nullptr;  // the token owns the handle now
    return pToken;
}

ThreadStaticToken::ThreadStaticToken(HANDLE i_pToken) : m_pToken(i_pToken) {
    m_ssProvider = g_ssProviderThreadToken;
    if (i_pToken == nullptr) {
        SASSERT_MSG(false, "i_pToken", "ssoplugin: ThreadStaticToken::ThreadStaticToken() -- NULL handle!");
        throw SSOException(STATUS_FAILURE);
    }
}

ThreadStaticToken::~ThreadStaticToken() {
    if (m_pToken == nullptr) {
        SASSERT_MSG(false, "m_pToken", "ssoplugin: ThreadStaticToken::~ThreadStaticToken() -- No handle to close!");
        return;
    }
    const BOOL bClosed = Tokens().CloseHandle(m_pToken);
    m_pToken = nullptr;
    SASSERT_MSG(bClosed, "bClosed", "ssoplugin: ThreadStaticToken::~ThreadStaticToken() -- Failed to close handle!");
}

// Impersonation of a thread token is not counted: any number of threads may
// run under it at once, and it takes no lock.
void ThreadStaticToken::Impersonate() {
    if (m_pToken == nullptr) {
        SASSERT(false, "m_pToken");
        throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
    }
    if (!Tokens().ImpersonateLoggedOnUser(m_pToken)) {
        STRACE("ssoplugin: ThreadStaticToken::Impersonate() -- Could not impersonate: %1", LastErrorText());
        throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
    }
}

void ThreadStaticToken::Revert() {
    if (!Tokens().RevertToSelf()) {
        STRACE("ssoplugin: ThreadStaticToken::Revert() -- Could not revert: %1", LastErrorText());
        throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
    }
}

bool ThreadStaticToken::Expired(const SDateTime& /*i_now*/) { return false; }

bool ThreadStaticToken::RenegotiateImpl() { return false; }

STimeSpan ThreadStaticToken::GetRemainingLifetime(const SDateTime& /*i_now*/) { return STimeSpan(INT64_MAX); }

STimeSpan ThreadStaticToken::GetLifetime() { return STimeSpan(INT64_MAX); }

}  // namespace ostrel
