// Order statistics of samples: percentiles of latencies and medians of repeated
// figures. Empty inputs give 0 (percentiles) or NaN (medians of doubles), which
// the reports show as missing.
#pragma once

#include <cstdint>
#include <vector>

namespace bench {

// The q-quantile (0 <= q <= 1, nearest rank) of the samples; reorders them.
// Returns 0 for an empty vector.
uint64_t percentile(std::vector<uint64_t>& samples, double q);

// Median of the finite values (NaN values are left out); NaN when none is left.
double median(std::vector<double> values);

}  // namespace bench
