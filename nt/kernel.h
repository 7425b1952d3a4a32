#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "nt/io.h"

// The kernel as a whole, for hosts and tests: boot and shutdown, loading drivers, the clock, ordered failures, and what
// the verifier found. One kernel runs at a time in a process; it can be booted again after each shutdown and starts
// clean every time. Nothing here is for drivers.

namespace nt {

// ---- what was left over ----

struct Leak {
    std::string what;  // "pool", "device", "link", "request", "descriptor list", "handle", "thread", "file object", ...
    std::string name;  // pool tag, device or link name, what a handle designates, ...
    uint64_t count = 1;
    uint64_t bytes = 0;  // 0 where size says nothing
};
using LeakList = std::vector<Leak>;

// One line per leak, for people; empty for an empty list.
std::string ToString(const LeakList& leaks);

// ---- boot and shutdown ----

struct BootOptions {
    bool manualClock = false;
    // Where a manual clock starts; by default 2024-01-01 UTC.
    LONGLONG manualStart = 133'485'408'000'000'000;
    // Keep freed requests, descriptor lists and lookaside entries for reuse. Always off under the sanitizers.
    bool recycle = true;
};

void Boot(const BootOptions& options = {});
bool IsBooted();

// Ends the worker threads and takes everything down. Processes must have been destroyed and drivers unloaded: what is
// left, of anybody, is returned, and given back to the system, so that the next boot starts clean. (Beside a driver's
// thread that still runs, or a process, memory that it may touch is kept.)
LeakList Shutdown();

// ---- drivers ----

struct DriverImage {
    PDRIVER_INITIALIZE entry = nullptr;
    std::u16string name;  // "VrkFs": the driver object becomes \Driver\VrkFs
    std::u16string
        registryPath;  // given to the entry; by default \Registry\Machine\System\CurrentControlSet\Services\<name>
};

// Makes the driver object and runs the entry on a thread of the system process. When the entry fails its status is
// returned, the driver object goes, and what the entry left behind is reported in `leaks` (if given) and given back.
NTSTATUS LoadDriver(const DriverImage& image, PDRIVER_OBJECT* driver, LeakList* leaks = nullptr);

// Runs the unload routine on a thread of the system process, waits for it, and lists what the driver left behind:
// pool, lookaside lists, resources, devices, links, registrations, requests, descriptor lists, handles, threads,
// references. The driver object is gone afterwards. STATUS_DEVICE_BUSY, with nothing done, while file objects are open
// on one of its devices; STATUS_INVALID_DEVICE_REQUEST when it has no unload routine.
NTSTATUS UnloadDriver(PDRIVER_OBJECT driver, LeakList* leaks);

// Sends IRP_MJ_SHUTDOWN to every device registered for it, latest first, each once, and waits.
void SendShutdown();

// The driver whose code the calling thread is in (dispatch, entry, unload, cancel or completion routine, work item or
// thread of its), or null.
PDRIVER_OBJECT CurrentDriver();

// The calling thread is inside the driver while one is alive: for tests that call a driver's routines directly.
class DriverScope {
  public:
    explicit DriverScope(PDRIVER_OBJECT driver);
    ~DriverScope();
    DriverScope(const DriverScope&) = delete;
    DriverScope& operator=(const DriverScope&) = delete;

  private:
    PDRIVER_OBJECT before_;
};

// What the driver holds at this moment, in the form of a leak list. For tests that compare before and after.
LeakList Holdings(PDRIVER_OBJECT driver);

// What a symbolic link leads to. STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_TYPE_MISMATCH.
NTSTATUS QueryLink(std::u16string_view link, std::u16string* target);

// ---- clock ----

// System time now, 100-ns units since 1601: real time, or the manual clock.
LONGLONG ClockNow();
bool ClockIsManual();

// Moves the manual clock forward. Waits whose time-out falls due are ended in the order of their due times; the clock
// stands at a wait's due time when it ends. Woken threads run on their own: wait for them by what they do.
void ClockAdvance(LONGLONG ticks);

// Waits, in real time, until at least `count` threads stand in waits with a time-out that is neither 0 nor over.
// False when `limit` passes first.
bool ClockAwaitTimedWaits(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));
size_t ClockTimedWaits();

// ---- ordered failures ----

enum class FaultKind : uint8_t {
    kPool,      // pool and lookaside allocations
    kIrp,       // IoAllocateIrp, IoBuildDeviceIoControlRequest
    kMdl,       // IoAllocateMdl
    kMapping,   // mapping of locked pages
    kObject,    // devices, links, shutdown registrations, threads
    kRegistry,  // one registry call
    kFile,      // one file call
    kSection,   // creating a section, mapping a view
    kErrorLog,  // IoAllocateErrorLogEntry
    kCount
};

inline constexpr uint32_t FaultBit(FaultKind kind) {
    return 1u << static_cast<unsigned>(kind);
}
inline constexpr uint32_t kAllFaults = (1u << static_cast<unsigned>(FaultKind::kCount)) - 1;
inline constexpr uint32_t kMemoryFaults =
    FaultBit(FaultKind::kPool) | FaultBit(FaultKind::kIrp) | FaultBit(FaultKind::kMdl) | FaultBit(FaultKind::kObject);

struct FaultPlan {
    uint32_t kinds = kMemoryFaults;
    uint64_t failAt = 0;   // the n-th call of these kinds fails, counted together from 1; 0 fails none and counts
    bool forEver = false;  // and so does every later one
    PDRIVER_OBJECT driver = nullptr;  // only calls made inside this driver count; null: inside any driver
};

// Counts from 0. While armed nothing is kept for reuse, so every allocation is seen.
void ArmFaults(const FaultPlan& plan);
// Returns how many calls were counted since arming.
uint64_t DisarmFaults();
uint64_t FaultsSeen();
// How many of the counted calls were made to fail.
uint64_t FaultsFired();

// For the kernel operations themselves: counts one call and says whether it must fail. Calls outside any driver
// (the host's own, made on its behalf) neither count nor fail.
bool FaultPoint(FaultKind kind);

// While one is alive, calls of this thread neither count nor fail: for what a kernel operation allocates for itself.
class FaultExempt {
  public:
    FaultExempt();
    ~FaultExempt();
    FaultExempt(const FaultExempt&) = delete;
    FaultExempt& operator=(const FaultExempt&) = delete;
};

// ---- the verifier ----

// What happens on a violation: by default the message goes to stderr and the process aborts. A test's handler may
// return; then the operation that was refused is not carried out (a lock is not acquired, a double completion is
// ignored, and so on) as far as it still can. Null restores the default. Returns the handler before.
using ViolationHandler = void (*)(const char* message);
ViolationHandler SetViolationHandler(ViolationHandler handler);

// Reports a violation; printf-like. For the kernel operations.
[[gnu::format(printf, 1, 2)]] void Violation(const char* format, ...);

// Counters since boot, for tests and benchmarks.
struct Statistics {
    uint64_t poolBlocks = 0;  // now
    uint64_t poolBytes = 0;   // now
    uint64_t poolAllocations = 0;
    uint64_t requests = 0;  // now
    uint64_t requestsSent = 0;
    uint64_t descriptorLists = 0;  // now
    uint64_t workItemsQueued = 0;
    bool recycling = false;  // freed requests, descriptor lists and lookaside entries are kept for reuse
};
Statistics GetStatistics();

// A listing of all kernel threads with what each waits for and holds, for a debugger or a test that hangs.
std::string DescribeThreads();

}  // namespace nt
