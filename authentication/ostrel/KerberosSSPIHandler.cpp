#include "KerberosSSPIHandler.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "IntCast.h"
#include "foundation/Trace.h"
#include "ostrel_platform/ISecurityApi.h"

namespace ostrel {

using platform::Security;

const SWCharString g_ssKeySspiUserSid(SSO_KEY_SSPI_USER_SID);
const SWCharString g_ssKeySspiUserGroupSids(SSO_KEY_SSPI_USER_GROUP_SIDS);

namespace {

constexpr ULONG s_nClientContextRequest = ISC_REQ_DELEGATE | ISC_REQ_MUTUAL_AUTH;
constexpr int64_t s_nLargestExpirySeconds = INT64_MAX / 1000;

// One token buffer of the SSPI's form.
struct TokenBuffer {
    TokenBuffer(const void* i_pvBuffer, size_t i_nSize)
        : buffer{int_cast<ULONG>(i_nSize), SECBUFFER_TOKEN, const_cast<void*>(i_pvBuffer)},
          desc{SECBUFFER_VERSION, 1, &buffer} {}
    SecBuffer buffer;
    SecBufferDesc desc;
};

// Reads one setting; a wrong type is reported and thrown on.
template <class T>
bool ReadSetting(const Parameters& i_params, const SWCharString& i_ssKey, T& o_value, const char* i_pMismatch) {
    try {
        return i_params.GetParameter(i_ssKey, o_value);
    } catch (SSOException&) {
        SASSERT_FAIL(i_pMismatch);
        throw;
    }
}

}  // namespace

KerberosSSPIHandler::KerberosSSPIHandler() : SSOHandler(true, 0, 5, true) {
    m_RequiredParameters.Add(g_ssKeyServerSpn);
    PSecPkgInfoW pPackageInfo = nullptr;
    auto freeInfo = [&pPackageInfo] {
        if (pPackageInfo != nullptr) {
            const SECURITY_STATUS statFree = Security().FreeContextBuffer(pPackageInfo);
            pPackageInfo = nullptr;
            SASSERT(statFree == SEC_E_OK, "statFree == SEC_E_OK");
        }
    };
    try {
        if (Security().QuerySecurityPackageInfoW(KerberosPackageName(), &pPackageInfo) != SEC_E_OK) {
            STRACE("ssoplugin: KerberosSSPIHandler::KerberosSSPIHandler() -- QuerySecurityPackageInfo() failed!");
            throw MakeSSOException(STATUS_FAILURE, MSG_MECHANISM_UNAVAILABLE, g_ssKerberosSSPIMechanism);
        }
        if (pPackageInfo == nullptr) {
            SASSERT(false, "pPackageInfo");
            STRACE(
                "ssoplugin: KerberosSSPIHandler::KerberosSSPIHandler() -- QuerySecurityPackageInfo() returned NULL!");
            throw MakeSSOException(STATUS_FAILURE, MSG_MECHANISM_UNAVAILABLE, g_ssKerberosSSPIMechanism);
        }
        m_nMaxTokenSize = pPackageInfo->cbMaxToken;
        freeInfo();
    } catch (SSOException&) {
        freeInfo();
        resetRefCount();
        throw;
    }
}

void KerberosSSPIHandler::InitHandler(const Parameters& i_params) {
    if (!i_params.CheckParameters(m_RequiredGlobalParameters)) {
        STRACE("ssoplugin: KerberosSSPIHandler::InitHandler() -- Missing global parameters.");
        throw MakeSSOException(STATUS_FAILURE, MSG_MECHANISM_UNAVAILABLE, g_ssKerberosSSPIMechanism);
    }
    int64_t lExpiryTime = 0;
    const bool bExpiry =
        ReadSetting(i_params, g_ssKeyCacheExpiry, lExpiryTime,
                    "ssoplugin: KerberosSSPIHandler::InitHandler() -- Type mismatch getting the cache expiry time.");
    if (bExpiry && lExpiryTime >= s_nLargestExpirySeconds) {
        SASSERT(false, "lExpiryTime < (INT64_MAX / 1000)");
        lExpiryTime = INT64_MAX;
    }
    bool bCaching = false;
    const bool bCachingSet =
        ReadSetting(i_params, g_ssKeyCacheSecContext, bCaching,
                    "ssoplugin: KerberosSSPIHandler::InitHandler() -- Type mismatch getting the cache expiry flag.");
    bool bRenewals = false;
    const bool bRenewalsSet =
        ReadSetting(i_params, g_ssKeyRenewalsAllowed, bRenewals,
                    "ssoplugin: KerberosSSPIHandler::InitHandler() -- Type mismatch getting the context renewal flag.");

    CSmartWriteLocker lock(m_HandlerLock);
    if (bExpiry) {
        // Wraps like the 64-bit multiplication it is: the clamped value ends as -1000.
        m_tsCacheExpiry = STimeSpan(static_cast<int64_t>(static_cast<uint64_t>(lExpiryTime) * 1000u));
        STRACE("ssoplugin: KerberosSSPIHandler::InitHandler() -- Setting cache timeout to %1",
               static_cast<long long>(lExpiryTime));
    }
    if (bCachingSet) {
        m_bCaching = bCaching;
        if (bCaching) {
            STRACE("ssoplugin: KerberosSSPIHandler::InitHandler() -- Turning on caching of contexts.");
        } else {
            STRACE("ssoplugin: KerberosSSPIHandler::InitHandler() -- Turning off caching of contexts.");
        }
    }
    if (bRenewalsSet) {
        m_bRenewalsAllowed = bRenewals;
        if (bRenewals) {
            STRACE("ssoplugin: KerberosSSPIHandler::InitHandler() -- Allowing renewals of cached security contexts.");
        } else {
            STRACE("ssoplugin: KerberosSSPIHandler::InitHandler() -- Disabling renewals of cached security contexts.");
        }
    }
    m_GlobalParameters = i_params;
}

// Empty on purpose: a session's SPN comes with its own parameters.
void KerberosSSPIHandler::GetRequiredParameters(Parameters& /*o_params*/) {}

SWCharString KerberosSSPIHandler::GetSPN() {
    CSmartReadLocker lock(m_HandlerLock);
    SWCharString ssSPN;
    if (!m_GlobalParameters.GetParameter(g_ssKeyServerSpn, ssSPN)) {
        STRACE("ssoplugin: KerberosSSPIHandler::GetSPN() -- Could not determine spn!");
        throw SSOException(STATUS_FAILURE);
    }
    return ssSPN;
}

SSOSessionPtr KerberosSSPIHandler::CreateSession(const ParasSeq* i_pParas) {
    STRACE("ssoplugin: KerberosSSPIHandler::CreateSession() -- Creating a new session for Kerberos SSPI.");
    try {
        return SSOSessionPtr(new SSPISession(i_pParas));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("KerberosSSPIHandler::CreateSession() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    } catch (SSOException&) {
        STRACE("KerberosSSPIHandler::CreateSession() -- Creation failed.");
        throw;
    }
}

SSOCredentialsPtr KerberosSSPIHandler::CreateClientCredentials(const SWCharString& i_ssUsername,
                                                               const SWCharString& i_ssPassword, int i_nType) {
    STRACE("ssoplugin: KerberosSSPIHandler::CreateCredentials() -- Creating new credentials object.");
    try {
        return SSOCredentialsPtr(new KerberosSSPICredentials(i_ssUsername, i_ssPassword, i_nType));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("KerberosSSPIHandler::CreateCredentials() -- Out of memory.");
        throw SSOException(g_OutOfMemoryException);
    } catch (SSOException&) {
        STRACE("KerberosSSPIHandler::CreateCredentials() -- Creation failed.");
        throw;
    }
}

SSOCredentialsPtr KerberosSSPIHandler::CreateServerCredentials(int i_nType) {
    return CreateClientCredentials(SWCharString(), SWCharString(), i_nType);
}

void* KerberosSSPIHandler::AllocateBuffer(size_t i_nSize) {
    void* pvBuff = std::calloc(std::max<size_t>(i_nSize, 1), 1);
    if (pvBuff == nullptr) {
        SASSERT_MSG(false, "pvBuff", "KerberosSSPIHandler::AllocateBuffer() -- Out of memory.");
        throw SSOException(g_OutOfMemoryException);
    }
    return pvBuff;
}

void KerberosSSPIHandler::FreeBuffer(void* i_pvBuffer) {
    if (i_pvBuffer == nullptr) {
        STRACE("KerberosSSPIHandler::FreeBuffer() -- input buffer is NULL");
        return;
    }
    std::free(i_pvBuffer);
}

int KerberosSSPIHandler::InitializeContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession,
                                           const void* i_pvBuffer, size_t i_nBufferSize, void** o_ppvBuffer,
                                           size_t* o_pnBufferSize) {
    auto* pCredentials = i_pCredentials.as<KerberosSSPICredentials>();
    if (pCredentials == nullptr) {
        SASSERT_FAIL(
            "ssoplugin: KerberosSSPIHandler::InitializeContext() -- Wrong type of SSOCredentialsPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    auto* pSession = i_pSession.as<SSPISession>();
    if (pSession == nullptr) {
        SASSERT_FAIL("ssoplugin: KerberosSSPIHandler::InitializeContext() -- Wrong type of SSOSessionPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    STRACE("ssoplugin: KerberosSSPIHandler::InitializeContext() -- Pass %1", static_cast<int>(pSession->GetPass()) + 1);
    const bool bFirstPass = pSession->GetPass() == 0;
    pSession->CountPass();

    // A client's target comes from its session, never from the handler.
    const Parameters params = pSession->GetParameters();
    SWCharString ssSPN;
    if (!params.GetParameter(g_ssKeyServerSpn, ssSPN)) {
        SASSERT_MSG(false, "false", "ssoplugin: KerberosSSPIHandler::InitializeContext() -- Missing SPN!");
        throw SSOException(STATUS_FAILURE, MSG_SPN_MISSING);
    }
    // The caller owns the buffer from here on, also when a later step throws.
    *o_ppvBuffer = AllocateBuffer(m_nMaxTokenSize);
    *o_pnBufferSize = m_nMaxTokenSize;
    if (!bFirstPass) {
        SASSERT_MSG(i_pvBuffer != nullptr, "i_pvBuffer",
                    "ssoplugin: KerberosSSPIHandler::InitializeContext() -- NULL input buffer on second pass.");
        SASSERT_MSG(i_nBufferSize != 0, "i_nBufferSize",
                    "ssoplugin: KerberosSSPIHandler::InitializeContext() -- 0-length input buffer on second pass.");
        if (i_pvBuffer == nullptr || i_nBufferSize == 0) {
            throw SSOException(STATUS_FAILURE);
        }
    }
    TokenBuffer input(i_pvBuffer, bFirstPass ? 0 : i_nBufferSize);
    TokenBuffer output(*o_ppvBuffer, m_nMaxTokenSize);
    ULONG nAttributes = 0;
    TimeStamp tsExpiry = {};
    const SECURITY_STATUS status = Security().InitializeSecurityContextW(
        &pCredentials->m_hCredentials, bFirstPass ? nullptr : &pSession->m_hContext,
        const_cast<SEC_WCHAR*>(ssSPN.c_str()), s_nClientContextRequest, 0, SECURITY_NATIVE_DREP,
        bFirstPass ? nullptr : &input.desc, 0, &pSession->m_hContext, &output.desc, &nAttributes, &tsExpiry);
    // A package that claims more than the buffer holds is not believed.
    *o_pnBufferSize = std::min<size_t>(output.buffer.cbBuffer, m_nMaxTokenSize);

    switch (status) {
        case SEC_E_OK:
            return SSEC_STATUS_OK;
        case SEC_I_CONTINUE_NEEDED:
            return SSEC_STATUS_CONTINUE;
        case SEC_E_WRONG_PRINCIPAL:
            STRACE("ssoplugin: KerberosSSPIHandler::InitializeContext() -- error code SEC_E_WRONG_PRINCIPAL.");
            throw SSOException(STATUS_FAILURE, MSG_WRONG_PRINCIPAL);
        case SEC_E_TARGET_UNKNOWN:
            STRACE("ssoplugin: KerberosSSPIHandler::InitializeContext() -- error code SEC_E_TARGET_UNKNOWN.");
            throw MakeSSOException(STATUS_FAILURE, MSG_TARGET_UNKNOWN, ssSPN);
        case SEC_E_LOGON_DENIED:
            STRACE("ssoplugin: KerberosSSPIHandler::InitializeContext() -- error code SEC_E_LOGON_DENIED.");
            throw SSOException(STATUS_LOGON_DENIED, MSG_LOGON_DENIED_CLIENT);
        case SEC_E_NO_AUTHENTICATING_AUTHORITY:
            STRACE(
                "ssoplugin: KerberosSSPIHandler::InitializeContext() -- error code "
                "SEC_E_NO_AUTHENTICATING_AUTHORITY.");
            throw SSOException(STATUS_FAILURE, MSG_NO_AUTHENTICATING_AUTHORITY);
        default:
            STRACE("ssoplugin: KerberosSSPIHandler::InitializeContext() -- Failure in InitializeSecurityContext(). %1",
                   status);
            throw SSOException(STATUS_FAILURE);
    }
}

int KerberosSSPIHandler::AcceptContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession,
                                       const void* i_pvBuffer, size_t i_nBufferSize, void** o_ppvBuffer,
                                       size_t* o_pnBufferSize, bool i_bGetLogonInfo, Parameters& o_params) {
    auto* pCredentials = i_pCredentials.as<KerberosSSPICredentials>();
    if (pCredentials == nullptr) {
        SASSERT_FAIL("ssoplugin: KerberosSSPIHandler::AcceptContext() -- Wrong type of SSOCredentialsPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    auto* pSession = i_pSession.as<SSPISession>();
    if (pSession == nullptr) {
        SASSERT_FAIL("ssoplugin: KerberosSSPIHandler::AcceptContext() -- Wrong type of SSOSessionPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    const bool bFirstPass = pSession->GetPass() == 0;
    pSession->CountPass();

    // The closing call: the peer has nothing more to say.
    if (!bFirstPass && i_pvBuffer == nullptr && i_nBufferSize == 0) {
        // A client that stops half-way must not leave a finished login behind.
        if (!pSession->m_bComplete) {
            STRACE("ssoplugin: KerberosSSPIHandler::AcceptContext() -- No input, but the context is not complete.");
            throw SSOException(STATUS_FAILURE);
        }
        if (i_bGetLogonInfo) {
            GetLogonInformation(i_pSession, o_params);
        }
        return SSEC_STATUS_COMPLETE_NO_OUTPUT;
    }
    SASSERT_MSG(i_pvBuffer != nullptr, "i_pvBuffer",
                "ssoplugin: KerberosSSPIHandler::AcceptContext() -- NULL input buffer.");
    SASSERT_MSG(i_nBufferSize != 0, "i_nBufferSize",
                "ssoplugin: KerberosSSPIHandler::AcceptContext() -- 0-length input buffer..");
    if (i_pvBuffer == nullptr || i_nBufferSize == 0) {
        throw SSOException(STATUS_FAILURE);
    }
    // A size the package can't take is refused before anything is allocated.
    TokenBuffer input(i_pvBuffer, i_nBufferSize);
    *o_pnBufferSize = m_nMaxTokenSize;
    *o_ppvBuffer = AllocateBuffer(m_nMaxTokenSize);
    TokenBuffer output(*o_ppvBuffer, m_nMaxTokenSize);
    ULONG nAttributes = ASC_REQ_MUTUAL_AUTH;
    TimeStamp tsExpiry = {};
    const SECURITY_STATUS status = Security().AcceptSecurityContext(
        &pCredentials->m_hCredentials, bFirstPass ? nullptr : &pSession->m_hContext, &input.desc, ASC_REQ_MUTUAL_AUTH,
        SECURITY_NATIVE_DREP, &pSession->m_hContext, &output.desc, &nAttributes, &tsExpiry);
    *o_pnBufferSize = std::min<size_t>(output.buffer.cbBuffer, m_nMaxTokenSize);

    switch (status) {
        case SEC_E_OK:
            pSession->m_bComplete = true;
            if (i_bGetLogonInfo) {
                GetLogonInformation(i_pSession, o_params);
            }
            return *o_pnBufferSize != 0 ? SSEC_STATUS_CONTINUE : SSEC_STATUS_COMPLETE_NO_OUTPUT;
        case SEC_I_CONTINUE_NEEDED:
            return SSEC_STATUS_CONTINUE;
        case SEC_I_COMPLETE_NEEDED:
        case SEC_I_COMPLETE_AND_CONTINUE:
            return SSEC_STATUS_OK;
        case SEC_E_INSUFFICIENT_MEMORY:
            SASSERT_FAIL("ssoplugin: KerberosSSPIHandler::AcceptContext() -- error code SEC_E_INSUFFICIENT_MEMORY");
            throw SSOException(g_OutOfMemoryException);
        case SEC_E_LOGON_DENIED:
            STRACE("ssoplugin: KerberosSSPIHandler::AcceptContext() -- error code SEC_E_LOGON_DENIED.");
            throw SSOException(STATUS_LOGON_DENIED, MSG_CREDENTIALS);
        case SEC_E_NO_AUTHENTICATING_AUTHORITY:
            STRACE("ssoplugin: KerberosSSPIHandler::AcceptContext() -- error code SEC_E_NO_AUTHENTICATING_AUTHORITY.");
            throw SSOException(STATUS_FAILURE, MSG_NO_AUTHENTICATING_AUTHORITY);
        default:
            STRACE("ssoplugin: KerberosSSPIHandler::AcceptContext() -- Failure in AcceptSecurityContext(). %1", status);
            throw SSOException(STATUS_FAILURE);
    }
}

SSPISession::SSPISession(const ParasSeq* i_pParas) : SSOSession(i_pParas) { m_ssProvider = g_ssProviderSSPI; }

SSPISession::~SSPISession() {
    try {
        if (!IsHandleSet(m_hContext)) {
            STRACE("ssoplugin: SSPISession::~SSPISession() -- CtxtHndle does not require releasing.");
        } else if (Security().DeleteSecurityContext(&m_hContext) != SEC_E_OK) {
            STRACE("ssoplugin: SSPISession::~SSPISession() -- Could not delete context handle.");
        }
    } catch (...) {
        SASSERT_FAIL("ssoplugin: SSPISession::~SSPISession() -- Unexpected exception!");
    }
}

CSmartRefCountPtr<StaticToken> SSPISession::GetStaticToken() {
    CSmartRefCountPtr<StaticToken> pToken;
    try {
        pToken = CSmartRefCountPtr<StaticToken>(new SSPIStaticToken(&m_hContext));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("ssoplugin: SSPISession::GetStaticToken() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    if (pToken == nullptr) {
        SASSERT(false, "pToken");
        throw SSOException(STATUS_FAILURE);
    }
    m_hContext = {0, 0};  // the token owns the context now
    return pToken;
}

}  // namespace ostrel
