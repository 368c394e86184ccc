// What the provider "SSPI" costs, against a real realm:
//   - a server login through the exports (SSOAcceptLogin with the client's token, then the
//     closing call; caching off) next to the package calls the provider makes for it, made
//     directly: inbound credentials for each of the two passes, AcceptSecurityContext in the
//     first, everything freed;
//   - one renegotiation of a cached context (the cleaner's self-exchange, KDC included);
//   - SSOImpersonate + SSORevert of a cached SSPI context, with 1,000 and 1,000,000 contexts
//     in the cache (1,000 real SSPI logins; the rest minimal tokens of a stand-in provider).
//
// The plug-in is linked in, so that its cache can be filled and its cleaner held still
// through the test seam. Needs a realm, the realm's first user's password, and in
// KRB5CCNAME a ticket of a principal named after a local account: bench/run_sspi_bench.sh.
// Run as root for impersonation to switch the kernel's ids.
//
//   bench_sspi [--logins=N] [--rounds=R] [benchmark flags]
//
// Each operation is timed on its own; after the runs a table gives the median and 99th
// percentile of all rounds together, and for the logins the ratio exports / direct.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Percentile.h"
#include "authentication/ostrel/SSOImpl.h"
#include "authentication/ostrel/SecContextCache.h"
#include "ostrel/ostrel.h"
#include "ostrel_platform/ISecurityApi.h"
#include "support/FakeToken.h"

namespace {

using ostrel_bench::InitBenchmark;
using ostrel_bench::Percentile;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;
namespace sp = ostrel::platform;
using Tarvik500::CSmartRefCountPtr;

int g_nLogins = 1000;
int g_nRounds = 5;
std::map<std::string, std::vector<double>> g_samples;  // nanoseconds, by operation

std::string Env(const char* i_pName, const char* i_pDefault = "") {
    const char* p = std::getenv(i_pName);
    return p != nullptr ? p : i_pDefault;
}
std::u16string U(const std::string& s) { return std::u16string(s.begin(), s.end()); }
std::u16string g_package = u"Kerberos", g_spn;

double Since(Clock::time_point i_start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - i_start).count();
}

unsigned InitProvider(bool i_bCaching) {
    ParasSeq caching{const_cast<ostrel_char*>(WP_SI_CACHE_SECCONTEXT_W), SSO_PARAM_BOOL, 0,
                     const_cast<ostrel_char*>(i_bCaching ? u"1" : u"0"), nullptr};
    ParasSeq spn{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0, g_spn.data(), &caching};
    return SSOInitProvider(SSO_PROVIDER_SSPI, &spn);
}

// ---- Client tokens, made by the package directly and outside the timing ----

class Client {
public:
    Client(const std::string& i_user, const std::string& i_domain, const std::string& i_password)
        : m_user(U(i_user)), m_domain(U(i_domain)), m_password(U(i_password)) {
        SEC_WINNT_AUTH_IDENTITY_W id{};
        id.User = reinterpret_cast<unsigned short*>(m_user.data());
        id.UserLength = ULONG(m_user.size());
        id.Domain = reinterpret_cast<unsigned short*>(m_domain.data());
        id.DomainLength = ULONG(m_domain.size());
        id.Password = reinterpret_cast<unsigned short*>(m_password.data());
        id.PasswordLength = ULONG(m_password.size());
        id.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;
        TimeStamp expiry{};
        m_bOk = sp::Security().AcquireCredentialsHandleW(nullptr, g_package.data(), SECPKG_CRED_OUTBOUND, nullptr, &id,
                                                         nullptr, nullptr, &m_cred, &expiry) == SEC_E_OK;
    }
    ~Client() {
        if (m_bOk) {
            sp::Security().FreeCredentialsHandle(&m_cred);
        }
    }
    // A first token with mutual authentication; empty on failure. The ticket is fetched once.
    Bytes Token() {
        static std::vector<unsigned char> s_buffer(48000);
        SecBuffer out{ULONG(s_buffer.size()), SECBUFFER_TOKEN, s_buffer.data()};
        SecBufferDesc desc{SECBUFFER_VERSION, 1, &out};
        CtxtHandle ctx{};
        ULONG attributes = 0;
        TimeStamp expiry{};
        const SECURITY_STATUS st = sp::Security().InitializeSecurityContextW(
            &m_cred, nullptr, g_spn.data(), ISC_REQ_MUTUAL_AUTH | ISC_REQ_DELEGATE, 0, SECURITY_NATIVE_DREP, nullptr, 0,
            &ctx, &desc, &attributes, &expiry);
        if (st != SEC_I_CONTINUE_NEEDED) {
            return {};
        }
        sp::Security().DeleteSecurityContext(&ctx);
        return Bytes(s_buffer.begin(), s_buffer.begin() + out.cbBuffer);
    }

private:
    std::u16string m_user, m_domain, m_password;
    CredHandle m_cred{};
    bool m_bOk = false;
};

Client* g_pClient = nullptr;

// ---- The server's side of one login, both ways ----

bool LoginThroughExports(const Bytes& i_token) {
    void* pReply = nullptr;
    size_t nReply = 0;
    ostrel_char* pKey = nullptr;
    unsigned st = SSOAcceptLogin(u"", SSO_PROVIDER_SSPI, i_token.data(), i_token.size(), &pReply, &nReply, nullptr,
                                 &pKey);
    SSOFreeBuffer(pReply);
    if (st != SSO_STATUS_CONTINUE) {
        return false;
    }
    ostrel_char* pFinal = nullptr;
    pReply = nullptr;
    st = SSOAcceptLogin(pKey, SSO_PROVIDER_SSPI, nullptr, 0, &pReply, &nReply, nullptr, &pFinal);
    SSOFreeBuffer(pReply);
    SSOFreeString(pKey);
    SSOFreeString(pFinal);
    return st == SSO_STATUS_SERVER_DONE;
}

bool LoginDirect(const Bytes& i_token) {
    static std::vector<unsigned char> s_reply(48000);  // the caller's, made once
    CredHandle cred{};
    CtxtHandle ctx{};
    TimeStamp expiry{};
    if (sp::Security().AcquireCredentialsHandleW(nullptr, g_package.data(), SECPKG_CRED_INBOUND, nullptr, nullptr,
                                                 nullptr, nullptr, &cred, &expiry) != SEC_E_OK) {
        return false;
    }
    SecBuffer in{ULONG(i_token.size()), SECBUFFER_TOKEN, const_cast<unsigned char*>(i_token.data())};
    SecBuffer out{ULONG(s_reply.size()), SECBUFFER_TOKEN, s_reply.data()};
    SecBufferDesc inDesc{SECBUFFER_VERSION, 1, &in}, outDesc{SECBUFFER_VERSION, 1, &out};
    ULONG attributes = ASC_REQ_MUTUAL_AUTH;
    const SECURITY_STATUS st = sp::Security().AcceptSecurityContext(&cred, nullptr, &inDesc, ASC_REQ_MUTUAL_AUTH,
                                                                    SECURITY_NATIVE_DREP, &ctx, &outDesc, &attributes,
                                                                    &expiry);
    sp::Security().FreeCredentialsHandle(&cred);
    // The closing pass: its own credentials, no package call with them.
    const bool bClosing = sp::Security().AcquireCredentialsHandleW(nullptr, g_package.data(), SECPKG_CRED_INBOUND,
                                                                   nullptr, nullptr, nullptr, nullptr, &cred,
                                                                   &expiry) == SEC_E_OK;
    if (bClosing) {
        sp::Security().FreeCredentialsHandle(&cred);
    }
    if (st == SEC_E_OK) {
        sp::Security().DeleteSecurityContext(&ctx);
    }
    return st == SEC_E_OK && out.cbBuffer > 0 && bClosing;
}

template <bool (*Login)(const Bytes&)>
void BM_ServerLogin(benchmark::State& state, const char* i_pPath) {
    std::vector<double>& samples = g_samples[std::string("login/") + i_pPath];
    for (auto _ : state) {
        const Bytes token = g_pClient->Token();
        const Clock::time_point start = Clock::now();
        const bool bOk = !token.empty() && Login(token);
        const double elapsed = Since(start);
        state.SetIterationTime(elapsed * 1e-9);
        if (!bOk) {
            state.SkipWithError("a login failed");
            break;
        }
        samples.push_back(elapsed);
    }
}
void BM_Exports(benchmark::State& state) { BM_ServerLogin<LoginThroughExports>(state, "exports"); }
void BM_Direct(benchmark::State& state) { BM_ServerLogin<LoginDirect>(state, "direct"); }

// ---- Cached contexts of the local account's principal ----

// A whole login through the exports, both ends here, caching on: the session ID.
std::u16string CachedLogin(const std::string& i_principal, const std::string& i_password) {
    ParasSeq spn{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0, g_spn.data(), nullptr};
    ostrel_char* pClientKey = nullptr;
    ostrel_char* pServerKey = nullptr;
    void* pToken = nullptr;
    void* pReply = nullptr;
    size_t nToken = 0, nReply = 0;
    std::u16string id;
    if (SSOStartLogin(U(i_principal).c_str(), U(i_password).c_str(), SSO_PROVIDER_SSPI, &spn, &pClientKey, &pToken,
                      &nToken) == SSO_STATUS_CONTINUE &&
        SSOAcceptLogin(u"", SSO_PROVIDER_SSPI, pToken, nToken, &pReply, &nReply, nullptr, &pServerKey) ==
            SSO_STATUS_CONTINUE) {
        void* pLast = nullptr;
        size_t nLast = 0;
        const bool bContinued = SSOContinueLogin(pClientKey, pReply, nReply, &pLast, &nLast) == SSO_STATUS_OK;
        SSOFreeBuffer(pLast);
        pLast = nullptr;
        ostrel_char* pId = nullptr;
        if (bContinued && SSOAcceptLogin(pServerKey, SSO_PROVIDER_SSPI, nullptr, 0, &pLast, &nLast, nullptr, &pId) ==
                              SSO_STATUS_SERVER_DONE) {
            id = pId;
        }
        SSOFreeBuffer(pLast);
        SSOFreeString(pId);
    }
    SSOFreeBuffer(pToken);
    SSOFreeBuffer(pReply);
    SSOFreeString(pClientKey);
    SSOFreeString(pServerKey);
    return id;
}

std::vector<std::u16string> g_keys;  // of real SSPI contexts, in random order
CSmartRefCountPtr<ostrel::StaticToken> g_pRenewed;
std::unique_ptr<ostrel_test::ScopedFakeProvider> g_pFiller;

// 1,000 contexts of the local account's principal from single sign-on logins (its ticket in
// KRB5CCNAME), with delegation; one of them taken out of the cache to be renewed by hand.
bool CachedContexts() {
    if (InitProvider(true) != SSO_STATUS_OK) {
        return false;
    }
    for (int i = 0; i < 1001; ++i) {
        g_keys.push_back(CachedLogin("", ""));
        if (g_keys.back().empty()) {
            return false;
        }
    }
    CSmartRefCountPtr<ostrel::SecContextCache> pCache = ostrel::TestAccess::ContextCache(*ostrel::SSOImpl::instance());
    pCache->Remove(Tarvik500::SWCharString(reinterpret_cast<const ostrel_char*>(g_keys.back().c_str())), g_pRenewed);
    g_keys.pop_back();
    std::mt19937_64 rng(42);
    std::shuffle(g_keys.begin(), g_keys.end(), rng);
    // Each impersonated once: the first impersonation of a context looks its local account up.
    for (const std::u16string& key : g_keys) {
        if (SSOImpersonate(key.c_str()) != SSO_STATUS_OK || SSORevert(key.c_str()) != SSO_STATUS_OK) {
            return false;
        }
    }
    return g_pRenewed != nullptr;
}

// The cache filled up to i_nContexts, its cleaner stopped so that no scan falls into a timing.
void FillCache(size_t i_nContexts) {
    CSmartRefCountPtr<ostrel::SecContextCache> pCache = ostrel::TestAccess::ContextCache(*ostrel::SSOImpl::instance());
    if (!g_pFiller) {
        g_pFiller = std::make_unique<ostrel_test::ScopedFakeProvider>();
    }
    while (pCache->GetCount() < i_nContexts) {
        CSmartRefCountPtr<ostrel::StaticToken> pToken{new ostrel_test::FakeToken(g_pFiller->name())};
        pCache->Insert(pToken);
    }
    pCache->StopUpdateThread();
}

void BM_Renegotiation(benchmark::State& state) {
    static const bool s_bReady = CachedContexts();
    if (!s_bReady) {
        state.SkipWithError("no cached contexts; run bench/run_sspi_bench.sh");
        return;
    }
    std::vector<double>& samples = g_samples["renegotiation"];
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const bool bOk = g_pRenewed->RenegotiateImpl();
        const double elapsed = Since(start);
        state.SetIterationTime(elapsed * 1e-9);
        if (!bOk) {
            state.SkipWithError("a renegotiation failed");
            break;
        }
        samples.push_back(elapsed);
    }
}

void BM_ImpersonateRevert(benchmark::State& state) {
    const int64_t nContexts = state.range(0);
    if (g_keys.empty()) {
        state.SkipWithError("no cached contexts");
        return;
    }
    FillCache(size_t(nContexts));
    std::vector<double>& samples = g_samples["impersonate+revert/" + std::to_string(nContexts)];
    size_t i = 0;
    for (auto _ : state) {
        const std::u16string& key = g_keys[i++ % g_keys.size()];
        const Clock::time_point start = Clock::now();
        const bool bOk = SSOImpersonate(key.c_str()) == SSO_STATUS_OK && SSORevert(key.c_str()) == SSO_STATUS_OK;
        const double elapsed = Since(start);
        state.SetIterationTime(elapsed * 1e-9);
        if (!bOk) {
            state.SkipWithError("impersonation failed");
            break;
        }
        samples.push_back(elapsed);
    }
}


void PrintSummary() {
    std::printf("\nper operation, all rounds together (%s; replay cache %s)\n",
                geteuid() == 0 ? "as root: impersonation switches the kernel's ids" : "not root: identification only",
                Env("KRB5RCACHETYPE") == "none" ? "off" : "on");
    std::printf("%-28s %8s %11s %11s %10s %10s\n", "operation", "samples", "median_us", "p99_us", "ratio_med",
                "ratio_p99");
    const std::vector<double>& direct = g_samples["login/direct"];
    for (const auto& [name, samples] : g_samples) {
        const double median = Percentile(samples, 0.5), p99 = Percentile(samples, 0.99);
        if (name.rfind("login/", 0) == 0) {
            std::printf("%-28s %8zu %11.1f %11.1f %10.3f %10.3f\n", name.c_str(), samples.size(), median / 1e3,
                        p99 / 1e3, median / Percentile(direct, 0.5), p99 / Percentile(direct, 0.99));
        } else {
            std::printf("%-28s %8zu %11.1f %11.1f\n", name.c_str(), samples.size(), median / 1e3, p99 / 1e3);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!InitBenchmark(argc, argv, {{"--logins=", &g_nLogins}, {"--rounds=", &g_nRounds}})) {
        return 2;
    }
    g_spn = U(Env("OSTREL_SPN", "HTTP/localhost"));
    if (SSOInitPackage() != SSO_STATUS_OK || InitProvider(false) != SSO_STATUS_OK) {
        std::fprintf(stderr, "bench_sspi: no realm; run bench/run_sspi_bench.sh\n");
        return 1;
    }
    Client client(Env("OSTREL_USER1"), Env("OSTREL_REALM"), Env("OSTREL_PASS1"));
    g_pClient = &client;
    // Warm both paths (the client's tickets, the replay cache) before anything is timed.
    for (int i = 0; i < 20; ++i) {
        if (!LoginThroughExports(client.Token()) || !LoginDirect(client.Token())) {
            std::fprintf(stderr, "bench_sspi: a warm-up login failed\n");
            return 1;
        }
    }
    // Rounds alternate the paths, and which goes first, so that a drift of the machine hits both alike.
    for (int round = 1; round <= g_nRounds; ++round) {
        using Bench = void (*)(benchmark::State&);
        const std::pair<const char*, Bench> exports{"exports", BM_Exports}, direct{"direct", BM_Direct};
        for (const auto& [name, fn] : round % 2 == 1 ? std::vector{direct, exports} : std::vector{exports, direct}) {
            benchmark::RegisterBenchmark((std::string("login/") + name + "/round:" + std::to_string(round)).c_str(), fn)
                ->Iterations(g_nLogins)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        }
    }
    benchmark::RegisterBenchmark("renegotiation", BM_Renegotiation)
        ->Iterations(std::max(1, g_nLogins / 5))
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("impersonate+revert", BM_ImpersonateRevert)
        ->ArgName("contexts")
        ->Arg(1000)
        ->Arg(1000000)
        ->Iterations(int64_t(g_nLogins) * g_nRounds)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    PrintSummary();
    g_pRenewed = nullptr;
    SSOTermPackage();
    g_pFiller.reset();
    return 0;
}
