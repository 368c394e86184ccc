// A finished SSPI login: the context, its lifespan, impersonation, and the
// renewal of the context by a Kerberos exchange of the process with itself.
#include <new>
#include <utility>

#include "KerberosSSPIHandler.h"
#include "foundation/Trace.h"
#include "ostrel_platform/ISecurityApi.h"
#include "ostrel_platform/ISystemApi.h"
#include "ostrel_platform/ITokenApi.h"

namespace ostrel {

using platform::Security;
using platform::System;
using platform::Tokens;

namespace {

constexpr int s_nMaxRenegotiationTurns = 5;

// An output token of the handler's, freed with it exactly once.
class HeldToken {
public:
    explicit HeldToken(KerberosSSPIHandler& i_handler) : m_handler(i_handler) {}
    ~HeldToken() { Release(); }
    HeldToken(const HeldToken&) = delete;
    HeldToken& operator=(const HeldToken&) = delete;

    void Release() {
        if (m_pvBuffer != nullptr) {
            m_handler.FreeBuffer(m_pvBuffer);
            m_pvBuffer = nullptr;
        }
        m_nSize = 0;
    }
    bool IsEmpty() const { return m_pvBuffer == nullptr || m_nSize == 0; }

    void* m_pvBuffer = nullptr;
    size_t m_nSize = 0;

private:
    KerberosSSPIHandler& m_handler;
};

template <class T, class... Args>
CSmartRefCountPtr<T> NewOrOutOfMemory(Args&&... i_args) {
    try {
        return CSmartRefCountPtr<T>(new T(std::forward<Args>(i_args)...));
    } catch (std::bad_alloc&) {
        throw SSOException(g_OutOfMemoryException);
    }
}

}  // namespace

SSPIStaticToken::SSPIStaticToken(const CtxtHandle* i_pContextHandle) {
    m_ssProvider = g_ssProviderSSPI;
    if (i_pContextHandle == nullptr) {
        SASSERT_MSG(false, "i_pContextHandle", "ssoplugin: SSPIStaticToken::SSPIStaticToken() -- NULL context handle!");
        throw SSOException(STATUS_FAILURE);
    }
    m_hContext = *i_pContextHandle;
    // An unanswered query leaves the zero stamps, which read as long expired.
    Security().QueryContextAttributesW(&m_hContext, SECPKG_ATTR_LIFESPAN, &m_Lifespan);
    const SDateTime now = SDateTime::GetCurrentDateTime();
    if (Expired(now) || ExpiredByConfiguration(now)) {
        STRACE("ssoplugin: SSPIStaticToken::SSPIStaticToken() -- This token has already expired!");
    }
}

SSPIStaticToken::~SSPIStaticToken() {
    try {
        if (IsHandleSet(m_hContext) && Security().DeleteSecurityContext(&m_hContext) != SEC_E_OK) {
            STRACE("ssoplugin: SSPIStaticToken::~SSPIStaticToken() -- Could not delete context handle.");
        }
    } catch (...) {
        SASSERT_FAIL("ssoplugin: SSPIStaticToken::~SSPIStaticToken() -- Unexpected exception!");
    }
}

bool SSPIStaticToken::ExpiryToDateTime(const TimeStamp& i_tsExpiry, SDateTime& o_dtExpiry) {
    FILETIME ftExpiry;
    ftExpiry.dwLowDateTime = static_cast<DWORD>(static_cast<ULONGLONG>(i_tsExpiry.QuadPart) & 0xFFFFFFFFu);
    ftExpiry.dwHighDateTime = static_cast<DWORD>(static_cast<ULONGLONG>(i_tsExpiry.QuadPart) >> 32);
    SYSTEMTIME stExpiry = {};
    if (!System().FileTimeToSystemTime(&ftExpiry, &stExpiry)) {
        return false;
    }
    // The package gives local time.
    o_dtExpiry = SDateTime(static_cast<short>(stExpiry.wYear), static_cast<unsigned char>(stExpiry.wMonth),
                           static_cast<unsigned char>(stExpiry.wDay), static_cast<unsigned char>(stExpiry.wHour),
                           static_cast<unsigned char>(stExpiry.wMinute), static_cast<unsigned char>(stExpiry.wSecond),
                           stExpiry.wMilliseconds, STimeZone::TZ_Local());
    return true;
}

bool SSPIStaticToken::Expired(const SDateTime& i_now) {
    CSmartReadLocker lock(m_Lock);
    SDateTime dtExpiry;
    if (!ExpiryToDateTime(m_Lifespan.tsExpiry, dtExpiry)) {
        STRACE("ssoplugin: SSPIStaticToken::Expired() -- Could not read expiry time.  Treating as expired.");
        return true;
    }
    if (i_now > dtExpiry) {
        STRACE("ssoplugin: SSPIStaticToken::Expired() -- expired!");
        return true;
    }
    return false;
}

// Both lifetimes are read only on the cleaner thread, the one writer of the lifespan.
STimeSpan SSPIStaticToken::GetRemainingLifetime(const SDateTime& i_now) {
    SDateTime dtExpiry;
    return ExpiryToDateTime(m_Lifespan.tsExpiry, dtExpiry) ? dtExpiry - i_now : STimeSpan(0);
}

STimeSpan SSPIStaticToken::GetLifetime() {
    SDateTime dtExpiry;
    return ExpiryToDateTime(m_Lifespan.tsExpiry, dtExpiry) ? dtExpiry - m_dtRenewed : STimeSpan(0);
}

void SSPIStaticToken::Impersonate() {
    CSmartWriteLocker lock(m_Lock);
    if (Security().ImpersonateSecurityContext(&m_hContext) != SEC_E_OK) {
        STRACE("ssoplugin: SSPIStaticToken::Impersonate() -- Could not impersonate.");
        throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
    }
    ++m_nImpersonations;
}

void SSPIStaticToken::RevertToSelfOrThrow(const char* i_pAssertion) {
    if (!Tokens().RevertToSelf()) {
        SASSERT_MSG(false, "false", i_pAssertion);
        throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
    }
}

void SSPIStaticToken::Revert() {
    static const char* const s_pFailed = "SSPIStaticToken::Revert() failed to revert to security context of process.";
    CSmartWriteLocker lock(m_Lock);
    if (m_nImpersonations == 0) {
        // The thread is back at the process's identity in any case.
        STRACE("ssoplugin: SSPIStaticToken::Revert() called for context that had not been impersonated.");
        RevertToSelfOrThrow(s_pFailed);
        return;
    }
    const SECURITY_STATUS status = Security().RevertSecurityContext(&m_hContext);
    if (status != SEC_E_OK) {
        STRACE("ssoplugin: SSPIStaticToken::RevertSecurityContext() failed -- revert using RevertToSelf(). Error %d",
               status);
        RevertToSelfOrThrow(s_pFailed);
    }
    --m_nImpersonations;
}

bool SSPIStaticToken::RenegotiateImpl() {
    CSmartRefCountPtr<SSOHandler> pHandler = SSOHandlerFactory::instance()->GetHandler(m_ssProvider);
    auto* pSSPIHandler = pHandler.as<KerberosSSPIHandler>();
    if (pSSPIHandler == nullptr) {
        SASSERT(false, "pSSPIHandler");
        throw SSOException(STATUS_FAILURE);
    }
    const SWCharString ssSPN = pSSPIHandler->GetSPN();
    SASSERT(!ssSPN.isEmpty(), "!ssSPN.isEmpty()");
    const SWCharString ssNone;
    // The server side runs as the process.
    SSOCredentialsPtr pServerCreds =
        NewOrOutOfMemory<KerberosSSPICredentials>(ssNone, ssNone, static_cast<int>(SSOCredentialsServer));

    // The client side runs as the user: credentials made while impersonating the context.
    SSOCredentialsPtr pUserCreds;
    {
        CSmartReadLocker lock(m_Lock);
        if (Security().ImpersonateSecurityContext(&m_hContext) != SEC_E_OK) {
            STRACE("ssoplugin: SSPIStaticToken::RenegotiateImpl() -- Could not impersonate.");
            throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
        }
        try {
            pUserCreds = SSOCredentialsPtr(new KerberosSSPICredentials(ssNone, ssNone, SSOCredentialsClient));
        } catch (std::bad_alloc&) {
            pUserCreds = nullptr;
        }
        // An SSOException from the credentials leaves above, with the cleaner thread still
        // impersonating: settled behaviour, kept as it is.
        const SECURITY_STATUS status = Security().RevertSecurityContext(&m_hContext);
        if (status != SEC_E_OK) {
            STRACE(
                "ssoplugin: SSPIStaticToken::RenegotiateImpl() revert failed -- revert using RevertToSelf(). Error "
                "%d",
                status);
            RevertToSelfOrThrow("SSPIStaticToken::RenegotiateImpl() failed to revert to security context of process.");
        }
        if (pUserCreds == nullptr) {
            throw SSOException(g_OutOfMemoryException);
        }
    }
    if (pServerCreds == nullptr) {
        SASSERT(false, "pUserCreds && pServerCreds");
        throw SSOException(STATUS_FAILURE);
    }

    ParasSeq spn{const_cast<ostrel_char*>(g_ssKeyServerSpn.c_str()), SSO_PARAM_STRING, 0,
                 const_cast<ostrel_char*>(ssSPN.c_str()), nullptr};
    SSOSessionPtr pClientSession = NewOrOutOfMemory<SSPISession>(&spn);
    SSOSessionPtr pServerSession = NewOrOutOfMemory<SSPISession>(nullptr);
    if (pServerSession == nullptr) {
        SASSERT(false, "pServerSession && pServerSession");
        throw SSOException(STATUS_FAILURE);
    }

    HeldToken clientToken(*pSSPIHandler);
    HeldToken serverToken(*pSSPIHandler);
    for (int nTurns = 1;; ++nTurns) {
        if (nTurns > s_nMaxRenegotiationTurns) {
            SASSERT_FAIL("ssoplugin: SSPIStaticToken::RenegotiateImpl() -- Stuck in loop, aborting!");
            throw SSOException(STATUS_FAILURE);
        }
        const int statClient =
            pSSPIHandler->InitializeContext(pUserCreds, pClientSession, serverToken.m_pvBuffer, serverToken.m_nSize,
                                            &clientToken.m_pvBuffer, &clientToken.m_nSize);
        serverToken.Release();
        if (statClient != SSEC_STATUS_OK && statClient != SSEC_STATUS_CONTINUE) {
            STRACE(
                "ssoplugin: SSPIStaticToken::RenegotiateImpl() -- Renegotiating security context failed when "
                "acting as the client.");
            throw SSOException(STATUS_FAILURE);
        }
        if (clientToken.IsEmpty()) {
            SASSERT(statClient == SSEC_STATUS_OK, "statClient == SSEC_STATUS_OK");
            break;
        }
        Parameters noLogonInfo;
        const int statServer =
            pSSPIHandler->AcceptContext(pServerCreds, pServerSession, clientToken.m_pvBuffer, clientToken.m_nSize,
                                        &serverToken.m_pvBuffer, &serverToken.m_nSize, false, noLogonInfo);
        clientToken.Release();
        // A 2 is a complete server context with no reply: a failure here as well.
        if (statServer != SSEC_STATUS_OK && statServer != SSEC_STATUS_CONTINUE) {
            STRACE(
                "ssoplugin: SSPIStaticToken::RenegotiateImpl() -- Renegotiating security context failed when "
                "acting as the server.");
            throw SSOException(STATUS_FAILURE);
        }
        if (serverToken.IsEmpty()) {
            SASSERT(statServer == SSEC_STATUS_OK, "statServer == SSEC_STATUS_OK");
            break;
        }
    }
    clientToken.Release();
    serverToken.Release();

    CSmartRefCountPtr<StaticToken> pNewToken = pServerSession->GetStaticToken();
    auto* pSSPIToken = pNewToken.as<SSPIStaticToken>();
    if (pSSPIToken == nullptr) {
        SASSERT(false, "pSSPIToken");
        throw SSOException(STATUS_FAILURE);
    }
    CSmartWriteLocker lock(m_Lock);
    if (Security().DeleteSecurityContext(&m_hContext) != SEC_E_OK) {
        STRACE("ssoplugin: SSPISession::RenegotiateImpl() -- Could not delete context handle.");
    }
    m_hContext = pSSPIToken->m_hContext;
    pSSPIToken->m_hContext = {0, 0};
    m_Lifespan = pSSPIToken->m_Lifespan;
    return true;
}

}  // namespace ostrel
