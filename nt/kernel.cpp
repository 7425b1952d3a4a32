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
    WorkQueuesBoot(options.criticalWorkers);
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
    DriversShutdown(leaks);
    WorkQueuesShutdown();
    ReaperDrain();
    ReaperShutdown();
    AddThreadLeaks(nullptr, leaks);
    AddHandleLeaks(nullptr, leaks);
    for (size_t i = Parts().size(); i-- > 0;) {
        Parts()[i].shutdown(leaks);
    }
    DevicesShutdown(leaks);
    ObjectsShutdown(leaks);
    IrpShutdown(leaks);
    MdlShutdown(leaks);
    ResourcesShutdown(leaks);
    LookasideShutdown(leaks);
    PoolShutdown(leaks);
    TokensShutdown(leaks);
    ProcessesShutdown();
    NamesShutdown();
    g_booted = false;
    return leaks;
}

LeakList Holdings(PDRIVER_OBJECT driver) {
    LeakList leaks;
    AddPoolLeaks(driver, leaks);
    AddLookasideLeaks(driver, leaks);
    AddResourceLeaks(driver, leaks);
    AddObjectLeaks(driver, leaks);
    AddDeviceLeaks(driver, leaks);
    AddIrpLeaks(driver, leaks);
    AddMdlLeaks(driver, leaks);
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
