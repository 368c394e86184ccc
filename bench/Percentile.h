// The share of samples at or below a value, as the benchmarks report it.
#pragma once

#include <algorithm>
#include <cstddef>
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

}  // namespace ostrel_bench
