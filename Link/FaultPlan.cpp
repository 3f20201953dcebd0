// Seeded fault decisions of the lossy link.
#include "Link/FaultPlan.h"

namespace lossy {

bool FaultPlan::chance(double p) {
    // Always draw, so one datagram's fate does not shift the next one's draws
    // depending on which faults are switched on.
    const double u = std::uniform_real_distribution<double>(0.0, 1.0)(gen);
    return u < p;
}

Fate FaultPlan::next() {
    Fate f;
    f.dropped = chance(r.drop);
    f.duplicated = chance(r.duplicate);
    f.reordered = chance(r.reorder);
    f.delayMs = r.delayMs + (f.reordered ? r.holdBackMs : 0);
    if (f.dropped) f.duplicated = f.reordered = false;
    return f;
}

}  // namespace lossy
