#include "platform/linux/LinuxSecurityApi.h"

#include <cstring>
#include <new>
#include <string>

#include "foundation/Trace.h"
#include "ostrel_platform/GssLibraryName.h"
#include "platform/linux/KerberosResults.h"
#include "platform/linux/LinuxTokenApi.h"
#include "platform/linux/SspiBuffers.h"

namespace ostrel::platform {

ISecurityApi& detail::PortSecurityApi() {
    static linuxport::LinuxSecurityApi s_api(DefaultGssapiLibraryName());
    return s_api;
}

namespace {
// Made when the library loads, before the objects of the logic that hold its
// handles, so that it ends after them (at exit, or when the library unloads).
[[maybe_unused]] const bool g_bPortMade = (detail::PortSecurityApi(), true);
}  // namespace

namespace linuxport {

namespace {

constexpr ULONG_PTR kCredentialKind = 0x4B524243;  // "KRBC"
constexpr ULONG_PTR kContextKind = 0x4B524258;     // "KRBX"
// The longest text a Windows string holds.
constexpr ULONG kMaxTextLength = 32767;
// SECPKG_FLAG_*: connection-oriented, impersonation, GSS-API compatible tokens,
// logon, mutual authentication, delegation.
constexpr ULONG kCapabilities = 0x10 | 0x100 | 0x1000 | 0x2000 | 0x10000 | 0x20000;
constexpr USHORT kRpcIdKerberos = 16;
constexpr char16_t kPackageName[] = u"Kerberos";
constexpr char16_t kPackageComment[] = u"Kerberos through the system's GSS-API library";

template <class Fn>
SECURITY_STATUS Guarded(Fn&& i_fn) {
    try {
        return i_fn();
    } catch (const std::bad_alloc&) {
        return SEC_E_INSUFFICIENT_MEMORY;
    }
}

char16_t Lower(char16_t i_c) { return i_c >= u'A' && i_c <= u'Z' ? char16_t(i_c - u'A' + u'a') : i_c; }

// Windows' package names are matched regardless of case.
bool IsKerberos(const WCHAR* i_pName) {
    if (i_pName == nullptr) {
        return false;
    }
    size_t i = 0;
    for (; kPackageName[i] != 0; ++i) {
        if (Lower(i_pName[i]) != Lower(kPackageName[i])) {
            return false;
        }
    }
    return i_pName[i] == 0;
}

// Units before the terminating zero; more than i_nMax means too long.
size_t TextLength(const WCHAR* i_pText, size_t i_nMax) {
    size_t n = 0;
    while (n <= i_nMax && i_pText[n] != 0) {
        ++n;
    }
    return n;
}

std::string Text(const SecretBytes& i_bytes) { return std::string(i_bytes.Data(), i_bytes.Size()); }

// user@REALM, with any '@' or '\' of the user kept as part of its name; no domain: the default realm.
std::string Principal(const SecretBytes& i_user, const SecretBytes& i_domain) {
    std::string principal;
    for (size_t i = 0; i < i_user.Size(); ++i) {
        const char c = i_user.Data()[i];
        if (c == '@' || c == '\\') {
            principal += '\\';
        }
        principal += c;
    }
    if (i_domain.Size() > 0) {
        principal += '@';
        for (size_t i = 0; i < i_domain.Size(); ++i) {
            const char c = i_domain.Data()[i];
            principal += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        }
    }
    return principal;
}

// Whether a first token is framed for a mechanism other than Kerberos (SPNEGO
// among them). A token that is not framed at all is left to the library.
bool NamesOtherMechanism(const gss_buffer_desc& i_token) {
    const auto* p = static_cast<const unsigned char*>(i_token.value);
    size_t n = i_token.length;
    if (n < 2 || p[0] != 0x60) {
        return false;
    }
    size_t nAt = 2;
    if ((p[1] & 0x80) != 0) {
        nAt += p[1] & 0x7F;
    }
    if (nAt + 2 > n || p[nAt] != 0x06) {
        return false;
    }
    const size_t nOid = p[nAt + 1];
    const gss_OID pKrb5 = GssKrb5::Krb5Mechanism();
    return nAt + 2 + nOid > n || nOid != pKrb5->length || std::memcmp(p + nAt + 2, pKrb5->elements, nOid) != 0;
}

LinuxTokenApi& TokenPort() { return static_cast<LinuxTokenApi&>(detail::PortTokenApi()); }

OM_uint32 RequestedFlags(ULONG i_fContextReq) {
    return ((i_fContextReq & ISC_REQ_MUTUAL_AUTH) != 0 ? gss::kMutualFlag : 0) |
           ((i_fContextReq & ISC_REQ_DELEGATE) != 0 ? gss::kDelegFlag : 0);
}

}  // namespace

LinuxSecurityApi::LinuxSecurityApi(Tarvik500::SWCharString i_ssLibrary)
    : m_gss(std::move(i_ssLibrary)), m_credentials(kCredentialKind), m_contexts(kContextKind) {}

SECURITY_STATUS LinuxSecurityApi::QuerySecurityPackageInfoW(LPWSTR pszPackageName, PSecPkgInfoW* ppPackageInfo) {
    if (ppPackageInfo == nullptr) {
        return SEC_E_INVALID_PARAMETER;
    }
    *ppPackageInfo = nullptr;
    if (!IsKerberos(pszPackageName) || !m_gss.Bind()) {
        return SEC_E_SECPKG_NOT_FOUND;
    }
    // One block: the description, then its two texts.
    const size_t nBytes = sizeof(SecPkgInfoW) + sizeof kPackageName + sizeof kPackageComment;
    auto* pInfo = static_cast<SecPkgInfoW*>(AllocateContextBuffer(nBytes));
    if (pInfo == nullptr) {
        return SEC_E_INSUFFICIENT_MEMORY;
    }
    auto* pName = reinterpret_cast<SEC_WCHAR*>(pInfo + 1);
    auto* pComment = pName + sizeof kPackageName / sizeof(SEC_WCHAR);
    std::memcpy(pName, kPackageName, sizeof kPackageName);
    std::memcpy(pComment, kPackageComment, sizeof kPackageComment);
    pInfo->fCapabilities = kCapabilities;
    pInfo->wVersion = 1;
    pInfo->wRPCID = kRpcIdKerberos;
    pInfo->cbMaxToken = kMaxTokenSize;
    pInfo->Name = pName;
    pInfo->Comment = pComment;
    *ppPackageInfo = pInfo;
    return SEC_E_OK;
}

SECURITY_STATUS LinuxSecurityApi::FreeContextBuffer(PVOID pvContextBuffer) {
    if (pvContextBuffer == nullptr) {
        return SEC_E_OK;
    }
    return FreeContextBufferMemory(pvContextBuffer) ? SEC_E_OK : SEC_E_INVALID_HANDLE;
}

SECURITY_STATUS LinuxSecurityApi::AcquireCredentialsHandleW(LPWSTR pszPrincipal, LPWSTR pszPackage,
                                                            ULONG fCredentialUse, PVOID pvLogonId, PVOID pAuthData,
                                                            SEC_GET_KEY_FN pGetKeyFn, PVOID pvGetKeyArgument,
                                                            PCredHandle phCredential, PTimeStamp ptsExpiry) {
    (void)pszPrincipal;
    (void)pvLogonId;
    (void)pGetKeyFn;
    (void)pvGetKeyArgument;
    if (!IsKerberos(pszPackage) || !m_gss.Bind()) {
        return SEC_E_SECPKG_NOT_FOUND;
    }
    if (phCredential == nullptr || (fCredentialUse & SECPKG_CRED_BOTH) == 0) {
        return SEC_E_INVALID_PARAMETER;
    }
    return Guarded([&] {
        auto pCredential = std::make_shared<KerberosCredential>(m_gss, fCredentialUse & SECPKG_CRED_BOTH);
        if (pCredential->Outbound()) {
            if (const SECURITY_STATUS nStatus = AcquireInitiator(*pCredential, pAuthData); nStatus != SEC_E_OK) {
                return nStatus;
            }
        }
        if (pCredential->Inbound()) {
            OM_uint32 nMinor = 0;
            gss_cred_id_t cred = nullptr;
            const OM_uint32 nMajor = m_gss.AcquireCred(&nMinor, gss::kAccept, &cred);
            if (gss::IsError(nMajor)) {
                m_gss.ReleaseCred(cred);
                STRACE("ostrel: Kerberos package -- no acceptor credentials: %1",
                       m_gss.Describe(nMajor, nMinor).c_str());
                return AcquireResult(nMajor);
            }
            pCredential->m_pAcceptor = OwnCredential(m_gss, cred);
        }
        m_credentials.Add(std::move(pCredential), *phCredential);
        if (ptsExpiry != nullptr) {
            *ptsExpiry = NeverExpires();
        }
        return SEC_E_OK;
    });
}

SECURITY_STATUS LinuxSecurityApi::AcquireInitiator(KerberosCredential& io_credential, PVOID i_pAuthData) {
    if (i_pAuthData != nullptr) {
        const auto* pIdentity = static_cast<const SEC_WINNT_AUTH_IDENTITY_W*>(i_pAuthData);
        const bool bWide = (pIdentity->Flags & SEC_WINNT_AUTH_IDENTITY_UNICODE) != 0;
        const bool bNarrow = (pIdentity->Flags & SEC_WINNT_AUTH_IDENTITY_ANSI) != 0;
        const auto fits = [](const void* i_p, ULONG i_n) {
            return (i_p != nullptr || i_n == 0) && i_n <= kMaxTextLength;
        };
        if (bWide == bNarrow || pIdentity->User == nullptr || pIdentity->UserLength == 0 ||
            !fits(pIdentity->User, pIdentity->UserLength) || !fits(pIdentity->Domain, pIdentity->DomainLength) ||
            !fits(pIdentity->Password, pIdentity->PasswordLength)) {
            return SEC_E_UNKNOWN_CREDENTIALS;
        }
        const SecretBytes user = IdentityText(pIdentity->User, pIdentity->UserLength, bWide);
        const SecretBytes domain = IdentityText(pIdentity->Domain, pIdentity->DomainLength, bWide);
        const std::string principal = Principal(user, domain);
        if (principal.find('\0') != std::string::npos) {
            return SEC_E_UNKNOWN_CREDENTIALS;
        }
        io_credential.SetLogon(principal, IdentityText(pIdentity->Password, pIdentity->PasswordLength, bWide));
        return SEC_E_OK;
    }
    // A thread impersonating a context of ours has that context's delegated credentials, if any.
    if (auto pHold = std::dynamic_pointer_cast<const DelegationHold>(LinuxTokenApi::CurrentAttachment())) {
        io_credential.SetInitiator(pHold->m_pDelegated, SEC_E_NO_CREDENTIALS);
        return SEC_E_OK;
    }
    OM_uint32 nMinor = 0;
    gss_cred_id_t cred = nullptr;
    const OM_uint32 nMajor = m_gss.AcquireCred(&nMinor, gss::kInitiate, &cred);
    if (gss::IsError(nMajor)) {
        // As on Windows, where every thread has a logon session: no cache fails the first context, not this.
        m_gss.ReleaseCred(cred);
        STRACE("ostrel: Kerberos package -- no credentials of the process: %1", m_gss.Describe(nMajor, nMinor).c_str());
        io_credential.SetInitiator(nullptr, AcquireResult(nMajor));
        return SEC_E_OK;
    }
    io_credential.SetInitiator(OwnCredential(m_gss, cred), SEC_E_OK);
    return SEC_E_OK;
}

SECURITY_STATUS LinuxSecurityApi::FreeCredentialsHandle(PCredHandle phCredential) {
    return m_credentials.Remove(phCredential) != nullptr ? SEC_E_OK : SEC_E_INVALID_HANDLE;
}

SECURITY_STATUS LinuxSecurityApi::InitializeSecurityContextW(PCredHandle phCredential, PCtxtHandle phContext,
                                                             SEC_WCHAR* pszTargetName, ULONG fContextReq,
                                                             ULONG Reserved1, ULONG TargetDataRep,
                                                             PSecBufferDesc pInput, ULONG Reserved2,
                                                             PCtxtHandle phNewContext, PSecBufferDesc pOutput,
                                                             ULONG* pfContextAttr, PTimeStamp ptsExpiry) {
    (void)Reserved1;
    (void)TargetDataRep;
    (void)Reserved2;
    return Guarded([&] {
        OutputBuffer output;
        if (const SECURITY_STATUS nStatus = output.Take(pOutput, fContextReq & ISC_REQ_ALLOCATE_MEMORY);
            nStatus != SEC_E_OK) {
            return nStatus;
        }
        if (phNewContext == nullptr) {
            return SEC_E_INVALID_PARAMETER;
        }
        if (phContext != nullptr) {
            const std::shared_ptr<KerberosContext> pContext = m_contexts.Find(phContext);
            if (pContext == nullptr || !pContext->m_bInitiator) {
                return SEC_E_INVALID_HANDLE;
            }
            gss_buffer_desc input = {0, nullptr};
            if (const SECURITY_STATUS nStatus = InputToken(pInput, input); nStatus != SEC_E_OK) {
                return nStatus;
            }
            return Initiate(pContext, &input, phContext, output, phNewContext, pfContextAttr, ptsExpiry);
        }
        const std::shared_ptr<KerberosCredential> pCredential = m_credentials.Find(phCredential);
        if (pCredential == nullptr) {
            return SEC_E_INVALID_HANDLE;
        }
        const size_t nTarget = pszTargetName != nullptr ? TextLength(pszTargetName, kMaxTextLength) : 0;
        if (nTarget == 0 || nTarget > kMaxTextLength) {
            return SEC_E_TARGET_UNKNOWN;
        }
        GssCredentialPtr pInitiator;
        if (!pCredential->Outbound()) {
            return SEC_E_NO_CREDENTIALS;
        }
        if (const SECURITY_STATUS nStatus = pCredential->Initiator(pInitiator); nStatus != SEC_E_OK) {
            return nStatus;
        }
        auto pContext = std::make_shared<KerberosContext>(m_gss, true, std::move(pInitiator));
        OM_uint32 nMinor = 0;
        const std::string target = Text(IdentityText(pszTargetName, static_cast<ULONG>(nTarget), true));
        if (gss::IsError(m_gss.ImportPrincipal(&nMinor, target, &pContext->m_target))) {
            return SEC_E_TARGET_UNKNOWN;
        }
        pContext->m_nFlags = RequestedFlags(fContextReq);
        return Initiate(pContext, nullptr, nullptr, output, phNewContext, pfContextAttr, ptsExpiry);
    });
}

SECURITY_STATUS LinuxSecurityApi::Initiate(const std::shared_ptr<KerberosContext>& i_pContext,
                                           const gss_buffer_desc* i_pInput, const SecHandle* i_phExisting,
                                           OutputBuffer& io_output, PCtxtHandle o_phContext, ULONG* o_pfAttributes,
                                           PTimeStamp o_ptsExpiry) {
    KerberosContext& context = *i_pContext;
    std::lock_guard<std::mutex> guard(context.m_lock);
    if (context.m_eState != KerberosContext::State::Negotiating) {
        return SEC_E_INVALID_HANDLE;
    }
    gss_buffer_desc input = i_pInput != nullptr ? *i_pInput : gss_buffer_desc{0, nullptr};
    gss_buffer_desc token = {0, nullptr};
    OM_uint32 nMinor = 0;
    OM_uint32 nFlags = 0;
    const OM_uint32 nMajor = m_gss.InitSecContext(
        &nMinor, context.m_pCredential != nullptr ? context.m_pCredential->Get() : nullptr, &context.m_context,
        context.m_target, context.m_nFlags, i_pInput != nullptr ? &input : nullptr, &token, &nFlags);
    if (gss::IsError(nMajor)) {
        m_gss.ReleaseBuffer(token);
        context.m_eState = KerberosContext::State::Failed;
        STRACE("ostrel: Kerberos package -- InitializeSecurityContext failed: %1",
               m_gss.Describe(nMajor, nMinor).c_str());
        return InitiateResult(nMajor, nMinor);
    }
    return FinishPass(i_pContext, nMajor, nFlags, token, i_phExisting, io_output, o_phContext, o_pfAttributes,
                      o_ptsExpiry);
}

SECURITY_STATUS LinuxSecurityApi::AcceptSecurityContext(PCredHandle phCredential, PCtxtHandle phContext,
                                                        PSecBufferDesc pInput, ULONG fContextReq, ULONG TargetDataRep,
                                                        PCtxtHandle phNewContext, PSecBufferDesc pOutput,
                                                        ULONG* pfContextAttr, PTimeStamp ptsExpiry) {
    (void)TargetDataRep;
    return Guarded([&] {
        gss_buffer_desc input = {0, nullptr};
        OutputBuffer output;
        if (const SECURITY_STATUS nStatus = output.Take(pOutput, fContextReq & ASC_REQ_ALLOCATE_MEMORY);
            nStatus != SEC_E_OK) {
            return nStatus;
        }
        if (const SECURITY_STATUS nStatus = InputToken(pInput, input); nStatus != SEC_E_OK) {
            return nStatus;
        }
        if (phNewContext == nullptr) {
            return SEC_E_INVALID_PARAMETER;
        }
        if (phContext != nullptr) {
            const std::shared_ptr<KerberosContext> pContext = m_contexts.Find(phContext);
            if (pContext == nullptr || pContext->m_bInitiator) {
                return SEC_E_INVALID_HANDLE;
            }
            return Accept(pContext, input, phContext, output, phNewContext, pfContextAttr, ptsExpiry);
        }
        const std::shared_ptr<KerberosCredential> pCredential = m_credentials.Find(phCredential);
        if (pCredential == nullptr) {
            return SEC_E_INVALID_HANDLE;
        }
        if (pCredential->m_pAcceptor == nullptr) {
            return SEC_E_NO_CREDENTIALS;
        }
        if (NamesOtherMechanism(input)) {
            return SEC_E_INVALID_TOKEN;
        }
        auto pContext = std::make_shared<KerberosContext>(m_gss, false, pCredential->m_pAcceptor);
        return Accept(pContext, input, nullptr, output, phNewContext, pfContextAttr, ptsExpiry);
    });
}

SECURITY_STATUS LinuxSecurityApi::Accept(const std::shared_ptr<KerberosContext>& i_pContext, gss_buffer_desc& i_input,
                                         const SecHandle* i_phExisting, OutputBuffer& io_output,
                                         PCtxtHandle o_phContext, ULONG* o_pfAttributes, PTimeStamp o_ptsExpiry) {
    KerberosContext& context = *i_pContext;
    std::lock_guard<std::mutex> guard(context.m_lock);
    if (context.m_eState != KerberosContext::State::Negotiating) {
        return SEC_E_INVALID_HANDLE;
    }
    gss_buffer_desc token = {0, nullptr};
    gss_name_t source = nullptr;
    gss_cred_id_t delegated = nullptr;
    OM_uint32 nMinor = 0;
    OM_uint32 nFlags = 0;
    const OM_uint32 nMajor = m_gss.AcceptSecContext(&nMinor, &context.m_context, context.m_pCredential->Get(), &i_input,
                                                    &source, &token, &nFlags, &delegated);
    // Owned at once, so that nothing below can lose them.
    m_gss.ReleaseName(context.m_source);
    context.m_source = source;
    if (delegated != nullptr) {
        context.m_pDelegated = OwnCredential(m_gss, delegated);
    }
    if (gss::IsError(nMajor)) {
        m_gss.ReleaseBuffer(token);
        context.m_eState = KerberosContext::State::Failed;
        STRACE("ostrel: Kerberos package -- AcceptSecurityContext failed: %1", m_gss.Describe(nMajor, nMinor).c_str());
        return AcceptResult(nMajor, nMinor);
    }
    return FinishPass(i_pContext, nMajor, nFlags, token, i_phExisting, io_output, o_phContext, o_pfAttributes,
                      o_ptsExpiry);
}

SECURITY_STATUS LinuxSecurityApi::FinishPass(const std::shared_ptr<KerberosContext>& i_pContext, OM_uint32 i_nMajor,
                                             OM_uint32 i_nFlags, gss_buffer_desc& io_token,
                                             const SecHandle* i_phExisting, OutputBuffer& io_output,
                                             PCtxtHandle o_phContext, ULONG* o_pfAttributes, PTimeStamp o_ptsExpiry) {
    KerberosContext& context = *i_pContext;
    const bool bComplete = (i_nMajor & gss::kContinueNeeded) == 0;
    SecHandle handle = i_phExisting != nullptr ? *i_phExisting : SecHandle{};
    SECURITY_STATUS nStatus = SEC_E_OK;
    try {
        if (i_phExisting == nullptr) {
            m_contexts.Add(i_pContext, handle);
        }
        nStatus = io_output.Write(io_token);
    } catch (const std::bad_alloc&) {
        nStatus = SEC_E_INSUFFICIENT_MEMORY;
    }
    m_gss.ReleaseBuffer(io_token);
    if (nStatus != SEC_E_OK) {
        // The pass is lost with its token: the context can go no further.
        context.m_eState = KerberosContext::State::Failed;
        if (i_phExisting == nullptr) {
            m_contexts.Remove(&handle);
        }
        return nStatus;
    }
    *o_phContext = handle;
    if (bComplete) {
        context.m_eState = KerberosContext::State::Complete;
    }
    if (o_pfAttributes != nullptr) {
        *o_pfAttributes = ((i_nFlags & gss::kMutualFlag) != 0 ? ISC_RET_MUTUAL_AUTH : 0) |
                          ((i_nFlags & gss::kDelegFlag) != 0 ? ISC_RET_DELEGATE : 0) |
                          (io_output.Allocated() ? ISC_RET_ALLOCATED_MEMORY : 0);
    }
    if (o_ptsExpiry != nullptr) {
        int64_t nStart = 0;
        int64_t nEnd = 0;
        *o_ptsExpiry = bComplete && context.TicketTimes(nStart, nEnd) ? LocalTimeStamp(nEnd) : NeverExpires();
    }
    return bComplete ? SEC_E_OK : SEC_I_CONTINUE_NEEDED;
}

SECURITY_STATUS LinuxSecurityApi::DeleteSecurityContext(PCtxtHandle phContext) {
    return m_contexts.Remove(phContext) != nullptr ? SEC_E_OK : SEC_E_INVALID_HANDLE;
}

SECURITY_STATUS LinuxSecurityApi::QueryContextAttributesW(PCtxtHandle phContext, ULONG ulAttribute, PVOID pBuffer) {
    const std::shared_ptr<KerberosContext> pContext = m_contexts.Find(phContext);
    if (pContext == nullptr) {
        return SEC_E_INVALID_HANDLE;
    }
    if (ulAttribute != SECPKG_ATTR_LIFESPAN) {
        return SEC_E_UNSUPPORTED_FUNCTION;
    }
    if (pBuffer == nullptr) {
        return SEC_E_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> guard(pContext->m_lock);
    if (pContext->m_eState != KerberosContext::State::Complete) {
        return SEC_E_INVALID_HANDLE;
    }
    int64_t nStart = 0;
    int64_t nEnd = 0;
    if (!pContext->TicketTimes(nStart, nEnd)) {
        return SEC_E_UNSUPPORTED_FUNCTION;
    }
    auto* pLifespan = static_cast<SecPkgContext_Lifespan*>(pBuffer);
    pLifespan->tsStart = LocalTimeStamp(nStart);
    pLifespan->tsExpiry = LocalTimeStamp(nEnd);
    return SEC_E_OK;
}

SECURITY_STATUS LinuxSecurityApi::ImpersonateSecurityContext(PCtxtHandle phContext) {
    return Guarded([&] {
        const std::shared_ptr<KerberosContext> pContext = m_contexts.Find(phContext);
        if (pContext == nullptr) {
            return SEC_E_INVALID_HANDLE;
        }
        std::optional<Identity> account;
        GssCredentialPtr pDelegated;
        {
            std::lock_guard<std::mutex> guard(pContext->m_lock);
            if (pContext->m_bInitiator || pContext->m_eState != KerberosContext::State::Complete) {
                return SEC_E_NO_IMPERSONATION;
            }
            account = pContext->Account();
            pDelegated = pContext->m_pDelegated;
        }
        if (!account) {
            STRACE("ostrel: Kerberos package -- the client has no local account to impersonate.");
            return SEC_E_NO_IMPERSONATION;
        }
        LinuxTokenApi& tokens = TokenPort();
        HANDLE hToken = nullptr;
        if (!tokens.CreateToken(*account, &hToken)) {
            return SEC_E_INSUFFICIENT_MEMORY;
        }
        std::shared_ptr<const DelegationHold> pHold;
        try {
            pHold = std::make_shared<DelegationHold>(std::move(pDelegated));
        } catch (const std::bad_alloc&) {
            tokens.CloseHandle(hToken);
            throw;
        }
        const BOOL bImpersonating = tokens.ImpersonateWith(hToken, std::move(pHold));
        tokens.CloseHandle(hToken);
        return bImpersonating ? SEC_E_OK : SEC_E_NO_IMPERSONATION;
    });
}

SECURITY_STATUS LinuxSecurityApi::RevertSecurityContext(PCtxtHandle phContext) {
    if (m_contexts.Find(phContext) == nullptr) {
        return SEC_E_INVALID_HANDLE;
    }
    return TokenPort().RevertToSelf() ? SEC_E_OK : SEC_E_INTERNAL_ERROR;
}

}  // namespace linuxport
}  // namespace ostrel::platform
