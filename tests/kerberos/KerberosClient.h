// The client side of a login, straight on the system's GSS-API: what a real
// client does, so that the plug-in's acceptor is tested against it.
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

inline std::string GssMessage(OM_uint32 i_nMajor, OM_uint32 i_nMinor) {
    std::string text;
    for (int type : {GSS_C_GSS_CODE, GSS_C_MECH_CODE}) {
        OM_uint32 ctx = 0;
        do {
            OM_uint32 minor = 0;
            gss_buffer_desc msg = GSS_C_EMPTY_BUFFER;
            gss_display_status(&minor, type == GSS_C_GSS_CODE ? i_nMajor : i_nMinor, type, GSS_C_NO_OID, &ctx, &msg);
            text.append(static_cast<const char*>(msg.value), msg.length).append("; ");
            gss_release_buffer(&minor, &msg);
        } while (ctx != 0);
    }
    return text;
}

// A user with a password and a context towards one service.
class KerberosClient {
public:
    KerberosClient(const std::string& i_user, const std::string& i_password) {
        OM_uint32 minor = 0;
        gss_name_t name = GSS_C_NO_NAME;
        gss_buffer_desc nameBuf{i_user.size(), const_cast<char*>(i_user.data())};
        m_nMajor = gss_import_name(&minor, &nameBuf, GSS_C_NT_USER_NAME, &name);
        if (GSS_ERROR(m_nMajor)) {
            m_error = GssMessage(m_nMajor, minor);
            return;
        }
        gss_buffer_desc pw{i_password.size(), const_cast<char*>(i_password.data())};
        m_nMajor = gss_acquire_cred_with_password(&minor, name, &pw, GSS_C_INDEFINITE, GSS_C_NO_OID_SET,
                                                  GSS_C_INITIATE, &m_cred, nullptr, nullptr);
        if (GSS_ERROR(m_nMajor)) {
            m_error = GssMessage(m_nMajor, minor);
        }
        gss_release_name(&minor, &name);
    }
    ~KerberosClient() {
        OM_uint32 minor = 0;
        Reset();
        if (m_cred != GSS_C_NO_CREDENTIAL) {
            gss_release_cred(&minor, &m_cred);
        }
    }
    KerberosClient(const KerberosClient&) = delete;
    KerberosClient& operator=(const KerberosClient&) = delete;

    bool ok() const { return !GSS_ERROR(m_nMajor); }
    const std::string& error() const { return m_error; }

    // First token towards a service ("HTTP/localhost"); empty on failure (see error()).
    Bytes Start(const std::string& i_service, bool i_bMutual = true) {
        Reset();
        m_bMutual = i_bMutual;
        OM_uint32 minor = 0;
        gss_buffer_desc nameBuf{i_service.size(), const_cast<char*>(i_service.data())};
        OM_uint32 major = gss_import_name(&minor, &nameBuf, GSS_C_NT_USER_NAME, &m_target);
        if (GSS_ERROR(major)) {
            m_error = GssMessage(major, minor);
            return {};
        }
        return Step(nullptr, 0);
    }
    // Takes the acceptor's reply; true when the context is complete.
    bool Finish(const void* i_pReply, size_t i_nLength) {
        Step(i_pReply, i_nLength);
        return m_nMajor == GSS_S_COMPLETE;
    }
    bool complete() const { return m_nMajor == GSS_S_COMPLETE; }
    OM_uint32 major() const { return m_nMajor; }

private:
    Bytes Step(const void* i_pInput, size_t i_nLength) {
        OM_uint32 minor = 0;
        gss_buffer_desc in{i_nLength, const_cast<void*>(i_pInput)};
        gss_buffer_desc out = GSS_C_EMPTY_BUFFER;
        const OM_uint32 flags = m_bMutual ? GSS_C_MUTUAL_FLAG : 0;
        m_nMajor = gss_init_sec_context(&minor, m_cred, &m_ctx, m_target, const_cast<gss_OID>(gss_mech_krb5), flags, 0,
                                        GSS_C_NO_CHANNEL_BINDINGS, i_pInput != nullptr ? &in : GSS_C_NO_BUFFER,
                                        nullptr, &out, nullptr, nullptr);
        Bytes token(static_cast<unsigned char*>(out.value), static_cast<unsigned char*>(out.value) + out.length);
        gss_release_buffer(&minor, &out);
        if (GSS_ERROR(m_nMajor)) {
            m_error = GssMessage(m_nMajor, minor);
            return {};
        }
        return token;
    }
    void Reset() {
        OM_uint32 minor = 0;
        if (m_ctx != GSS_C_NO_CONTEXT) {
            gss_delete_sec_context(&minor, &m_ctx, GSS_C_NO_BUFFER);
        }
        if (m_target != GSS_C_NO_NAME) {
            gss_release_name(&minor, &m_target);
        }
    }

    gss_cred_id_t m_cred = GSS_C_NO_CREDENTIAL;
    gss_ctx_id_t m_ctx = GSS_C_NO_CONTEXT;
    gss_name_t m_target = GSS_C_NO_NAME;
    OM_uint32 m_nMajor = GSS_S_FAILURE;
    bool m_bMutual = true;
    std::string m_error;
};

}  // namespace ostrel_test
