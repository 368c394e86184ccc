// The library's failures as the results Windows' Kerberos package gives for
// the same situations (the table of docs/security-package.md).
#pragma once

#include "ostrel_platform/GssApi.h"
#include "ostrel_platform/SspiTypes.h"

namespace ostrel::platform::linuxport {

// Acquiring credentials (the keytab's, a credential cache's).
SECURITY_STATUS AcquireResult(OM_uint32 i_nMajor);
// Getting a ticket-granting ticket with a password.
SECURITY_STATUS LogonResult(OM_uint32 i_nMajor, OM_uint32 i_nMinor);
// An initiating pass (service ticket, the acceptor's reply).
SECURITY_STATUS InitiateResult(OM_uint32 i_nMajor, OM_uint32 i_nMinor);
// An accepting pass.
SECURITY_STATUS AcceptResult(OM_uint32 i_nMajor, OM_uint32 i_nMinor);

}  // namespace ostrel::platform::linuxport
