#include "platform/linux/GssKrb5.h"

#include <dlfcn.h>

#include <cstring>

namespace ostrel::platform::linuxport {

namespace {

unsigned char s_krb5Oid[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x02};
unsigned char s_krb5PrincipalOid[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x02, 0x01};
// The lucid context, version 1: 1.2.840.113554.1.2.2.5.6 with the version as its last arc.
unsigned char s_lucidV1Oid[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x02, 0x05, 0x06, 0x01};
gss_OID_desc s_krb5 = {sizeof s_krb5Oid, s_krb5Oid};
gss_OID_desc s_krb5Principal = {sizeof s_krb5PrincipalOid, s_krb5PrincipalOid};
gss_OID_desc s_lucidV1 = {sizeof s_lucidV1Oid, s_lucidV1Oid};
gss_OID_set_desc_struct s_krb5Only = {1, &s_krb5};

// The head of a lucid context: what is read of it.
struct LucidHead {
    OM_uint32 version;
    OM_uint32 initiate;
    OM_uint32 endtime;
};

}  // namespace

gss_OID GssKrb5::Krb5Mechanism() { return &s_krb5; }
gss_OID_set GssKrb5::Krb5Only() { return &s_krb5Only; }
gss_OID GssKrb5::Krb5PrincipalName() { return &s_krb5Principal; }

bool GssKrb5::Bind() {
    if (m_bBound.load(std::memory_order_acquire)) {
        return true;
    }
    std::lock_guard<std::mutex> guard(m_bindLock);
    if (m_bBound.load(std::memory_order_relaxed)) {
        return true;
    }
    m_library.LoadLibraryW(m_ssLibrary, Tarvik500::CSharedLibrary::LM_NOW_LOCAL, false);
    m_library.Resolve(m_acquire_cred, "gss_acquire_cred");
    m_library.Resolve(m_release_cred, "gss_release_cred");
    m_library.Resolve(m_init_sec_context, "gss_init_sec_context");
    m_library.Resolve(m_accept_sec_context, "gss_accept_sec_context");
    m_library.Resolve(m_delete_sec_context, "gss_delete_sec_context");
    m_library.Resolve(m_import_name, "gss_import_name");
    m_library.Resolve(m_display_status, "gss_display_status");
    m_library.Resolve(m_release_name, "gss_release_name");
    m_library.Resolve(m_release_buffer, "gss_release_buffer");
    m_library.Resolve(m_acquire_cred_with_password, "gss_acquire_cred_with_password");
    m_library.Resolve(m_localname, "gss_localname");
    m_library.Resolve(m_inquire_sec_context_by_oid, "gss_inquire_sec_context_by_oid");
    m_library.Resolve(m_release_buffer_set, "gss_release_buffer_set");
    m_library.Resolve(m_free_lucid_sec_context, "gss_krb5_free_lucid_sec_context");
    m_library.Resolve(m_extract_authtime, "gsskrb5_extract_authtime_from_sec_context");
    const bool bBound = m_acquire_cred != nullptr && m_release_cred != nullptr && m_init_sec_context != nullptr &&
                        m_accept_sec_context != nullptr && m_delete_sec_context != nullptr &&
                        m_import_name != nullptr && m_display_status != nullptr && m_release_name != nullptr &&
                        m_release_buffer != nullptr;
    if (!bBound) {
        m_library.FreeLibrary();
    } else {
        // Kerberos keeps what it allocates in its own globals and is not made to be
        // unloaded: once bound, the library stays for the life of the process.
        Dl_info where{};
        if (dladdr(reinterpret_cast<void*>(m_acquire_cred), &where) != 0 && where.dli_fname != nullptr) {
            dlopen(where.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
        }
    }
    m_bBound.store(bBound, std::memory_order_release);
    return bBound;
}

template <class Fn, class... Args>
OM_uint32 GssKrb5::Call(Fn i_pFunction, Args... i_args) {
    if (i_pFunction == nullptr) {
        return gss::kUnavailable;
    }
    Tarvik500::CSmartWriteLocker gate(GssCallGate());
    return i_pFunction(i_args...);
}

OM_uint32 GssKrb5::AcquireCred(OM_uint32* o_pMinor, gss_cred_usage_t i_nUsage, gss_cred_id_t* o_pCred) {
    return Call(m_acquire_cred, o_pMinor, static_cast<gss_name_t>(nullptr), gss::kIndefinite, Krb5Only(), i_nUsage,
                o_pCred, static_cast<gss_OID_set*>(nullptr), static_cast<OM_uint32*>(nullptr));
}

OM_uint32 GssKrb5::AcquireCredWithPassword(OM_uint32* o_pMinor, gss_name_t i_name, gss_buffer_t i_pPassword,
                                           gss_cred_id_t* o_pCred) {
    return Call(m_acquire_cred_with_password, o_pMinor, i_name, i_pPassword, gss::kIndefinite, Krb5Only(),
                gss::kInitiate, o_pCred, static_cast<gss_OID_set*>(nullptr), static_cast<OM_uint32*>(nullptr));
}

OM_uint32 GssKrb5::InitSecContext(OM_uint32* o_pMinor, gss_cred_id_t i_cred, gss_ctx_id_t* io_pContext,
                                  gss_name_t i_target, OM_uint32 i_nFlags, gss_buffer_t i_pInput,
                                  gss_buffer_t o_pOutput, OM_uint32* o_pFlags) {
    return Call(m_init_sec_context, o_pMinor, i_cred, io_pContext, i_target, Krb5Mechanism(), i_nFlags, OM_uint32{0},
                static_cast<gss_channel_bindings_t>(nullptr), i_pInput, static_cast<gss_OID*>(nullptr), o_pOutput,
                o_pFlags, static_cast<OM_uint32*>(nullptr));
}

OM_uint32 GssKrb5::AcceptSecContext(OM_uint32* o_pMinor, gss_ctx_id_t* io_pContext, gss_cred_id_t i_cred,
                                    gss_buffer_t i_pInput, gss_name_t* o_pSource, gss_buffer_t o_pOutput,
                                    OM_uint32* o_pFlags, gss_cred_id_t* o_pDelegated) {
    return Call(m_accept_sec_context, o_pMinor, io_pContext, i_cred, i_pInput,
                static_cast<gss_channel_bindings_t>(nullptr), o_pSource, static_cast<gss_OID*>(nullptr), o_pOutput,
                o_pFlags, static_cast<OM_uint32*>(nullptr), o_pDelegated);
}

OM_uint32 GssKrb5::ImportPrincipal(OM_uint32* o_pMinor, const std::string& i_principal, gss_name_t* o_pName) {
    gss_buffer_desc text = {i_principal.size(), const_cast<char*>(i_principal.data())};
    return Call(m_import_name, o_pMinor, &text, Krb5PrincipalName(), o_pName);
}

std::string GssKrb5::LocalName(gss_name_t i_name) {
    OM_uint32 nMinor = 0;
    gss_buffer_desc local = {0, nullptr};
    std::string name;
    if (!gss::IsError(Call(m_localname, &nMinor, i_name, Krb5Mechanism(), &local)) && local.value != nullptr) {
        name.assign(static_cast<const char*>(local.value), local.length);
    }
    ReleaseBuffer(local);
    // An account name never holds a zero byte.
    return name.find('\0') == std::string::npos ? name : std::string();
}

bool GssKrb5::TicketTimes(gss_ctx_id_t i_context, int64_t& o_nStart, int64_t& o_nEnd) {
    if (m_release_buffer_set == nullptr || m_free_lucid_sec_context == nullptr) {
        return false;
    }
    OM_uint32 nMinor = 0;
    int32_t nAuthTime = 0;
    if (gss::IsError(Call(m_extract_authtime, &nMinor, i_context, &nAuthTime))) {
        return false;
    }
    gss_buffer_set_t pSet = nullptr;
    bool bRead = false;
    if (!gss::IsError(Call(m_inquire_sec_context_by_oid, &nMinor, i_context, &s_lucidV1, &pSet)) && pSet != nullptr &&
        pSet->count == 1 && pSet->elements[0].length == sizeof(void*)) {
        void* pLucid = nullptr;
        std::memcpy(&pLucid, pSet->elements[0].value, sizeof pLucid);
        if (pLucid != nullptr) {
            LucidHead head{};
            std::memcpy(&head, pLucid, sizeof head);
            // Kerberos times are unsigned 32-bit seconds since 1970 (good until 2106).
            o_nStart = static_cast<uint32_t>(nAuthTime);
            o_nEnd = head.endtime;
            bRead = head.version == 1;
            Call(m_free_lucid_sec_context, &nMinor, pLucid);
        }
    }
    if (pSet != nullptr) {
        Call(m_release_buffer_set, &nMinor, &pSet);
    }
    return bRead;
}

void GssKrb5::AppendStatus(std::string& io_text, OM_uint32 i_nStatus, int i_nType) {
    OM_uint32 nContext = 0;
    do {
        OM_uint32 nMinor = 0;
        gss_buffer_desc text = {0, nullptr};
        const OM_uint32 nMajor =
            Call(m_display_status, &nMinor, i_nStatus, i_nType, static_cast<gss_OID>(nullptr), &nContext, &text);
        if (text.value != nullptr) {
            io_text.append(io_text.empty() ? "" : "; ").append(static_cast<const char*>(text.value), text.length);
        }
        ReleaseBuffer(text);
        if (gss::IsError(nMajor)) {
            break;
        }
    } while (nContext != 0);
}

std::string GssKrb5::Describe(OM_uint32 i_nMajor, OM_uint32 i_nMinor) {
    std::string text;
    AppendStatus(text, i_nMajor, gss::kGssCode);
    if (i_nMinor != 0) {
        AppendStatus(text, i_nMinor, gss::kMechCode);
    }
    return text;
}

void GssKrb5::ReleaseCred(gss_cred_id_t& io_cred) {
    OM_uint32 nMinor = 0;
    if (io_cred != nullptr) {
        Call(m_release_cred, &nMinor, &io_cred);
        io_cred = nullptr;
    }
}

void GssKrb5::ReleaseName(gss_name_t& io_name) {
    OM_uint32 nMinor = 0;
    if (io_name != nullptr) {
        Call(m_release_name, &nMinor, &io_name);
        io_name = nullptr;
    }
}

void GssKrb5::DeleteContext(gss_ctx_id_t& io_context) {
    OM_uint32 nMinor = 0;
    if (io_context != nullptr) {
        Call(m_delete_sec_context, &nMinor, &io_context, static_cast<gss_buffer_t>(nullptr));
        io_context = nullptr;
    }
}

void GssKrb5::ReleaseBuffer(gss_buffer_desc& io_buffer) {
    OM_uint32 nMinor = 0;
    if (io_buffer.value != nullptr) {
        Call(m_release_buffer, &nMinor, &io_buffer);
    }
    io_buffer = {0, nullptr};
}

}  // namespace ostrel::platform::linuxport
