#include "Link/FaultPlan.h"

#include <gtest/gtest.h>

using namespace lossy;

// Over many datagrams each fault shows at about its rate, a dropped datagram
// is neither duplicated nor held back, held-back ones wait the longer time,
// and one seed always gives the same faults.
TEST(FaultPlan, RatesHoldAndASeedRepeatsItsFaults) {
    FaultRates r;
    r.drop = 0.02;
    r.duplicate = 0.01;
    r.reorder = 0.05;
    r.delayMs = 3;
    r.holdBackMs = 7;
    FaultPlan plan(r, 42), again(r, 42), other(r, 43);
    int dropped = 0, duplicated = 0, reordered = 0, differs = 0;
    const int n = 100000;
    for (int i = 0; i < n; ++i) {
        const Fate f = plan.next(), g = again.next(), h = other.next();
        ASSERT_EQ(f.dropped, g.dropped);
        ASSERT_EQ(f.duplicated, g.duplicated);
        ASSERT_EQ(f.delayMs, g.delayMs);
        differs += f.dropped != h.dropped;
        dropped += f.dropped;
        duplicated += f.duplicated;
        reordered += f.reordered;
        EXPECT_TRUE(!f.dropped || !(f.duplicated || f.reordered));
        EXPECT_TRUE(f.dropped || f.delayMs == (f.reordered ? 10u : 3u));
    }
    EXPECT_NEAR(0.02 * n, dropped, 0.002 * n);
    EXPECT_NEAR(0.98 * 0.01 * n, duplicated, 0.002 * n);
    EXPECT_NEAR(0.98 * 0.05 * n, reordered, 0.004 * n);
    EXPECT_GT(differs, 0) << "another seed, other faults";
}
