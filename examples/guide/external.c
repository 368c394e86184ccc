/* Verifying an external single-sign-on product's token. */
#include "guide.h"

/* guide: external */
/* servers: "host:port:port:port host2:port:port:port" (a caret escapes a blank, a colon
 * or itself); secret: the shared secret in stored form (tools/ostrel-scramble). */
unsigned int verify_external_token(const ostrel_char* servers, const ostrel_char* stored_secret,
                                   const ostrel_char* agent, const ostrel_char* token)
{
    ParasSeq mode = {WP_SI_SSO_ACCESS_MODE_W, SSO_PARAM_LONG, 0, OSTREL_T("1"), NULL};
    ParasSeq name = {WP_SI_SSO_AGENT_W, SSO_PARAM_STRING, 0, (ostrel_char*)agent, &mode};
    ParasSeq secret = {WP_SI_SSO_SHARED_SECRET_W, SSO_PARAM_STRING, 0, (ostrel_char*)stored_secret, &name};
    ParasSeq list = {WP_SI_SSO_SERVERS_AND_PORTS_W, SSO_PARAM_STRING, 0, (ostrel_char*)servers, &secret};
    ParasSeq vendor = {WP_SI_SSO_VENDOR_W, SSO_PARAM_LONG, 0, OSTREL_T("1"), &list};
    CExternalSSO* handle = NULL;
    ostrel_char* user = NULL;

    /* A host opens one handle and verifies many tokens with it, from any thread. */
    unsigned int status = ExternalSSOCreateHandle(&vendor, &handle);
    if (status != SSO_STATUS_OK) {
        report_failure("ExternalSSOCreateHandle", status); /* 113, with a record once initialised */
        return status;
    }
    status = ExternalSSOVerifyUser(handle, token, &user);
    if (status == SSO_STATUS_OK) {
        fputs("token of ", stdout);
        put_text(stdout, user);
        fputs("\n", stdout);
        SSOFreeString(user);
    } else if (status != SSO_STATUS_FAILURE) {
        report_failure("ExternalSSOVerifyUser", status); /* 110: no connection */
    } /* 100: forged, damaged or timed out, and no record */
    ExternalSSODestroyHandle(handle);
    return status;
}
/* guide: end */
