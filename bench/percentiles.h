#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

// The median, the 99th percentile and the largest of a set of samples.
struct Percentiles {
    double p50, p99, max;
};

inline Percentiles percentiles(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    const auto at = [&](double q) { return samples[static_cast<std::size_t>(q * (samples.size() - 1))]; };
    return {at(0.50), at(0.99), samples.back()};
}
