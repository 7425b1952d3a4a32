#include "nt/internal.h"

// Ordered failures. A plan counts calls of some kinds made inside a driver and fails the n-th of them, or all from the
// n-th on. Disarmed, the check is one load.

namespace nt {

namespace {

std::atomic<bool> g_armed{false};
FaultPlan g_plan;  // written while disarmed
std::atomic<uint64_t> g_seen{0};
std::atomic<uint64_t> g_fired{0};
std::atomic<bool> g_recycling{!kSanitized};

bool Concerns(PETHREAD self, FaultKind kind) {
    return self->driver != nullptr && self->faultExemptions == 0 && (g_plan.kinds & FaultBit(kind)) != 0 &&
           (g_plan.driver == nullptr || g_plan.driver == self->driver);
}

}  // namespace

void ArmFaults(const FaultPlan& plan) {
    g_armed = false;
    g_plan = plan;
    g_seen = 0;
    g_fired = 0;
    g_armed = true;
}

uint64_t DisarmFaults() {
    g_armed = false;
    return g_seen;
}

uint64_t FaultsSeen() {
    return g_seen;
}

uint64_t FaultsFired() {
    return g_fired;
}

bool FaultPoint(FaultKind kind) {
    if (!g_armed.load(std::memory_order_acquire) || !Concerns(Self(), kind)) {
        return false;
    }
    const uint64_t n = g_seen.fetch_add(1) + 1;
    const bool fail = g_plan.failAt != 0 && (n == g_plan.failAt || (g_plan.forEver && n > g_plan.failAt));
    if (fail) {
        g_fired.fetch_add(1);
    }
    return fail;
}

FaultExempt::FaultExempt() {
    Self()->faultExemptions++;
}

FaultExempt::~FaultExempt() {
    Self()->faultExemptions--;
}

bool RecyclingAllowed() {
    return g_recycling.load(std::memory_order_relaxed) && !g_armed.load(std::memory_order_relaxed);
}

void SetRecycling(bool allowed) {
    g_recycling = allowed && !kSanitized;
}

}  // namespace nt
