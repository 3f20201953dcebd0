// The faults of a lossy link: for each datagram, whether it is dropped, when it
// goes out (after the fixed delay, later when it is held back so that later
// datagrams overtake it) and whether a second copy follows it. Decisions come
// from a seeded generator, so one seed and one sequence of datagrams always
// give the same faults. Probabilities are in [0, 1]; times in milliseconds.
#pragma once

#include <cstdint>
#include <random>

namespace lossy {

struct FaultRates {
    double drop = 0;       // the datagram is lost
    double duplicate = 0;  // a second copy goes out right after it
    double reorder = 0;    // the datagram is held back by holdBackMs
    uint32_t delayMs = 0;  // every datagram waits this long
    uint32_t holdBackMs = 5;
};

// What happens to one datagram.
struct Fate {
    bool dropped = false;
    uint32_t delayMs = 0;  // from now until it goes out
    bool duplicated = false;
    bool reordered = false;
};

class FaultPlan {
public:
    FaultPlan(const FaultRates& rates, uint64_t seed) : r(rates), gen(seed) {}
    // Decides the fate of the next datagram.
    Fate next();

private:
    bool chance(double p);

    FaultRates r;
    std::mt19937_64 gen;
};

}  // namespace lossy
