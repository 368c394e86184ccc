// SSOImpl's external handles: the set of open verifiers and the three
// operations on it. They work without Initialize.
#include "SSOImpl.h"
#include "foundation/Scrambler.h"
#include "foundation/Trace.h"

namespace ostrel {

void SSOImpl::ReportExternalError(const SSOException& i_exception) {
    CSmartRefCountPtr<ErrorManager> pErrorManager;
    {
        // Held only to read the pointer while another thread may start or stop the plug-in.
        CSmartReadLocker lock(m_Lock);
        pErrorManager = m_pErrorManager;
    }
    if (pErrorManager != nullptr) {
        pErrorManager->SetThreadError(i_exception);
    }
}

CSmartRefCountPtr<CExternalSSO> SSOImpl::FindExternalHandle(const CExternalSSO* i_Handle) {
    CSmartReadLocker lock(m_ExternalLock);
    const CSmartRefCountPtr<CExternalSSO>* pFound = m_ExternalHandles.Find(i_Handle);
    return pFound != nullptr ? *pFound : CSmartRefCountPtr<CExternalSSO>();
}

uint32_t SSOImpl::ExternalSSOCreateHandle(const ParasSeq* i_pParameters, CExternalSSO** o_pHandle) {
    auto fail = [this](uint32_t i_nMessageId) {
        ReportExternalError(SSOException(STATUS_EXTERNAL_SETUP, i_nMessageId));
        return static_cast<uint32_t>(STATUS_EXTERNAL_SETUP);
    };
    if (o_pHandle == nullptr) {
        STRACE("ostrel: SSOImpl::ExternalSSOCreateHandle: no place for the handle");
        return STATUS_EXTERNAL_SETUP;
    }
    const Parameters params(i_pParameters);
    // No vendor at all is as unsupported as a wrong one.
    int64_t nVendor = 0;
    try {
        params.GetParameter(g_ssKeySsoVendor, nVendor);
    } catch (SSOException& e) {
        STRACE("ostrel: SSOImpl::ExternalSSOCreateHandle invalid parameter!");
        ReportExternalError(e);
        return STATUS_EXTERNAL_SETUP;
    }
    if (nVendor != 1) {
        STRACE("ssoplugin: SSOImpl::ExternalSSOCreateHandle: Unsupported SSO Vendor");
        return fail(MSG_EXTERNAL_VENDOR);
    }

    SWCharString ssServersAndPorts;
    SWCharString ssStoredSecret;
    SWCharString ssAgentName;
    int64_t nAccessMode = -1;
    // A value of the wrong type ends the reading; what has arrived is judged below.
    try {
        params.GetParameter(g_ssKeySsoServers, ssServersAndPorts);
        params.GetParameter(g_ssKeySsoSharedSecret, ssStoredSecret);
        params.GetParameter(g_ssKeySsoAgent, ssAgentName);
        params.GetParameter(g_ssKeySsoAccessMode, nAccessMode);
    } catch (SSOException&) {
        STRACE("ostrel: SSOImpl::ExternalSSOCreateHandle invalid parameter!");
    }
    if (ssServersAndPorts.isEmpty() || ssStoredSecret.isEmpty() || ssAgentName.isEmpty() || nAccessMode == -1) {
        STRACE("ostrel: SSOImpl::ExternalSSOCreateHandle missing parameters");
        return fail(MSG_EXTERNAL_PARAMETER_MISSING);
    }
    SWCharString ssSharedSecret;
    if (!Tarvik500::SScrambler::DecryptPasswordDB(ssStoredSecret, ssSharedSecret)) {
        STRACE("ostrel: SSOImpl::ExternalSSOCreateHandle: Failed to decrypt the SiteMinder shared secret");
        return fail(MSG_EXTERNAL_SECRET_OR_AGENT);
    }

    const auto nLowAccessMode = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(nAccessMode)));
    CSmartRefCountPtr<CExternalSSO> pExternal{
        new CSiteMinderSSO(ssServersAndPorts, ssAgentName, ssSharedSecret, nLowAccessMode)};
    try {
        pExternal->InitializeSSO();
    } catch (SSOException& e) {
        STRACE("ostrel: SSOImpl::ExternalSSOCreateHandle: failed to initialize a SiteMinder handle");
        ReportExternalError(e);
        return e.GetCode();
    }
    {
        CSmartWriteLocker lock(m_ExternalLock);
        m_ExternalHandles.Add(pExternal);
    }
    *o_pHandle = pExternal.get();
    return STATUS_OK;
}

uint32_t SSOImpl::ExternalSSODestroyHandle(CExternalSSO* i_Handle) {
    if (i_Handle == nullptr) {
        STRACE("ostrel: SSOImpl::ExternalSSOVerifyUser bad handle.");
        return STATUS_EXTERNAL_SETUP;
    }
    // Looked up before it is touched: an address the set does not hold may be anything.
    CSmartRefCountPtr<CExternalSSO> pExternal = FindExternalHandle(i_Handle);
    if (pExternal == nullptr) {
        STRACE("ostrel: SSOImpl::ExternalSSODestroyHandle: bad handle");
        return STATUS_EXTERNAL_SETUP;
    }
    pExternal->UninitializeSSO();
    {
        // Two destroyers may both get here; the second finds nothing to remove.
        CSmartWriteLocker lock(m_ExternalLock);
        m_ExternalHandles.Remove(pExternal);
    }
    return STATUS_OK;
}

uint32_t SSOImpl::ExternalSSOVerifyUser(CExternalSSO* i_Handle, const SWCharString& i_ssToken,
                                        ostrel_char** o_ppUserName) {
    if (i_Handle == nullptr) {
        STRACE("ssoplugin: SSOImpl::ExternalSSOVerifyUser bad handle.");
        return STATUS_EXTERNAL_SETUP;
    }
    CSmartRefCountPtr<CExternalSSO> pExternal = FindExternalHandle(i_Handle);
    if (pExternal == nullptr) {
        STRACE("ostrel: SSOImpl::ExternalSSODestroyHandle: bad handle");
        return STATUS_EXTERNAL_SETUP;
    }
    if (i_ssToken.isEmpty()) {
        STRACE("ostrel: SSOImpl::ExternalSSOVerifyUser bad handle.");
        return STATUS_EXTERNAL_SETUP;
    }
    if (o_ppUserName == nullptr) {
        STRACE("ostrel: SSOImpl::ExternalSSOVerifyUser: no place for the user's name");
        return STATUS_EXTERNAL_SETUP;
    }
    try {
        SWCharString ssUserName;
        if (!pExternal->VerifyUser(i_ssToken, ssUserName)) {
            STRACE("ssoplugin: SSOImpl::ExternalSSOVerifyUser failed to verify user.");
            return STATUS_FAILURE;
        }
        *o_ppUserName = AllocateString(ssUserName);
        return STATUS_OK;
    } catch (SSOException& e) {
        STRACE("ostrel: SSOImpl::ExternalSSOVerifyUser: failed to verify the user's SSO info");
        ReportExternalError(e);
        return e.GetCode();
    }
}

}  // namespace ostrel
