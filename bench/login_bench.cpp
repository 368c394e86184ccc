// What a Kerberos login costs through the plug-in, next to the same tokens
// accepted by GSS-API directly (acceptor credentials for "HTTP/localhost" as a
// user name, acquired per login), and next to GSS-API making every call the
// plug-in's design makes (a credential on each pass, the closing one included).
//
// Needs a realm: bench/run_login_bench.sh starts one and runs this with the
// replay cache on and off (KRB5RCACHETYPE is read once, so one process per mode).
// Tokens are made before each timed loop: with the replay cache on, a token is
// good for one login only.
//
//   bench_login [--plugin=LIB] [--logins=N] [--rounds=R] [benchmark flags]
//
// Each login is timed on its own; after the runs a table gives, per mechanism and
// path, the median and 99th percentile of all rounds together and the ratio
// plug-in / direct.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "Percentile.h"
#include "PluginHost.h"
#include "ostrel/ostrel.h"

namespace {

using ostrel_bench::Percentile;

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

std::string g_pluginPath = OSTREL_PLUGIN_PATH;
int g_nLogins = 1000;
int g_nRounds = 5;
std::string g_service = "HTTP/localhost";

gss_OID_desc g_spnego = {6, const_cast<char*>("\x2b\x06\x01\x05\x05\x02")};

enum Mechanism { kKerberos = 0, kSpnego = 1 };
const char* MechanismName(int i_mech) { return i_mech == kKerberos ? "krb5" : "spnego"; }

// Per-login times in nanoseconds, by "path/mechanism", over every round.
std::map<std::string, std::vector<double>> g_samples;

std::string Env(const char* i_pName, const char* i_pDefault = "") {
    const char* p = std::getenv(i_pName);
    return p != nullptr ? p : i_pDefault;
}

// ---- The plug-in, loaded as a host loads it ----

ostrel_example::Plugin g_plugin;

// Where the plug-in's time goes: its closing call alone, per mechanism.
std::vector<double>* g_pClosingSamples = nullptr;

// A whole server login as a host runs it: the token, then the closing call if asked.
bool PluginLogin(const Bytes& i_token) {
    void* pReply = nullptr;
    size_t nReply = 0;
    ParasSeq* pParameters = nullptr;
    ostrel_char* pKey = nullptr;
    unsigned int status = g_plugin.SSOAcceptLogin(u"", SSO_PROVIDER_GSSAPI, i_token.data(), i_token.size(), &pReply,
                                                  &nReply, &pParameters, &pKey);
    g_plugin.SSOFreeBuffer(pReply);
    if (status == SSO_STATUS_CONTINUE) {
        g_plugin.SSOFreeParameters(pParameters);
        pParameters = nullptr;
        void* pNone = nullptr;
        size_t nNone = 0;
        ostrel_char* pDone = nullptr;
        const Clock::time_point start = Clock::now();
        status = g_plugin.SSOAcceptLogin(pKey, SSO_PROVIDER_GSSAPI, nullptr, 0, &pNone, &nNone, &pParameters, &pDone);
        if (g_pClosingSamples != nullptr) {
            g_pClosingSamples->push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
        }
        g_plugin.SSOFreeBuffer(pNone);
        g_plugin.SSOFreeString(pDone);
    }
    g_plugin.SSOFreeString(pKey);
    bool bNamed = false;
    for (const ParasSeq* p = pParameters; p != nullptr; p = p->next) {
        bNamed = bNamed || (p->value != nullptr && p->value[0] != 0);
    }
    g_plugin.SSOFreeParameters(pParameters);
    return status == SSO_STATUS_SERVER_DONE && bNamed;
}

// ---- The same login on GSS-API directly ----

// The acceptor's credential, as the plug-in makes it: the service's name read as a user name.
gss_cred_id_t AcceptorCredential() {
    OM_uint32 minor = 0;
    gss_name_t service = GSS_C_NO_NAME;
    gss_buffer_desc serviceText{g_service.size(), const_cast<char*>(g_service.data())};
    if (GSS_ERROR(gss_import_name(&minor, &serviceText, GSS_C_NT_USER_NAME, &service))) {
        return GSS_C_NO_CREDENTIAL;
    }
    gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
    gss_acquire_cred(&minor, service, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_ACCEPT, &credential, nullptr, nullptr);
    gss_release_name(&minor, &service);
    return credential;
}

// i_bAsDesigned: also the calls the plug-in's design adds, a fresh credential for
// the closing pass that follows a reply token.
bool Accept(const Bytes& i_token, bool i_bAsDesigned) {
    OM_uint32 minor = 0;
    gss_cred_id_t credential = AcceptorCredential();
    if (credential == GSS_C_NO_CREDENTIAL) {
        return false;
    }
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    gss_buffer_desc input{i_token.size(), const_cast<unsigned char*>(i_token.data())};
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    gss_name_t client = GSS_C_NO_NAME;
    OM_uint32 flags = 0;
    OM_uint32 major = gss_accept_sec_context(&minor, &context, credential, &input, GSS_C_NO_CHANNEL_BINDINGS, &client,
                                             nullptr, &output, &flags, nullptr, nullptr);
    std::string name;
    if (major == GSS_S_COMPLETE && client != GSS_C_NO_NAME) {
        gss_buffer_desc nameText = GSS_C_EMPTY_BUFFER;
        gss_display_name(&minor, client, &nameText, nullptr);
        name.assign(static_cast<const char*>(nameText.value), nameText.length);
        gss_release_buffer(&minor, &nameText);
    }
    // The host would send the reply; here it only has to be taken and given back.
    Bytes reply(static_cast<unsigned char*>(output.value), static_cast<unsigned char*>(output.value) + output.length);
    benchmark::DoNotOptimize(reply.data());
    gss_release_buffer(&minor, &output);
    gss_release_name(&minor, &client);
    gss_release_cred(&minor, &credential);
    if (i_bAsDesigned && !reply.empty()) {
        gss_cred_id_t closing = AcceptorCredential();
        major = closing == GSS_C_NO_CREDENTIAL ? GSS_S_FAILURE : major;
        gss_release_cred(&minor, &closing);
    }
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    return major == GSS_S_COMPLETE && !name.empty();
}

bool DirectLogin(const Bytes& i_token) { return Accept(i_token, false); }
bool DesignLogin(const Bytes& i_token) { return Accept(i_token, true); }

// ---- The client: fresh tokens of one user ----

class Client {
public:
    Client() {
        const std::string user = Env("OSTREL_USER1", "alice");
        const std::string password = Env("OSTREL_PASS1");
        OM_uint32 minor = 0;
        gss_name_t name = GSS_C_NO_NAME;
        gss_buffer_desc userText{user.size(), const_cast<char*>(user.data())};
        gss_import_name(&minor, &userText, GSS_C_NT_USER_NAME, &name);
        gss_buffer_desc passwordText{password.size(), const_cast<char*>(password.data())};
        gss_OID_set_desc kerberos{1, const_cast<gss_OID>(gss_mech_krb5)};
        gss_OID_set_desc spnego{1, &g_spnego};
        m_bOk = !GSS_ERROR(gss_acquire_cred_with_password(&minor, name, &passwordText, GSS_C_INDEFINITE, &kerberos,
                                                          GSS_C_INITIATE, &m_credential[kKerberos], nullptr,
                                                          nullptr)) &&
                !GSS_ERROR(gss_acquire_cred_with_password(&minor, name, &passwordText, GSS_C_INDEFINITE, &spnego,
                                                          GSS_C_INITIATE, &m_credential[kSpnego], nullptr, nullptr));
        gss_import_name(&minor, &m_serviceText, GSS_C_NT_USER_NAME, &m_service);
        gss_release_name(&minor, &name);
    }
    ~Client() {
        OM_uint32 minor = 0;
        for (gss_cred_id_t& credential : m_credential) {
            gss_release_cred(&minor, &credential);
        }
        gss_release_name(&minor, &m_service);
    }
    bool ok() const { return m_bOk; }

    // The first token of a new context with mutual authentication: what curl sends (SPNEGO)
    // or what a Kerberos client sends (krb5). The context is dropped: only the token counts.
    Bytes Token(int i_mech) {
        OM_uint32 minor = 0;
        gss_ctx_id_t context = GSS_C_NO_CONTEXT;
        gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
        const gss_OID mech = i_mech == kKerberos ? const_cast<gss_OID>(gss_mech_krb5) : &g_spnego;
        const OM_uint32 major = gss_init_sec_context(&minor, m_credential[i_mech], &context, m_service, mech,
                                                     GSS_C_MUTUAL_FLAG, 0, GSS_C_NO_CHANNEL_BINDINGS,
                                                     GSS_C_NO_BUFFER, nullptr, &output, nullptr, nullptr);
        Bytes token;
        if (!GSS_ERROR(major)) {
            token.assign(static_cast<unsigned char*>(output.value),
                         static_cast<unsigned char*>(output.value) + output.length);
        }
        gss_release_buffer(&minor, &output);
        gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
        return token;
    }

private:
    bool m_bOk = false;
    gss_cred_id_t m_credential[2] = {GSS_C_NO_CREDENTIAL, GSS_C_NO_CREDENTIAL};
    gss_buffer_desc m_serviceText{g_service.size(), const_cast<char*>(g_service.data())};
    gss_name_t m_service = GSS_C_NO_NAME;
};

Client* g_pClient = nullptr;

template <bool (*Login)(const Bytes&)>
void BM_Login(benchmark::State& state, const char* i_pPath) {
    const int mech = static_cast<int>(state.range(0));
    std::vector<Bytes> tokens;
    tokens.reserve(static_cast<size_t>(state.max_iterations));
    for (benchmark::IterationCount i = 0; i < state.max_iterations; ++i) {
        tokens.push_back(g_pClient->Token(mech));
        if (tokens.back().empty()) {
            state.SkipWithError("the client could not make a token");
            return;
        }
    }
    std::vector<double>& samples = g_samples[std::string(i_pPath) + "/" + MechanismName(mech)];
    g_pClosingSamples = &g_samples[std::string("closing/") + MechanismName(mech)];
    size_t next = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const bool bOk = Login(tokens[next++]);
        const double elapsed = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
        state.SetIterationTime(elapsed * 1e-9);
        if (!bOk) {
            state.SkipWithError("a login failed");
            break;
        }
        samples.push_back(elapsed);
    }
    g_pClosingSamples = nullptr;
}

void BM_PluginLogin(benchmark::State& state) { BM_Login<PluginLogin>(state, "plugin"); }
void BM_DirectLogin(benchmark::State& state) { BM_Login<DirectLogin>(state, "direct"); }
void BM_DesignLogin(benchmark::State& state) { BM_Login<DesignLogin>(state, "design"); }

void PrintSummary() {
    const std::string rcache = Env("KRB5RCACHETYPE", "default");
    std::printf("\nlogins per path and mechanism: %d x %d rounds; replay cache: %s\n", g_nLogins, g_nRounds,
                rcache == "none" ? "off (KRB5RCACHETYPE=none)" : "on");
    std::printf("%-8s %-7s %12s %12s %12s %10s %10s\n", "mech", "path", "median_us", "p99_us", "mean_us",
                "ratio_med", "ratio_mean");
    std::printf("(ratios to direct; the plug-in's own overhead is its ratio to design, on the last line)\n");
    for (int mech : {kKerberos, kSpnego}) {
        const std::vector<double>& direct = g_samples["direct/" + std::string(MechanismName(mech))];
        double directMedian = Percentile(direct, 0.5);
        double directMean = 0;
        for (double v : direct) {
            directMean += v / static_cast<double>(direct.size());
        }
        for (const char* pPath : {"direct", "design", "plugin"}) {
            const std::vector<double>& samples = g_samples[std::string(pPath) + "/" + MechanismName(mech)];
            if (samples.empty()) {
                continue;
            }
            double mean = 0;
            for (double v : samples) {
                mean += v / static_cast<double>(samples.size());
            }
            const double median = Percentile(samples, 0.5);
            std::printf("%-8s %-7s %12.1f %12.1f %12.1f %10.3f %10.3f\n", MechanismName(mech), pPath, median / 1e3,
                        Percentile(samples, 0.99) / 1e3, mean / 1e3, directMedian > 0 ? median / directMedian : 0,
                        directMean > 0 ? mean / directMean : 0);
        }
        const double designMedian = Percentile(g_samples["design/" + std::string(MechanismName(mech))], 0.5);
        const double pluginMedian = Percentile(g_samples["plugin/" + std::string(MechanismName(mech))], 0.5);
        if (designMedian > 0) {
            std::printf("%-8s plugin / design, medians: %.3f\n", MechanismName(mech), pluginMedian / designMedian);
        }
        const std::vector<double>& closing = g_samples["closing/" + std::string(MechanismName(mech))];
        if (!closing.empty()) {
            std::printf("%-8s %-7s %12.1f %12.1f   (the plug-in's closing call alone, no token)\n",
                        MechanismName(mech), "closing", Percentile(closing, 0.5) / 1e3, Percentile(closing, 0.99) / 1e3);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--plugin=", 0) == 0) {
            g_pluginPath = arg.substr(9);
        } else if (arg.rfind("--logins=", 0) == 0) {
            g_nLogins = std::max(1, std::atoi(arg.c_str() + 9));
        } else if (arg.rfind("--rounds=", 0) == 0) {
            g_nRounds = std::max(1, std::atoi(arg.c_str() + 9));
        } else {
            rest.push_back(argv[i]);
        }
    }
    int nRest = static_cast<int>(rest.size());
    benchmark::Initialize(&nRest, rest.data());
    if (benchmark::ReportUnrecognizedArguments(nRest, rest.data())) {
        return 2;
    }
    if (Env("KRB5_KTNAME").empty() || Env("OSTREL_PASS1").empty()) {
        std::fprintf(stderr, "bench_login: needs a realm's environment; run bench/run_login_bench.sh\n");
        return 2;
    }

    std::string loadError;
    if (!g_plugin.Load(g_pluginPath, loadError) || g_plugin.SSOInitPackage() != SSO_STATUS_OK) {
        std::fprintf(stderr, "bench_login: cannot load or start %s\n", g_pluginPath.c_str());
        return 1;
    }
    const std::u16string spn(g_service.begin(), g_service.end());
    ParasSeq spnParameter{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                          const_cast<ostrel_char*>(spn.c_str()), nullptr};
    if (g_plugin.SSOInitProvider(SSO_PROVIDER_GSSAPI, &spnParameter) != SSO_STATUS_OK) {
        std::fprintf(stderr, "bench_login: SSOInitProvider(GSSAPI) failed\n");
        return 1;
    }
    Client client;
    if (!client.ok()) {
        std::fprintf(stderr, "bench_login: the client could not get a ticket\n");
        return 1;
    }
    g_pClient = &client;

    // Warm both paths (service ticket fetched, replay cache file made) before anything is timed.
    for (int mech : {kKerberos, kSpnego}) {
        for (int i = 0; i < 20; ++i) {
            if (!PluginLogin(client.Token(mech)) || !DirectLogin(client.Token(mech)) ||
                !DesignLogin(client.Token(mech))) {
                std::fprintf(stderr, "bench_login: a warm-up login failed (%s)\n", MechanismName(mech));
                return 1;
            }
        }
    }

    // Rounds alternate the two paths so that a drift of the machine hits both alike.
    for (int round = 1; round <= g_nRounds; ++round) {
        for (int mech : {kKerberos, kSpnego}) {
            const std::string suffix = std::string("/") + MechanismName(mech) + "/round:" + std::to_string(round);
            benchmark::RegisterBenchmark(("direct_login" + suffix).c_str(), BM_DirectLogin)
                ->Arg(mech)
                ->Iterations(g_nLogins)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
            benchmark::RegisterBenchmark(("design_login" + suffix).c_str(), BM_DesignLogin)
                ->Arg(mech)
                ->Iterations(g_nLogins)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
            benchmark::RegisterBenchmark(("plugin_login" + suffix).c_str(), BM_PluginLogin)
                ->Arg(mech)
                ->Iterations(g_nLogins)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    PrintSummary();
    g_pClient = nullptr;
    g_plugin.SSOTermPackage();
    return 0;
}
