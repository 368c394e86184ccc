// What a whole Kerberos exchange costs through the security package family
// (the Linux port over GSS-API), next to the same exchange in direct GSS-API
// calls: both ends in one process, credentials acquired afresh each time (as
// the provider does), mutual authentication, with and without delegation.
//
// Needs a realm with a ticket in the default cache: bench/run_secpkg_bench.sh.
//
//   bench_secpkg [--exchanges=N] [--rounds=R] [benchmark flags]
//
// Each exchange is timed on its own; the table after the runs gives the median
// and 99th percentile of all rounds together and the ratios family / direct.
#include <benchmark/benchmark.h>
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "Percentile.h"
#include "ostrel_platform/ISecurityApi.h"

namespace {

using ostrel_bench::InitBenchmark;
using ostrel_bench::Percentile;

using Clock = std::chrono::steady_clock;
namespace sp = ostrel::platform;

int g_nExchanges = 1000;
int g_nRounds = 5;
std::string g_service = "HTTP/localhost";
std::map<std::string, std::vector<double>> g_samples;

std::string Env(const char* i_pName, const char* i_pDefault = "") {
    const char* p = std::getenv(i_pName);
    return p != nullptr ? p : i_pDefault;
}

// ---- Through the family, as the provider calls it ----

struct Handles {
    CredHandle cred{};
    CtxtHandle ctx{};
    bool hasCred = false, hasCtx = false;
    ~Handles() {
        if (hasCtx) {
            sp::Security().DeleteSecurityContext(&ctx);
        }
        if (hasCred) {
            sp::Security().FreeCredentialsHandle(&cred);
        }
    }
};

bool FamilyExchange(bool i_bDelegate) {
    sp::ISecurityApi& api = sp::Security();
    std::u16string package = u"Kerberos", target(g_service.begin(), g_service.end());
    Handles client, server;
    TimeStamp expiry{};
    client.hasCred = api.AcquireCredentialsHandleW(nullptr, package.data(), SECPKG_CRED_OUTBOUND, nullptr, nullptr,
                                                   nullptr, nullptr, &client.cred, &expiry) == SEC_E_OK;
    server.hasCred = api.AcquireCredentialsHandleW(nullptr, package.data(), SECPKG_CRED_INBOUND, nullptr, nullptr,
                                                   nullptr, nullptr, &server.cred, &expiry) == SEC_E_OK;
    // The caller's token buffers, of cbMaxToken each: made once, they are not the family's cost.
    static std::vector<unsigned char> a(48000), b(48000);
    SecBuffer toServer{ULONG(a.size()), SECBUFFER_TOKEN, a.data()},
        toClient{ULONG(b.size()), SECBUFFER_TOKEN, b.data()};
    SecBufferDesc toServerDesc{SECBUFFER_VERSION, 1, &toServer}, toClientDesc{SECBUFFER_VERSION, 1, &toClient};
    const ULONG fReq = ISC_REQ_MUTUAL_AUTH | (i_bDelegate ? ISC_REQ_DELEGATE : 0);
    ULONG attributes = 0;
    SECURITY_STATUS st = api.InitializeSecurityContextW(&client.cred, nullptr, target.data(), fReq, 0, 16, nullptr, 0,
                                                        &client.ctx, &toServerDesc, &attributes, &expiry);
    client.hasCtx = st == SEC_I_CONTINUE_NEEDED;
    if (!client.hasCtx) {
        return false;
    }
    st = api.AcceptSecurityContext(&server.cred, nullptr, &toServerDesc, ASC_REQ_MUTUAL_AUTH, 16, &server.ctx,
                                   &toClientDesc, &attributes, &expiry);
    server.hasCtx = st == SEC_E_OK;
    toServer.cbBuffer = ULONG(a.size());
    return server.hasCtx &&
           api.InitializeSecurityContextW(&client.cred, &client.ctx, target.data(), fReq, 0, 16, &toClientDesc, 0,
                                          &client.ctx, &toServerDesc, &attributes, &expiry) == SEC_E_OK;
}

// ---- The same calls on GSS-API directly ----

gss_OID_set_desc g_krb5Only{1, const_cast<gss_OID>(gss_mech_krb5)};

bool DirectExchange(bool i_bDelegate) {
    OM_uint32 minor = 0;
    gss_cred_id_t initiator = GSS_C_NO_CREDENTIAL, acceptor = GSS_C_NO_CREDENTIAL;
    gss_ctx_id_t client = GSS_C_NO_CONTEXT, server = GSS_C_NO_CONTEXT;
    gss_name_t target = GSS_C_NO_NAME, source = GSS_C_NO_NAME;
    gss_cred_id_t delegated = GSS_C_NO_CREDENTIAL;
    gss_buffer_desc toServer = GSS_C_EMPTY_BUFFER, toClient = GSS_C_EMPTY_BUFFER, last = GSS_C_EMPTY_BUFFER;
    gss_buffer_desc name{g_service.size(), const_cast<char*>(g_service.data())};
    const OM_uint32 flags = GSS_C_MUTUAL_FLAG | (i_bDelegate ? GSS_C_DELEG_FLAG : 0);
    bool bOk =
        !GSS_ERROR(gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &g_krb5Only, GSS_C_INITIATE, &initiator,
                                    nullptr, nullptr)) &&
        !GSS_ERROR(gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &g_krb5Only, GSS_C_ACCEPT, &acceptor,
                                    nullptr, nullptr)) &&
        !GSS_ERROR(gss_import_name(&minor, &name, const_cast<gss_OID>(GSS_KRB5_NT_PRINCIPAL_NAME), &target)) &&
        gss_init_sec_context(&minor, initiator, &client, target, const_cast<gss_OID>(gss_mech_krb5), flags, 0,
                             GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr, &toServer, nullptr,
                             nullptr) == GSS_S_CONTINUE_NEEDED &&
        gss_accept_sec_context(&minor, &server, acceptor, &toServer, GSS_C_NO_CHANNEL_BINDINGS, &source, nullptr,
                               &toClient, nullptr, nullptr, &delegated) == GSS_S_COMPLETE &&
        gss_init_sec_context(&minor, initiator, &client, target, const_cast<gss_OID>(gss_mech_krb5), flags, 0,
                             GSS_C_NO_CHANNEL_BINDINGS, &toClient, nullptr, &last, nullptr, nullptr) == GSS_S_COMPLETE;
    for (gss_buffer_desc* p : {&toServer, &toClient, &last}) {
        gss_release_buffer(&minor, p);
    }
    gss_release_name(&minor, &target);
    gss_release_name(&minor, &source);
    gss_delete_sec_context(&minor, &client, GSS_C_NO_BUFFER);
    gss_delete_sec_context(&minor, &server, GSS_C_NO_BUFFER);
    for (gss_cred_id_t* p : {&initiator, &acceptor, &delegated}) {
        gss_release_cred(&minor, p);
    }
    return bOk;
}

template <bool (*Exchange)(bool)>
void BM_Exchange(benchmark::State& state, const char* i_pPath) {
    const bool bDelegate = state.range(0) != 0;
    std::vector<double>& samples = g_samples[std::string(i_pPath) + (bDelegate ? "/delegating" : "/mutual")];
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const bool bOk = Exchange(bDelegate);
        const double elapsed = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
        state.SetIterationTime(elapsed * 1e-9);
        if (!bOk) {
            state.SkipWithError("an exchange failed");
            break;
        }
        samples.push_back(elapsed);
    }
}
void BM_Family(benchmark::State& state) { BM_Exchange<FamilyExchange>(state, "family"); }
void BM_Direct(benchmark::State& state) { BM_Exchange<DirectExchange>(state, "direct"); }

void PrintSummary() {
    std::printf("\nexchanges per path and kind: %d x %d rounds; replay cache: %s\n", g_nExchanges, g_nRounds,
                Env("KRB5RCACHETYPE") == "none" ? "off" : "on");
    std::printf("%-11s %-7s %11s %11s %10s %10s\n", "kind", "path", "median_us", "p99_us", "ratio_med", "ratio_p99");
    for (const char* pKind : {"mutual", "delegating"}) {
        const std::vector<double>& direct = g_samples[std::string("direct/") + pKind];
        for (const char* pPath : {"direct", "family"}) {
            const std::vector<double>& samples = g_samples[std::string(pPath) + "/" + pKind];
            const double median = Percentile(samples, 0.5), p99 = Percentile(samples, 0.99);
            std::printf("%-11s %-7s %11.1f %11.1f %10.3f %10.3f\n", pKind, pPath, median / 1e3, p99 / 1e3,
                        median / Percentile(direct, 0.5), p99 / Percentile(direct, 0.99));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!InitBenchmark(argc, argv, {{"--exchanges=", &g_nExchanges}, {"--rounds=", &g_nRounds}})) {
        return 2;
    }
    g_service = Env("OSTREL_SPN", "HTTP/localhost");
    // Warm both paths (service tickets in the cache, the replay cache made) before anything is timed.
    for (int i = 0; i < 20; ++i) {
        if (!FamilyExchange(true) || !DirectExchange(true)) {
            std::fprintf(stderr, "bench_secpkg: a warm-up exchange failed; run bench/run_secpkg_bench.sh\n");
            return 1;
        }
    }
    // Rounds alternate the paths, and which goes first, so that a drift of the machine
    // (or a replay cache that grows) hits both alike.
    using Bench = void (*)(benchmark::State&);
    const std::pair<const char*, Bench> direct{"direct", BM_Direct}, family{"family", BM_Family};
    for (int round = 1; round <= g_nRounds; ++round) {
        for (int delegate : {0, 1}) {
            const std::string suffix =
                std::string(delegate ? "/delegating" : "/mutual") + "/round:" + std::to_string(round);
            for (const auto& [name, fn] : round % 2 == 1 ? std::vector{direct, family} : std::vector{family, direct}) {
                benchmark::RegisterBenchmark((std::string(name) + suffix).c_str(), fn)
                    ->Arg(delegate)
                    ->Iterations(g_nExchanges)
                    ->UseManualTime()
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    PrintSummary();
    return 0;
}
