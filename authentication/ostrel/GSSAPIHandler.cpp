#include "GSSAPIHandler.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/Trace.h"

namespace ostrel {

const SWCharString g_ssKeyGssapiUserName(SSO_KEY_GSSAPI_USER_NAME);

namespace {

const SWCharString s_ssMechanismName(OSTREL_T("Kerberos/GSSAPI"));

void ReleaseBuffer(GSSAPIDllWrapper& i_gssDll, gss_buffer_desc& io_buffer, const char* i_pCondition) {
    OM_uint32 minor_status_temp = 0;
    SASSERT(!i_gssDll.GSS_ERROR(i_gssDll.gss_release_buffer(&minor_status_temp, &io_buffer)), i_pCondition);
}

}  // namespace

GSSAPIHandler::GSSAPIHandler() : SSOHandler(true, 0, 5, true) { m_RequiredParameters.Add(g_ssKeyServerSpn); }

GSSAPIHandler::~GSSAPIHandler() { m_pGssDll = nullptr; }

CSmartRefCountPtr<GSSAPIDllWrapper> GSSAPIHandler::Dll() {
    CSmartReadLocker lock(m_HandlerLock);
    return m_pGssDll;
}

SWCharString GSSAPIHandler::GetSPN() {
    CSmartReadLocker lock(m_HandlerLock);
    return m_ssSPN;
}

void GSSAPIHandler::GetRequiredParameters(Parameters& o_params) {
    CSmartReadLocker lock(m_HandlerLock);
    SISet<SWCharString>::Iterator itr(m_RequiredParameters);
    while (!itr.isAtEnd()) {
        o_params.AddParameter(itr.value(), true);
        ++itr;
    }
}

void GSSAPIHandler::InitHandler(const Parameters& i_params) {
    CSmartWriteLocker lock(m_HandlerLock);
    if (m_pGssDll == nullptr) {
        m_pGssDll = CSmartRefCountPtr<GSSAPIDllWrapper>(new GSSAPIDllWrapper());
    }
    if (!m_pGssDll->IsInitialized() && !m_pGssDll->Initialize()) {
        STRACE("ssoplugin: GSSAPIHandler::InitHandler() -- Failed to initialize GSSAPI dll.");
        throw MakeSSOException(STATUS_FAILURE, MSG_MECHANISM_UNAVAILABLE, s_ssMechanismName);
    }
    SWCharString ssSPN;
    if (!i_params.GetParameter(g_ssKeyServerSpn, ssSPN)) {
        STRACE("ssoplugin: GSSAPIHandler::InitHandler() -- Missing SPN.");
        throw MakeSSOException(STATUS_FAILURE, MSG_MECHANISM_UNAVAILABLE, s_ssMechanismName);
    }
    m_ssSPN = ssSPN;
    // Fixed whatever the host asked for: a finished login here leaves nothing behind.
    m_bCaching = false;
    m_tsCacheExpiry = STimeSpan(0);
    m_bRenewalsAllowed = false;
    m_GlobalParameters = i_params;
}

SSOCredentialsPtr GSSAPIHandler::CreateServerCredentials(int i_nType) {
    STRACE("ssoplugin: GSSAPIHandler::CreateServerCredentials() -- Creating new credentials object.");
    try {
        return SSOCredentialsPtr(new GSSAPIServerCredentials(GetSPN(), i_nType, Dll()));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("GSSAPIHandler::CreateServerCredentials() -- Out of memory.");
        throw SSOException(g_OutOfMemoryException);
    } catch (SSOException&) {
        STRACE("GSSAPIHandler::CreateServerCredentials() -- Creation failed.");
        throw;
    }
}

SSOCredentialsPtr GSSAPIHandler::CreateClientCredentials(const SWCharString& i_ssUsername,
                                                         const SWCharString& i_ssPassword, int i_nType) {
    STRACE("ssoplugin: GSSAPIHandler::CreateClientCredentials() -- Creating new credentials object.");
    try {
        return SSOCredentialsPtr(new GSSAPIClientCredentials(i_ssUsername, i_ssPassword, i_nType, Dll()));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("GSSAPIHandler::CreateClientCredentials() -- Out of memory.");
        throw SSOException(g_OutOfMemoryException);
    } catch (SSOException&) {
        STRACE("GSSAPIHandler::CreateClientCredentials() -- Creation failed.");
        throw;
    }
}

SSOSessionPtr GSSAPIHandler::CreateSession(const ParasSeq* i_pParas) {
    STRACE("ssoplugin: GSSAPIHandler::CreateSession() -- Creating a new session for GSSAPI.");
    try {
        return SSOSessionPtr(new GSSAPISession(Dll(), i_pParas));
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("GSSAPIHandler::CreateSession() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    } catch (SSOException&) {
        STRACE("ssoplugin: GSSAPIHandler::CreateSession() -- Creation failed.");
        throw;
    }
}

void* GSSAPIHandler::AllocateBuffer(size_t i_nSize) {
    void* pvBuff = std::malloc(i_nSize);
    if (pvBuff == nullptr) {
        SASSERT_MSG(false, "pvBuff", "GSSAPIHandler::AllocateBuffer() -- Out of memory.");
        throw SSOException(g_OutOfMemoryException);
    }
    return pvBuff;
}

void GSSAPIHandler::FreeBuffer(void* i_pvBuffer) {
    if (i_pvBuffer == nullptr) {
        STRACE("GSSAPIHandler::FreeBuffer() -- input buffer is NULL");
        return;
    }
    std::free(i_pvBuffer);
}

void* GSSAPIHandler::CopyGssBuffer(gss_buffer_desc* i_pBuffer) {
    if (i_pBuffer == nullptr) {
        STRACE("GSSAPIHandler::FreeBuffer() -- input buffer is NULL");
        return nullptr;
    }
    void* pCopy = AllocateBuffer(i_pBuffer->length);
    std::memcpy(pCopy, i_pBuffer->value, i_pBuffer->length);
    return pCopy;
}

void GSSAPIHandler::TakeOutputToken(GSSAPIDllWrapper& i_gssDll, gss_buffer_desc& io_buffer, OM_uint32 i_nMajor,
                                    void** o_ppvBuffer, size_t* o_pnBufferSize, const char* i_pReleaseCondition) {
    const bool bHasOutput = io_buffer.length > 0 && io_buffer.value != nullptr;
    // An error token is not passed on.
    if (bHasOutput && !GSSAPIDllWrapper::GSS_ERROR(i_nMajor)) {
        *o_pnBufferSize = io_buffer.length;
        try {
            *o_ppvBuffer = CopyGssBuffer(&io_buffer);
        } catch (...) {
            *o_pnBufferSize = 0;
            ReleaseBuffer(i_gssDll, io_buffer, i_pReleaseCondition);
            throw;
        }
    } else {
        *o_pnBufferSize = 0;
        *o_ppvBuffer = nullptr;
    }
    if (bHasOutput) {
        ReleaseBuffer(i_gssDll, io_buffer, i_pReleaseCondition);
    }
}

int GSSAPIHandler::AcceptContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession, const void* i_pvBuffer,
                                 size_t i_nBufferSize, void** o_ppvBuffer, size_t* o_pnBufferSize,
                                 bool i_bGetLogonInfo, Parameters& o_params) {
    auto* pCredentials = i_pCredentials.as<GSSAPIServerCredentials>();
    if (pCredentials == nullptr) {
        SASSERT_FAIL("ssoplugin: GSSAPIHandler::AcceptContext() -- Wrong type of SSOCredentialsPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    auto* pSession = i_pSession.as<GSSAPISession>();
    if (pSession == nullptr) {
        SASSERT_FAIL("ssoplugin: GSSAPIHandler::AcceptContext() -- Wrong type of SSOSessionPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    const bool bFirstPass = pSession->GetPass() == 0;
    pSession->CountPass();

    // The closing call: the context completed last pass and the reply went out.
    if (!bFirstPass && i_pvBuffer == nullptr && i_nBufferSize == 0) {
        // A host that sends no input while the library still waits for the client must
        // not be told the login is finished: nobody has been authenticated.
        if (!pSession->m_bComplete) {
            STRACE("ssoplugin: GSSAPIHandler::AcceptContext() -- No input, but the context is not complete.");
            throw SSOException(STATUS_FAILURE);
        }
        if (i_bGetLogonInfo) {
            SWCharString ssUserName;
            const bool bFound = pSession->GetParameters().GetParameter(g_ssKeyGssapiUserName, ssUserName);
            SASSERT(bFound, "i_pSession->GetParameters().GetParameter(GSSAPI_USER_NAME, ssUserName)");
            o_params.AddParameter(g_ssKeyGssapiUserName, ssUserName);
        }
        return SSEC_STATUS_COMPLETE_NO_OUTPUT;
    }

    CSmartRefCountPtr<GSSAPIDllWrapper> pGssDll = Dll();
    gss_buffer_desc InBuffer = {i_nBufferSize, const_cast<void*>(i_pvBuffer)};
    gss_buffer_desc OutBuffer = {0, nullptr};
    gss_name_t ClientName = nullptr;
    OM_uint32 nFlags = 0;
    OM_uint32 nMinor = 0;
    const OM_uint32 nMajor = pGssDll->gss_accept_sec_context(
        &nMinor, &pSession->m_Context, pCredentials->m_CredHandle, &InBuffer,
        GSSAPIDllWrapper::GSS_C_NO_CHANNEL_BINDINGS, &ClientName, nullptr, &OutBuffer, &nFlags, nullptr, nullptr);

    SWCharString ssClientName;
    if (ClientName != nullptr) {
        OM_uint32 minor_status_temp = 0;
        if (!GSSAPIDllWrapper::GSS_ERROR(nMajor)) {
            gss_buffer_desc ClientNameBuffer = {0, nullptr};
            pGssDll->gss_display_name(&minor_status_temp, ClientName, &ClientNameBuffer, nullptr);
            if (ClientNameBuffer.value != nullptr && ClientNameBuffer.length > 0) {
                ssClientName = ToWCharString(
                    SAnsiString(static_cast<const char*>(ClientNameBuffer.value), ClientNameBuffer.length));
            }
            ReleaseBuffer(*pGssDll, ClientNameBuffer,
                          "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_release_buffer(&minor_status_temp, &ClientNameBuffer))");
        }
        SASSERT(!pGssDll->GSS_ERROR(pGssDll->gss_release_name(&minor_status_temp, &ClientName)),
                "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_release_name(&minor_status_temp, &ClientName))");
    }

    TakeOutputToken(*pGssDll, OutBuffer, nMajor, o_ppvBuffer, o_pnBufferSize,
                    "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_release_buffer(&minor_status_temp, &OutBuffer))");
    if (GSSAPIDllWrapper::GSS_ERROR(nMajor)) {
        STRACE("ssoplugin: GSSAPIHandler::AcceptContext() -- %1", pGssDll->GetGSSAPIError(nMajor, nMinor));
    }

    if (nMajor == GSSAPIDllWrapper::GSS_S_COMPLETE) {
        pSession->m_bComplete = true;
        if (*o_pnBufferSize == 0) {
            if (i_bGetLogonInfo) {
                o_params.AddParameter(g_ssKeyGssapiUserName, ssClientName);
            }
            return SSEC_STATUS_COMPLETE_NO_OUTPUT;
        }
        // The reply still has to reach the client: one more, empty, pass finishes.
        if (i_bGetLogonInfo) {
            pSession->GetParameters().AddParameter(g_ssKeyGssapiUserName, ssClientName);
        }
        return SSEC_STATUS_CONTINUE;
    }
    if (nMajor == GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED) {
        return SSEC_STATUS_CONTINUE;
    }
    throw SSOException(STATUS_FAILURE);
}

int GSSAPIHandler::InitializeContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession,
                                     const void* i_pvBuffer, size_t i_nBufferSize, void** o_ppvBuffer,
                                     size_t* o_pnBufferSize) {
    auto* pCredentials = i_pCredentials.as<GSSAPIClientCredentials>();
    if (pCredentials == nullptr) {
        SASSERT_FAIL("ssoplugin: GSSAPIHandler::InitializeContext() -- Wrong type of SSOCredentialsPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    auto* pSession = i_pSession.as<GSSAPISession>();
    if (pSession == nullptr) {
        SASSERT_FAIL("ssoplugin: GSSAPIHandler::InitializeContext() -- Wrong type of SSOSessionPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    STRACE("ssoplugin: GSSAPIHandler::InitializeContext() -- Pass %1", static_cast<int>(pSession->GetPass()) + 1);
    const bool bFirstPass = pSession->GetPass() == 0;
    pSession->CountPass();

    // A client's target comes from its session, not from the handler.
    const Parameters params = pSession->GetParameters();
    SWCharString ssSPN;
    if (!params.GetParameter(g_ssKeyServerSpn, ssSPN)) {
        SASSERT_MSG(false, "false", "ssoplugin: GSSAPIHandler::InitializeContext() -- Missing SPN!");
        throw SSOException(STATUS_FAILURE, MSG_SPN_MISSING);
    }
    CSmartRefCountPtr<GSSAPIDllWrapper> pGssDll = Dll();
    gss_name_t TargetName = nullptr;
    OM_uint32 nMinor = 0;
    OM_uint32 nMajor = pGssDll->ImportUserName(ssSPN, &nMinor, &TargetName);
    if (GSSAPIDllWrapper::GSS_ERROR(nMajor)) {
        STRACE("ssoplugin: GSSAPIHandler::InitializeContext() -- gss_import_name failed: %1",
               pGssDll->GetGSSAPIError(nMajor, nMinor));
        throw SSOException(STATUS_FAILURE);
    }
    gss_buffer_desc InBuffer = {i_nBufferSize, const_cast<void*>(i_pvBuffer)};
    gss_buffer_t pInput = &InBuffer;
    if (bFirstPass) {
        pSession->m_Context = GSSAPIDllWrapper::GSS_C_NO_CONTEXT;
        pInput = GSSAPIDllWrapper::GSS_C_NO_BUFFER;
    }
    gss_buffer_desc OutputBuffer = {0, *o_ppvBuffer};
    nMajor = pGssDll->gss_init_sec_context(
        &nMinor, pCredentials->m_CredHandle, &pSession->m_Context, TargetName, GSSAPIDllWrapper::GSS_C_NO_OID,
        GSSAPIDllWrapper::GSS_C_DELEG_FLAG | GSSAPIDllWrapper::GSS_C_MUTUAL_FLAG, 0,
        GSSAPIDllWrapper::GSS_C_NO_CHANNEL_BINDINGS, pInput, nullptr, &OutputBuffer, nullptr, nullptr);
    if (TargetName != nullptr) {
        OM_uint32 minor_status_temp = 0;
        SASSERT(!pGssDll->GSS_ERROR(pGssDll->gss_release_name(&minor_status_temp, &TargetName)),
                "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_release_name(&minor_status_temp, &TargetName))");
    }
    TakeOutputToken(*pGssDll, OutputBuffer, nMajor, o_ppvBuffer, o_pnBufferSize,
                    "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_release_buffer(&minor_status_temp, &OutputBuffer))");
    if (GSSAPIDllWrapper::GSS_ERROR(nMajor)) {
        STRACE("ssoplugin: GSSAPIHandler::InitializeContext() -- %1", pGssDll->GetGSSAPIError(nMajor, nMinor));
    }
    if (nMajor == GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED) {
        return SSEC_STATUS_CONTINUE;
    }
    if (nMajor == GSSAPIDllWrapper::GSS_S_COMPLETE) {
        return *o_pnBufferSize > 0 ? SSEC_STATUS_CONTINUE : SSEC_STATUS_OK;
    }
    throw SSOException(STATUS_FAILURE);
}

GSSAPISession::GSSAPISession(CSmartRefCountPtr<GSSAPIDllWrapper> i_pGssDll, const ParasSeq* i_pParas)
    : SSOSession(i_pParas) {
    GSSAPIDllWrapper::RequireBound(i_pGssDll);
    m_pGssDll = i_pGssDll;
    m_ssProvider = g_ssProviderGSSAPI;
}

GSSAPISession::~GSSAPISession() {
    if (m_Context != GSSAPIDllWrapper::GSS_C_NO_CONTEXT && m_pGssDll != nullptr) {
        try {
            OM_uint32 MinorStatus = 0;
            SASSERT(!m_pGssDll->GSS_ERROR(
                        m_pGssDll->gss_delete_sec_context(&MinorStatus, &m_Context, GSSAPIDllWrapper::GSS_C_NO_BUFFER)),
                    "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_delete_sec_context(&MinorStatus, &m_Context, "
                    "GSSAPIDllWrapper::GSS_C_NO_BUFFER))");
        } catch (...) {
            SASSERT_FAIL("ssoplugin: GSSAPISession::~GSSAPISession() -- Caught an exception!");
        }
    }
    m_pGssDll = nullptr;
}

CSmartRefCountPtr<StaticToken> GSSAPISession::GetStaticToken() {
    CSmartRefCountPtr<StaticToken> pToken;
    try {
        pToken = CSmartRefCountPtr<StaticToken>(new GSSAPIStaticToken());
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("ssoplugin: GSSAPISession::GetStaticToken() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    if (pToken == nullptr) {
        SASSERT(false, "pToken");
        throw SSOException(STATUS_FAILURE);
    }
    return pToken;
}

GSSAPIStaticToken::GSSAPIStaticToken() { m_ssProvider = g_ssProviderGSSAPI; }

void GSSAPIStaticToken::Impersonate() {
    CSmartWriteLocker lock(m_Lock);
    throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
}

void GSSAPIStaticToken::Revert() {
    CSmartWriteLocker lock(m_Lock);
    if (m_nImpersonations > 0) {
        --m_nImpersonations;
    }
}

bool GSSAPIStaticToken::Expired(const SDateTime& /*i_now*/) {
    CSmartReadLocker lock(m_Lock);
    return false;
}

bool GSSAPIStaticToken::RenegotiateImpl() { return true; }

STimeSpan GSSAPIStaticToken::GetRemainingLifetime(const SDateTime& /*i_now*/) { return STimeSpan(0); }

STimeSpan GSSAPIStaticToken::GetLifetime() { return STimeSpan(0); }

}  // namespace ostrel
