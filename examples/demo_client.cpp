// The client half of the demo: a user who logs in to a service with Kerberos.
// demo_host starts it and talks to it through its standard input and output,
// one line per message:
//   to the host:    SAY <text> | TOKEN <base64> | DONE | FAIL <text>
//   from the host:  REPLY <base64> | END
// It uses the system's GSS-API directly, as any Kerberos client would.
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "PluginHost.h"

using ostrel_example::Base64Decode;
using ostrel_example::Base64Encode;
using ostrel_example::PasswordOf;

namespace {

void Send(const std::string& i_line) {
    std::cout << i_line << '\n' << std::flush;
}

std::string GssMessage(OM_uint32 i_nMajor, OM_uint32 i_nMinor) {
    std::string text;
    for (int type : {GSS_C_GSS_CODE, GSS_C_MECH_CODE}) {
        OM_uint32 context = 0;
        do {
            OM_uint32 minor = 0;
            gss_buffer_desc message = GSS_C_EMPTY_BUFFER;
            gss_display_status(&minor, type == GSS_C_GSS_CODE ? i_nMajor : i_nMinor, type, GSS_C_NO_OID, &context,
                               &message);
            if (message.length > 0) {
                if (!text.empty()) {
                    text += ": ";
                }
                text.append(static_cast<const char*>(message.value), message.length);
            }
            gss_release_buffer(&minor, &message);
        } while (context != 0);
    }
    return text;
}

int Fail(const std::string& i_why) {
    Send("FAIL " + i_why);
    return 1;
}

class GssClient {
public:
    ~GssClient() {
        OM_uint32 minor = 0;
        if (m_context != GSS_C_NO_CONTEXT) {
            gss_delete_sec_context(&minor, &m_context, GSS_C_NO_BUFFER);
        }
        if (m_target != GSS_C_NO_NAME) {
            gss_release_name(&minor, &m_target);
        }
        if (m_credential != GSS_C_NO_CREDENTIAL) {
            gss_release_cred(&minor, &m_credential);
        }
    }

    // Asks the KDC for the user's ticket-granting ticket with the password; nothing is written to disk.
    bool LogIn(const std::string& i_user, const std::string& i_password, std::string& o_error) {
        OM_uint32 minor = 0;
        gss_name_t user = GSS_C_NO_NAME;
        gss_buffer_desc userText{i_user.size(), const_cast<char*>(i_user.data())};
        OM_uint32 major = gss_import_name(&minor, &userText, GSS_C_NT_USER_NAME, &user);
        if (!GSS_ERROR(major)) {
            gss_buffer_desc password{i_password.size(), const_cast<char*>(i_password.data())};
            major = gss_acquire_cred_with_password(&minor, user, &password, GSS_C_INDEFINITE, GSS_C_NO_OID_SET,
                                                   GSS_C_INITIATE, &m_credential, nullptr, nullptr);
        }
        OM_uint32 ignored = 0;
        gss_release_name(&ignored, &user);
        if (GSS_ERROR(major)) {
            o_error = GssMessage(major, minor);
            return false;
        }
        return true;
    }

    // One step of the client's side; the first call has no input. Empty output: nothing to send.
    bool Step(const std::string& i_service, const std::vector<unsigned char>* i_pInput,
              std::vector<unsigned char>& o_token, std::string& o_error) {
        OM_uint32 minor = 0;
        if (m_target == GSS_C_NO_NAME) {
            gss_buffer_desc name{i_service.size(), const_cast<char*>(i_service.data())};
            const OM_uint32 major = gss_import_name(&minor, &name, GSS_C_NT_USER_NAME, &m_target);
            if (GSS_ERROR(major)) {
                o_error = GssMessage(major, minor);
                return false;
            }
        }
        gss_buffer_desc input{0, nullptr};
        if (i_pInput != nullptr) {
            input = {i_pInput->size(), const_cast<unsigned char*>(i_pInput->data())};
        }
        gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
        m_nMajor = gss_init_sec_context(&minor, m_credential, &m_context, m_target,
                                        const_cast<gss_OID>(gss_mech_krb5), GSS_C_MUTUAL_FLAG, 0,
                                        GSS_C_NO_CHANNEL_BINDINGS, i_pInput != nullptr ? &input : GSS_C_NO_BUFFER,
                                        nullptr, &output, nullptr, nullptr);
        const auto* pBytes = static_cast<const unsigned char*>(output.value);
        o_token.assign(pBytes, pBytes + output.length);
        OM_uint32 ignored = 0;
        gss_release_buffer(&ignored, &output);
        if (GSS_ERROR(m_nMajor)) {
            o_error = GssMessage(m_nMajor, minor);
            return false;
        }
        return true;
    }

    bool Complete() const { return m_nMajor == GSS_S_COMPLETE; }

private:
    gss_cred_id_t m_credential = GSS_C_NO_CREDENTIAL;
    gss_ctx_id_t m_context = GSS_C_NO_CONTEXT;
    gss_name_t m_target = GSS_C_NO_NAME;
    OM_uint32 m_nMajor = GSS_S_FAILURE;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s USER PASSWORD-FILE SERVICE\n  (started by demo_host)\n", argv[0]);
        return 2;
    }
    const std::string user = argv[1];
    const std::string service = argv[3];
    std::string password;
    if (!PasswordOf(argv[2], user, password)) {
        return Fail("no password for " + user + " in " + argv[2]);
    }

    GssClient client;
    std::string error;
    if (!client.LogIn(user, password, error)) {
        return Fail("the KDC refused " + user + ": " + error);
    }
    Send("SAY " + user + " got a ticket-granting ticket from the KDC with the password");

    std::vector<unsigned char> token;
    if (!client.Step(service, nullptr, token, error)) {
        return Fail("no ticket for " + service + ": " + error);
    }
    Send("SAY got a ticket for " + service + " and sends the first token (" + std::to_string(token.size()) +
         " bytes)");
    Send("TOKEN " + Base64Encode(token.data(), token.size()));

    std::string line;
    while (std::getline(std::cin, line)) {
        if (line == "END") {
            return 0;
        }
        std::vector<unsigned char> reply;
        if (line.rfind("REPLY ", 0) != 0 || !Base64Decode(line.substr(6), reply)) {
            return Fail("unexpected message from the host: " + line);
        }
        if (!client.Step(service, &reply, token, error)) {
            return Fail("the host's reply does not check out: " + error);
        }
        if (!client.Complete()) {
            return Fail("the login needs more than this client knows how to send");
        }
        Send("SAY checked the reply: the service proved it holds the key of " + service +
             " (mutual authentication)");
        Send("DONE");
    }
    return Fail("the host went away");
}
