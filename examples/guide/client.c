/* The client's end: a login with the provider "SSPI". */
#include <stdlib.h>

#include "guide.h"

/* guide: client */
/* Logs in to the service spn ("HTTP/www.example.com"). user and password NULL: as the
 * calling thread's own identity; else "user@REALM" or "DOMAIN\user" and its password.
 * 0 when the client's side is done. */
unsigned int client_login(const struct Transport* server, const ostrel_char* user, const ostrel_char* password,
                          const ostrel_char* spn)
{
    ParasSeq target = {WP_SI_SERVER_SSPI_SPN_W, SSO_PARAM_STRING, 0, (ostrel_char*)spn, NULL};
    ostrel_char* key = NULL;
    void* token = NULL;
    size_t length = 0;
    unsigned int status = SSOStartLogin(user, password, SSO_PROVIDER_SSPI, &target, &key, &token, &length);

    while (status == SSO_STATUS_CONTINUE || status == SSO_STATUS_OK) {
        void* answer = NULL;
        size_t answer_length = 0;
        int sent = 0;

        if (token != NULL) { /* a last token can come with 0: it still goes out */
            sent = server->send(server->context, token, length);
            SSOFreeBuffer(token);
            token = NULL;
        }
        if (status == SSO_STATUS_OK || sent != 0 ||
            server->receive(server->context, &answer, &answer_length) != 0) {
            /* Done (the key is "DUMMY_KEY"), or the server is gone: a login left so
             * waits in the plug-in until SSOTermPackage. */
            SSOFreeString(key);
            return status == SSO_STATUS_OK && sent == 0 ? SSO_STATUS_OK : SSO_STATUS_FAILURE;
        }
        status = SSOContinueLogin(key, answer, answer_length, &token, &length);
        free(answer);
    }
    report_failure("client login", status); /* the plug-in has forgotten the login */
    SSOFreeString(key);
    return status;
}
/* guide: end */
