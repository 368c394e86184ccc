/* The server's end: configuring a provider and accepting logins. */
#include <stdlib.h>

#include "guide.h"

/* guide: init-provider */
/* "SSPI" on a server: its principal, finished contexts cached for 8 hours, renewed. */
unsigned int init_sspi_server(const ostrel_char* spn)
{
    ParasSeq renewals = {SSO_KEY_CONTEXT_RENEWALS_ALLOWED, SSO_PARAM_BOOL, 0, OSTREL_T("1"), NULL};
    ParasSeq expiry = {SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_LONG, 0, OSTREL_T("28800"), &renewals};
    ParasSeq caching = {WP_SI_CACHE_SECCONTEXT_W, SSO_PARAM_BOOL, 0, OSTREL_T("1"), &expiry};
    ParasSeq target = {WP_SI_SERVER_SSPI_SPN_W, SSO_PARAM_STRING, 0, (ostrel_char*)spn, &caching};

    /* The plug-in copies what it needs: the list may go when the call returns. */
    unsigned int status = SSOInitProvider(SSO_PROVIDER_SSPI, &target);
    if (status != SSO_STATUS_OK) {
        report_failure("SSOInitProvider", status);
    }
    return status;
}
/* guide: end */

/* guide: find */
static int same_text(const ostrel_char* a, const ostrel_char* b)
{
    while (*a != 0 && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

/* The value under a key in a list from the plug-in, or NULL; the list stays the
 * plug-in's until SSOFreeParameters. */
const ostrel_char* find_parameter(const ParasSeq* list, const ostrel_char* key)
{
    for (; list != NULL; list = list->next) {
        if (list->key != NULL && same_text(list->key, key)) {
            return list->value;
        }
    }
    return NULL;
}
/* guide: end */

/* guide: accept */
/* Ends a login the host will not finish: without this it waits in the plug-in until
 * SSOTermPackage. The closing call ends it, whatever it answers. */
void end_login(const ostrel_char* provider, ostrel_char* key)
{
    void* reply = NULL;
    size_t reply_length = 0;
    ostrel_char* session_id = NULL;
    Plugin_Exception_Struct* error = NULL;
    unsigned int status = SSOAcceptLogin(key, provider, NULL, 0, &reply, &reply_length, NULL, &session_id);

    if (status == SSO_STATUS_SERVER_DONE) {
        SSOReleaseSecurityContext(session_id); /* it was complete: no one will use it */
    } else if (status >= SSO_STATUS_FAILURE && SSOGetError(status, &error) == SSO_STATUS_OK) {
        SSOFreeError(error); /* expected, and not worth a word */
    }
    SSOFreeBuffer(reply);
    SSOFreeString(session_id);
    SSOFreeString(key);
}

/* One server login, from the client's first token to its end. On success 0 and
 * *session_id, the finished context's key (or SSO_DUMMY_KEY_CACHING_IS_OFF), for
 * SSOFreeString. Otherwise the failing status, and nothing to free. */
unsigned int serve_login(const struct Transport* client, const ostrel_char* provider, ostrel_char** session_id)
{
    ostrel_char* key = NULL; /* the login's session key, between passes */
    void* token = NULL;
    size_t token_length = 0;

    *session_id = NULL;
    if (client->receive(client->context, &token, &token_length) != 0) {
        return SSO_STATUS_FAILURE;
    }
    for (;;) {
        void* reply = NULL;
        size_t reply_length = 0;
        ParasSeq* facts = NULL; /* or pass NULL for no logon facts */
        ostrel_char* next_key = NULL;
        int sent = 0;

        /* An empty key starts a login; a NULL token of length 0 is the closing call. */
        unsigned int status = SSOAcceptLogin(key != NULL ? key : OSTREL_T(""), provider, token, token_length,
                                             &reply, &reply_length, &facts, &next_key);
        free(token);
        token = NULL;
        token_length = 0;
        SSOFreeString(key);
        key = next_key;
        if (reply != NULL) { /* the client needs it, whatever the status */
            sent = client->send(client->context, reply, reply_length);
            SSOFreeBuffer(reply);
        }
        if (status == SSO_STATUS_SERVER_DONE) {
            const ostrel_char* user = find_parameter(facts, SSO_KEY_GSSAPI_USER_NAME);
            if (user != NULL) {
                fputs("logged in: ", stdout);
                put_text(stdout, user);
                fputs("\n", stdout);
            }
            SSOFreeParameters(facts);
            *session_id = key;
            return 0;
        }
        SSOFreeParameters(facts);
        if (status != SSO_STATUS_CONTINUE) {
            report_failure("SSOAcceptLogin", status); /* the plug-in has forgotten the login */
            return status;
        }
        /* 1: the client may answer. If it has nothing more to send (receive gives 1),
         * token stays NULL and the next pass is the closing call, which gives 2. */
        if (sent != 0 || client->receive(client->context, &token, &token_length) < 0) {
            end_login(provider, key);
            return SSO_STATUS_FAILURE;
        }
    }
}
/* guide: end */
