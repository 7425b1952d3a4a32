#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

#include "nt/pool.h"

// The work queues. Each has a fixed number of threads; items beyond that wait their turn, whoever queued them.

namespace nt {

namespace {

struct QueuedItem {
    PWORK_QUEUE_ITEM item;
    PDRIVER_OBJECT driver;
    PoolBlock* pinned;
};

constexpr std::chrono::seconds kReturnGrace{2};

struct WorkQueue {
    const char* name;
    const unsigned threadCount;
    std::mutex lock;
    std::condition_variable arrived;
    std::condition_variable returned;
    std::deque<QueuedItem> items;
    std::vector<PDRIVER_OBJECT> running;  // whose routines are being run
    std::vector<PETHREAD> threads;
    bool stop = false;
};

WorkQueue g_critical{"critical worker", 4, {}, {}, {}, {}, {}, {}, false};
WorkQueue g_delayed{"delayed worker", 2, {}, {}, {}, {}, {}, {}, false};
WorkQueue g_hyperCritical{"hyper worker", 1, {}, {}, {}, {}, {}, {}, false};
std::array<WorkQueue*, 3> g_queues = {&g_critical, &g_delayed, &g_hyperCritical};
std::atomic<uint64_t> g_queued{0};

void Run(PETHREAD self, const QueuedItem& queued) {
    const PWORKER_THREAD_ROUTINE routine = queued.item->WorkerRoutine;
    PVOID const parameter = queued.item->Parameter;
    UnpinPoolBlock(queued.pinned);
    // From here on the item is the routine's, which may free it.
    __atomic_store_n(&queued.item->List.Flink, nullptr, __ATOMIC_RELEASE);
    self->driver = queued.driver;
    routine(parameter);
    if (self->heldCount != 0 || self->criticalRegions != 0 || self->irql != PASSIVE_LEVEL) {
        Violation("work routine %p returned in %d critical regions at IRQL %u holding %s",
                  reinterpret_cast<void*>(routine), self->criticalRegions, self->irql, DescribeHeld(self).c_str());
    }
    self->driver = nullptr;
}

VOID NTAPI WorkerMain(PVOID context) {
    auto& queue = *static_cast<WorkQueue*>(context);
    PETHREAD const self = Self();
    for (;;) {
        QueuedItem next;
        {
            std::unique_lock lock(queue.lock);
            queue.arrived.wait(lock, [&] { return queue.stop || !queue.items.empty(); });
            if (queue.items.empty()) {
                return;
            }
            next = queue.items.front();
            queue.items.pop_front();
            queue.running.push_back(next.driver);
        }
        Run(self, next);
        std::lock_guard guard(queue.lock);
        queue.running.erase(std::find(queue.running.begin(), queue.running.end(), next.driver));
        queue.returned.notify_all();
    }
}

void StartThreads(WorkQueue& queue) {
    while (queue.threads.size() < queue.threadCount) {
        queue.threads.push_back(StartKernelThread(queue.name, WorkerMain, &queue));
    }
}

}  // namespace

void WorkQueuesBoot() {
    g_queued = 0;
    for (WorkQueue* const queue : g_queues) {
        std::lock_guard guard(queue->lock);
        queue->stop = false;
    }
    std::lock_guard guard(g_critical.lock);
    StartThreads(g_critical);
}

void WorkQueuesShutdown() {
    for (WorkQueue* const queue : g_queues) {
        std::vector<PETHREAD> threads;
        {
            std::lock_guard guard(queue->lock);
            queue->stop = true;
            threads.swap(queue->threads);
        }
        queue->arrived.notify_all();
        for (PETHREAD const thread : threads) {
            JoinKernelThread(thread);
        }
    }
}

void AddWorkItemLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    for (WorkQueue* const queue : g_queues) {
        std::unique_lock guard(queue->lock);
        // Who waits for a request sees it completed before the routine that completed it has returned.
        queue->returned.wait_for(guard, kReturnGrace, [&] {
            return std::find(queue->running.begin(), queue->running.end(), driver) == queue->running.end();
        });
        const auto isHis = [driver](const QueuedItem& queued) { return queued.driver == driver; };
        const auto queued = std::count_if(queue->items.begin(), queue->items.end(), isHis);
        const auto running = std::count(queue->running.begin(), queue->running.end(), driver);
        if (queued + running != 0) {
            leaks.push_back({"work item", "queued or running", static_cast<uint64_t>(queued + running), 0});
        }
    }
}

uint64_t WorkItemsQueued() {
    return g_queued;
}

}  // namespace nt

NTKERNELAPI VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType) {
    if (QueueType < 0 || QueueType >= MaximumWorkQueue) {
        nt::Violation("work item %p for queue %d", static_cast<void*>(WorkItem), QueueType);
        return;
    }
    if (__atomic_exchange_n(&WorkItem->List.Flink, &WorkItem->List, __ATOMIC_ACQ_REL) != nullptr) {
        nt::Violation("work item %p queued a second time, or never initialised", static_cast<void*>(WorkItem));
        return;
    }
    if (!nt::RequireResident(WorkItem, "a work item")) {
        return;
    }
    nt::WorkQueue& queue = *nt::g_queues[QueueType];
    nt::g_queued.fetch_add(1, std::memory_order_relaxed);
    const nt::QueuedItem queued{WorkItem, nt::CurrentDriver(), nt::PinPoolBlock(WorkItem)};
    {
        std::lock_guard guard(queue.lock);
        nt::StartThreads(queue);
        queue.items.push_back(queued);
    }
    queue.arrived.notify_one();
}
