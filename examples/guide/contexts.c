/* Finished contexts: impersonation, the host's own keys, the calling thread's identity. */
#include "guide.h"

/* guide: impersonate */
/* Runs work(argument) on this thread as the user of a finished context. */
unsigned int as_user(const ostrel_char* session_id, void (*work)(void*), void* argument)
{
    unsigned int status = SSOImpersonate(session_id);
    if (status != SSO_STATUS_OK) {
        report_failure("SSOImpersonate", status); /* 61869: unknown or expired */
        return status;
    }
    work(argument);
    status = SSORevert(session_id);
    if (status != SSO_STATUS_OK) {
        /* The thread may still be the user: it must not serve anyone else. */
        report_failure("SSORevert", status);
    }
    return status;
}
/* guide: end */

/* guide: capture */
/* Keeps the calling thread's own identity under a key the host chooses, for any thread
 * to impersonate later. */
unsigned int capture_identity(const ostrel_char* host_key)
{
    ostrel_char* session_id = NULL;
    unsigned int status = SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, NULL, &session_id);
    if (status != SSO_STATUS_OK) {
        report_failure("SSOAcquireCurrentSecurityContext", status);
        return status;
    }
    /* The context moves to the new key; the old one finds nothing afterwards. */
    status = SSOAssociateSecurityContext(session_id, host_key);
    if (status != SSO_STATUS_OK) {
        report_failure("SSOAssociateSecurityContext", status);
        SSOReleaseSecurityContext(session_id);
    }
    SSOFreeString(session_id);
    return status;
}

/* Whether a key still names a usable context. 103 (unknown or expired) comes without
 * an error record: there is nothing to fetch. */
int still_valid(const ostrel_char* key)
{
    return SSOLookupSecurityContext(key) == SSO_STATUS_OK;
}
/* guide: end */
