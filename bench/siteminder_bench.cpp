// Verifications per second of SiteMinder tokens on one handle, from 1, 4 and 16
// threads, against the stand-in agent library and the stand-in policy server
// (started here on 127.0.0.1 and stopped at the end): through the plug-in's
// export, and the stand-in agent's own decoding call on one agent handle, the
// same work without the plug-in. Each call is timed too; after the runs a table
// gives the median and 99th percentile per path and thread count, and the ratio
// plug-in / agent.
//
//   bench_siteminder [benchmark flags]
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ostrel/ostrel.h"
#include "ostrel_platform/ISiteMinderAgent.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace ostrel::platform;

void* g_pPlugin = nullptr;
void* g_pAgentLibrary = nullptr;
CExternalSSO* g_pHandle = nullptr;
void* g_pAgentHandle = nullptr;
const char16_t* const kToken = u"good";

std::mutex g_samplesLock;
std::map<std::string, std::vector<double>> g_samples;  // nanoseconds per call, by "path/threads"

template <class F>
F Symbol(void* i_pLibrary, const char* i_pName) {
    void* p = ::dlsym(i_pLibrary, i_pName);
    if (p == nullptr) {
        std::fprintf(stderr, "bench_siteminder: %s is missing\n", i_pName);
        std::exit(1);
    }
    return reinterpret_cast<F>(p);
}

template <class Call>
void Run(benchmark::State& state, const char* i_pPath, Call i_call) {
    std::vector<double> samples;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        if (!i_call()) {
            state.SkipWithError("verification failed");
            break;
        }
        samples.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
    }
    state.SetItemsProcessed(state.iterations());
    std::lock_guard<std::mutex> guard(g_samplesLock);
    std::vector<double>& all = g_samples[std::string(i_pPath) + "/" + std::to_string(state.threads())];
    all.insert(all.end(), samples.begin(), samples.end());
}

void BM_PluginVerify(benchmark::State& state) {
    static auto verify = Symbol<decltype(&::ExternalSSOVerifyUser)>(g_pPlugin, "ExternalSSOVerifyUser");
    static auto freeString = Symbol<decltype(&::SSOFreeString)>(g_pPlugin, "SSOFreeString");
    Run(state, "plugin", [] {
        ostrel_char* pName = nullptr;
        const unsigned int status = verify(g_pHandle, kToken, &pName);
        freeString(pName);
        return status == 0;
    });
}

// The agent's own call with what the plug-in passes, attributes freed, nothing checked.
void BM_AgentDecode(benchmark::State& state) {
    using Decode =
        int (*)(void*, const char*, int32_t*, int32_t*, int32_t*, AgentAttributeRecord**, int32_t, void*, void*);
    using Free = int (*)(int32_t, AgentAttributeRecord*);
    static auto decode = Symbol<Decode>(g_pAgentLibrary, "Sm_AgentApi_DecodeSSOToken");
    static auto freeAttributes = Symbol<Free>(g_pAgentLibrary, "Sm_AgentApi_FreeAttributes");
    Run(state, "agent", [] {
        int32_t n3 = 0, n4 = 0, nAttributes = 0;
        AgentAttributeRecord* pAttributes = nullptr;
        const int result = decode(g_pAgentHandle, "good", &n3, &n4, &nAttributes, &pAttributes, 0, nullptr, nullptr);
        freeAttributes(nAttributes, pAttributes);
        return result == 0;
    });
}

BENCHMARK(BM_PluginVerify)->Threads(1)->Threads(4)->Threads(16)->UseRealTime();
BENCHMARK(BM_AgentDecode)->Threads(1)->Threads(4)->Threads(16)->UseRealTime();

double Percentile(std::vector<double> io_values, double i_fraction) {
    if (io_values.empty()) {
        return 0;
    }
    const size_t at = std::min(io_values.size() - 1, static_cast<size_t>(i_fraction * io_values.size()));
    std::nth_element(io_values.begin(), io_values.begin() + static_cast<long>(at), io_values.end());
    return io_values[at];
}

}  // namespace

int main(int argc, char** argv) {
    // The stand-in server prints "PORT PID".
    FILE* pServer = ::popen("exec '" OSTREL_STANDIN_SERVER "' '" OSTREL_STANDIN_CONFIG "'", "r");
    int nPort = 0;
    int nPid = 0;
    if (pServer == nullptr || std::fscanf(pServer, "%d %d", &nPort, &nPid) != 2) {
        std::fprintf(stderr, "bench_siteminder: the stand-in policy server did not start\n");
        return 1;
    }
    ::setenv("OSTREL_SITEMINDER_LIBRARY", OSTREL_STANDIN_AGENT, 1);
    g_pPlugin = ::dlopen(OSTREL_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    g_pAgentLibrary = ::dlopen(OSTREL_STANDIN_AGENT, RTLD_NOW | RTLD_LOCAL);
    if (g_pPlugin == nullptr || g_pAgentLibrary == nullptr) {
        std::fprintf(stderr, "bench_siteminder: %s\n", ::dlerror());
        return 1;
    }

    // One plug-in handle, as a host opens it: "s3cret" in its stored form.
    const std::u16string servers = u"127.0.0.1:1:" + [&] {
        const std::string digits = std::to_string(nPort);
        return std::u16string(digits.begin(), digits.end());
    }() + u":3";
    ParasSeq seq[] = {
        {const_cast<ostrel_char*>(WP_SI_SSO_VENDOR_W), SSO_PARAM_LONG, 0, const_cast<ostrel_char*>(u"1"), &seq[1]},
        {const_cast<ostrel_char*>(WP_SI_SSO_SERVERS_AND_PORTS_W), SSO_PARAM_STRING, 0,
         const_cast<ostrel_char*>(servers.c_str()), &seq[2]},
        {const_cast<ostrel_char*>(WP_SI_SSO_SHARED_SECRET_W), SSO_PARAM_STRING, 0,
         const_cast<ostrel_char*>(u"OSS1:2e5478511f2afca8:2b1beffbcfdf:3bf01ba7"), &seq[3]},
        {const_cast<ostrel_char*>(WP_SI_SSO_AGENT_W), SSO_PARAM_STRING, 0, const_cast<ostrel_char*>(u"agent1"),
         &seq[4]},
        {const_cast<ostrel_char*>(WP_SI_SSO_ACCESS_MODE_W), SSO_PARAM_LONG, 0, const_cast<ostrel_char*>(u"1"), nullptr},
    };
    const unsigned int created =
        Symbol<decltype(&::ExternalSSOCreateHandle)>(g_pPlugin, "ExternalSSOCreateHandle")(seq, &g_pHandle);

    // One agent handle of its own for the direct path.
    AgentServerRecord server{};
    std::snprintf(server.szHostName, sizeof server.szHostName, "127.0.0.1");
    server.nAuthPort = nPort;
    AgentInitRecord init{};
    init.nVersion = SM_AGENTAPI_VERSION;
    std::snprintf(init.szAgentName, sizeof init.szAgentName, "agent1");
    std::snprintf(init.szSharedSecret, sizeof init.szSharedSecret, "s3cret");
    init.nServers = 1;
    init.pServers = &server;
    const int initialised =
        Symbol<int (*)(AgentInitRecord*, void**)>(g_pAgentLibrary, "Sm_AgentApi_Init")(&init, &g_pAgentHandle);

    int status = 1;
    if (created == 0 && initialised == 0 && g_pAgentHandle != nullptr) {
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        std::printf("\n%-10s %8s %12s %12s %14s\n", "path", "threads", "median ns", "p99 ns", "ratio plug-in");
        for (const char* threads : {"1", "4", "16"}) {
            const double agent = Percentile(g_samples[std::string("agent/") + threads], 0.5);
            for (const char* path : {"agent", "plugin"}) {
                const std::vector<double>& samples = g_samples[std::string(path) + "/" + threads];
                const double median = Percentile(samples, 0.5);
                std::printf("%-10s %8s %12.0f %12.0f %14.2f\n", path, threads, median, Percentile(samples, 0.99),
                            agent > 0 ? median / agent : 0.0);
            }
        }
        status = 0;
    } else {
        std::fprintf(stderr, "bench_siteminder: no handle (plug-in %u, agent %d)\n", created, initialised);
    }
    Symbol<decltype(&::ExternalSSODestroyHandle)>(g_pPlugin, "ExternalSSODestroyHandle")(g_pHandle);
    Symbol<int (*)(void**)>(g_pAgentLibrary, "Sm_AgentApi_UnInit")(&g_pAgentHandle);
    ::kill(nPid, SIGKILL);
    ::pclose(pServer);
    return status;
}
