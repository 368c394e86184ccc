// Logins that a client starts and never finishes: what they cost the host's
// memory. Each first pass leaves a half-finished session; once the idle age has
// passed, new ones must find the old ones gone, so that the resident size stays
// flat however long such clients keep coming.
//
// Needs a realm with the replay cache off, so that one token serves every pass:
//   bench/run_login_bench.sh build/default --program=bench_session_soak [--passes=N] [--wait=SECONDS]
//
// Prints the resident size after warming up, after N abandoned first passes,
// and after N more once the wait (default: the idle age and ten seconds) is over.
#include <dlfcn.h>
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ostrel/ostrel.h"

namespace {

long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

std::string Env(const char* i_pName) {
    const char* p = std::getenv(i_pName);
    return p != nullptr ? p : "";
}

// The first token of a login with mutual authentication: the server answers it and waits for more.
std::vector<unsigned char> FirstToken() {
    OM_uint32 minor = 0;
    const std::string user = Env("OSTREL_USER1");
    const std::string password = Env("OSTREL_PASS1");
    const std::string service = "HTTP/localhost";
    gss_name_t userName = GSS_C_NO_NAME;
    gss_name_t serviceName = GSS_C_NO_NAME;
    gss_buffer_desc userText{user.size(), const_cast<char*>(user.data())};
    gss_buffer_desc passwordText{password.size(), const_cast<char*>(password.data())};
    gss_buffer_desc serviceText{service.size(), const_cast<char*>(service.data())};
    gss_import_name(&minor, &userText, GSS_C_NT_USER_NAME, &userName);
    gss_import_name(&minor, &serviceText, GSS_C_NT_USER_NAME, &serviceName);
    gss_OID_set_desc kerberos{1, const_cast<gss_OID>(gss_mech_krb5)};
    gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
    gss_acquire_cred_with_password(&minor, userName, &passwordText, GSS_C_INDEFINITE, &kerberos, GSS_C_INITIATE,
                                   &credential, nullptr, nullptr);
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    gss_init_sec_context(&minor, credential, &context, serviceName, const_cast<gss_OID>(gss_mech_krb5),
                         GSS_C_MUTUAL_FLAG, 0, GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr, &output, nullptr,
                         nullptr);
    std::vector<unsigned char> token(static_cast<unsigned char*>(output.value),
                                     static_cast<unsigned char*>(output.value) + output.length);
    gss_release_buffer(&minor, &output);
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    gss_release_cred(&minor, &credential);
    gss_release_name(&minor, &userName);
    gss_release_name(&minor, &serviceName);
    return token;
}

}  // namespace

int main(int argc, char** argv) {
    std::string plugin = OSTREL_PLUGIN_PATH;
    long nPasses = 100000;
    long nWaitSeconds = 5 * 60 + 10;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--plugin=", 0) == 0) {
            plugin = arg.substr(9);
        } else if (arg.rfind("--passes=", 0) == 0) {
            nPasses = std::atol(arg.c_str() + 9);
        } else if (arg.rfind("--wait=", 0) == 0) {
            nWaitSeconds = std::atol(arg.c_str() + 7);
        } else {
            std::fprintf(stderr, "usage: %s [--plugin=LIB] [--passes=N] [--wait=SECONDS]\n", argv[0]);
            return 2;
        }
    }
    if (Env("KRB5RCACHETYPE") != "none" || Env("OSTREL_PASS1").empty()) {
        std::fprintf(stderr, "bench_session_soak: needs a realm with KRB5RCACHETYPE=none\n");
        return 2;
    }
    void* pLibrary = ::dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    auto init = reinterpret_cast<decltype(&::SSOInitPackage)>(pLibrary ? ::dlsym(pLibrary, "SSOInitPackage") : nullptr);
    auto provider = reinterpret_cast<decltype(&::SSOInitProvider)>(::dlsym(pLibrary, "SSOInitProvider"));
    auto accept = reinterpret_cast<decltype(&::SSOAcceptLogin)>(::dlsym(pLibrary, "SSOAcceptLogin"));
    auto freeBuffer = reinterpret_cast<decltype(&::SSOFreeBuffer)>(::dlsym(pLibrary, "SSOFreeBuffer"));
    auto freeString = reinterpret_cast<decltype(&::SSOFreeString)>(::dlsym(pLibrary, "SSOFreeString"));
    const std::u16string spn = u"HTTP/localhost";
    ParasSeq spnParameter{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                          const_cast<ostrel_char*>(spn.c_str()), nullptr};
    if (init == nullptr || init() != 0 || provider(SSO_PROVIDER_GSSAPI, &spnParameter) != 0) {
        std::fprintf(stderr, "bench_session_soak: cannot start %s\n", plugin.c_str());
        return 1;
    }
    std::vector<unsigned char> token = FirstToken();
    // Abandoned first passes; the answer is 1 each time, and the key is dropped.
    auto abandon = [&](long i_nPasses) {
        long nContinued = 0;
        for (long i = 0; i < i_nPasses; ++i) {
            void* pReply = nullptr;
            size_t nReply = 0;
            ostrel_char* pKey = nullptr;
            nContinued += accept(u"", SSO_PROVIDER_GSSAPI, token.data(), token.size(), &pReply, &nReply, nullptr,
                                 &pKey) == SSO_STATUS_CONTINUE;
            freeBuffer(pReply);
            freeString(pKey);
        }
        return nContinued;
    };
    abandon(1000);
    const long nBase = ResidentKiB();
    const long nFirst = abandon(nPasses);
    const long nAfterFirst = ResidentKiB();
    std::printf("%s\nresident KiB: %ld after warming up, %ld after %ld abandoned first passes (%ld answered 1)\n",
                plugin.c_str(), nBase, nAfterFirst, nPasses, nFirst);
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::seconds(nWaitSeconds));
    token = FirstToken();  // an authenticator is good for a few minutes only
    const long nSecond = abandon(nPasses);
    const long nAfterSecond = ResidentKiB();
    std::printf("resident KiB: %ld after %ld s and %ld more (%ld answered 1): grew %+ld KiB, %.1f bytes a pass\n",
                nAfterSecond, nWaitSeconds, nPasses, nSecond, nAfterSecond - nAfterFirst,
                1024.0 * static_cast<double>(nAfterSecond - nAfterFirst) / static_cast<double>(nPasses));
    return 0;
}
