#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <vector>

#include "nt/pool.h"

// The order of acquires, by lock class. All locks that are the same part of the same kind of record are one class,
// however short each of them lives, so an order seen once on any two binds all. For a lock in pool that is its kind
// with its block's tag and size and its place in there; for any other its kind and the place in the code that
// initialised it (which inlining may make several of, at the price of an order that goes unseen).
// "b was acquired while a was held" is an edge from a to b; an acquire that would close a circle
// could deadlock with the one that made the opposite edge, and is refused although nothing deadlocked this time. Locks
// of one class are not ordered among each other.

namespace nt {

namespace {

constexpr uint32_t kClasses = 512;  // class 0: not ordered (the table is full)
constexpr uint32_t kWords = kClasses / 64;

struct LockClass {
    LockKind kind;
    const void* site;  // of a lock that is not in pool
    PoolPlace place;
    bool operator==(const LockClass&) const = default;
};

std::mutex g_lock;  // guards the table, and the edges while they grow
LockClass g_classes[kClasses];
uint32_t g_classCount = 1;
std::atomic<uint64_t> g_after[kClasses][kWords];  // bit b of row a: the edge a to b

bool HasEdge(uint32_t from, uint32_t to) {
    return (g_after[from][to / 64].load(std::memory_order_relaxed) >> (to % 64) & 1) != 0;
}

// Whether `to` can be reached from `from`; `path` receives the classes in between and both ends.
bool FindPath(uint32_t from, uint32_t to, std::vector<uint32_t>& path) {
    std::vector<uint32_t> cameFrom(g_classCount, kClasses);
    std::vector<uint32_t> queue{from};
    cameFrom[from] = from;
    for (size_t next = 0; next < queue.size(); next++) {
        for (uint32_t c = 1; c < g_classCount; c++) {
            if (cameFrom[c] == kClasses && HasEdge(queue[next], c)) {
                cameFrom[c] = queue[next];
                queue.push_back(c);
            }
        }
    }
    if (cameFrom[to] == kClasses) {
        return false;
    }
    for (uint32_t c = to; c != from; c = cameFrom[c]) {
        path.insert(path.begin(), c);
    }
    path.insert(path.begin(), from);
    return true;
}

const char* KindName(LockKind kind) {
    switch (kind) {
        case LockKind::kResource:
            return "resource";
        case LockKind::kMutex:
            return "mutex";
        default:
            return "fast mutex";
    }
}

// The slow way: the edge is new. Adds it, or reports the circle that it closes.
bool AddEdge(PETHREAD self, uint32_t held, uint32_t wanted, const void* object) {
    std::vector<uint32_t> path;
    {
        std::lock_guard guard(g_lock);
        if (!FindPath(wanted, held, path)) {
            g_after[held][wanted / 64].fetch_or(uint64_t{1} << (wanted % 64), std::memory_order_relaxed);
            return true;
        }
    }
    std::string circle;
    for (const uint32_t c : path) {
        circle += (circle.empty() ? "" : ", then ") + LockClassName(c);
    }
    std::string where;
    IsInPagedPool(object, &where);
    Violation("acquire order: %s %p%s%s wanted while holding %s; seen before: %s; held now: %s",
              LockClassName(wanted).c_str(), object, where.empty() ? "" : " in ", where.c_str(),
              LockClassName(held).c_str(), circle.c_str(), DescribeHeld(self).c_str());
    return false;
}

}  // namespace

void LockOrderBoot() {
    std::lock_guard guard(g_lock);
    for (auto& row : g_after) {
        for (auto& word : row) {
            word.store(0, std::memory_order_relaxed);
        }
    }
}

uint32_t LockClassOf(LockKind kind, const void* lock, const void* site) {
    LockClass wanted{kind, site, {}};
    if (!IsOnOwnStack(Self(), lock) && PlaceInPool(lock, &wanted.place)) {
        wanted.site = nullptr;
    }
    std::lock_guard guard(g_lock);
    for (uint32_t c = 1; c < g_classCount; c++) {
        if (g_classes[c] == wanted) {
            return c;
        }
    }
    if (g_classCount == kClasses) {
        return 0;
    }
    g_classes[g_classCount] = wanted;
    return g_classCount++;
}

std::string LockClassName(uint32_t lockClass) {
    if (lockClass == 0 || lockClass >= kClasses) {
        return "lock";
    }
    const LockClass& c = g_classes[lockClass];
    if (c.site == nullptr) {
        return std::string(KindName(c.kind)) + " at " + std::to_string(c.place.offset) + " of '" +
               TagText(c.place.tag) + "' (" + std::to_string(c.place.size) + " bytes)";
    }
    std::string name = std::string(KindName(c.kind)) + " of ";
    Dl_info info{};
    if (dladdr(c.site, &info) == 0) {
        return name + "?";
    }
    char offset[32];
    if (info.dli_sname != nullptr) {
        int failed = 0;
        char* const plain = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &failed);
        name += failed == 0 ? plain : info.dli_sname;
        std::free(plain);
        std::snprintf(offset, sizeof(offset), "+0x%zx",
                      reinterpret_cast<uintptr_t>(c.site) - reinterpret_cast<uintptr_t>(info.dli_saddr));
    } else {
        // A static symbol: the offset is for addr2line.
        name += info.dli_fname != nullptr ? info.dli_fname : "?";
        std::snprintf(offset, sizeof(offset), "+0x%zx",
                      reinterpret_cast<uintptr_t>(c.site) - reinterpret_cast<uintptr_t>(info.dli_fbase));
    }
    return name + offset;
}

bool LockOrderCheck(PETHREAD self, uint32_t lockClass, const void* object) {
    if (lockClass == 0) {
        return true;
    }
    for (unsigned i = 0; i < self->heldCount; i++) {
        const uint32_t held = self->held[i].lockClass;
        if (held != lockClass && held != 0 && !HasEdge(held, lockClass) && !AddEdge(self, held, lockClass, object)) {
            return false;
        }
    }
    return true;
}

// ---- what a thread holds ----

HeldLock* FindHeld(PETHREAD self, const void* object) {
    for (unsigned i = self->heldCount; i-- > 0;) {
        if (self->held[i].object == object) {
            return &self->held[i];
        }
    }
    return nullptr;
}

void PushHeld(PETHREAD self, const void* object, LockKind kind, bool exclusive, uint32_t lockClass) {
    if (self->heldCount == kMaximumHeldLocks) {
        Violation("a thread holds more than %u locks: %s", kMaximumHeldLocks, DescribeHeld(self).c_str());
        return;
    }
    self->held[self->heldCount++] = {object, kind, exclusive, 1, lockClass};
}

void PopHeld(PETHREAD self, HeldLock* held) {
    for (HeldLock* const last = self->held + --self->heldCount; held != last; held++) {
        held[0] = held[1];
    }
}

std::string DescribeHeld(PETHREAD self) {
    std::string text;
    for (unsigned i = 0; i < self->heldCount; i++) {
        const HeldLock& held = self->held[i];
        char line[64];
        std::snprintf(line, sizeof(line), "%p %s x%u", held.object, held.exclusive ? "exclusive" : "shared",
                      held.count);
        text += (text.empty() ? "" : "; ") + LockClassName(held.lockClass) + " " + line;
    }
    return text.empty() ? "nothing" : text;
}

}  // namespace nt
