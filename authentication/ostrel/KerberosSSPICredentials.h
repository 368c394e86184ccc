// A credentials handle of the Kerberos security package, made afresh for each
// pass: a named user's (with a password) or, for an empty user name, the
// calling thread's own identity.
#pragma once

#include "HandlerFactory.h"
#include "ostrel_platform/SspiTypes.h"

namespace ostrel {

// The name of the package every SSPI call names, writable as the SSPI's
// parameters want it; nothing writes to it.
LPWSTR KerberosPackageName();
// What a failure that makes the package unusable substitutes: "Kerberos/SSPI".
extern const SWCharString g_ssKerberosSSPIMechanism;

class KerberosSSPICredentials : public SSOCredentials {
public:
    KerberosSSPICredentials(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword, int i_nType);

protected:
    ~KerberosSSPICredentials() override;

private:
    friend class KerberosSSPIHandler;
    CredHandle m_hCredentials = {0, 0};  // both words zero: none held
    TimeStamp m_tsCredentialsExpiry = {};
    void Acquire(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword, int i_nType);
};

inline bool IsHandleSet(const SecHandle& i_handle) { return i_handle.dwLower != 0 || i_handle.dwUpper != 0; }

}  // namespace ostrel
