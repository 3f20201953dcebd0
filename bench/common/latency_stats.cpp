// Nearest-rank percentiles and medians.
#include "bench/common/latency_stats.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace bench {

uint64_t percentile(std::vector<uint64_t>& samples, double q) {
    if (samples.empty()) return 0;
    q = std::min(1.0, std::max(0.0, q));
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(samples.size())));
    size_t idx = rank == 0 ? 0 : rank - 1;
    std::nth_element(samples.begin(), samples.begin() + static_cast<long>(idx), samples.end());
    return samples[idx];
}

double median(std::vector<double> values) {
    values.erase(std::remove_if(values.begin(), values.end(), [](double v) { return !std::isfinite(v); }),
                 values.end());
    if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}

}  // namespace bench
