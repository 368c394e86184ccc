/* A complete host in C, linked with the plug-in (-lostrel): it captures the identity
 * the process runs under, impersonates it and reverts, and stops the plug-in. */
#include <stdio.h>

#include "ostrel/ostrel.h"

/* guide: main */
int main(void)
{
    ostrel_char* session_id = NULL;
    const ostrel_char* c;
    unsigned int status = SSOInitPackage();
    if (status != SSO_STATUS_OK) {
        fprintf(stderr, "SSOInitPackage: %u\n", status);
        return 1;
    }
    status = SSOInitProvider(SSO_PROVIDER_THREADTOKEN, NULL);
    if (status == SSO_STATUS_OK) {
        status = SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, NULL, &session_id);
    }
    if (status == SSO_STATUS_OK) {
        fputs("session ID ", stdout);
        for (c = session_id; *c != 0; ++c) {
            putchar((char)*c); /* decimal digits */
        }
        putchar('\n');
        status = SSOImpersonate(session_id);
    }
    if (status == SSO_STATUS_OK) {
        status = SSORevert(session_id);
    }
    if (session_id != NULL) {
        SSOReleaseSecurityContext(session_id);
        SSOFreeString(session_id);
    }
    printf("impersonated and reverted: status %u\n", status);
    SSOTermPackage();
    return status == SSO_STATUS_OK ? 0 : 1;
}
/* guide: end */
