// The one object behind the exports: counts initialisations, holds its lock
// across every operation, and turns each SSOException into a status and a
// per-thread record. It holds no security logic.
#pragma once

#include <cstdint>

#include "ContextManager.h"
#include "ErrorManager.h"
#include "ExternalSSO.h"
#include "SessionManager.h"
#include "Parameters.h"
#include "SSOException.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"
#include "foundation/Threads.h"
#include "ostrel/ostrel.h"

namespace ostrel {

class SSOImpl : public CRefCount {
public:
    static CSmartRefCountPtr<SSOImpl> instance();

    bool Initialize();
    void Shutdown();

    void FreeString(ostrel_char* i_pString);
    void FreeError(Plugin_Exception_Struct* i_pError);
    uint32_t GetError(uint32_t i_ErrorCode, Plugin_Exception_Struct** o_ppError);
    uint32_t GetErrorMessage(uint32_t i_MessageId, ostrel_char** o_ppMessage);
    ostrel_char* AllocateString(const SWCharString& i_ssSource);
    void FreeParameters(ParasSeq* i_pParameters);

    uint32_t InitSSOProvider(const SWCharString& i_ssProvider, const ParasSeq* i_pParameters);
    uint32_t GetRequiredParameters(const SWCharString& i_ssProvider, ParasSeq** o_ppParameters);
    uint32_t StartLogin(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                        const SWCharString& i_ssProvider, const ParasSeq* i_pParameters, void** o_ppvBuffer,
                        size_t* o_pnBufferLength, ostrel_char** o_ppSessionKey);
    uint32_t ContinueLogin(const void* i_pvBuffer, size_t i_nBufferLength, const ostrel_char* i_pSessionKey,
                           void** o_ppvBuffer, size_t* o_pnBufferLength);
    uint32_t AcceptLogin(const SWCharString& i_ssSessionKey, const SWCharString& i_ssProvider, const void* i_pvBuffer,
                         size_t i_nBufferLength, void** o_ppvBuffer, size_t* o_pnBufferLength,
                         ParasSeq** o_ppParameters, ostrel_char** o_ppSessionKey);
    uint32_t Impersonate(const SWCharString& i_ssKey);
    uint32_t Revert(const SWCharString& i_ssKey);
    uint32_t AssociateSecurityContext(const SWCharString& i_ssKey, const SWCharString& i_ssNewKey);
    uint32_t LookupSecurityContext(const SWCharString& i_ssKey);
    uint32_t ReleaseSecurityContext(const SWCharString& i_ssKey);
    uint32_t ReleaseAllSecurityContexts();
    uint32_t AcquireCurrentSecurityContext(const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                           ostrel_char** o_ppSessionID);
    void FreeBuffer(void* i_pvBuffer);

    // External verification: no initialisation needed, no lock but m_ExternalLock
    // held across a call; handles are looked up before they are touched.
    uint32_t ExternalSSOCreateHandle(const ParasSeq* i_pParameters, CExternalSSO** o_pHandle);
    uint32_t ExternalSSODestroyHandle(CExternalSSO* i_Handle);
    uint32_t ExternalSSOVerifyUser(CExternalSSO* i_Handle, const SWCharString& i_ssToken, ostrel_char** o_ppUserName);

    // Whether the object had to tear down at unload; read by SSOTermPackage.
    static bool IsImplDestroyed() { return s_bImplDestroyed; }

protected:
    ~SSOImpl() override;

private:
    SSOImpl() = default;
    friend class SSOImplSingleton;
    friend class TestAccess;

    static bool s_bImplDestroyed;

    JTCInitialize* m_pJtcInit = nullptr;
    CRWLock m_Lock;
    uint32_t m_nInitRefcount = 0;
    CSmartRefCountPtr<SessionManager> m_pSessionManager;
    CSmartRefCountPtr<ContextManager> m_pContextManager;
    CSmartRefCountPtr<ErrorManager> m_pErrorManager;
    SISet<CSmartRefCountPtr<CExternalSSO>> m_ExternalHandles;
    CRWLock m_ExternalLock;

    // The frame of an operation: the read lock for its whole length, 100 while
    // uninitialised, and an SSOException recorded for the thread.
    template <class Body>
    uint32_t RunOperation(Body&& i_body);
    // The same, for the operations on finished contexts.
    template <class Body>
    uint32_t RunContextOperation(Body&& i_body);
    // The handle's object with a reference of the caller's, or null when the set does not hold it.
    CSmartRefCountPtr<CExternalSSO> FindExternalHandle(const CExternalSSO* i_Handle);
    // Records the failure for the thread when there is an ErrorManager.
    void ReportExternalError(const SSOException& i_exception);
    // A string for the host, or the shared out-of-memory exception.
    ostrel_char* DuplicateForHost(const SWCharString& i_ssSource);
};

}  // namespace ostrel
