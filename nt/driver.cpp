#include <algorithm>
#include <mutex>
#include <vector>

#include "nt/file_object.h"
#include "nt/object_header.h"
#include "nt/pool.h"

// Loading and unloading drivers, and the shutdown notification.

namespace nt {

namespace {

struct DriverMemory {
    DRIVER_OBJECT driver;
    DRIVER_EXTENSION extension;
    std::u16string* name;         // "\Driver\VrkFs"
    std::u16string* serviceName;  // "VrkFs"
    std::u16string* registryPath;
};

std::mutex g_lock;  // guards the list
std::vector<PDRIVER_OBJECT> g_drivers;

DriverMemory* MemoryOf(PDRIVER_OBJECT driver) {
    return CONTAINING_RECORD(driver, DriverMemory, driver);
}

// What every major function does until the driver installs its own.
NTSTATUS NTAPI RefuseRequest(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

PDRIVER_OBJECT NewDriver(const DriverImage& image) {
    auto* const memory = static_cast<DriverMemory*>(ObAllocate(&g_driverType, sizeof(DriverMemory)));
    memory->name = new std::u16string(u"\\Driver\\" + image.name);
    memory->serviceName = new std::u16string(image.name);
    memory->registryPath = new std::u16string(
        !image.registryPath.empty() ? image.registryPath
                                    : u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + image.name);
    DRIVER_OBJECT& driver = memory->driver;
    driver.Type = IO_TYPE_DRIVER;
    driver.Size = sizeof(DRIVER_OBJECT);
    driver.DriverExtension = &memory->extension;
    driver.DriverName = CountedString(*memory->name);
    driver.DriverInit = image.entry;
    memory->extension.DriverObject = &driver;
    memory->extension.ServiceKeyName = CountedString(*memory->serviceName);
    std::fill(std::begin(driver.MajorFunction), std::end(driver.MajorFunction), RefuseRequest);
    return &driver;
}

// ---- running a driver's routine on a thread of the system process ----

struct DriverCall {
    PDRIVER_OBJECT driver;
    bool isEntry;
    NTSTATUS status;
};

VOID NTAPI RunDriverCall(PVOID context) {
    auto& call = *static_cast<DriverCall*>(context);
    const DriverScope scope(call.driver);
    if (call.isEntry) {
        UNICODE_STRING path = CountedString(*MemoryOf(call.driver)->registryPath);
        call.status = call.driver->DriverInit(call.driver, &path);
    } else {
        call.driver->DriverUnload(call.driver);
        call.status = STATUS_SUCCESS;
    }
}

NTSTATUS CallDriverRoutine(PDRIVER_OBJECT driver, bool isEntry) {
    DriverCall call{driver, isEntry, STATUS_UNSUCCESSFUL};
    JoinKernelThread(StartKernelThread(isEntry ? "driver entry" : "driver unload", RunDriverCall, &call));
    ReaperDrain();
    return call.status;
}

// Lists what the driver leaves, takes its names away, and makes the rest nobody's.
void TakeLeaveOf(PDRIVER_OBJECT driver, LeakList* leaks) {
    const LeakList left = Holdings(driver);
    if (leaks != nullptr) {
        *leaks = left;
    }
    {
        std::lock_guard guard(g_lock);
        std::erase(g_drivers, driver);
    }
    if (left.empty()) {
        ObfDereferenceObject(driver);
        return;
    }
    // Something of it may still be used: the driver object stays allocated, without a name.
    ObRemoveName(driver);
    ForgetDevices(driver);
    while (driver->DeviceObject != nullptr) {
        PDEVICE_OBJECT const device = driver->DeviceObject;
        driver->DeviceObject = device->NextDevice;
        ObRemoveName(device);
    }
    ReclaimLinks(driver);
    ForgetPoolOwner(driver);
    ForgetIrpOwner(driver);
    ForgetMdlOwner(driver);
    ForgetObjectOwner(driver);
    ForgetHandleOwner(driver);
}

}  // namespace

std::string DriverNameOf(PDRIVER_OBJECT driver) {
    return driver != nullptr && driver->DriverExtension != nullptr
               ? Utf8FromWide(View(&driver->DriverExtension->ServiceKeyName))
               : std::string();
}

NTSTATUS LoadDriver(const DriverImage& image, PDRIVER_OBJECT* driver, LeakList* leaks) {
    *driver = nullptr;
    PDRIVER_OBJECT const loaded = NewDriver(image);
    const NTSTATUS named = ObInsertName(*MemoryOf(loaded)->name, loaded);
    if (!NT_SUCCESS(named)) {
        ObfDereferenceObject(loaded);
        return named;
    }
    {
        std::lock_guard guard(g_lock);
        g_drivers.push_back(loaded);
    }
    const NTSTATUS status = CallDriverRoutine(loaded, true);
    if (!NT_SUCCESS(status)) {
        TakeLeaveOf(loaded, leaks);
        return status;
    }
    FinishDriverStart(loaded);
    *driver = loaded;
    return status;
}

NTSTATUS UnloadDriver(PDRIVER_OBJECT driver, LeakList* leaks) {
    ReaperDrain();
    if (driver->DriverUnload == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (HasOpenDevices(driver)) {
        return STATUS_DEVICE_BUSY;
    }
    CallDriverRoutine(driver, false);
    TakeLeaveOf(driver, leaks);
    return STATUS_SUCCESS;
}

void SendShutdown() {
    const AttachProcess attach(SystemProcess());
    for (PDEVICE_OBJECT device = TakeShutdownDevice(); device != nullptr; device = TakeShutdownDevice()) {
        IrpRecord* const record = NewIrp(device->StackSize, IrpKind::kSystem);
        record->process = SystemProcess();
        record->irp->Flags = IRP_SYNCHRONOUS_API;
        record->irp->RequestorMode = KernelMode;
        record->irp->Tail.Overlay.Thread = Self();
        NextStack(record, IRP_MJ_SHUTDOWN, 0, nullptr);
        IssueAndWait(record, device);
        FreeIrp(record);
        ObfDereferenceObject(device);
    }
}

void AddLoadedDrivers(LeakList& leaks) {
    std::lock_guard guard(g_lock);
    for (PDRIVER_OBJECT const driver : g_drivers) {
        leaks.push_back({"loaded driver", DriverNameOf(driver), 1, 0});
    }
}

void DriversShutdown() {
    std::lock_guard guard(g_lock);
    g_drivers.clear();
}

void DeleteDriverObject(PVOID object) {
    const DriverMemory* const memory = MemoryOf(static_cast<PDRIVER_OBJECT>(object));
    delete memory->name;
    delete memory->serviceName;
    delete memory->registryPath;
}

PDRIVER_OBJECT CurrentDriver() {
    return Self()->driver;
}

DriverScope::DriverScope(PDRIVER_OBJECT driver) : before_(Self()->driver) {
    Self()->driver = driver;
}

DriverScope::~DriverScope() {
    Self()->driver = before_;
}

}  // namespace nt
