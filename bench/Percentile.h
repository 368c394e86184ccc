// The share of samples at or below a value, as the benchmarks report it.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace ostrel_bench {

// The value below which i_fraction of the samples lie; 0 without samples.
inline double Percentile(std::vector<double> i_values, double i_fraction) {
    if (i_values.empty()) {
        return 0;
    }
    const size_t index =
        std::min(i_values.size() - 1, static_cast<size_t>(i_fraction * static_cast<double>(i_values.size())));
    std::nth_element(i_values.begin(), i_values.begin() + static_cast<long>(index), i_values.end());
    return i_values[index];
}

// Takes the program's own counting flags (--NAME=N, at least 1) and hands the rest to Google
// Benchmark; false on a flag neither knows.
inline bool InitBenchmark(int argc, char** argv, std::initializer_list<std::pair<std::string, int*>> i_flags) {
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        bool bOwn = false;
        for (const auto& [prefix, pValue] : i_flags) {
            if (arg.rfind(prefix, 0) == 0) {
                *pValue = std::max(1, std::atoi(arg.c_str() + prefix.size()));
                bOwn = true;
            }
        }
        if (!bOwn) {
            rest.push_back(argv[i]);
        }
    }
    int nRest = static_cast<int>(rest.size());
    benchmark::Initialize(&nRest, rest.data());
    return !benchmark::ReportUnrecognizedArguments(nRest, rest.data());
}

}  // namespace ostrel_bench
