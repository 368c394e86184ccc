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

namespace ostrel {

// What is needed of the standard C binding, declared here: no GSS-API header is compiled in.
using OM_uint32 = uint32_t;
using gss_cred_id_t = struct gss_cred_id_struct*;
using gss_ctx_id_t = struct gss_ctx_id_struct*;
using gss_name_t = struct gss_name_struct*;
using gss_channel_bindings_t = struct gss_channel_bindings_struct*;
using gss_cred_usage_t = int;
struct gss_buffer_desc {
    size_t length;
    void* value;
};
using gss_buffer_t = gss_buffer_desc*;
struct gss_OID_desc {
    OM_uint32 length;
    void* elements;
};
using gss_OID = gss_OID_desc*;
using gss_OID_set = struct gss_OID_set_desc_struct*;

class GSSAPIDllWrapper : public CRefCount {
public:
    static constexpr gss_buffer_t GSS_C_NO_BUFFER = nullptr;
    static constexpr gss_OID GSS_C_NO_OID = nullptr;
    static constexpr gss_OID_set GSS_C_NO_OID_SET = nullptr;
    static constexpr gss_ctx_id_t GSS_C_NO_CONTEXT = nullptr;
    static constexpr gss_cred_id_t GSS_C_NO_CREDENTIAL = nullptr;
    static constexpr gss_name_t GSS_C_NO_NAME = nullptr;
    static constexpr gss_channel_bindings_t GSS_C_NO_CHANNEL_BINDINGS = nullptr;
    static constexpr OM_uint32 GSS_C_INDEFINITE = 0xFFFFFFFFu;
    static constexpr gss_cred_usage_t GSS_C_BOTH = 0;
    static constexpr gss_cred_usage_t GSS_C_INITIATE = 1;
    static constexpr gss_cred_usage_t GSS_C_ACCEPT = 2;
    static constexpr OM_uint32 GSS_C_DELEG_FLAG = 1;
    static constexpr OM_uint32 GSS_C_MUTUAL_FLAG = 2;
    static constexpr int GSS_C_GSS_CODE = 1;
    static constexpr int GSS_C_MECH_CODE = 2;
    static constexpr OM_uint32 GSS_C_CALLING_ERROR_OFFSET = 24;
    static constexpr OM_uint32 GSS_C_ROUTINE_ERROR_OFFSET = 16;
    static constexpr OM_uint32 GSS_C_CALLING_ERROR_MASK = 0377;
    static constexpr OM_uint32 GSS_C_ROUTINE_ERROR_MASK = 0377;
    static constexpr OM_uint32 GSS_S_COMPLETE = 0;
    static constexpr OM_uint32 GSS_S_CONTINUE_NEEDED = 1;
    static constexpr OM_uint32 GSS_S_BAD_MECH = 1u << GSS_C_ROUTINE_ERROR_OFFSET;
    static constexpr OM_uint32 GSS_S_BAD_NAMETYPE = 3u << GSS_C_ROUTINE_ERROR_OFFSET;
    static constexpr OM_uint32 GSS_S_DEFECTIVE_TOKEN = 9u << GSS_C_ROUTINE_ERROR_OFFSET;
    static constexpr OM_uint32 GSS_S_NO_CRED = 7u << GSS_C_ROUTINE_ERROR_OFFSET;
    static constexpr OM_uint32 GSS_S_CREDENTIALS_EXPIRED = 11u << GSS_C_ROUTINE_ERROR_OFFSET;
    static constexpr OM_uint32 GSS_S_FAILURE = 13u << GSS_C_ROUTINE_ERROR_OFFSET;
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
    using acquire_cred_fn = OM_uint32 (*)(OM_uint32*, gss_name_t, OM_uint32, gss_OID_set, gss_cred_usage_t,
                                          gss_cred_id_t*, gss_OID_set*, OM_uint32*);
    using release_cred_fn = OM_uint32 (*)(OM_uint32*, gss_cred_id_t*);
    using init_sec_context_fn = OM_uint32 (*)(OM_uint32*, gss_cred_id_t, gss_ctx_id_t*, gss_name_t, gss_OID,
                                              OM_uint32, OM_uint32, gss_channel_bindings_t, gss_buffer_t, gss_OID*,
                                              gss_buffer_t, OM_uint32*, OM_uint32*);
    using accept_sec_context_fn = OM_uint32 (*)(OM_uint32*, gss_ctx_id_t*, gss_cred_id_t, gss_buffer_t,
                                                gss_channel_bindings_t, gss_name_t*, gss_OID*, gss_buffer_t,
                                                OM_uint32*, OM_uint32*, gss_cred_id_t*);
    using delete_sec_context_fn = OM_uint32 (*)(OM_uint32*, gss_ctx_id_t*, gss_buffer_t);
    using import_name_fn = OM_uint32 (*)(OM_uint32*, gss_buffer_t, gss_OID, gss_name_t*);
    using display_name_fn = OM_uint32 (*)(OM_uint32*, gss_name_t, gss_buffer_t, gss_OID*);
    using display_status_fn = OM_uint32 (*)(OM_uint32*, OM_uint32, int, gss_OID, OM_uint32*, gss_buffer_t);
    using release_name_fn = OM_uint32 (*)(OM_uint32*, gss_name_t*);
    using release_buffer_fn = OM_uint32 (*)(OM_uint32*, gss_buffer_t);

    // Runs one call into the library through the gate.
    template <class Fn, class... Args>
    OM_uint32 Call(Fn* const& i_pFunction, Args... i_args);
    void ZeroPointers();
    // One part of a status message: "[<i_pLabel> text] " for each piece.
    void AppendStatus(SWCharString& io_ssText, OM_uint32 i_nStatus, int i_nType, const ostrel_char* i_pLabel);

    SWCharString m_ssDllName;
    CSharedLibrary m_Dll;
    bool m_bInitialized = false;
    mutable CRWLock m_Lock;
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
