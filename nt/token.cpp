#include "nt/token.h"

#include "nt/internal.h"

// Tokens. A token is a slot's index (low half, never 0) and the slot's generation (high half). A slot is one 64-bit
// word for generation and state and one for the address; free slots form a stack whose head carries a counter against
// the classic mistake of lock-free stacks. Resolving is two loads.

namespace nt {

namespace {

constexpr uint32_t kSlots = 1 << 16;
constexpr uint32_t kIndexMask = kSlots - 1;

struct Slot {
    std::atomic<uint32_t> token;  // the live token, or 0
    std::atomic<uint32_t> nextFree;
    std::atomic<uint16_t> generation;  // of the next token
    std::atomic<PVOID> address;
};

Slot g_slots[kSlots];
std::atomic<uint64_t> g_freeHead{0};    // counter (high half), index (low half); 0 ends the stack
std::atomic<uint32_t> g_nextUnused{1};  // slots from here on were never used

uint32_t PopFree() {
    uint64_t head = g_freeHead.load(std::memory_order_acquire);
    while (static_cast<uint32_t>(head) != 0) {
        const uint32_t index = static_cast<uint32_t>(head);
        const uint64_t next = (head >> 32) + 1;
        const uint64_t newHead = next << 32 | g_slots[index].nextFree.load(std::memory_order_relaxed);
        if (g_freeHead.compare_exchange_weak(head, newHead, std::memory_order_acq_rel)) {
            return index;
        }
    }
    uint32_t unused = g_nextUnused.load(std::memory_order_relaxed);
    while (unused < kSlots) {
        if (g_nextUnused.compare_exchange_weak(unused, unused + 1)) {
            return unused;
        }
    }
    return 0;
}

void PushFree(uint32_t index) {
    uint64_t head = g_freeHead.load(std::memory_order_relaxed);
    uint64_t newHead = 0;
    do {
        g_slots[index].nextFree.store(static_cast<uint32_t>(head), std::memory_order_relaxed);
        newHead = ((head >> 32) + 1) << 32 | index;
    } while (!g_freeHead.compare_exchange_weak(head, newHead, std::memory_order_acq_rel));
}

}  // namespace

void AddTokenLeaks(LeakList& leaks) {
    uint64_t live = 0;
    for (uint32_t index = 1; index < g_nextUnused.load(); index++) {
        live += g_slots[index].token.load() != 0;
    }
    if (live != 0) {
        leaks.push_back({"token", "32-bit address", live, 0});
    }
}

void TokensShutdown() {
    for (uint32_t index = 1; index < g_nextUnused.load(); index++) {
        NtTokenRelease(g_slots[index].token.load());
    }
}

}  // namespace nt

ULONG NtTokenCreate(PVOID Address) {
    if (Address == nullptr) {
        return 0;
    }
    const uint32_t index = nt::PopFree();
    if (index == 0) {
        return 0;
    }
    nt::Slot& slot = nt::g_slots[index];
    const uint32_t generation = slot.generation.fetch_add(1, std::memory_order_relaxed);
    const ULONG token = generation << 16 | index;
    slot.address.store(Address, std::memory_order_release);
    slot.token.store(token, std::memory_order_release);
    return token;
}

PVOID NtTokenResolve(ULONG Token) {
    const nt::Slot& slot = nt::g_slots[Token & nt::kIndexMask];
    if (Token == 0 || slot.token.load(std::memory_order_acquire) != Token) {
        return nullptr;
    }
    PVOID const address = slot.address.load(std::memory_order_acquire);
    // Released and made anew in between: the address may be the newcomer's.
    return slot.token.load(std::memory_order_relaxed) == Token ? address : nullptr;
}

VOID NtTokenRelease(ULONG Token) {
    if (Token == 0) {
        return;
    }
    nt::Slot& slot = nt::g_slots[Token & nt::kIndexMask];
    uint32_t expected = Token;
    if (!slot.token.compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) {
        nt::Violation("release of token 0x%08x, which is not live", Token);
        return;
    }
    nt::PushFree(Token & nt::kIndexMask);
}
