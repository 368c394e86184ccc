// The client side of a login, straight on the system's GSS-API: what a real client does, so that the
// plug-in's acceptor is tested against it.
#pragma once

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace ostrel_test {

using Bytes = std::vector<unsigned char>;

inline std::u16string Wide(const std::string& s) { return std::u16string(s.begin(), s.end()); }

inline std::string Env(const char* i_pName) {
    const char* p = std::getenv(i_pName);
    return p != nullptr ? p : "";
}

// A user with a password and a context towards one service.
class KerberosClient {
public:
    KerberosClient(const std::string& i_user, const std::string& i_password) {
        gss_buffer_desc name{i_user.size(), const_cast<char*>(i_user.data())};
        gss_buffer_desc pw{i_password.size(), const_cast<char*>(i_password.data())};
        gss_name_t user = GSS_C_NO_NAME;
        if (Check(gss_import_name(&m_nMinor, &name, GSS_C_NT_USER_NAME, &user))) {
            Check(gss_acquire_cred_with_password(&m_nMinor, user, &pw, GSS_C_INDEFINITE, GSS_C_NO_OID_SET,
                                                 GSS_C_INITIATE, &m_cred, nullptr, nullptr));
        }
        gss_release_name(&m_nMinor, &user);
    }
    ~KerberosClient() {
        Reset();
        gss_release_cred(&m_nMinor, &m_cred);
    }
    KerberosClient(const KerberosClient&) = delete;
    KerberosClient& operator=(const KerberosClient&) = delete;

    bool ok() const { return !GSS_ERROR(m_nMajor); }
    bool complete() const { return m_nMajor == GSS_S_COMPLETE; }
    OM_uint32 major() const { return m_nMajor; }
    const std::string& error() const { return m_error; }

    // The first token towards a service ("HTTP/localhost"); empty on failure (see error()).
    Bytes Start(const std::string& i_service, bool i_bMutual = true) {
        Reset();
        m_nFlags = i_bMutual ? GSS_C_MUTUAL_FLAG : 0;
        gss_buffer_desc name{i_service.size(), const_cast<char*>(i_service.data())};
        return Check(gss_import_name(&m_nMinor, &name, GSS_C_NT_USER_NAME, &m_target)) ? Step(GSS_C_NO_BUFFER) : Bytes();
    }
    // Takes the acceptor's reply; true when the context is complete.
    bool Finish(const void* i_pReply, size_t i_nLength) {
        gss_buffer_desc in{i_nLength, const_cast<void*>(i_pReply)};
        Step(&in);
        return complete();
    }

private:
    bool Check(OM_uint32 i_nMajor) {
        m_nMajor = i_nMajor;
        for (int type : {GSS_C_GSS_CODE, GSS_C_MECH_CODE}) {
            for (OM_uint32 ctx = 0, minor = 0; GSS_ERROR(i_nMajor);) {
                gss_buffer_desc msg = GSS_C_EMPTY_BUFFER;
                gss_display_status(&minor, type == GSS_C_GSS_CODE ? i_nMajor : m_nMinor, type, GSS_C_NO_OID, &ctx, &msg);
                m_error.append(static_cast<const char*>(msg.value), msg.length).append("; ");
                gss_release_buffer(&minor, &msg);
                if (ctx == 0) {
                    break;
                }
            }
        }
        return !GSS_ERROR(i_nMajor);
    }
    Bytes Step(gss_buffer_t i_pInput) {
        gss_buffer_desc out = GSS_C_EMPTY_BUFFER;
        const bool ok = Check(gss_init_sec_context(&m_nMinor, m_cred, &m_ctx, m_target, const_cast<gss_OID>(gss_mech_krb5),
                                                   m_nFlags, 0, GSS_C_NO_CHANNEL_BINDINGS, i_pInput, nullptr, &out,
                                                   nullptr, nullptr));
        Bytes token(static_cast<unsigned char*>(out.value), static_cast<unsigned char*>(out.value) + out.length);
        gss_release_buffer(&m_nMinor, &out);
        return ok ? token : Bytes();
    }
    void Reset() {
        gss_delete_sec_context(&m_nMinor, &m_ctx, GSS_C_NO_BUFFER);
        gss_release_name(&m_nMinor, &m_target);
    }

    gss_cred_id_t m_cred = GSS_C_NO_CREDENTIAL;
    gss_ctx_id_t m_ctx = GSS_C_NO_CONTEXT;
    gss_name_t m_target = GSS_C_NO_NAME;
    OM_uint32 m_nMajor = GSS_S_FAILURE, m_nMinor = 0, m_nFlags = 0;
    std::string m_error;
};

}  // namespace ostrel_test
