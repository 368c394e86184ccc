#include "platform/linux/KerberosResults.h"

#include "platform/linux/GssKrb5.h"

namespace ostrel::platform::linuxport {

namespace {

// Failures any exchange with a KDC may end in; SEC_E_OK when it is none of them.
SECURITY_STATUS KdcResult(OM_uint32 i_nMinor) {
    switch (i_nMinor) {
        case krb5err::kKdcUnreachable:
        case krb5err::kRealmUnknown:
        case krb5err::kRealmCantResolve:
            return SEC_E_NO_AUTHENTICATING_AUTHORITY;
        case krb5err::kSkew:
            return SEC_E_TIME_SKEW;
        default:
            return SEC_E_OK;
    }
}

}  // namespace

SECURITY_STATUS AcquireResult(OM_uint32 i_nMajor) {
    switch (gss::RoutineError(i_nMajor)) {
        case gss::kNoCred:
        case gss::kCredentialsExpired:
        case gss::kDefectiveCredential:
            return SEC_E_NO_CREDENTIALS;
        default:
            return SEC_E_INTERNAL_ERROR;
    }
}

SECURITY_STATUS LogonResult(OM_uint32 i_nMajor, OM_uint32 i_nMinor) {
    if (const SECURITY_STATUS nKdc = KdcResult(i_nMinor); nKdc != SEC_E_OK) {
        return nKdc;
    }
    switch (gss::RoutineError(i_nMajor)) {
        case gss::kUnavailable:
            return SEC_E_UNSUPPORTED_FUNCTION;
        // Wrong password, unknown or locked client, a name that is none.
        case gss::kNoCred:
        case gss::kBadName:
        case gss::kBadNameType:
            return SEC_E_LOGON_DENIED;
        default:
            return SEC_E_INTERNAL_ERROR;
    }
}

SECURITY_STATUS InitiateResult(OM_uint32 i_nMajor, OM_uint32 i_nMinor) {
    if (const SECURITY_STATUS nKdc = KdcResult(i_nMinor); nKdc != SEC_E_OK) {
        return nKdc;
    }
    if (i_nMinor == krb5err::kServerUnknown) {
        return SEC_E_TARGET_UNKNOWN;
    }
    switch (gss::RoutineError(i_nMajor)) {
        case gss::kBadName:
        case gss::kBadNameType:
            return SEC_E_TARGET_UNKNOWN;
        case gss::kNoCred:
        case gss::kCredentialsExpired:
        case gss::kDefectiveCredential:
            return SEC_E_NO_CREDENTIALS;
        case gss::kDefectiveToken:
        case gss::kBadSig:
        case gss::kBadMech:
            return SEC_E_INVALID_TOKEN;
        default:
            // The acceptor's reply does not check out.
            return i_nMinor == krb5err::kBadIntegrity || i_nMinor == krb5err::kModified ? SEC_E_INVALID_TOKEN
                                                                                        : SEC_E_INTERNAL_ERROR;
    }
}

SECURITY_STATUS AcceptResult(OM_uint32 i_nMajor, OM_uint32 i_nMinor) {
    switch (i_nMinor) {
        // A sound ticket this server cannot take: for a key it does not hold, or out of its time.
        case krb5err::kNotUs:
        case krb5err::kNoKey:
        case krb5err::kBadKeyVersion:
        case krb5err::kKeytabNotFound:
        case krb5err::kKeytabEnd:
        case krb5err::kTicketExpired:
        case krb5err::kTicketNotYetValid:
        case krb5err::kSkew:
            return SEC_E_LOGON_DENIED;
        // Altered, replayed or not matching its ticket.
        case krb5err::kBadIntegrity:
        case krb5err::kModified:
        case krb5err::kReplay:
        case krb5err::kBadMatch:
            return SEC_E_INVALID_TOKEN;
        default:
            break;
    }
    switch (gss::RoutineError(i_nMajor)) {
        case gss::kDefectiveToken:
        case gss::kBadSig:
        case gss::kBadMech:
            return SEC_E_INVALID_TOKEN;
        default:
            return AcquireResult(i_nMajor);
    }
}

}  // namespace ostrel::platform::linuxport
