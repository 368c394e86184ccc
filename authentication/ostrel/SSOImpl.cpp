#include "SSOImpl.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "foundation/ResManager.h"
#include "foundation/Trace.h"
#include "ostrel_platform/ITokenApi.h"

namespace ostrel {

bool SSOImpl::s_bImplDestroyed = false;

// The process-wide pointer and the critical section that guards its creation.
// Built after the logger and the token port, so that the object's last trace
// still finds the one and its cleaner, stopped as it goes, the other.
class SSOImplSingleton {
public:
    SSOImplSingleton() {
        (void)ShouldAssert();
        (void)platform::Tokens();
    }
    ~SSOImplSingleton() {
        m_cs.enter();
        CSmartRefCountPtr<SSOImpl> pLast = std::move(m_pSingleton);
        m_cs.leave();
    }

    CSmartRefCountPtr<SSOImpl> get() {
        CSmartCS guard(m_cs);
        if (m_pSingleton == nullptr) {
            try {
                m_pSingleton = CSmartRefCountPtr<SSOImpl>(new SSOImpl());
            } catch (std::bad_alloc&) {
                SASSERT_FAIL("ssoplugin: SSOImpl::instance() -- Out of memory!");
                m_pSingleton = nullptr;
                throw SSOException(g_OutOfMemoryException);
            }
        }
        return m_pSingleton;
    }

private:
    CS_Wrapper m_cs;
    CSmartRefCountPtr<SSOImpl> m_pSingleton;
};

namespace {
SSOImplSingleton s_singleton;
}  // namespace

CSmartRefCountPtr<SSOImpl> SSOImpl::instance() { return s_singleton.get(); }

SSOImpl::~SSOImpl() {
    if (m_nInitRefcount != 0) {
        // The host never finished: tear down what can be torn down safely at unload.
        m_nInitRefcount = 0;
        Tarvik500::SResManager::Terminate();
        SLogger::Terminate();
        m_pContextManager = nullptr;
        m_pSessionManager = nullptr;
        m_pErrorManager = nullptr;
        delete m_pJtcInit;
        m_pJtcInit = nullptr;
        s_bImplDestroyed = true;
    }
    SASSERT(m_nInitRefcount == 0, "m_nInitRefcount == 0");
    SASSERT(m_pContextManager == nullptr, "!m_pContextManager");
    SASSERT(m_pSessionManager == nullptr, "!m_pSessionManager");
    SASSERT(m_pErrorManager == nullptr, "!m_pErrorManager");
}

bool SSOImpl::Initialize() {
    CSmartWriteLocker lock(m_Lock);
    if (m_nInitRefcount != 0) {
        ++m_nInitRefcount;
        STRACE("ssoplugin: SSOImpl::Initialize() -- Already initialized; incrementing refcount (%1)",
               m_nInitRefcount);
        return true;
    }
    SASSERT(m_nInitRefcount == 0, "m_nInitRefcount == 0");
    SLogger::Initialize();
    Tarvik500::SResManager::Initialize();
    try {
        if (m_pJtcInit == nullptr) {
            try {
                m_pJtcInit = new JTCInitialize();
            } catch (std::bad_alloc&) {
                SASSERT_FAIL("ssoplugin: SSOImpl::Initialize() -- Out of memory initializing JTC!");
                m_pJtcInit = nullptr;
                throw SSOException(STATUS_FAILURE);
            } catch (...) {
                SASSERT_FAIL("ssoplugin: SSOImpl::Initialize() -- Unexpected exception initializing JTC!");
                throw SSOException(STATUS_FAILURE);
            }
        }
        SASSERT(m_pJtcInit != nullptr, "m_pJtcInit");
        SASSERT(JTCInitialize::initialized(), "JTCInitialize::initialized()");
        if (m_pJtcInit == nullptr || !JTCInitialize::initialized()) {
            throw SSOException(STATUS_FAILURE);
        }

        try {
            CSmartRefCountPtr<SecContextCache> pCache{new SecContextCache(false)};
            m_pSessionManager = CSmartRefCountPtr<SessionManager>(new SessionManager(pCache));
            m_pContextManager = CSmartRefCountPtr<ContextManager>(new ContextManager(pCache));
            m_pErrorManager = CSmartRefCountPtr<ErrorManager>(new ErrorManager());
        } catch (std::bad_alloc&) {
            SASSERT_FAIL("ssoplugin: SSOImpl::Initialize() -- Out of memory intializing components!");
            throw SSOException(STATUS_FAILURE);
        } catch (...) {
            SASSERT_FAIL("ssoplugin: SSOImpl::Initialize() -- Unexpected exception initializing components!");
            throw SSOException(STATUS_FAILURE);
        }
        SASSERT(m_pSessionManager != nullptr, "m_pSessionManager");
        SASSERT(m_pContextManager != nullptr, "m_pContextManager");
        SASSERT(m_pErrorManager != nullptr, "m_pErrorManager");
        if (m_pSessionManager == nullptr || m_pContextManager == nullptr || m_pErrorManager == nullptr) {
            throw SSOException(STATUS_FAILURE);
        }

        ++m_nInitRefcount;
        SASSERT(m_nInitRefcount == 1, "m_nInitRefcount == 1");
        STRACE("ssoplugin: SSOImpl::Initialize() -- Successfully initialized.  Refcount is now %1", m_nInitRefcount);
        return true;
    } catch (SSOException&) {
        STRACE("ssoplugin: SSOImpl::Initialize() -- Failed to initialize components.");
        m_pSessionManager = nullptr;
        m_pContextManager = nullptr;
        m_pErrorManager = nullptr;
        delete m_pJtcInit;
        m_pJtcInit = nullptr;
        SASSERT(m_nInitRefcount == 0, "m_nInitRefcount == 0");
        return false;
    }
}

void SSOImpl::Shutdown() {
    CSmartWriteLocker lock(m_Lock);
    SASSERT(m_nInitRefcount > 0, "m_nInitRefcount > 0");
    if (m_nInitRefcount == 0) {
        STRACE("ssoplugin: SSOImpl::Shutdown() -- Called more times than Initialize()!");
    } else {
        --m_nInitRefcount;
    }
    if (m_nInitRefcount != 0) {
        return;
    }
    Tarvik500::SResManager::Terminate();
    SLogger::Terminate();
    if (m_pContextManager != nullptr) {
        m_pContextManager->StopUpdateThread();
        m_pContextManager->ReleaseAll();
    }
    m_pContextManager = nullptr;
    // Abandoned logins die with the session manager, and the cache with it.
    m_pSessionManager = nullptr;
    // Records that no host fetched are freed with the manager.
    m_pErrorManager = nullptr;
    delete m_pJtcInit;
    m_pJtcInit = nullptr;
    // Handlers start from their defaults after a new start.
    try {
        CSmartRefCountPtr<SSOHandlerFactory> pHandlerFactory = SSOHandlerFactory::instance();
        if (pHandlerFactory == nullptr) {
            SASSERT_MSG(false, "pHandlerFactory", "SSOImpl::Shutdown(): unexpected NULL HandlerFactory");
        } else {
            pHandlerFactory->ClearHandlers();
        }
    } catch (...) {
        STRACE("SSOImpl::Shutdown(): caught xn when cleaning up SSOHandlers");
    }
}

void SSOImpl::FreeString(ostrel_char* i_pString) {
    if (i_pString == nullptr) {
        STRACE("ssoplugin: SSOImpl::FreeString() -- Called with a NULL buffer; doing nothing!");
        return;
    }
    std::free(i_pString);
}

void SSOImpl::FreeError(Plugin_Exception_Struct* i_pError) {
    try {
        FreeErrorStruct(i_pError);
    } catch (SSOException&) {
        SASSERT_FAIL("ssoplugin: SSOImpl::FreeError() -- Caught unexpected internal exception.");
    } catch (...) {
        SASSERT_FAIL("ssoplugin: SSOImpl::FreeError() -- Caught unknown exception!");
    }
}

ostrel_char* SSOImpl::AllocateString(const SWCharString& i_ssSource) {
    return i_ssSource.isEmpty() ? nullptr : DuplicateForHost(i_ssSource);
}

uint32_t SSOImpl::GetError(uint32_t i_ErrorCode, Plugin_Exception_Struct** o_ppError) {
    if (o_ppError == nullptr) {
        SASSERT(false, "o_ppError");
        return STATUS_FAILURE;
    }
    SASSERT_MSG(*o_ppError == nullptr, "!*o_ppError",
                "ssoplugin: SSOImpl::GetError() -- Assigning error to a non-NULL object; possible memory leak!");
    *o_ppError = nullptr;

    CSmartReadLocker lock(m_Lock);
    if (m_nInitRefcount == 0) {
        return STATUS_FAILURE;
    }
    if (m_pErrorManager != nullptr) {
        *o_ppError = m_pErrorManager->GetThreadError();
    }
    if (*o_ppError != nullptr) {
        // The thread's record is what the host gets, whatever status it named.
        SASSERT((*o_ppError)->errCode == i_ErrorCode, "(*o_ppError)->errCode == i_ErrorCode");
        return STATUS_OK;
    }
    STRACE("ssoplugin: SSOImpl::GetError() -- Could not get error details.");
    return STATUS_FAILURE;
}

uint32_t SSOImpl::GetErrorMessage(uint32_t i_MessageId, ostrel_char** o_ppMessage) {
    if (o_ppMessage == nullptr) {
        SASSERT(false, "o_ppMessage");
        return STATUS_FAILURE;
    }
    SASSERT_MSG(
        *o_ppMessage == nullptr, "!*o_ppMessage",
        "ssoplugin: SSOImpl::GetErrorMessage() -- Assigning error message to a non-NULL string; possible memory leak!");
    *o_ppMessage = nullptr;

    CSmartReadLocker lock(m_Lock);
    if (m_nInitRefcount == 0) {
        return STATUS_FAILURE;
    }
    if (m_pErrorManager != nullptr) {
        *o_ppMessage = m_pErrorManager->GetMessageContent(i_MessageId);
    }
    if (*o_ppMessage != nullptr) {
        return STATUS_OK;
    }
    STRACE("ssoplugin: SSOImpl::GetErrorMessage() -- Could not get error details.");
    return STATUS_FAILURE;
}

void SSOImpl::FreeParameters(ParasSeq* i_pParameters) { FreeParasSeq(i_pParameters); }

template <class Body>
uint32_t SSOImpl::RunOperation(Body&& i_body) {
    CSmartReadLocker lock(m_Lock);
    if (m_nInitRefcount == 0) {
        return STATUS_FAILURE;
    }
    try {
        return std::forward<Body>(i_body)();
    } catch (SSOException& e) {
        if (m_pErrorManager != nullptr) {
            m_pErrorManager->SetThreadError(e);
        }
        return e.GetCode();
    }
}

ostrel_char* SSOImpl::DuplicateForHost(const SWCharString& i_ssSource) {
    ostrel_char* pCopy = WideDup(i_ssSource.c_str());
    if (pCopy == nullptr) {
        SASSERT_FAIL("ssoplugin: SSOImpl::AllocateString() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    return pCopy;
}

uint32_t SSOImpl::InitSSOProvider(const SWCharString& i_ssProvider, const ParasSeq* i_pParameters) {
    return RunOperation([&]() -> uint32_t {
        SASSERT(m_pContextManager != nullptr, "m_pContextManager");
        if (m_pContextManager == nullptr) {
            return STATUS_FAILURE;
        }
        CSmartRefCountPtr<SSOHandlerFactory> pHandlerFactory = SSOHandlerFactory::instance();
        if (pHandlerFactory == nullptr) {
            SASSERT(false, "pHandlerFactory");
            throw SSOException(STATUS_FAILURE);
        }
        CSmartRefCountPtr<SSOHandler> pHandler = pHandlerFactory->GetHandler(i_ssProvider);
        if (pHandler == nullptr) {
            STRACE("ssoplugin: SSOImpl::InitSSOProvider() -- Could not get a handler for %1", i_ssProvider);
            throw MakeSSOException(STATUS_FAILURE, MSG_NO_HANDLER, i_ssProvider);
        }
        const Parameters params(i_pParameters);
        pHandler->InitHandler(params);

        // Only an explicit false delays the cleaner; a value that cannot be read starts it.
        bool bStartThread = true;
        try {
            params.GetParameter(g_ssKeyCacheSecContext, bStartThread);
        } catch (...) {
            STRACE("ssoplugin: SSOImpl::InitSSOProvider() -- Could not determine whether to start the update thread "
                   "or not.  Delaying until needed.");
        }
        if (bStartThread) {
            m_pContextManager->StartUpdateThread();
        } else {
            STRACE("ssoplugin: SSOImpl::InitSSOProvider() -- Not starting the cache cleanup thread; may start later if "
                   "needed.");
        }
        return STATUS_OK;
    });
}

uint32_t SSOImpl::GetRequiredParameters(const SWCharString& i_ssProvider, ParasSeq** o_ppParameters) {
    return RunOperation([&]() -> uint32_t {
        CSmartRefCountPtr<SSOHandlerFactory> pHandlerFactory = SSOHandlerFactory::instance();
        if (pHandlerFactory == nullptr) {
            SASSERT(false, "pHandlerFactory");
            throw SSOException(STATUS_FAILURE);
        }
        CSmartRefCountPtr<SSOHandler> pHandler = pHandlerFactory->GetHandler(i_ssProvider);
        Parameters params;
        pHandler->GetRequiredParameters(params);
        params.ToParasSeq(o_ppParameters);
        return STATUS_OK;
    });
}

namespace {

// What every login method does when the count is up but there is no session manager.
void RequireSessionManager(const void* i_pSessionManager, const char* i_pTrace) {
    SASSERT(i_pSessionManager != nullptr, "m_pSessionManager");
    if (i_pSessionManager == nullptr) {
        STRACE(i_pTrace);
        throw SSOException(STATUS_FAILURE, MSG_NOT_INITIALIZED);
    }
}

// A failed pass leaves the host's outputs at zero and nothing allocated.
void ClearLoginOutputs(SSOImpl& i_impl, void** o_ppvBuffer, size_t* o_pnBufferLength, ostrel_char** o_ppSessionKey) {
    delete[] static_cast<unsigned char*>(*o_ppvBuffer);
    *o_ppvBuffer = nullptr;
    *o_pnBufferLength = 0;
    if (o_ppSessionKey != nullptr) {
        if (*o_ppSessionKey != nullptr) {
            i_impl.FreeString(*o_ppSessionKey);
        }
        *o_ppSessionKey = nullptr;
    }
}

}  // namespace

uint32_t SSOImpl::StartLogin(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                             const SWCharString& i_ssProvider, const ParasSeq* i_pParameters, void** o_ppvBuffer,
                             size_t* o_pnBufferLength, ostrel_char** o_ppSessionKey) {
    return RunOperation([&]() -> uint32_t {
        RequireSessionManager(m_pSessionManager, "ssoplugin: SSOImpl::SSOStartLogin() -- Plugin not initialized.");
        SASSERT(o_ppvBuffer != nullptr, "o_ppvBuffer");
        SASSERT(o_pnBufferLength != nullptr, "o_pnBufferLength");
        SASSERT(o_ppSessionKey != nullptr, "o_ppSessionKey");
        if (o_ppvBuffer == nullptr || o_pnBufferLength == nullptr || o_ppSessionKey == nullptr) {
            STRACE("ssoplugin: SSOImpl::StartLogin() -- NULL pointer for returning data!");
            throw SSOException(STATUS_FAILURE);
        }
        SASSERT(*o_ppvBuffer == nullptr, "*o_ppvBuffer == NULL");
        SASSERT(*o_ppSessionKey == nullptr, "*o_ppSessionKey == NULL");
        if (*o_ppvBuffer != nullptr || *o_ppSessionKey != nullptr) {
            SASSERT_FAIL("ssoplugin: SSOImpl::StartLogin() -- Non-NULL value passed in; could be leaking memory!");
        }
        *o_ppvBuffer = nullptr;
        *o_ppSessionKey = nullptr;
        *o_pnBufferLength = 0;
        try {
            SWCharString ssKey;
            const uint32_t nStatus = m_pSessionManager->GenerateClientContext(
                i_ssUsername, i_ssPassword, i_ssProvider, i_pParameters, nullptr, 0, SWCharString(), o_ppvBuffer,
                o_pnBufferLength, ssKey);
            if (!ssKey.isEmpty()) {
                *o_ppSessionKey = DuplicateForHost(ssKey);
            }
            return nStatus;
        } catch (...) {
            ClearLoginOutputs(*this, o_ppvBuffer, o_pnBufferLength, o_ppSessionKey);
            throw;
        }
    });
}

uint32_t SSOImpl::ContinueLogin(const void* i_pvBuffer, size_t i_nBufferLength, const ostrel_char* i_pSessionKey,
                                void** o_ppvBuffer, size_t* o_pnBufferLength) {
    return RunOperation([&]() -> uint32_t {
        RequireSessionManager(m_pSessionManager, "ssoplugin: SSOImpl::SSOContinueLogin() -- Plugin not initialized.");
        SASSERT(i_pvBuffer != nullptr, "i_pvBuffer");
        SASSERT(i_nBufferLength > 0, "i_nBufferLength > 0");
        SASSERT(i_pSessionKey != nullptr, "i_pSessionKey");
        SASSERT(o_ppvBuffer != nullptr, "o_ppvBuffer");
        SASSERT(o_pnBufferLength != nullptr, "o_pnBufferLength");
        if (i_pvBuffer == nullptr || i_nBufferLength == 0 || i_pSessionKey == nullptr || o_ppvBuffer == nullptr ||
            o_pnBufferLength == nullptr) {
            STRACE("ssoplugin: SSOImpl::ContinueLogin() -- Bad parameters!");
            throw SSOException(STATUS_FAILURE);
        }
        if (*o_ppvBuffer != nullptr) {
            SASSERT(false, "*o_ppvBuffer == NULL");
            SASSERT_FAIL("ssoplugin: SSOImpl::ContinueLogin() -- Non-NULL value passed in; could be leaking memory!");
        }
        *o_ppvBuffer = nullptr;
        *o_pnBufferLength = 0;
        const SWCharString ssKey(i_pSessionKey);
        try {
            SWCharString ssKeyOut;  // the host has its key already
            return m_pSessionManager->GenerateClientContext(SWCharString(), SWCharString(), SWCharString(), nullptr,
                                                            i_pvBuffer, i_nBufferLength, ssKey, o_ppvBuffer,
                                                            o_pnBufferLength, ssKeyOut);
        } catch (...) {
            ClearLoginOutputs(*this, o_ppvBuffer, o_pnBufferLength, nullptr);
            throw;
        }
    });
}

uint32_t SSOImpl::AcceptLogin(const SWCharString& i_ssSessionKey, const SWCharString& i_ssProvider,
                              const void* i_pvBuffer, size_t i_nBufferLength, void** o_ppvBuffer,
                              size_t* o_pnBufferLength, ParasSeq** o_ppParameters, ostrel_char** o_ppSessionKey) {
    return RunOperation([&]() -> uint32_t {
        RequireSessionManager(m_pSessionManager, "ssoplugin: SSOImpl::SSOAcceptLogin() -- Plugin not initialized.");
        SASSERT(o_ppvBuffer != nullptr, "o_ppvBuffer");
        SASSERT(o_pnBufferLength != nullptr, "o_pnBufferLength");
        SASSERT(o_ppSessionKey != nullptr, "o_ppSessionKey");
        if (o_ppvBuffer == nullptr || o_pnBufferLength == nullptr || o_ppSessionKey == nullptr) {
            STRACE("ssoplugin: SSOImpl::AcceptLogin() -- Bad parameters!");
            throw SSOException(STATUS_FAILURE);
        }
        SASSERT(*o_ppvBuffer == nullptr, "*o_ppvBuffer == NULL");
        SASSERT(*o_ppSessionKey == nullptr, "*o_ppSessionKey == NULL");
        if (*o_ppvBuffer != nullptr || *o_ppSessionKey != nullptr) {
            SASSERT_FAIL("ssoplugin: SSOImpl::ContinueLogin() -- Non-NULL value passed in; could be leaking memory!");
        }
        const bool bGetLogonInfo = o_ppParameters != nullptr;
        Parameters params;
        *o_ppvBuffer = nullptr;
        *o_ppSessionKey = nullptr;
        *o_pnBufferLength = 0;
        // No provider is handed an address that cannot be read.
        if (i_pvBuffer == nullptr && i_nBufferLength != 0) {
            STRACE("ssoplugin: SSOImpl::AcceptLogin() -- Bad parameters!");
            throw SSOException(STATUS_FAILURE);
        }
        SWCharString ssKey;
        uint32_t nStatus = 0;
        try {
            nStatus =
                m_pSessionManager->GenerateServerContext(i_ssProvider, i_ssSessionKey, i_pvBuffer, i_nBufferLength,
                                                         o_ppvBuffer, o_pnBufferLength, bGetLogonInfo, params, ssKey);
            if (!ssKey.isEmpty()) {
                *o_ppSessionKey = DuplicateForHost(ssKey);
            }
            if (bGetLogonInfo) {
                params.ToParasSeq(o_ppParameters);
            }
            return nStatus;
        } catch (...) {
            // A finished login the host never hears of leaves no context behind.
            if (nStatus == STATUS_SERVER_DONE && m_pContextManager != nullptr) {
                m_pContextManager->Release(ssKey);
            }
            ClearLoginOutputs(*this, o_ppvBuffer, o_pnBufferLength, o_ppSessionKey);
            throw;
        }
    });
}

template <class Body>
uint32_t SSOImpl::RunContextOperation(Body&& i_body) {
    return RunOperation([&]() -> uint32_t {
        SASSERT(m_pContextManager != nullptr, "m_pContextManager");
        if (m_pContextManager == nullptr) {
            return STATUS_FAILURE;
        }
        return std::forward<Body>(i_body)(*m_pContextManager);
    });
}

uint32_t SSOImpl::Impersonate(const SWCharString& i_ssKey) {
    return RunContextOperation([&](ContextManager& manager) -> uint32_t {
        manager.Impersonate(i_ssKey);
        return STATUS_OK;
    });
}

uint32_t SSOImpl::Revert(const SWCharString& i_ssKey) {
    return RunContextOperation([&](ContextManager& manager) -> uint32_t {
        manager.Revert(i_ssKey);
        return STATUS_OK;
    });
}

uint32_t SSOImpl::AssociateSecurityContext(const SWCharString& i_ssKey, const SWCharString& i_ssNewKey) {
    return RunContextOperation([&](ContextManager& manager) -> uint32_t {
        if (!manager.Associate(i_ssKey, i_ssNewKey)) {
            throw SSOException(STATUS_NO_CONTEXT, MSG_TOKEN_NOT_FOUND);
        }
        return STATUS_OK;
    });
}

// Not found is an answer here, not a failure: no record for the thread.
uint32_t SSOImpl::LookupSecurityContext(const SWCharString& i_ssKey) {
    return RunContextOperation([&](ContextManager& manager) -> uint32_t {
        return manager.Lookup(i_ssKey) ? STATUS_OK : STATUS_NO_CONTEXT;
    });
}

uint32_t SSOImpl::ReleaseSecurityContext(const SWCharString& i_ssKey) {
    return RunContextOperation([&](ContextManager& manager) -> uint32_t {
        return manager.Release(i_ssKey) ? STATUS_OK : STATUS_NO_CONTEXT;
    });
}

uint32_t SSOImpl::ReleaseAllSecurityContexts() {
    return RunContextOperation([&](ContextManager& manager) -> uint32_t {
        manager.ReleaseAll();
        return STATUS_OK;
    });
}

uint32_t SSOImpl::AcquireCurrentSecurityContext(const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                                ostrel_char** o_ppSessionID) {
    return RunOperation([&]() -> uint32_t {
        SASSERT(m_pSessionManager != nullptr, "m_pSessionManager");
        if (m_pSessionManager == nullptr) {
            return STATUS_FAILURE;
        }
        if (o_ppSessionID == nullptr) {
            SASSERT(false, "o_ppSessionID");
            return STATUS_FAILURE;
        }
        SASSERT_MSG(*o_ppSessionID == nullptr, "!*o_ppSessionID",
                    "ssoplugin: SSOImpl::AcquireCurrentSecurityContext() -- Non-null input string.  Possibly "
                    "overwriting existing data!");
        *o_ppSessionID = nullptr;
        SWCharString ssSessionID;
        const uint32_t nStatus = m_pSessionManager->AcquireCurrentContext(i_ssProvider, i_pParameters, ssSessionID);
        SASSERT(!ssSessionID.isEmpty(), "!ssSessionID.isEmpty()");
        if (ssSessionID.isEmpty()) {
            throw SSOException(STATUS_FAILURE);
        }
        try {
            *o_ppSessionID = DuplicateForHost(ssSessionID);
        } catch (...) {
            // The host never gets the key: nothing may stay cached under it.
            if (m_pContextManager != nullptr) {
                m_pContextManager->Release(ssSessionID);
            }
            throw;
        }
        return nStatus;
    });
}

void SSOImpl::FreeBuffer(void* i_pvBuffer) {
    CSmartReadLocker lock(m_Lock);
    // A buffer given back after shutdown is not released.
    if (m_nInitRefcount != 0 && m_pSessionManager != nullptr) {
        delete[] static_cast<unsigned char*>(i_pvBuffer);
    }
}

}  // namespace ostrel
