#include "GSSAPIDllWrapper.h"

#include <new>

#include "foundation/Trace.h"
#include "ostrel_platform/GssLibraryName.h"

namespace ostrel {

namespace {
// 1.2.840.113554.1.2.1.1 and 1.2.840.113554.1.2.1.4
unsigned char s_oidUserName[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x01, 0x01};
unsigned char s_oidHostBasedService[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x01, 0x04};
}  // namespace

gss_OID_desc GSSAPIDllWrapper::GSS_C_NT_USER_NAME_desc = {10, s_oidUserName};
gss_OID_desc GSSAPIDllWrapper::GSS_C_NT_HOSTBASED_SERVICE_desc = {10, s_oidHostBasedService};
const gss_OID GSSAPIDllWrapper::GSS_C_NT_USER_NAME = &GSSAPIDllWrapper::GSS_C_NT_USER_NAME_desc;
const gss_OID GSSAPIDllWrapper::GSS_C_NT_HOSTBASED_SERVICE = &GSSAPIDllWrapper::GSS_C_NT_HOSTBASED_SERVICE_desc;

DllCallLocker::DllCallLocker(CRWLock& i_lock, bool i_bRead) {
    try {
        if (i_bRead) {
            pReadLocker = new CSmartReadLocker(i_lock);
        } else {
            pWriteLocker = new CSmartWriteLocker(i_lock);
        }
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    SASSERT(pReadLocker != nullptr || pWriteLocker != nullptr, "pReadLocker != NULL || pWriteLocker != NULL");
}

DllCallLocker::~DllCallLocker() {
    delete pReadLocker;
    pReadLocker = nullptr;
    delete pWriteLocker;
    pWriteLocker = nullptr;
}

GSSAPIDllWrapper::GSSAPIDllWrapper()
    : m_ssDllName(platform::DefaultGssapiLibraryName()), m_Lock(platform::GssCallGate()), m_bThreadSafe(false) {}

GSSAPIDllWrapper::GSSAPIDllWrapper(const SWCharString& i_ssDllName, bool i_bThreadSafe)
    : m_ssDllName(i_ssDllName), m_Lock(platform::GssCallGate()), m_bThreadSafe(i_bThreadSafe) {}

GSSAPIDllWrapper::~GSSAPIDllWrapper() {
    const bool bWasBound = m_bInitialized;
    ZeroPointers();
    m_bInitialized = false;
    if (bWasBound) {
        m_Dll.FreeLibrary();
    }
}

void GSSAPIDllWrapper::ZeroPointers() {
    m_gss_acquire_cred = nullptr;
    m_gss_release_cred = nullptr;
    m_gss_init_sec_context = nullptr;
    m_gss_accept_sec_context = nullptr;
    m_gss_delete_sec_context = nullptr;
    m_gss_import_name = nullptr;
    m_gss_display_name = nullptr;
    m_gss_display_status = nullptr;
    m_gss_release_name = nullptr;
    m_gss_release_buffer = nullptr;
}

bool GSSAPIDllWrapper::Initialize() {
    CSmartWriteLocker lock(m_Lock);
    if (m_bInitialized) {
        return true;
    }
    STRACE("ssoplugin: GSSAPIDllWrapper::Initialize() -- About to try to load DLL '%1'", m_ssDllName);
    if (m_bThreadSafe) {
        STRACE("ssoplugin: GSSAPIDllWrapper::Initialize() -- Treating DLL as thread-safe.");
    } else {
        STRACE("ssoplugin: GSSAPIDllWrapper::Initialize() -- Assuming DLL is NOT thread-safe, applying locks to all "
               "calls.");
    }
    try {
        m_Dll.LoadLibraryW(m_ssDllName, Tarvik500::CSharedLibrary::LM_NOW_LOCAL, true);
    } catch (Tarvik500::CSharedLibraryException& e) {
        ZeroPointers();
        STRACE("ssoplugin: GSSAPIDllWrapper::Initialize() -- Unable to load dll %1: %2", m_ssDllName, e.text());
        return false;
    }
    try {
        m_gss_acquire_cred = reinterpret_cast<acquire_cred_fn>(m_Dll.GetFunction("gss_acquire_cred", true));
        m_gss_release_cred = reinterpret_cast<release_cred_fn>(m_Dll.GetFunction("gss_release_cred", true));
        m_gss_init_sec_context =
            reinterpret_cast<init_sec_context_fn>(m_Dll.GetFunction("gss_init_sec_context", true));
        m_gss_accept_sec_context =
            reinterpret_cast<accept_sec_context_fn>(m_Dll.GetFunction("gss_accept_sec_context", true));
        m_gss_delete_sec_context =
            reinterpret_cast<delete_sec_context_fn>(m_Dll.GetFunction("gss_delete_sec_context", true));
        m_gss_import_name = reinterpret_cast<import_name_fn>(m_Dll.GetFunction("gss_import_name", true));
        m_gss_display_name = reinterpret_cast<display_name_fn>(m_Dll.GetFunction("gss_display_name", true));
        m_gss_display_status = reinterpret_cast<display_status_fn>(m_Dll.GetFunction("gss_display_status", true));
        m_gss_release_name = reinterpret_cast<release_name_fn>(m_Dll.GetFunction("gss_release_name", true));
        m_gss_release_buffer = reinterpret_cast<release_buffer_fn>(m_Dll.GetFunction("gss_release_buffer", true));
    } catch (Tarvik500::CSharedLibraryException& e) {
        STRACE("ssoplugin: GSSAPIDllWrapper::Initialize() -- Expected symbols not found in DLL %1: %2", m_ssDllName,
               e.text());
        ZeroPointers();
        m_Dll.FreeLibrary();
        return false;
    }
    SASSERT(m_gss_acquire_cred != nullptr, "m_gss_acquire_cred");
    SASSERT(m_gss_release_cred != nullptr, "m_gss_release_cred");
    SASSERT(m_gss_init_sec_context != nullptr, "m_gss_init_sec_context");
    SASSERT(m_gss_accept_sec_context != nullptr, "m_gss_accept_sec_context");
    SASSERT(m_gss_delete_sec_context != nullptr, "m_gss_delete_sec_context");
    SASSERT(m_gss_import_name != nullptr, "m_gss_import_name");
    SASSERT(m_gss_display_name != nullptr, "m_gss_display_name");
    SASSERT(m_gss_display_status != nullptr, "m_gss_display_status");
    SASSERT(m_gss_release_name != nullptr, "m_gss_release_name");
    SASSERT(m_gss_release_buffer != nullptr, "m_gss_release_buffer");
    if (m_gss_acquire_cred != nullptr && m_gss_release_cred != nullptr && m_gss_init_sec_context != nullptr &&
        m_gss_accept_sec_context != nullptr && m_gss_delete_sec_context != nullptr && m_gss_import_name != nullptr &&
        m_gss_display_name != nullptr && m_gss_display_status != nullptr && m_gss_release_name != nullptr &&
        m_gss_release_buffer != nullptr) {
        m_bInitialized = true;
        return true;
    }
    STRACE("ssoplugin: GSSAPIDllWrapper::Initialize() --  NULL returned for a function.");
    ZeroPointers();
    m_Dll.FreeLibrary();
    return false;
}

OM_uint32 GSSAPIDllWrapper::ImportUserName(const SWCharString& i_ssName, OM_uint32* o_pMinor, gss_name_t* o_pName) {
    SAnsiString ssName = ToAnsiString(i_ssName.c_str());
    gss_buffer_desc nameBuffer = {static_cast<size_t>(ssName.getNChars()), const_cast<char*>(ssName.c_str())};
    return gss_import_name(o_pMinor, &nameBuffer, GSS_C_NT_USER_NAME, o_pName);
}

void GSSAPIDllWrapper::RequireBound(const CSmartRefCountPtr<GSSAPIDllWrapper>& i_pGssDll) {
    if (i_pGssDll == nullptr) {
        SASSERT(false, "i_pGssDll");
        throw SSOException(STATUS_FAILURE);
    }
    if (!i_pGssDll->IsInitialized()) {
        SASSERT(false, "i_pGssDll->IsInitialized()");
        throw SSOException(STATUS_FAILURE);
    }
}

bool GSSAPIDllWrapper::IsInitialized() const {
    CSmartReadLocker lock(m_Lock);
    return m_bInitialized;
}

void GSSAPIDllWrapper::Uninitialize() {
    CSmartWriteLocker lock(m_Lock);
    if (m_bInitialized) {
        ZeroPointers();
        m_Dll.FreeLibrary();
        m_bInitialized = false;
    }
}

template <class Fn, class... Args>
OM_uint32 GSSAPIDllWrapper::Call(Fn* const& i_pFunction, Args... i_args) {
    DllCallLocker guard(m_Lock, m_bThreadSafe);
    if (!m_bInitialized) {
        throw SSOException(STATUS_FAILURE);
    }
    try {
        return i_pFunction(i_args...);
    } catch (...) {
        SASSERT_FAIL("Exception caught calling into GSSAPI DLL!");
        throw SSOException(STATUS_FAILURE);
    }
}

OM_uint32 GSSAPIDllWrapper::gss_acquire_cred(OM_uint32* minor_status, gss_name_t desired_name, OM_uint32 time_req,
                                             gss_OID_set desired_mechs, gss_cred_usage_t cred_usage,
                                             gss_cred_id_t* output_cred_handle, gss_OID_set* actual_mechs,
                                             OM_uint32* time_rec) {
    return Call(m_gss_acquire_cred, minor_status, desired_name, time_req, desired_mechs, cred_usage,
                output_cred_handle, actual_mechs, time_rec);
}

OM_uint32 GSSAPIDllWrapper::gss_release_cred(OM_uint32* minor_status, gss_cred_id_t* cred_handle) {
    return Call(m_gss_release_cred, minor_status, cred_handle);
}

OM_uint32 GSSAPIDllWrapper::gss_init_sec_context(OM_uint32* minor_status, gss_cred_id_t initiator_cred_handle,
                                                 gss_ctx_id_t* context_handle, gss_name_t target_name,
                                                 gss_OID mech_type, OM_uint32 req_flags, OM_uint32 time_req,
                                                 gss_channel_bindings_t input_chan_bindings, gss_buffer_t input_token,
                                                 gss_OID* actual_mech_type, gss_buffer_t output_token,
                                                 OM_uint32* ret_flags, OM_uint32* time_rec) {
    return Call(m_gss_init_sec_context, minor_status, initiator_cred_handle, context_handle, target_name, mech_type,
                req_flags, time_req, input_chan_bindings, input_token, actual_mech_type, output_token, ret_flags,
                time_rec);
}

OM_uint32 GSSAPIDllWrapper::gss_accept_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle,
                                                   gss_cred_id_t acceptor_cred_handle, gss_buffer_t input_token_buffer,
                                                   gss_channel_bindings_t input_chan_bindings, gss_name_t* src_name,
                                                   gss_OID* mech_type, gss_buffer_t output_token, OM_uint32* ret_flags,
                                                   OM_uint32* time_rec, gss_cred_id_t* delegated_cred_handle) {
    return Call(m_gss_accept_sec_context, minor_status, context_handle, acceptor_cred_handle, input_token_buffer,
                input_chan_bindings, src_name, mech_type, output_token, ret_flags, time_rec, delegated_cred_handle);
}

OM_uint32 GSSAPIDllWrapper::gss_delete_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle,
                                                   gss_buffer_t output_token) {
    return Call(m_gss_delete_sec_context, minor_status, context_handle, output_token);
}

OM_uint32 GSSAPIDllWrapper::gss_import_name(OM_uint32* minor_status, gss_buffer_t input_name_buffer,
                                            gss_OID input_name_type, gss_name_t* output_name) {
    return Call(m_gss_import_name, minor_status, input_name_buffer, input_name_type, output_name);
}

OM_uint32 GSSAPIDllWrapper::gss_display_name(OM_uint32* minor_status, gss_name_t input_name,
                                             gss_buffer_t output_name_buffer, gss_OID* output_name_type) {
    return Call(m_gss_display_name, minor_status, input_name, output_name_buffer, output_name_type);
}

OM_uint32 GSSAPIDllWrapper::gss_display_status(OM_uint32* minor_status, OM_uint32 status_value, int status_type,
                                               gss_OID mech_type, OM_uint32* message_context,
                                               gss_buffer_t status_string) {
    return Call(m_gss_display_status, minor_status, status_value, status_type, mech_type, message_context,
                status_string);
}

OM_uint32 GSSAPIDllWrapper::gss_release_name(OM_uint32* minor_status, gss_name_t* input_name) {
    return Call(m_gss_release_name, minor_status, input_name);
}

OM_uint32 GSSAPIDllWrapper::gss_release_buffer(OM_uint32* minor_status, gss_buffer_t buffer) {
    return Call(m_gss_release_buffer, minor_status, buffer);
}

void GSSAPIDllWrapper::AppendStatus(SWCharString& io_ssText, OM_uint32 i_nStatus, int i_nType,
                                    const ostrel_char* i_pLabel) {
    OM_uint32 nMessageContext = 0;
    do {
        OM_uint32 nMinor = 0;
        gss_buffer_desc gssMessage = {0, nullptr};
        const OM_uint32 nResult =
            gss_display_status(&nMinor, i_nStatus, i_nType, GSS_C_NO_OID, &nMessageContext, &gssMessage);
        // The opening and closing are written before the result is looked at.
        io_ssText << i_pLabel;
        if (gssMessage.value != nullptr) {
            io_ssText << ToWCharString(SAnsiString(static_cast<const char*>(gssMessage.value), gssMessage.length));
        }
        io_ssText << OSTREL_T("] ");
        OM_uint32 minor_status = 0;
        SASSERT(!GSS_ERROR(gss_release_buffer(&minor_status, &gssMessage)),
                "!GSS_ERROR(gss_release_buffer(&minor_status, &gssMessage))");
        if (GSS_ERROR(nResult)) {
            STRACE("ssoplugin: GSSAPIDllWrapper::GetGSSAPIError() -- could not read error message.");
            break;
        }
    } while (nMessageContext != 0);
}

SWCharString GSSAPIDllWrapper::GetGSSAPIError(OM_uint32 i_nMajor, OM_uint32 i_nMinor) {
    if (!IsInitialized()) {
        throw SSOException(STATUS_FAILURE);
    }
    SWCharString ssText(OSTREL_T("GSSAPI ERROR: "));
    AppendStatus(ssText, i_nMajor, GSS_C_GSS_CODE, OSTREL_T("[GSS "));
    AppendStatus(ssText, i_nMinor, GSS_C_MECH_CODE, OSTREL_T("[MECH "));
    return ssText;
}

}  // namespace ostrel
