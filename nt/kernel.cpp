#include "nt/kernel.h"

#include <vector>

#include "nt/irp.h"
#include "nt/pool.h"

// Boot and shutdown.

namespace nt {

namespace {

bool g_booted = false;

std::vector<KernelPart>& Parts() {
    static auto& parts = *new std::vector<KernelPart>;
    return parts;
}

void AddRecordLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    AddPoolLeaks(driver, leaks);
    AddLookasideLeaks(driver, leaks);
    AddResourceLeaks(driver, leaks);
    AddObjectLeaks(driver, leaks);
    AddDeviceLeaks(driver, leaks);
    AddIrpLeaks(driver, leaks);
    AddMdlLeaks(driver, leaks);
}

// Everything has been listed, so nothing is looked at through anything else any more.
void TakeDown(bool reclaim) {
    NamesShutdown();
    DriversShutdown();
    DevicesShutdown();
    ResourcesShutdown();
    LookasideShutdown();
    TokensShutdown();
    ObjectsShutdown(reclaim);
    IrpShutdown(reclaim);
    MdlShutdown(reclaim);
    ProcessesShutdown();
    PoolShutdown(reclaim);
}

}  // namespace

bool AddKernelPart(const KernelPart& part) {
    Parts().push_back(part);
    return true;
}

bool IsBooted() {
    return g_booted;
}

void Boot(const BootOptions& options) {
    if (g_booted) {
        Violation("a kernel is running already");
        return;
    }
    SetRecycling(options.recycle);
    ResetIrpsSent();
    ClockBoot(options);
    LockOrderBoot();
    ProcessesBoot();
    ReaperBoot();
    WorkQueuesBoot();
    for (const KernelPart& part : Parts()) {
        part.boot();
    }
    g_booted = true;
}

LeakList Shutdown() {
    LeakList leaks;
    if (!g_booted) {
        Violation("no kernel is running");
        return leaks;
    }
    DisarmFaults();
    AddLoadedDrivers(leaks);
    WorkQueuesShutdown();
    ReaperDrain();
    ReaperShutdown();
    LeakList threads;
    AddThreadLeaks(nullptr, threads);
    const bool reclaim = threads.empty() && !ObAnyLive(&g_processType);
    leaks.insert(leaks.end(), threads.begin(), threads.end());
    AddHandleLeaks(nullptr, leaks);
    for (size_t i = Parts().size(); i-- > 0;) {
        Parts()[i].shutdown(leaks);
    }
    AddRecordLeaks(nullptr, leaks);
    AddTokenLeaks(leaks);
    TakeDown(reclaim);
    g_booted = false;
    return leaks;
}

LeakList Holdings(PDRIVER_OBJECT driver) {
    LeakList leaks;
    AddRecordLeaks(driver, leaks);
    AddHandleLeaks(driver, leaks);
    AddThreadLeaks(driver, leaks);
    AddWorkItemLeaks(driver, leaks);
    return leaks;
}

Statistics GetStatistics() {
    Statistics statistics;
    AddPoolStatistics(statistics);
    statistics.requests = LiveIrps();
    statistics.requestsSent = IrpsSent();
    statistics.descriptorLists = LiveMdls();
    statistics.workItemsQueued = WorkItemsQueued();
    statistics.recycling = RecyclingAllowed();
    return statistics;
}

}  // namespace nt
