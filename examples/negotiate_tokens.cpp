// Makes the Negotiate tokens the HTTP host's tests send by hand, with the
// caller's Kerberos tickets (KRB5CCNAME). One base64 token per output line.
//
//   negotiate_tokens spnego SERVICE          what curl and browsers send
//   negotiate_tokens krb5 SERVICE            a bare Kerberos token, mutual authentication
//   negotiate_tokens krb5-one-way SERVICE    a bare Kerberos token, no reply expected
//   negotiate_tokens krb5-delegate SERVICE   a bare Kerberos token that hands over the caller's ticket
//   negotiate_tokens two-step SERVICE        two tokens of one SPNEGO login that takes two
//                                            round trips: an opening without a mechanism
//                                            token, then the Kerberos token
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>

#include <cstdio>
#include <string>

#include "PluginHost.h"

namespace {

using Bytes = std::string;

gss_OID_desc g_spnego = {6, const_cast<char*>("\x2b\x06\x01\x05\x05\x02")};

Bytes Tlv(unsigned char i_tag, const Bytes& i_content) {
    Bytes out(1, static_cast<char>(i_tag));
    const size_t n = i_content.size();
    if (n < 0x80) {
        out += static_cast<char>(n);
    } else if (n < 0x100) {
        out += static_cast<char>(0x81);
        out += static_cast<char>(n);
    } else {
        out += static_cast<char>(0x82);
        out += static_cast<char>(n >> 8);
        out += static_cast<char>(n & 0xFF);
    }
    return out + i_content;
}

void Print(const Bytes& i_token) {
    std::printf("%s\n", ostrel_example::Base64Encode(reinterpret_cast<const unsigned char*>(i_token.data()),
                                                     i_token.size())
                            .c_str());
}

// The first token of a context towards SERVICE; empty after printing the reason.
Bytes FirstToken(const std::string& i_service, gss_OID i_mech, OM_uint32 i_flags) {
    OM_uint32 minor = 0;
    gss_name_t target = GSS_C_NO_NAME;
    gss_buffer_desc name{i_service.size(), const_cast<char*>(i_service.data())};
    OM_uint32 major = gss_import_name(&minor, &name, GSS_C_NT_USER_NAME, &target);
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    if (!GSS_ERROR(major)) {
        major = gss_init_sec_context(&minor, GSS_C_NO_CREDENTIAL, &context, target, i_mech, i_flags, 0,
                                     GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr, &output, nullptr, nullptr);
    }
    Bytes token(static_cast<const char*>(output.value), output.length);
    if (GSS_ERROR(major)) {
        std::fprintf(stderr, "negotiate_tokens: no token for %s (major 0x%x, minor %u)\n", i_service.c_str(),
                     major, minor);
        token.clear();
    }
    // The context goes: only the token is wanted, and the acceptor's reply is not read.
    gss_release_buffer(&minor, &output);
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    gss_release_name(&minor, &target);
    return token;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s spnego|krb5|krb5-one-way|krb5-delegate|two-step SERVICE\n", argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const std::string service = argv[2];
    const auto krb5 = const_cast<gss_OID>(gss_mech_krb5);
    Bytes token;
    if (mode == "spnego") {
        token = FirstToken(service, &g_spnego, GSS_C_MUTUAL_FLAG);
    } else if (mode == "krb5") {
        token = FirstToken(service, krb5, GSS_C_MUTUAL_FLAG);
    } else if (mode == "krb5-one-way") {
        token = FirstToken(service, krb5, 0);
    } else if (mode == "krb5-delegate") {
        token = FirstToken(service, krb5, GSS_C_MUTUAL_FLAG | GSS_C_DELEG_FLAG);
    } else if (mode == "two-step") {
        // NegTokenInit offering Kerberos but carrying no token: the acceptor has to ask for one.
        const Bytes oid(static_cast<const char*>(krb5->elements), krb5->length);
        const Bytes spnegoOid(static_cast<const char*>(g_spnego.elements), g_spnego.length);
        const Bytes opening =
            Tlv(0x60, Tlv(0x06, spnegoOid) + Tlv(0xA0, Tlv(0x30, Tlv(0xA0, Tlv(0x30, Tlv(0x06, oid))))));
        const Bytes kerberos = FirstToken(service, krb5, GSS_C_MUTUAL_FLAG);
        if (kerberos.empty()) {
            return 1;
        }
        Print(opening);
        // NegTokenResp { responseToken [2] }
        token = Tlv(0xA1, Tlv(0x30, Tlv(0xA2, Tlv(0x04, kerberos))));
    } else {
        std::fprintf(stderr, "negotiate_tokens: unknown mode %s\n", mode.c_str());
        return 2;
    }
    if (token.empty()) {
        return 1;
    }
    Print(token);
    return 0;
}
