#include "platform/linux/KerberosObjects.h"

#include <string.h>

#include <utility>

#include "foundation/Trace.h"
#include "platform/linux/KerberosResults.h"
#include "platform/linux/LocalAccount.h"

namespace ostrel::platform::linuxport {

GssCredentialPtr OwnCredential(GssKrb5& i_gss, gss_cred_id_t i_cred) {
    try {
        return std::make_shared<GssCredential>(i_gss, i_cred);
    } catch (...) {
        i_gss.ReleaseCred(i_cred);
        throw;
    }
}

SecretBytes::SecretBytes(size_t i_nCapacity)
    : m_pBytes(i_nCapacity > 0 ? new char[i_nCapacity] : nullptr), m_nCapacity(i_nCapacity) {}

SecretBytes::SecretBytes(SecretBytes&& io_other) noexcept
    : m_pBytes(std::move(io_other.m_pBytes)),
      m_nCapacity(std::exchange(io_other.m_nCapacity, 0)),
      m_nSize(std::exchange(io_other.m_nSize, 0)) {}

SecretBytes& SecretBytes::operator=(SecretBytes&& io_other) noexcept {
    if (this != &io_other) {
        Wipe();
        m_pBytes = std::move(io_other.m_pBytes);
        m_nCapacity = std::exchange(io_other.m_nCapacity, 0);
        m_nSize = std::exchange(io_other.m_nSize, 0);
    }
    return *this;
}

void SecretBytes::Wipe() noexcept {
    if (m_pBytes != nullptr) {
        explicit_bzero(m_pBytes.get(), m_nCapacity);
    }
    m_nSize = 0;
}

void KerberosCredential::SetInitiator(GssCredentialPtr i_pInitiator, SECURITY_STATUS i_nFailure) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_pInitiator = std::move(i_pInitiator);
    m_nFailure = i_nFailure;
}

void KerberosCredential::SetLogon(std::string i_principal, SecretBytes i_password) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_principal = std::move(i_principal);
    m_password = std::move(i_password);
    m_bLogonPending = true;
}

SECURITY_STATUS KerberosCredential::Initiator(GssCredentialPtr& o_pInitiator) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_bLogonPending) {
        m_bLogonPending = false;
        OM_uint32 nMinor = 0;
        gss_name_t name = nullptr;
        gss_cred_id_t cred = nullptr;
        OM_uint32 nMajor = m_gss.ImportPrincipal(&nMinor, m_principal, &name);
        if (!gss::IsError(nMajor)) {
            gss_buffer_desc password = {m_password.Size(), m_password.Data()};
            nMajor = m_gss.AcquireCredWithPassword(&nMinor, name, &password, &cred);
        }
        m_password.Wipe();
        m_gss.ReleaseName(name);
        if (gss::IsError(nMajor)) {
            m_gss.ReleaseCred(cred);
            m_nFailure = LogonResult(nMajor, nMinor);
            STRACE("ostrel: Kerberos package -- logon of %1 failed: %2", m_principal.c_str(),
                   m_gss.Describe(nMajor, nMinor).c_str());
        } else {
            m_pInitiator = OwnCredential(m_gss, cred);
        }
    }
    o_pInitiator = m_pInitiator;
    return m_pInitiator != nullptr ? SEC_E_OK : m_nFailure;
}

KerberosContext::~KerberosContext() {
    m_gss.DeleteContext(m_context);
    m_gss.ReleaseName(m_target);
    m_gss.ReleaseName(m_source);
}

const std::optional<Identity>& KerberosContext::Account() {
    if (!m_bAccountLooked) {
        m_bAccountLooked = true;
        m_account = LookUpAccount(m_gss.LocalName(m_source));
    }
    return m_account;
}

bool KerberosContext::TicketTimes(int64_t& o_nStart, int64_t& o_nEnd) {
    if (!m_bTimesRead) {
        m_bTimesRead = m_gss.TicketTimes(m_context, m_nStart, m_nEnd);
    }
    o_nStart = m_nStart;
    o_nEnd = m_nEnd;
    return m_bTimesRead;
}

}  // namespace ostrel::platform::linuxport
