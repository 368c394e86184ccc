// What an off trace statement costs next to no statement at all.
#include <benchmark/benchmark.h>

#include "foundation/SString.h"
#include "foundation/Trace.h"

namespace {

// Kept out of line so that both loops do the same work but the trace.
__attribute__((noinline)) int Work(int i_n) { return i_n * 3 + 1; }

void BM_NoStatement(benchmark::State& state) {
    int n = 0;
    for (auto _ : state) {
        n = Work(n);
        benchmark::DoNotOptimize(n);
    }
}
BENCHMARK(BM_NoStatement);

// The same statement with trace off, and for scale with trace on, written to /dev/null.
void BM_TraceStatement(benchmark::State& state) {
    const bool bOn = state.range(0) != 0;
    Tarvik500::SLogger::Configure(bOn ? "/dev/null" : "", "");
    const Tarvik500::SWCharString ssKey(OSTREL_T("a key that would be converted if trace were on"));
    int n = 0;
    for (auto _ : state) {
        n = Work(n);
        STRACE("ssoplugin: bench -- %1 %2", ssKey, n);
        benchmark::DoNotOptimize(n);
    }
    Tarvik500::SLogger::Configure("", "");
}
BENCHMARK(BM_TraceStatement)->ArgName("trace_on")->Arg(0)->Arg(1);

}  // namespace
