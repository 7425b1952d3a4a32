#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "nt/io.h"
#include "nt/kernel.h"
#include "nt/object_internal.h"

// What the I/O manager's, executive's and dispatcher's own .cpp files share. Nobody else includes this.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define NT_SANITIZED 1
#endif
#endif
#ifndef NT_SANITIZED
#define NT_SANITIZED 0
#endif

namespace nt {

inline constexpr bool kSanitized = NT_SANITIZED != 0;
#ifdef NDEBUG
inline constexpr bool kFillMemory = kSanitized;
#else
inline constexpr bool kFillMemory = true;
#endif

// ---- word locks ----
// A lock in one 32-bit word that spins briefly, then sleeps. After the word has been released its memory is not read
// or written again (the wake-up names the address only), so whoever acquires it next may free the memory around it.

void LockWordSlow(uint32_t* word);
void FutexWake(uint32_t* word, int count);
// Sleeps while *word == value, at most until the monotonic deadline (ns; negative: without limit). False: deadline.
bool FutexWait(uint32_t* word, uint32_t value, int64_t deadlineNs);
int64_t MonotonicNs();

inline void LockWord(uint32_t* word) {
    uint32_t expected = 0;
    if (!__atomic_compare_exchange_n(word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
        LockWordSlow(word);
    }
}
inline bool TryLockWord(uint32_t* word) {
    uint32_t expected = 0;
    return __atomic_compare_exchange_n(word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}
inline void UnlockWord(uint32_t* word) {
    if (__atomic_exchange_n(word, 0, __ATOMIC_RELEASE) == 2) {
        FutexWake(word, 1);
    }
}

struct WordLock {
    uint32_t word = 0;
    void lock() { LockWord(&word); }
    void unlock() { UnlockWord(&word); }
};

class WordGuard {
  public:
    explicit WordGuard(WordLock& lock) : lock_(lock) { lock_.lock(); }
    ~WordGuard() { lock_.unlock(); }
    WordGuard(const WordGuard&) = delete;
    WordGuard& operator=(const WordGuard&) = delete;

  private:
    WordLock& lock_;
};

// ---- threads ----

enum class LockKind : uint8_t { kResource, kMutex, kFastMutex };

// One lock that a thread holds; on the thread's own list, so only it looks.
struct HeldLock {
    const void* object;
    LockKind kind;
    bool exclusive;
    uint32_t count;
    uint32_t lockClass;
};
inline constexpr unsigned kMaximumHeldLocks = 48;
inline constexpr unsigned kMaximumSpinLocks = 8;

struct IrpRecord;
struct MdlRecord;

// A dispatch routine in progress, on the stack of IofCallDriver. The serial number tells whether the record still
// stands for the request that was sent.
struct CallFrame {
    CallFrame* up;
    PIRP irp;
    const IrpRecord* record;
    uint64_t serial;
    bool markedPending;
    bool completed;
    NTSTATUS completedStatus;
};

}  // namespace nt

// A thread. Only the thread itself reads and writes its fields, except where another guard is named.
struct _ETHREAD {
    DISPATCHER_HEADER header;  // dispatcher lock; signalled when the thread has ended
    uint64_t id;
    PEPROCESS process;  // whom it acts for; null for the system process
    PDRIVER_OBJECT driver;
    nt::CallFrame* frame;
    int criticalRegions;
    unsigned faultExemptions;
    KIRQL irql;
    bool isSystemThread;  // started by PsCreateSystemThread or the kernel
    bool holdsCancelLock;
    uint8_t spinLockCount;
    const void* spinLocks[nt::kMaximumSpinLocks];
    nt::HeldLock held[nt::kMaximumHeldLocks];
    unsigned heldCount;
    uintptr_t stackLow;
    uintptr_t stackHigh;

    // Waits: dispatcher lock, but for the word, which the waiter polls.
    uint32_t waitWord;
    NTSTATUS waitStatus;
    bool isTimedWait;
    LONGLONG waitDue;
    LIST_ENTRY timedEntry;
    PKWAIT_BLOCK waitBlocks;
    ULONG waitCount;
    WAIT_TYPE waitType;
    KWAIT_BLOCK ownBlocks[THREAD_WAIT_OBJECTS];

    // What it sleeps on, for DescribeThreads.
    const void* waitingFor;
    const char* waitingAs;
    void NoteWait(const void* object, const char* as) {
        __atomic_store_n(&waitingAs, as, __ATOMIC_RELAXED);
        __atomic_store_n(&waitingFor, object, __ATOMIC_RELEASE);
    }

    nt::IrpRecord* freeIrps;
    unsigned freeIrpCount;
    nt::MdlRecord* freeMdls;
    unsigned freeMdlCount;

    LIST_ENTRY allThreads;  // thread list lock
    char name[32];

    // System threads.
    PKSTART_ROUTINE startRoutine;
    PVOID startContext;
    PDRIVER_OBJECT creator;
};

namespace nt {

extern constinit thread_local PETHREAD t_self;
PETHREAD AdoptThread();

inline PETHREAD Self() {
    PETHREAD const self = t_self;
    return self != nullptr ? self : AdoptThread();
}

inline bool IsOnOwnStack(PETHREAD self, const void* address) {
    const auto value = reinterpret_cast<uintptr_t>(address);
    return value >= self->stackLow && value < self->stackHigh;
}

// Starts a kernel thread that belongs to no driver, for the kernel's own services. The thread object has one
// reference, the caller's; it ends when the routine returns.
PETHREAD StartKernelThread(const char* name, PKSTART_ROUTINE routine, PVOID context);
// Waits for the thread's end and drops the reference.
void JoinKernelThread(PETHREAD thread);

// Waits for threads that are signalled as ended but have not yet dropped the reference to their own object.
void AwaitEndingThreads();
// Threads that drivers started and that have not ended.
void AddThreadLeaks(PDRIVER_OBJECT driver, LeakList& leaks);

// ---- kernel state ----

PEPROCESS NewProcess(const char* name, KPROCESSOR_MODE mode, bool isSystem);
void ProcessesBoot();
void ProcessesShutdown();
uint64_t WorkItemsQueued();

bool RecyclingAllowed();
void SetRecycling(bool allowed);

// Boot order of the pieces that have state; shutdown is in reverse.
void ClockBoot(const BootOptions& options);
void LockOrderBoot();
void WorkQueuesBoot();
void WorkQueuesShutdown();
void ReaperBoot();
void ReaperShutdown();
// What is left is nobody's from here on; with `reclaim` its memory goes, because nobody runs who could touch it.
void ObjectsShutdown(bool reclaim);
void IrpShutdown(bool reclaim);
void MdlShutdown(bool reclaim);
void PoolShutdown(bool reclaim);
void DevicesShutdown();
void DriversShutdown();
void LookasideShutdown();
void ResourcesShutdown();
void TokensShutdown();

// What a driver left or holds; a null driver: anybody.
void AddLoadedDrivers(LeakList& leaks);
void AddTokenLeaks(LeakList& leaks);
void AddPoolLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddLookasideLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddResourceLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddIrpLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddMdlLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddObjectLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddHandleLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddDeviceLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void AddWorkItemLeaks(PDRIVER_OBJECT driver, LeakList& leaks);
void NamesShutdown();

std::string DriverNameOf(PDRIVER_OBJECT driver);
std::string TagText(ULONG tag);
std::string QuotedTag(ULONG tag);

// ---- the order of acquires ----
// Locks are ordered by class (lock_order.cpp). Locks of one class are not ordered among each other.

// The class of a lock that is being initialised by the code at `site`.
uint32_t LockClassOf(LockKind kind, const void* lock, const void* site);
std::string LockClassName(uint32_t lockClass);
// Before a thread blocks for a lock: refuses when the opposite order has been seen. False: violation.
bool LockOrderCheck(PETHREAD self, uint32_t lockClass, const void* object);
void PushHeld(PETHREAD self, const void* object, LockKind kind, bool exclusive, uint32_t lockClass);
HeldLock* FindHeld(PETHREAD self, const void* object);
void PopHeld(PETHREAD self, HeldLock* held);
std::string DescribeHeld(PETHREAD self);

// ---- pool ----

struct PoolBlock;
// The block that holds the address, or null. Pins count what lives inside (resources, queued items): freeing such a
// block is refused. The caller knows that the block stays.
PoolBlock* FindPoolBlock(const void* address);
PoolBlock* PinPoolBlock(const void* address);
void UnpinPoolBlock(PoolBlock* block);
// For the kernel's own memory: no driver owns it, no fault hits it.
PVOID KernelAllocate(SIZE_T bytes, ULONG tag);
void KernelFree(PVOID memory);
// Refuses a record in paged pool. False: violation.
bool RequireResident(const void* address, const char* what);

// ---- dispatcher ----

inline constexpr UCHAR kNotificationEventObject = 0;
inline constexpr UCHAR kSynchronizationEventObject = 1;
inline constexpr UCHAR kMutantObject = 2;
inline constexpr UCHAR kProcessObject = 3;
inline constexpr UCHAR kThreadObject = 6;

void InitializeHeader(DISPATCHER_HEADER* header, UCHAR type, LONG state);
// Sets a thread's or process's header for good and lets go who waits.
void SignalHeader(DISPATCHER_HEADER* header);

// ---- objects ----

// As ObAllocate, but on no leak list: for the kernel's own.
PVOID ObAllocateUnlisted(POBJECT_TYPE type, size_t size);
// Drops a reference; if it was the last, the object is deleted by the reaper, on its own thread.
void ObDereferenceDeferred(PVOID object);
void ReaperDrain();
std::string ObDescribe(PVOID object);
// Whether an object of the type is there; the kernel's own do not count.
bool ObAnyLive(POBJECT_TYPE type);
// The device that opens the longest prefix of the path; `rest` receives what follows. Referenced for the caller.
NTSTATUS ObParsePath(std::u16string_view path, PDEVICE_OBJECT* device, std::u16string* rest);

struct HandleTable;
HandleTable* NewHandleTable();
void DeleteHandleTable(HandleTable* table);
// Closes all handles in ascending order.
void CloseAllHandles(PEPROCESS process);
size_t CountHandles(PEPROCESS process);
NTSTATUS DuplicateHandle(PEPROCESS from, HANDLE handle, PEPROCESS to, ACCESS_MASK access, PHANDLE copy);
// For a user-mode caller a kernel handle is none.
NTSTATUS CloseHandle(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode);
NTSTATUS ReferenceHandle(PEPROCESS process, HANDLE handle, ACCESS_MASK access, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                         PVOID* object, ACCESS_MASK* granted);

extern OBJECT_TYPE g_fileType;
extern OBJECT_TYPE g_deviceType;
extern OBJECT_TYPE g_driverType;
extern OBJECT_TYPE g_threadType;
extern OBJECT_TYPE g_processType;
extern OBJECT_TYPE g_eventType;
extern OBJECT_TYPE g_linkType;

void DeleteFileObject(PVOID object);
void CleanupFileObject(PVOID object);
void DeleteDeviceObject(PVOID object);
void DeleteDriverObject(PVOID object);
void DeleteProcessObject(PVOID object);

// ---- user memory ----

// Copies across the border to a process; false when an address is bad. Trusted processes are simply copied.
bool CopyFromUser(KPROCESSOR_MODE mode, void* to, const void* from, size_t bytes);
bool CopyToUser(KPROCESSOR_MODE mode, void* to, const void* from, size_t bytes);
bool ProbeRange(const void* address, size_t bytes, bool write);

}  // namespace nt

// A process.
struct _EPROCESS {
    DISPATCHER_HEADER header;
    KPROCESSOR_MODE mode;
    bool isSystem;
    nt::HandleTable* handles;

    std::atomic<bool> exiting;
    std::atomic<uint32_t> activeCalls;  // threads inside a call of this process

    nt::WordLock requestLock;  // guards what follows
    LIST_ENTRY requests;       // outstanding system calls' requests, by IRP.ThreadListEntry
    uint32_t requestCount;
    uint32_t finishing;  // overlapped requests off the list whose completion still runs
    uint32_t drainWord;  // bumped when a request or call has gone and the process is exiting

    char name[48];
};
