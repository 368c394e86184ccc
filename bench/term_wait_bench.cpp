// How long the calls that need the plug-in to themselves (SSOTermPackage, and
// SSOInitPackage while already started) wait while other threads keep it busy
// with captures, impersonations and reverts: a lock that lets readers overtake
// a waiting writer makes that wait as long as the readers please.
//
//   bench_term_wait [--plugin=LIB] [--readers=N] [--rounds=R] [--seconds=S]
//
// Prints the median, 99th percentile and longest wait of each, in microseconds.
// After S seconds (default 60) the readers stop, so that a starved call ends:
// its wait then counts only up to that moment.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ostrel/ostrel.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Exports {
    decltype(&::SSOInitPackage) init = nullptr;
    decltype(&::SSOTermPackage) term = nullptr;
    decltype(&::SSOInitProvider) provider = nullptr;
    decltype(&::SSOAcquireCurrentSecurityContext) capture = nullptr;
    decltype(&::SSOImpersonate) impersonate = nullptr;
    decltype(&::SSORevert) revert = nullptr;
    decltype(&::SSOReleaseSecurityContext) release = nullptr;
    decltype(&::SSOFreeString) freeString = nullptr;
};

template <class Fn>
bool Resolve(void* i_pLibrary, Fn& o_fn, const char* i_pName) {
    o_fn = reinterpret_cast<Fn>(::dlsym(i_pLibrary, i_pName));
    return o_fn != nullptr;
}

void Report(const char* i_pWhat, std::vector<double> io_us) {
    std::sort(io_us.begin(), io_us.end());
    auto at = [&](double p) { return io_us[std::min(io_us.size() - 1, static_cast<size_t>(p * io_us.size()))]; };
    std::printf("%-34s %10.1f %10.1f %10.1f\n", i_pWhat, at(0.5), at(0.99), io_us.back());
}

}  // namespace

int main(int argc, char** argv) {
    std::string plugin = OSTREL_PLUGIN_PATH;
    int nReaders = 3;
    int nRounds = 300;
    int nSeconds = 60;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--plugin=", 0) == 0) {
            plugin = arg.substr(9);
        } else if (arg.rfind("--readers=", 0) == 0) {
            nReaders = std::max(1, std::atoi(arg.c_str() + 10));
        } else if (arg.rfind("--rounds=", 0) == 0) {
            nRounds = std::max(1, std::atoi(arg.c_str() + 9));
        } else if (arg.rfind("--seconds=", 0) == 0) {
            nSeconds = std::max(1, std::atoi(arg.c_str() + 10));
        } else {
            std::fprintf(stderr, "usage: %s [--plugin=LIB] [--readers=N] [--rounds=R] [--seconds=S]\n", argv[0]);
            return 2;
        }
    }
    void* pLibrary = ::dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    Exports x;
    if (pLibrary == nullptr || !Resolve(pLibrary, x.init, "SSOInitPackage") ||
        !Resolve(pLibrary, x.term, "SSOTermPackage") || !Resolve(pLibrary, x.provider, "SSOInitProvider") ||
        !Resolve(pLibrary, x.capture, "SSOAcquireCurrentSecurityContext") ||
        !Resolve(pLibrary, x.impersonate, "SSOImpersonate") || !Resolve(pLibrary, x.revert, "SSORevert") ||
        !Resolve(pLibrary, x.release, "SSOReleaseSecurityContext") ||
        !Resolve(pLibrary, x.freeString, "SSOFreeString")) {
        std::fprintf(stderr, "bench_term_wait: cannot load %s\n", plugin.c_str());
        return 1;
    }
    if (x.init() != 0 || x.provider(SSO_PROVIDER_THREADTOKEN, nullptr) != 0) {
        std::fprintf(stderr, "bench_term_wait: the plug-in did not start\n");
        return 1;
    }

    std::atomic<bool> bStop{false};
    std::atomic<long> nOperations{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < nReaders; ++t) {
        readers.emplace_back([&] {
            while (!bStop) {
                ostrel_char* pKey = nullptr;
                if (x.capture(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey) == 0) {
                    x.impersonate(pKey);
                    x.revert(pKey);
                    x.release(pKey);
                }
                x.freeString(pKey);
                ++nOperations;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(nSeconds);
    std::thread watchdog([&] {
        while (!bStop && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        bStop = true;
    });
    std::vector<double> initWaits, termWaits;
    for (int round = 0; round < nRounds && !bStop; ++round) {
        const Clock::time_point start = Clock::now();
        x.init();
        const Clock::time_point started = Clock::now();
        x.term();
        const Clock::time_point ended = Clock::now();
        initWaits.push_back(std::chrono::duration<double, std::micro>(started - start).count());
        termWaits.push_back(std::chrono::duration<double, std::micro>(ended - started).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const bool bCutShort = bStop;
    bStop = true;
    watchdog.join();
    for (std::thread& reader : readers) {
        reader.join();
    }
    x.term();

    std::printf("%s, %d busy threads, %zu of %d rounds%s, %ld reader operations\n", plugin.c_str(), nReaders,
                termWaits.size(), nRounds, bCutShort ? " (cut short: readers stopped)" : "", nOperations.load());
    std::printf("%-34s %10s %10s %10s\n", "wait (us)", "median", "p99", "max");
    Report("SSOInitPackage (already started)", initWaits);
    Report("SSOTermPackage (not the last)", termWaits);
    return 0;
}
