// The process's one binding of a GSS-API library, shared by everything that
// calls one: what is needed of the standard C binding (declared here, since no
// GSS-API header is compiled in), the binding of a library file by name, and
// the gate that every call into such a library passes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/Locks.h"
#include "foundation/SharedLibrary.h"

namespace ostrel::platform {

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
struct gss_OID_set_desc_struct {
    size_t count;
    gss_OID elements;
};
using gss_OID_set = gss_OID_set_desc_struct*;
struct gss_buffer_set_desc {
    size_t count;
    gss_buffer_desc* elements;
};
using gss_buffer_set_t = gss_buffer_set_desc*;

// The entry points, by the type of a pointer to each.
using gss_acquire_cred_fn = OM_uint32 (*)(OM_uint32*, gss_name_t, OM_uint32, gss_OID_set, gss_cred_usage_t,
                                          gss_cred_id_t*, gss_OID_set*, OM_uint32*);
using gss_release_cred_fn = OM_uint32 (*)(OM_uint32*, gss_cred_id_t*);
using gss_init_sec_context_fn = OM_uint32 (*)(OM_uint32*, gss_cred_id_t, gss_ctx_id_t*, gss_name_t, gss_OID, OM_uint32,
                                              OM_uint32, gss_channel_bindings_t, gss_buffer_t, gss_OID*, gss_buffer_t,
                                              OM_uint32*, OM_uint32*);
using gss_accept_sec_context_fn = OM_uint32 (*)(OM_uint32*, gss_ctx_id_t*, gss_cred_id_t, gss_buffer_t,
                                                gss_channel_bindings_t, gss_name_t*, gss_OID*, gss_buffer_t, OM_uint32*,
                                                OM_uint32*, gss_cred_id_t*);
using gss_delete_sec_context_fn = OM_uint32 (*)(OM_uint32*, gss_ctx_id_t*, gss_buffer_t);
using gss_import_name_fn = OM_uint32 (*)(OM_uint32*, gss_buffer_t, gss_OID, gss_name_t*);
using gss_display_name_fn = OM_uint32 (*)(OM_uint32*, gss_name_t, gss_buffer_t, gss_OID*);
using gss_display_status_fn = OM_uint32 (*)(OM_uint32*, OM_uint32, int, gss_OID, OM_uint32*, gss_buffer_t);
using gss_release_name_fn = OM_uint32 (*)(OM_uint32*, gss_name_t*);
using gss_release_buffer_fn = OM_uint32 (*)(OM_uint32*, gss_buffer_t);
// Extensions of MIT Kerberos.
using gss_acquire_cred_with_password_fn = OM_uint32 (*)(OM_uint32*, gss_name_t, gss_buffer_t, OM_uint32, gss_OID_set,
                                                        gss_cred_usage_t, gss_cred_id_t*, gss_OID_set*, OM_uint32*);
using gss_localname_fn = OM_uint32 (*)(OM_uint32*, gss_name_t, gss_OID, gss_buffer_t);
using gss_inquire_sec_context_by_oid_fn = OM_uint32 (*)(OM_uint32*, gss_ctx_id_t, gss_OID, gss_buffer_set_t*);
using gss_release_buffer_set_fn = OM_uint32 (*)(OM_uint32*, gss_buffer_set_t*);
using gss_krb5_free_lucid_sec_context_fn = OM_uint32 (*)(OM_uint32*, void*);
using gsskrb5_extract_authtime_from_sec_context_fn = OM_uint32 (*)(OM_uint32*, gss_ctx_id_t, int32_t*);

namespace gss {
inline constexpr OM_uint32 kComplete = 0;
inline constexpr OM_uint32 kContinueNeeded = 1;
inline constexpr OM_uint32 kRoutineErrorOffset = 16;
inline constexpr OM_uint32 kCallingErrorOffset = 24;
inline constexpr OM_uint32 kErrorMask = 0377;
inline constexpr OM_uint32 kBadMech = 1u << kRoutineErrorOffset;
inline constexpr OM_uint32 kBadName = 2u << kRoutineErrorOffset;
inline constexpr OM_uint32 kBadNameType = 3u << kRoutineErrorOffset;
inline constexpr OM_uint32 kBadSig = 6u << kRoutineErrorOffset;
inline constexpr OM_uint32 kNoCred = 7u << kRoutineErrorOffset;
inline constexpr OM_uint32 kDefectiveToken = 9u << kRoutineErrorOffset;
inline constexpr OM_uint32 kDefectiveCredential = 10u << kRoutineErrorOffset;
inline constexpr OM_uint32 kCredentialsExpired = 11u << kRoutineErrorOffset;
inline constexpr OM_uint32 kFailure = 13u << kRoutineErrorOffset;
inline constexpr OM_uint32 kUnavailable = 16u << kRoutineErrorOffset;
inline constexpr OM_uint32 kIndefinite = 0xFFFFFFFFu;
inline constexpr gss_cred_usage_t kBoth = 0;
inline constexpr gss_cred_usage_t kInitiate = 1;
inline constexpr gss_cred_usage_t kAccept = 2;
inline constexpr OM_uint32 kDelegFlag = 1;
inline constexpr OM_uint32 kMutualFlag = 2;
inline constexpr int kGssCode = 1;
inline constexpr int kMechCode = 2;

// The routine-error field alone.
constexpr OM_uint32 RoutineError(OM_uint32 i_nStatus) { return i_nStatus & (kErrorMask << kRoutineErrorOffset); }
// A calling or routine error: the supplementary bits don't count.
constexpr bool IsError(OM_uint32 i_nStatus) {
    return (i_nStatus & ((kErrorMask << kCallingErrorOffset) | (kErrorMask << kRoutineErrorOffset))) != 0;
}
}  // namespace gss

// The one lock of every call into a GSS-API library in the process: a library
// taken as not thread-safe is entered under its write side, one taken as safe
// under its read side. Nothing else is taken while it is held.
Tarvik500::CRWLock& GssCallGate();

// A GSS-API library bound by name, with CSharedLibrary's operations and
// failures. All bindings of one name share one loaded library, which goes when
// the last of them lets go.
class GssLibrary {
public:
    GssLibrary();
    GssLibrary(const GssLibrary&) = delete;
    GssLibrary& operator=(const GssLibrary&) = delete;

    void LoadLibraryW(const Tarvik500::SWCharString& i_ssName, Tarvik500::CSharedLibrary::LoadMode i_eMode,
                      bool i_bFlag);
    void* GetFunction(const char* i_pName, bool i_bFlag) const;
    void FreeLibrary() { m_pShared.reset(); }
    bool IsLoaded() const { return m_pShared != nullptr; }

    // Resolves into a typed pointer; null when the library lacks it.
    template <class Fn>
    void Resolve(Fn& o_fn, const char* i_pName) const {
        o_fn = reinterpret_cast<Fn>(GetFunction(i_pName, false));
    }

private:
    std::shared_ptr<Tarvik500::CSharedLibrary> m_pShared;
};

}  // namespace ostrel::platform
