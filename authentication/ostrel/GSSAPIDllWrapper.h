// A GSS-API library bound at run time, by name, behind one gate: every call
// checks the binding, takes the lock the library's thread-safety calls for,
// and turns anything thrown out of the library into an SSOException.
#pragma once

#include <cstddef>
#include <cstdint>

#include "SSOException.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"
#include "foundation/SharedLibrary.h"
#include "ostrel_platform/GssApi.h"

namespace ostrel {

// What is needed of the standard C binding: the process's one set of declarations.
using platform::gss_buffer_desc;
using platform::gss_buffer_t;
using platform::gss_channel_bindings_t;
using platform::gss_cred_id_t;
using platform::gss_cred_usage_t;
using platform::gss_ctx_id_t;
using platform::gss_name_t;
using platform::gss_OID;
using platform::gss_OID_desc;
using platform::gss_OID_set;
using platform::OM_uint32;

class GSSAPIDllWrapper : public CRefCount {
public:
    static constexpr gss_buffer_t GSS_C_NO_BUFFER = nullptr;
    static constexpr gss_OID GSS_C_NO_OID = nullptr;
    static constexpr gss_OID_set GSS_C_NO_OID_SET = nullptr;
    static constexpr gss_ctx_id_t GSS_C_NO_CONTEXT = nullptr;
    static constexpr gss_cred_id_t GSS_C_NO_CREDENTIAL = nullptr;
    static constexpr gss_name_t GSS_C_NO_NAME = nullptr;
    static constexpr gss_channel_bindings_t GSS_C_NO_CHANNEL_BINDINGS = nullptr;
    static constexpr OM_uint32 GSS_C_INDEFINITE = platform::gss::kIndefinite;
    static constexpr gss_cred_usage_t GSS_C_BOTH = platform::gss::kBoth;
    static constexpr gss_cred_usage_t GSS_C_INITIATE = platform::gss::kInitiate;
    static constexpr gss_cred_usage_t GSS_C_ACCEPT = platform::gss::kAccept;
    static constexpr OM_uint32 GSS_C_DELEG_FLAG = platform::gss::kDelegFlag;
    static constexpr OM_uint32 GSS_C_MUTUAL_FLAG = platform::gss::kMutualFlag;
    static constexpr int GSS_C_GSS_CODE = platform::gss::kGssCode;
    static constexpr int GSS_C_MECH_CODE = platform::gss::kMechCode;
    static constexpr OM_uint32 GSS_C_CALLING_ERROR_OFFSET = platform::gss::kCallingErrorOffset;
    static constexpr OM_uint32 GSS_C_ROUTINE_ERROR_OFFSET = platform::gss::kRoutineErrorOffset;
    static constexpr OM_uint32 GSS_C_CALLING_ERROR_MASK = platform::gss::kErrorMask;
    static constexpr OM_uint32 GSS_C_ROUTINE_ERROR_MASK = platform::gss::kErrorMask;
    static constexpr OM_uint32 GSS_S_COMPLETE = platform::gss::kComplete;
    static constexpr OM_uint32 GSS_S_CONTINUE_NEEDED = platform::gss::kContinueNeeded;
    static constexpr OM_uint32 GSS_S_BAD_MECH = platform::gss::kBadMech;
    static constexpr OM_uint32 GSS_S_BAD_NAMETYPE = platform::gss::kBadNameType;
    static constexpr OM_uint32 GSS_S_DEFECTIVE_TOKEN = platform::gss::kDefectiveToken;
    static constexpr OM_uint32 GSS_S_NO_CRED = platform::gss::kNoCred;
    static constexpr OM_uint32 GSS_S_CREDENTIALS_EXPIRED = platform::gss::kCredentialsExpired;
    static constexpr OM_uint32 GSS_S_FAILURE = platform::gss::kFailure;
    static gss_OID_desc GSS_C_NT_USER_NAME_desc;
    static gss_OID_desc GSS_C_NT_HOSTBASED_SERVICE_desc;
    static const gss_OID GSS_C_NT_USER_NAME;
    static const gss_OID GSS_C_NT_HOSTBASED_SERVICE;

    // The platform's usual GSS-API library, taken as not thread-safe.
    GSSAPIDllWrapper();
    GSSAPIDllWrapper(const SWCharString& i_ssDllName, bool i_bThreadSafe);

    bool Initialize();
    bool IsInitialized() const;
    void Uninitialize();

    static OM_uint32 GSS_ERROR(OM_uint32 i_nStatus) {
        return i_nStatus & ((GSS_C_CALLING_ERROR_MASK << GSS_C_CALLING_ERROR_OFFSET) |
                            (GSS_C_ROUTINE_ERROR_MASK << GSS_C_ROUTINE_ERROR_OFFSET));
    }
    // "GSSAPI ERROR: [GSS ...] [MECH ...] " for a status pair.
    SWCharString GetGSSAPIError(OM_uint32 i_nMajor, OM_uint32 i_nMinor);

    OM_uint32 gss_acquire_cred(OM_uint32* minor_status, gss_name_t desired_name, OM_uint32 time_req,
                               gss_OID_set desired_mechs, gss_cred_usage_t cred_usage, gss_cred_id_t* output_cred_handle,
                               gss_OID_set* actual_mechs, OM_uint32* time_rec);
    OM_uint32 gss_release_cred(OM_uint32* minor_status, gss_cred_id_t* cred_handle);
    OM_uint32 gss_init_sec_context(OM_uint32* minor_status, gss_cred_id_t initiator_cred_handle,
                                   gss_ctx_id_t* context_handle, gss_name_t target_name, gss_OID mech_type,
                                   OM_uint32 req_flags, OM_uint32 time_req, gss_channel_bindings_t input_chan_bindings,
                                   gss_buffer_t input_token, gss_OID* actual_mech_type, gss_buffer_t output_token,
                                   OM_uint32* ret_flags, OM_uint32* time_rec);
    OM_uint32 gss_accept_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle,
                                     gss_cred_id_t acceptor_cred_handle, gss_buffer_t input_token_buffer,
                                     gss_channel_bindings_t input_chan_bindings, gss_name_t* src_name,
                                     gss_OID* mech_type, gss_buffer_t output_token, OM_uint32* ret_flags,
                                     OM_uint32* time_rec, gss_cred_id_t* delegated_cred_handle);
    OM_uint32 gss_delete_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle, gss_buffer_t output_token);
    OM_uint32 gss_import_name(OM_uint32* minor_status, gss_buffer_t input_name_buffer, gss_OID input_name_type,
                              gss_name_t* output_name);
    OM_uint32 gss_display_name(OM_uint32* minor_status, gss_name_t input_name, gss_buffer_t output_name_buffer,
                               gss_OID* output_name_type);
    OM_uint32 gss_display_status(OM_uint32* minor_status, OM_uint32 status_value, int status_type, gss_OID mech_type,
                                 OM_uint32* message_context, gss_buffer_t status_string);
    OM_uint32 gss_release_name(OM_uint32* minor_status, gss_name_t* input_name);
    OM_uint32 gss_release_buffer(OM_uint32* minor_status, gss_buffer_t buffer);

    const SWCharString& GetDllName() const { return m_ssDllName; }

    // Imports a principal's text as written, as a user name (also for services: settled,
    // not recast into the host-based form).
    OM_uint32 ImportUserName(const SWCharString& i_ssName, OM_uint32* o_pMinor, gss_name_t* o_pName);

    // Throws status 100 unless the wrapper exists and is bound.
    static void RequireBound(const CSmartRefCountPtr<GSSAPIDllWrapper>& i_pGssDll);

protected:
    ~GSSAPIDllWrapper() override;

private:
    using acquire_cred_fn = platform::gss_acquire_cred_fn;
    using release_cred_fn = platform::gss_release_cred_fn;
    using init_sec_context_fn = platform::gss_init_sec_context_fn;
    using accept_sec_context_fn = platform::gss_accept_sec_context_fn;
    using delete_sec_context_fn = platform::gss_delete_sec_context_fn;
    using import_name_fn = platform::gss_import_name_fn;
    using display_name_fn = platform::gss_display_name_fn;
    using display_status_fn = platform::gss_display_status_fn;
    using release_name_fn = platform::gss_release_name_fn;
    using release_buffer_fn = platform::gss_release_buffer_fn;

    // Runs one call into the library through the gate.
    template <class Fn, class... Args>
    OM_uint32 Call(Fn* const& i_pFunction, Args... i_args);
    void ZeroPointers();
    // One part of a status message: "[<i_pLabel> text] " for each piece.
    void AppendStatus(SWCharString& io_ssText, OM_uint32 i_nStatus, int i_nType, const ostrel_char* i_pLabel);

    SWCharString m_ssDllName;
    // Shared with every other binding of the same library in the process.
    platform::GssLibrary m_Dll;
    bool m_bInitialized = false;
    // The process's gate: every GSS-API call of the process passes it, so a
    // library taken as not thread-safe is never entered twice at once.
    CRWLock& m_Lock;
    bool m_bThreadSafe;
    acquire_cred_fn m_gss_acquire_cred = nullptr;
    release_cred_fn m_gss_release_cred = nullptr;
    init_sec_context_fn m_gss_init_sec_context = nullptr;
    accept_sec_context_fn m_gss_accept_sec_context = nullptr;
    delete_sec_context_fn m_gss_delete_sec_context = nullptr;
    import_name_fn m_gss_import_name = nullptr;
    display_name_fn m_gss_display_name = nullptr;
    display_status_fn m_gss_display_status = nullptr;
    release_name_fn m_gss_release_name = nullptr;
    release_buffer_fn m_gss_release_buffer = nullptr;
};

// The scope guard of one call: the read side for a thread-safe library, else the write side.
class DllCallLocker {
public:
    DllCallLocker(CRWLock& i_lock, bool i_bRead);
    ~DllCallLocker();
    DllCallLocker(const DllCallLocker&) = delete;
    DllCallLocker& operator=(const DllCallLocker&) = delete;

private:
    CSmartWriteLocker* pWriteLocker = nullptr;
    CSmartReadLocker* pReadLocker = nullptr;
};

}  // namespace ostrel
