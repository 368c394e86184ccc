// What the Kerberos security package keeps behind its handles: credentials of
// the library shared by whoever still needs them, a credential handle's state,
// and a security context. Each gives its library objects back when it ends.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ostrel_platform/SspiTypes.h"
#include "platform/linux/GssKrb5.h"
#include "platform/linux/LinuxTokenApi.h"

namespace ostrel::platform::linuxport {

// One credential of the library; released when the last holder lets go.
class GssCredential {
public:
    GssCredential(GssKrb5& i_gss, gss_cred_id_t i_cred) : m_gss(i_gss), m_cred(i_cred) {}
    ~GssCredential() { m_gss.ReleaseCred(m_cred); }
    GssCredential(const GssCredential&) = delete;
    GssCredential& operator=(const GssCredential&) = delete;
    gss_cred_id_t Get() const { return m_cred; }

private:
    GssKrb5& m_gss;
    gss_cred_id_t m_cred;
};
using GssCredentialPtr = std::shared_ptr<GssCredential>;

// Takes ownership of a credential the library handed out; on failure to do so
// (no memory) the credential goes back at once and std::bad_alloc is thrown.
GssCredentialPtr OwnCredential(GssKrb5& i_gss, gss_cred_id_t i_cred);

// Bytes of a secret, wiped from memory when let go. The room for them is fixed
// at the start, so that growing never leaves a copy behind.
class SecretBytes {
public:
    explicit SecretBytes(size_t i_nCapacity = 0);
    ~SecretBytes() { Wipe(); }
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    SecretBytes(SecretBytes&& io_other) noexcept;
    SecretBytes& operator=(SecretBytes&& io_other) noexcept;

    // Beyond the room given at the start, bytes are dropped.
    void Append(char i_c) {
        if (m_nSize < m_nCapacity) {
            m_pBytes[m_nSize++] = i_c;
        }
    }
    char* Data() { return m_pBytes.get(); }
    const char* Data() const { return m_pBytes.get(); }
    size_t Size() const { return m_nSize; }
    void Wipe() noexcept;

private:
    std::unique_ptr<char[]> m_pBytes;
    size_t m_nCapacity = 0;
    size_t m_nSize = 0;
};

// A credential handle. Inbound: the keytab's acceptor credentials, taken at
// acquiring. Outbound: the credentials of the thread's identity at acquiring,
// or those a password gets on first use; a context that finds none fails then.
class KerberosCredential {
public:
    KerberosCredential(GssKrb5& i_gss, ULONG i_fUse) : m_gss(i_gss), m_fUse(i_fUse) {}

    bool Inbound() const { return (m_fUse & SECPKG_CRED_INBOUND) != 0; }
    bool Outbound() const { return (m_fUse & SECPKG_CRED_OUTBOUND) != 0; }

    GssCredentialPtr m_pAcceptor;

    // Outbound credentials found at acquiring; null: none, and i_nFailure says why.
    void SetInitiator(GssCredentialPtr i_pInitiator, SECURITY_STATUS i_nFailure);
    // A principal and its password, for the first context to log on with.
    void SetLogon(std::string i_principal, SecretBytes i_password);
    // The outbound credentials, logging on first where a password waits; the
    // password is wiped after the one try, and its outcome kept.
    SECURITY_STATUS Initiator(GssCredentialPtr& o_pInitiator);

private:
    GssKrb5& m_gss;
    const ULONG m_fUse;
    std::mutex m_lock;
    GssCredentialPtr m_pInitiator;
    SECURITY_STATUS m_nFailure = SEC_E_NO_CREDENTIALS;
    std::string m_principal;
    SecretBytes m_password;
    bool m_bLogonPending = false;
};

// What a thread keeps while it impersonates a context: its delegated
// credentials, whatever becomes of the context meanwhile.
class DelegationHold final : public ImpersonationAttachment {
public:
    explicit DelegationHold(GssCredentialPtr i_pDelegated) : m_pDelegated(std::move(i_pDelegated)) {}
    const GssCredentialPtr m_pDelegated;
};

// A security context, initiating or accepting. One pass at a time (m_lock).
class KerberosContext {
public:
    enum class State { Negotiating, Complete, Failed };

    KerberosContext(GssKrb5& i_gss, bool i_bInitiator, GssCredentialPtr i_pCredential)
        : m_gss(i_gss), m_bInitiator(i_bInitiator), m_pCredential(std::move(i_pCredential)) {}
    ~KerberosContext();
    KerberosContext(const KerberosContext&) = delete;
    KerberosContext& operator=(const KerberosContext&) = delete;

    // The local account of the client, looked up once; empty when it has none.
    const std::optional<Identity>& Account();
    // Start and end of the context's ticket, read once; false when the library cannot say.
    bool TicketTimes(int64_t& o_nStart, int64_t& o_nEnd);

    std::mutex m_lock;
    GssKrb5& m_gss;
    const bool m_bInitiator;
    // The credentials it began with: every later pass uses them.
    const GssCredentialPtr m_pCredential;
    gss_ctx_id_t m_context = nullptr;
    gss_name_t m_target = nullptr;
    gss_name_t m_source = nullptr;
    GssCredentialPtr m_pDelegated;
    OM_uint32 m_nFlags = 0;
    State m_eState = State::Negotiating;

private:
    bool m_bAccountLooked = false;
    std::optional<Identity> m_account;
    bool m_bTimesRead = false;
    int64_t m_nStart = 0;
    int64_t m_nEnd = 0;
};

}  // namespace ostrel::platform::linuxport
