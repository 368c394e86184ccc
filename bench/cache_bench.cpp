// The context cache under load: look-up and impersonate+revert latency, insert
// rate, cleaner scans over a million contexts, how long an insert can stall
// while such a scan runs, and what one cached context costs in memory.
//
// Latency benchmarks time every operation on its own as well and report the
// median and 99th percentile as counters (p50_ns, p99_ns).
//
//   bench_cache [--threads=N] [benchmark flags]
//
// Look-ups and impersonations run on one thread and on N (default 2), so that
// the scaling shows on a machine with more cores.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"

using namespace ostrel;

namespace {

using Clock = std::chrono::steady_clock;

// Read by every token's Expired: lets a scan find all of them expired at once.
std::atomic<bool> g_bAllExpired{false};

// What the cache sees of a context and no more: impersonation only counts, and
// the payload stands in for a mechanism's handle.
class BenchToken : public StaticToken {
public:
    explicit BenchToken(const SWCharString& i_ssProvider) { m_ssProvider = i_ssProvider; }

    void Impersonate() override { m_nCalls.fetch_add(1, std::memory_order_relaxed); }
    void Revert() override { m_nCalls.fetch_add(1, std::memory_order_relaxed); }
    bool Expired(const SDateTime&) override { return g_bAllExpired.load(std::memory_order_relaxed); }
    bool RenegotiateImpl() override { return false; }
    STimeSpan GetRemainingLifetime(const SDateTime&) override { return STimeSpan(std::numeric_limits<int64_t>::max()); }
    STimeSpan GetLifetime() override { return STimeSpan(std::numeric_limits<int64_t>::max()); }

private:
    std::atomic<uint64_t> m_nCalls{0};
    [[maybe_unused]] uint64_t m_arrHandle[2] = {0, 0};  // only its size matters
};

// A day's configured limit with renewals on: every step of the expiry test and
// of the renewal decision runs.
const SWCharString& Provider() {
    static ostrel_test::ScopedFakeProvider s_provider(24LL * 60 * 60 * 1000, 5, true);
    return s_provider.name();
}

CSmartRefCountPtr<StaticToken> NewToken() { return new BenchToken(Provider()); }

// A cache of n contexts with its cleaner stopped, and its keys in random order.
struct FilledCache {
    CSmartRefCountPtr<SecContextCache> pCache;
    std::vector<SWCharString> arrKeys;
};

std::unique_ptr<FilledCache> Fill(int64_t i_nContexts, bool i_bStopCleaner) {
    auto pFilled = std::make_unique<FilledCache>();
    pFilled->pCache = new SecContextCache(false);
    pFilled->arrKeys.reserve(static_cast<size_t>(i_nContexts));
    for (int64_t i = 0; i < i_nContexts; ++i) {
        CSmartRefCountPtr<StaticToken> pToken = NewToken();
        pFilled->arrKeys.push_back(pFilled->pCache->Insert(pToken));
    }
    if (i_bStopCleaner) {
        pFilled->pCache->StopUpdateThread();
    }
    std::mt19937_64 rng(42);
    std::shuffle(pFilled->arrKeys.begin(), pFilled->arrKeys.end(), rng);
    return pFilled;
}

// Shared by the look-up benchmarks, built once per size.
FilledCache& SharedCache(int64_t i_nContexts) {
    static std::mutex s_mutex;
    static std::map<int64_t, std::unique_ptr<FilledCache>> s_caches;
    std::lock_guard<std::mutex> guard(s_mutex);
    std::unique_ptr<FilledCache>& pFilled = s_caches[i_nContexts];
    if (!pFilled) {
        pFilled = Fill(i_nContexts, true);
    }
    return *pFilled;
}

class Latencies {
public:
    explicit Latencies(size_t i_nCapacity) { m_arrNs.reserve(i_nCapacity); }
    void Add(Clock::duration i_d) {
        if (m_arrNs.size() < m_arrNs.capacity()) {
            m_arrNs.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(i_d).count());
        }
        m_nMax = std::max<int64_t>(m_nMax, std::chrono::duration_cast<std::chrono::nanoseconds>(i_d).count());
    }
    double Percentile(double i_p) {
        if (m_arrNs.empty()) {
            return 0;
        }
        const size_t n = std::min(m_arrNs.size() - 1, static_cast<size_t>(i_p * static_cast<double>(m_arrNs.size())));
        std::nth_element(m_arrNs.begin(), m_arrNs.begin() + static_cast<std::ptrdiff_t>(n), m_arrNs.end());
        return static_cast<double>(m_arrNs[n]);
    }
    double Max() const { return static_cast<double>(m_nMax); }
    void Report(benchmark::State& state) {
        state.counters["p50_ns"] = benchmark::Counter(Percentile(0.50), benchmark::Counter::kAvgThreads);
        state.counters["p99_ns"] = benchmark::Counter(Percentile(0.99), benchmark::Counter::kAvgThreads);
    }

private:
    std::vector<int64_t> m_arrNs;
    int64_t m_nMax = 0;
};

template <class Operation>
void RunKeyed(benchmark::State& state, Operation i_op) {
    FilledCache& filled = SharedCache(state.range(0));
    const size_t nKeys = filled.arrKeys.size();
    // Each thread walks the shuffled keys from its own place.
    size_t i = (static_cast<size_t>(state.thread_index()) * nKeys) / 2;
    Latencies latencies(1 << 22);
    for (auto _ : state) {
        const SWCharString& ssKey = filled.arrKeys[i];
        if (++i == nKeys) {
            i = 0;
        }
        const Clock::time_point start = Clock::now();
        i_op(*filled.pCache, ssKey);
        latencies.Add(Clock::now() - start);
    }
    latencies.Report(state);
}

void BM_Lookup(benchmark::State& state) {
    RunKeyed(state, [&](SecContextCache& io_cache, const SWCharString& i_ssKey) {
        if (!io_cache.Lookup(i_ssKey)) {
            state.SkipWithError("a cached context was not found");
        }
    });
}

void BM_ImpersonateRevert(benchmark::State& state) {
    RunKeyed(state, [](SecContextCache& io_cache, const SWCharString& i_ssKey) {
        io_cache.Impersonate(i_ssKey);
        io_cache.Revert(i_ssKey);
    });
}

// Fresh tokens in batches, made outside the timing; the cache grows as it goes.
void BM_Insert(benchmark::State& state) {
    constexpr size_t kBatch = 10000;
    CSmartRefCountPtr<SecContextCache> pCache = new SecContextCache(false);
    std::vector<CSmartRefCountPtr<StaticToken>> arrTokens;
    arrTokens.reserve(kBatch);
    Latencies latencies(1 << 22);
    for (auto _ : state) {
        state.PauseTiming();
        arrTokens.clear();
        for (size_t i = 0; i < kBatch; ++i) {
            arrTokens.push_back(NewToken());
        }
        state.ResumeTiming();
        for (CSmartRefCountPtr<StaticToken>& pToken : arrTokens) {
            const Clock::time_point start = Clock::now();
            benchmark::DoNotOptimize(pCache->Insert(pToken));
            latencies.Add(Clock::now() - start);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kBatch));
    state.counters["contexts_at_end"] = static_cast<double>(pCache->GetCount());
    latencies.Report(state);
    pCache->StopUpdateThread();
}
BENCHMARK(BM_Insert)->Unit(benchmark::kMillisecond);

// One scan on a thread object that is never started, so that nothing else scans.
double TimeOneScan(SecContextCache* i_pCache) {
    JTCHandleT<SecContextUpdateThread> hThread(new SecContextUpdateThread(i_pCache));
    const Clock::time_point start = Clock::now();
    hThread->CleanUp();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    hThread->stop();
    return seconds;
}

void BM_Scan(benchmark::State& state) {
    const int64_t nContexts = state.range(0);
    const bool bAllExpired = state.range(1) != 0;
    for (auto _ : state) {
        g_bAllExpired = false;
        std::unique_ptr<FilledCache> pFilled = Fill(nContexts, true);
        g_bAllExpired = bAllExpired;
        state.SetIterationTime(TimeOneScan(pFilled->pCache.get()));
        g_bAllExpired = false;
        const uint64_t nExpected = bAllExpired ? 0 : static_cast<uint64_t>(nContexts);
        if (pFilled->pCache->GetCount() != nExpected) {
            state.SkipWithError("the scan left the wrong number of contexts");
        }
    }
}
BENCHMARK(BM_Scan)
    ->ArgNames({"contexts", "expired"})
    ->Args({1000000, 0})
    ->Args({1000000, 1})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Inserts one at a time, a little apart, while a scan runs on another thread;
// the counters are the insert latencies seen meanwhile, the time is the scan's.
void BM_InsertStallDuringScan(benchmark::State& state) {
    const int64_t nContexts = state.range(0);
    const bool bAllExpired = state.range(1) != 0;
    constexpr size_t kPool = 400000;
    double dMaxStall = 0;
    double dP99 = 0;
    double dBaselineMax = 0;
    double dInsertsDuringScan = 0;
    for (auto _ : state) {
        g_bAllExpired = false;
        // The cleaner keeps running (asleep after its first scan), so Insert does not restart it.
        std::unique_ptr<FilledCache> pFilled = Fill(nContexts, false);
        std::vector<CSmartRefCountPtr<StaticToken>> arrTokens;
        arrTokens.reserve(kPool);
        for (size_t i = 0; i < kPool; ++i) {
            arrTokens.push_back(NewToken());
        }
        size_t nNext = 0;
        auto insertOne = [&](Latencies& io_latencies) {
            const Clock::time_point start = Clock::now();
            pFilled->pCache->Insert(arrTokens[nNext++]);
            io_latencies.Add(Clock::now() - start);
        };

        Latencies baseline(20000);
        for (int i = 0; i < 20000; ++i) {
            insertOne(baseline);
        }

        g_bAllExpired = bAllExpired;
        std::atomic<bool> bScanDone{false};
        double dScanSeconds = 0;
        Latencies during(kPool);
        std::thread scanner([&] {
            dScanSeconds = TimeOneScan(pFilled->pCache.get());
            bScanDone = true;
        });
        while (!bScanDone && nNext < kPool) {
            insertOne(during);
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
        scanner.join();
        g_bAllExpired = false;
        pFilled->pCache->StopUpdateThread();

        state.SetIterationTime(dScanSeconds);
        dMaxStall = std::max(dMaxStall, during.Max() / 1000.0);
        dP99 = std::max(dP99, during.Percentile(0.99) / 1000.0);
        dBaselineMax = std::max(dBaselineMax, baseline.Max() / 1000.0);
        dInsertsDuringScan = static_cast<double>(nNext - 20000);
    }
    state.counters["max_stall_us"] = dMaxStall;
    state.counters["p99_us"] = dP99;
    state.counters["max_without_scan_us"] = dBaselineMax;
    state.counters["inserts_during_scan"] = dInsertsDuringScan;
}
BENCHMARK(BM_InsertStallDuringScan)
    ->ArgNames({"contexts", "expired"})
    ->Args({1000000, 0})
    ->Args({1000000, 1})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Heap bytes per context: the token itself, and what the cache adds for it
// (map node and key).
void BM_MemoryPerContext(benchmark::State& state) {
    const auto nContexts = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        CSmartRefCountPtr<SecContextCache> pCache = new SecContextCache(false);
        pCache->StartUpdateThread();
        std::vector<CSmartRefCountPtr<StaticToken>> arrTokens;
        arrTokens.reserve(nContexts);
        Provider();

        const size_t nBefore = mallinfo2().uordblks;
        for (size_t i = 0; i < nContexts; ++i) {
            arrTokens.push_back(NewToken());
        }
        const size_t nTokens = mallinfo2().uordblks;
        for (CSmartRefCountPtr<StaticToken>& pToken : arrTokens) {
            pCache->Insert(pToken);
        }
        const size_t nCached = mallinfo2().uordblks;
        pCache->StopUpdateThread();

        const double n = static_cast<double>(nContexts);
        state.counters["token_bytes"] = static_cast<double>(nTokens - nBefore) / n;
        state.counters["cache_bytes"] = static_cast<double>(nCached - nTokens) / n;
        state.counters["total_bytes"] = static_cast<double>(nCached - nBefore) / n;
    }
}
BENCHMARK(BM_MemoryPerContext)->ArgName("contexts")->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    int nThreads = 2;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--threads=", 10) == 0) {
            nThreads = std::max(1, std::atoi(argv[i] + 10));
        } else {
            rest.push_back(argv[i]);
        }
    }
    for (auto [pName, pFunction] : {std::pair{"BM_Lookup", &BM_Lookup}, {"BM_ImpersonateRevert", &BM_ImpersonateRevert}}) {
        benchmark::RegisterBenchmark(pName, pFunction)
            ->ArgName("contexts")
            ->Arg(1000)
            ->Arg(1000000)
            ->Threads(1)
            ->Threads(nThreads)
            ->UseRealTime();
    }
    int nRest = static_cast<int>(rest.size());
    benchmark::Initialize(&nRest, rest.data());
    if (benchmark::ReportUnrecognizedArguments(nRest, rest.data())) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
