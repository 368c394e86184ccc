// The GSS-API library as the Kerberos security package uses it: the process's
// shared binding of it, the entry points the package needs resolved by name,
// and each call made through the process's gate, the library being taken as
// not thread-safe. Owners of the library's objects give them back here.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/SString.h"
#include "ostrel_platform/GssApi.h"

namespace ostrel::platform::linuxport {

// Error codes of MIT Kerberos (com_err table "krb5"), as minor statuses.
namespace krb5err {
inline constexpr int32_t kBase = -1765328384;
inline constexpr OM_uint32 Code(int32_t i_nOffset) { return static_cast<OM_uint32>(kBase + i_nOffset); }
inline constexpr OM_uint32 kClientUnknown = Code(6);
inline constexpr OM_uint32 kServerUnknown = Code(7);
inline constexpr OM_uint32 kPreauthFailed = Code(24);
inline constexpr OM_uint32 kBadIntegrity = Code(31);
inline constexpr OM_uint32 kTicketExpired = Code(32);
inline constexpr OM_uint32 kTicketNotYetValid = Code(33);
inline constexpr OM_uint32 kReplay = Code(34);
inline constexpr OM_uint32 kNotUs = Code(35);
inline constexpr OM_uint32 kBadMatch = Code(36);
inline constexpr OM_uint32 kSkew = Code(37);
inline constexpr OM_uint32 kModified = Code(41);
inline constexpr OM_uint32 kBadKeyVersion = Code(44);
inline constexpr OM_uint32 kNoKey = Code(45);
inline constexpr OM_uint32 kRealmUnknown = Code(154);
inline constexpr OM_uint32 kKdcUnreachable = Code(156);
inline constexpr OM_uint32 kKeytabNotFound = Code(181);
inline constexpr OM_uint32 kKeytabEnd = Code(182);
inline constexpr OM_uint32 kRealmCantResolve = Code(220);
}  // namespace krb5err

class GssKrb5 {
public:
    explicit GssKrb5(Tarvik500::SWCharString i_ssLibrary) : m_ssLibrary(std::move(i_ssLibrary)) {}
    GssKrb5(const GssKrb5&) = delete;
    GssKrb5& operator=(const GssKrb5&) = delete;

    // Binds once; false while the library or one of the entry points every
    // operation needs is missing (tried again on the next call).
    bool Bind();

    // 1.2.840.113554.1.2.2, alone in a set, and its principal name type.
    static gss_OID Krb5Mechanism();
    static gss_OID_set Krb5Only();
    static gss_OID Krb5PrincipalName();

    OM_uint32 AcquireCred(OM_uint32* o_pMinor, gss_cred_usage_t i_nUsage, gss_cred_id_t* o_pCred);
    // GSS_S_UNAVAILABLE where the library lacks the extension.
    OM_uint32 AcquireCredWithPassword(OM_uint32* o_pMinor, gss_name_t i_name, gss_buffer_t i_pPassword,
                                      gss_cred_id_t* o_pCred);
    OM_uint32 InitSecContext(OM_uint32* o_pMinor, gss_cred_id_t i_cred, gss_ctx_id_t* io_pContext, gss_name_t i_target,
                             OM_uint32 i_nFlags, gss_buffer_t i_pInput, gss_buffer_t o_pOutput, OM_uint32* o_pFlags);
    OM_uint32 AcceptSecContext(OM_uint32* o_pMinor, gss_ctx_id_t* io_pContext, gss_cred_id_t i_cred,
                               gss_buffer_t i_pInput, gss_name_t* o_pSource, gss_buffer_t o_pOutput,
                               OM_uint32* o_pFlags, gss_cred_id_t* o_pDelegated);
    // A principal's text as a Kerberos principal name; no realm means the default one.
    OM_uint32 ImportPrincipal(OM_uint32* o_pMinor, const std::string& i_principal, gss_name_t* o_pName);
    // The local account name of a principal; empty when it has none or the library cannot say.
    std::string LocalName(gss_name_t i_name);
    // End of the context's ticket and when its client authenticated, in seconds
    // since 1970; false when the library cannot say.
    bool TicketTimes(gss_ctx_id_t i_context, int64_t& o_nStart, int64_t& o_nEnd);
    // The library's own words for a status pair, for the trace.
    std::string Describe(OM_uint32 i_nMajor, OM_uint32 i_nMinor);

    void ReleaseCred(gss_cred_id_t& io_cred);
    void ReleaseName(gss_name_t& io_name);
    void DeleteContext(gss_ctx_id_t& io_context);
    void ReleaseBuffer(gss_buffer_desc& io_buffer);

private:
    template <class Fn, class... Args>
    OM_uint32 Call(Fn i_pFunction, Args... i_args);
    void AppendStatus(std::string& io_text, OM_uint32 i_nStatus, int i_nType);

    const Tarvik500::SWCharString m_ssLibrary;
    std::mutex m_bindLock;
    std::atomic<bool> m_bBound{false};
    GssLibrary m_library;
    gss_acquire_cred_fn m_acquire_cred = nullptr;
    gss_release_cred_fn m_release_cred = nullptr;
    gss_init_sec_context_fn m_init_sec_context = nullptr;
    gss_accept_sec_context_fn m_accept_sec_context = nullptr;
    gss_delete_sec_context_fn m_delete_sec_context = nullptr;
    gss_import_name_fn m_import_name = nullptr;
    gss_display_status_fn m_display_status = nullptr;
    gss_release_name_fn m_release_name = nullptr;
    gss_release_buffer_fn m_release_buffer = nullptr;
    // Optional: the operations that need one fail cleanly without it.
    gss_acquire_cred_with_password_fn m_acquire_cred_with_password = nullptr;
    gss_localname_fn m_localname = nullptr;
    gss_inquire_sec_context_by_oid_fn m_inquire_sec_context_by_oid = nullptr;
    gss_release_buffer_set_fn m_release_buffer_set = nullptr;
    gss_krb5_free_lucid_sec_context_fn m_free_lucid_sec_context = nullptr;
    gsskrb5_extract_authtime_from_sec_context_fn m_extract_authtime = nullptr;
};

}  // namespace ostrel::platform::linuxport
