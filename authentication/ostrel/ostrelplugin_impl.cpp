// The exported functions. Each runs in one frame: a reference on the object
// for the length of the call, and no exception past the boundary.
#include <utility>

#include "SSOImpl.h"
#include "foundation/Trace.h"
#include "ostrel/ostrel.h"

using namespace ostrel;

namespace {

enum class NullImpl { Return100, Throw100 };

// i_pNullText: the assertion when there is no object; i_pCatchText: the
// assertion of the catch-all clause.
template <class Body>
unsigned int RunExport(const char* i_pNullText, const char* i_pCatchText, Body&& i_body,
                       NullImpl i_eNull = NullImpl::Return100) {
    try {
        CSmartRefCountPtr<SSOImpl> pImpl = SSOImpl::instance();
        if (pImpl == nullptr) {
            SASSERT(false, i_pNullText);
            if (pImpl == nullptr) {
                if (i_eNull == NullImpl::Throw100) {
                    throw SSOException(STATUS_FAILURE);
                }
                return STATUS_FAILURE;
            }
        }
        return std::forward<Body>(i_body)(*pImpl);
    } catch (SSOException& e) {
        // Only the free functions leave through here with their own status.
        if (i_eNull == NullImpl::Throw100) {
            return e.GetCode();
        }
        SASSERT_FAIL(i_pCatchText);
        return STATUS_FAILURE;
    } catch (...) {
        SASSERT_FAIL(i_pCatchText);
        return STATUS_FAILURE;
    }
}

// The boundary's opaque handle is the object's own address, not touched until the set vouches for it.
ostrel::CExternalSSO* FromHandle(::CExternalSSO* i_Handle) { return reinterpret_cast<ostrel::CExternalSSO*>(i_Handle); }
::CExternalSSO* ToHandle(ostrel::CExternalSSO* i_pExternal) { return reinterpret_cast<::CExternalSSO*>(i_pExternal); }

}  // namespace

extern "C" {

OSTREL_API unsigned int OSTREL_CALL SSOInitPackage(void) {
    return RunExport("pImplementation != NULL", "InitializePlugin() -- Unexpected exception!", [](SSOImpl& impl) {
        if (impl.Initialize()) {
            return STATUS_OK;
        }
        STRACE("InitializePlugin() -- SSOImpl::Initialize() failed!");
        return STATUS_FAILURE;
    });
}

OSTREL_API unsigned int OSTREL_CALL SSOTermPackage(void) {
    // A host's late clean-up may come after the object's end; instance() would make a new one.
    if (SSOImpl::IsImplDestroyed()) {
        return STATUS_OK;
    }
    return RunExport("pImplementation != NULL", "UnInitializePlugin() -- Unexpected Exception!", [](SSOImpl& impl) {
        impl.Shutdown();
        return STATUS_OK;
    });
}

OSTREL_API unsigned int OSTREL_CALL SSOFreeString(ostrel_char* i_pString) {
    // Every string the plug-in hands out comes from malloc.
    std::free(i_pString);
    return STATUS_OK;
}

OSTREL_API unsigned int OSTREL_CALL SSOGetError(unsigned int i_ErrorCode, Plugin_Exception_Struct** o_ppError) {
    return RunExport("pImpl", "ssoplugin: SSOGetError() -- Unknown Exception!",
                     [&](SSOImpl& impl) { return impl.GetError(i_ErrorCode, o_ppError); });
}

OSTREL_API unsigned int OSTREL_CALL SSOFreeError(Plugin_Exception_Struct* i_pError) {
    return RunExport("pImpl", "ssoplugin: SSOFreeError() -- Unknown Exception!", [&](SSOImpl& impl) {
        impl.FreeError(i_pError);
        return STATUS_OK;
    });
}

OSTREL_API unsigned int OSTREL_CALL SSOGetMessageContent(unsigned int i_MessageId, ostrel_char** o_ppMessage) {
    return RunExport("pImpl", "ssoplugin: SSOGetMessageContent() -- Unknown Exception!",
                     [&](SSOImpl& impl) { return impl.GetErrorMessage(i_MessageId, o_ppMessage); });
}

OSTREL_API unsigned int OSTREL_CALL SSOReleaseAllProviderSecContexts(void) { return STATUS_FAILURE; }

OSTREL_API unsigned int OSTREL_CALL SSOInitProvider(const ostrel_char* i_pProvider, const ParasSeq* i_pParameters) {
    return RunExport("pImpl!= NULL", "ssoplugin: InitSSOProvider() -- Unexpected Exception!", [&](SSOImpl& impl) {
        return impl.InitSSOProvider(SWCharString(i_pProvider), i_pParameters);
    });
}

// Shares its catch message with SSOInitProvider on purpose.
OSTREL_API unsigned int OSTREL_CALL SSOGetRequiredParameters(const ostrel_char* i_pProvider,
                                                            ParasSeq** o_ppParameters) {
    return RunExport("pImpl!= NULL", "ssoplugin: InitSSOProvider() -- Unexpected Exception!", [&](SSOImpl& impl) {
        return impl.GetRequiredParameters(SWCharString(i_pProvider), o_ppParameters);
    });
}

OSTREL_API unsigned int OSTREL_CALL SSOStartLogin(const ostrel_char* i_pUsername, const ostrel_char* i_pPassword,
                                                 const ostrel_char* i_pProvider, const ParasSeq* i_pParameters,
                                                 ostrel_char** o_ppSessionKey, void** o_ppvBuffer,
                                                 size_t* o_pnBufferLength) {
    return RunExport("pImpl", "ssoplugin: StartLogin() -- Unexpected exception!", [&](SSOImpl& impl) {
        return impl.StartLogin(SWCharString(i_pUsername), SWCharString(i_pPassword), SWCharString(i_pProvider),
                               i_pParameters, o_ppvBuffer, o_pnBufferLength, o_ppSessionKey);
    });
}

// The key stays a raw pointer: the method itself tests it for NULL.
OSTREL_API unsigned int OSTREL_CALL SSOContinueLogin(const ostrel_char* i_pSessionKey, const void* i_pvBuffer,
                                                    size_t i_nBufferLength, void** o_ppvBuffer,
                                                    size_t* o_pnBufferLength) {
    return RunExport("pImpl", "ssoplugin: ContinueLogin() -- Unexpected exception!", [&](SSOImpl& impl) {
        return impl.ContinueLogin(i_pvBuffer, i_nBufferLength, i_pSessionKey, o_ppvBuffer, o_pnBufferLength);
    });
}

OSTREL_API unsigned int OSTREL_CALL SSOAcceptLogin(const ostrel_char* i_pSessionKey, const ostrel_char* i_pProvider,
                                                  const void* i_pvBuffer, size_t i_nBufferLength, void** o_ppvBuffer,
                                                  size_t* o_pnBufferLength, ParasSeq** o_ppParameters,
                                                  ostrel_char** o_ppSessionKey) {
    return RunExport("pImpl", "ssoplugin: AcceptLogin() -- Unexpected exception!", [&](SSOImpl& impl) {
        return impl.AcceptLogin(SWCharString(i_pSessionKey), SWCharString(i_pProvider), i_pvBuffer, i_nBufferLength,
                                o_ppvBuffer, o_pnBufferLength, o_ppParameters, o_ppSessionKey);
    });
}

OSTREL_API unsigned int OSTREL_CALL SSOImpersonate(const ostrel_char* i_pSessionID) {
    return RunExport("pImpl!= NULL", "ssoplugin: Impersonate() -- Unexpected Exception!",
                     [&](SSOImpl& impl) { return impl.Impersonate(SWCharString(i_pSessionID)); });
}

OSTREL_API unsigned int OSTREL_CALL SSORevert(const ostrel_char* i_pSessionID) {
    return RunExport("pImpl!= NULL", "ssoplugin: Revert() -- Unexpected Exception!",
                     [&](SSOImpl& impl) { return impl.Revert(SWCharString(i_pSessionID)); });
}

OSTREL_API unsigned int OSTREL_CALL SSOAssociateSecurityContext(const ostrel_char* i_pSessionID,
                                                               const ostrel_char* i_pNewKey) {
    return RunExport("pImpl!= NULL", "ssoplugin: AssociateSecurityContext() -- Unexpected Exception!",
                     [&](SSOImpl& impl) {
                         return impl.AssociateSecurityContext(SWCharString(i_pSessionID), SWCharString(i_pNewKey));
                     });
}

OSTREL_API unsigned int OSTREL_CALL SSOLookupSecurityContext(const ostrel_char* i_pSessionID) {
    return RunExport("pImpl!= NULL", "ssoplugin: LookupSecurityContext() -- Unexpected Exception!",
                     [&](SSOImpl& impl) { return impl.LookupSecurityContext(SWCharString(i_pSessionID)); });
}

OSTREL_API unsigned int OSTREL_CALL SSOAcquireCurrentSecurityContext(const ostrel_char* i_pProvider,
                                                                    const ParasSeq* i_pParameters,
                                                                    ostrel_char** o_ppSessionID) {
    return RunExport("pImpl!= NULL", "ssoplugin: AcquireCurrentSecurityContext() -- Unexpected Exception!",
                     [&](SSOImpl& impl) {
                         return impl.AcquireCurrentSecurityContext(SWCharString(i_pProvider), i_pParameters,
                                                                   o_ppSessionID);
                     });
}

OSTREL_API unsigned int OSTREL_CALL SSOReleaseSecurityContext(const ostrel_char* i_pSessionID) {
    return RunExport("pImpl!= NULL", "ssoplugin: ReleaseSecurityContext() -- Unexpected Exception!",
                     [&](SSOImpl& impl) { return impl.ReleaseSecurityContext(SWCharString(i_pSessionID)); });
}

OSTREL_API unsigned int OSTREL_CALL SSOReleaseAllSecurityContexts(void) {
    return RunExport("pImpl!= NULL", "ssoplugin: ReleaseAllSecurityContexts() -- Unexpected Exception!",
                     [&](SSOImpl& impl) { return impl.ReleaseAllSecurityContexts(); });
}

OSTREL_API unsigned int OSTREL_CALL SSOFreeBuffer(void* i_pvBuffer) {
    return RunExport(
        "pImpl", "ssoplugin: SSOFreeBuffer() -- Unexpected exception!",
        [&](SSOImpl& impl) {
            impl.FreeBuffer(i_pvBuffer);
            return STATUS_OK;
        },
        NullImpl::Throw100);
}

OSTREL_API unsigned int OSTREL_CALL SSOFreeParameters(ParasSeq* i_pParameters) {
    return RunExport(
        "pImpl", "ssoplugin: SSOFreeParameters() -- Unknown Exception!",
        [&](SSOImpl& impl) {
            impl.FreeParameters(i_pParameters);
            return STATUS_OK;
        },
        NullImpl::Throw100);
}

OSTREL_API unsigned int OSTREL_CALL ExternalSSOCreateHandle(const ParasSeq* i_pParameters, ::CExternalSSO** o_pHandle) {
    return RunExport("pImpl!= NULL", "ssoplugin: ExternalSSOCreateHandler() -- Unexpected Exception!",
                     [&](SSOImpl& impl) {
                         ostrel::CExternalSSO* pExternal = nullptr;
                         const uint32_t nStatus =
                             impl.ExternalSSOCreateHandle(i_pParameters, o_pHandle != nullptr ? &pExternal : nullptr);
                         if (nStatus == STATUS_OK) {
                             *o_pHandle = ToHandle(pExternal);
                         }
                         return nStatus;
                     });
}

OSTREL_API unsigned int OSTREL_CALL ExternalSSODestroyHandle(::CExternalSSO* i_Handle) {
    return RunExport("pImpl!= NULL", "ssoplugin: ExternalSSODestroyHandle() -- Unexpected Exception!",
                     [&](SSOImpl& impl) { return impl.ExternalSSODestroyHandle(FromHandle(i_Handle)); });
}

OSTREL_API unsigned int OSTREL_CALL ExternalSSOVerifyUser(::CExternalSSO* i_Handle, const ostrel_char* i_pToken,
                                                         ostrel_char** o_ppUserName) {
    return RunExport("pImpl!= NULL", "ssoplugin: ExternalSSOVerifyUser() -- Unexpected Exception!", [&](SSOImpl& impl) {
        return impl.ExternalSSOVerifyUser(FromHandle(i_Handle), SWCharString(i_pToken), o_ppUserName);
    });
}

}  // extern "C"
