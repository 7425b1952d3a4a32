#include "nt/internal.h"

// Ordered failures. A plan counts calls of some kinds made inside a driver and fails the n-th of them, or all from the
// n-th on. Disarmed, the check is one load.

namespace nt {

namespace {

std::atomic<bool> g_armed{false};
// The plan, piece by piece: a driver's threads may look while a test arms anew.
std::atomic<uint32_t> g_kinds{0};
std::atomic<uint64_t> g_failAt{0};
std::atomic<bool> g_forEver{false};
std::atomic<PDRIVER_OBJECT> g_driver{nullptr};
std::atomic<uint64_t> g_seen{0};
std::atomic<uint64_t> g_fired{0};
std::atomic<bool> g_recycling{!kSanitized};

bool Concerns(PETHREAD self, FaultKind kind) {
    const PDRIVER_OBJECT only = g_driver.load(std::memory_order_relaxed);
    return self->driver != nullptr && self->faultExemptions == 0 &&
           (g_kinds.load(std::memory_order_relaxed) & FaultBit(kind)) != 0 && (only == nullptr || only == self->driver);
}

}  // namespace

void ArmFaults(const FaultPlan& plan) {
    g_armed = false;
    g_kinds = plan.kinds;
    g_failAt = plan.failAt;
    g_forEver = plan.forEver;
    g_driver = plan.driver;
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
    const uint64_t failAt = g_failAt.load();
    const bool fail = failAt != 0 && (n == failAt || (g_forEver && n > failAt));
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
