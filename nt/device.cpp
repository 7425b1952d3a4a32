#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "nt/file_object.h"
#include "nt/object_header.h"

// Devices, symbolic links, and the lists of file systems and shutdown notifications.

// Kept behind the device object, for the I/O manager.
struct _DEVOBJ_EXTENSION {
    bool deleted;
    ULONG fileSystemRegistrations;
    ULONG shutdownRegistrations;
};

namespace nt {

namespace {

constexpr ULONG kExtensionTag = 0x20766544;  // "Dev "
constexpr USHORT kDiskSectorSize = 512;

struct DeviceMemory {
    DEVICE_OBJECT device;
    _DEVOBJ_EXTENSION extension;
};

std::mutex g_lock;  // guards drivers' device lists and what follows
LIST_ENTRY g_fileSystems = {&g_fileSystems, &g_fileSystems};
std::vector<PDEVICE_OBJECT> g_shutdownList;

bool HasSectors(DEVICE_TYPE type) {
    return type == FILE_DEVICE_DISK || type == FILE_DEVICE_DISK_FILE_SYSTEM || type == FILE_DEVICE_VIRTUAL_DISK;
}

void Initialize(DeviceMemory* memory, PDRIVER_OBJECT driver, ULONG extensionSize, DEVICE_TYPE type,
                ULONG characteristics, bool exclusive) {
    DEVICE_OBJECT& device = memory->device;
    device.Type = IO_TYPE_DEVICE;
    device.Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT));
    device.DriverObject = driver;
    device.Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0);
    device.Characteristics = characteristics;
    device.DeviceType = type;
    device.StackSize = 1;
    device.SectorSize = HasSectors(type) ? kDiskSectorSize : 0;
    device.DeviceObjectExtension = &memory->extension;
    InitializeListHead(&device.FileSystemListEntry);
    InitializeHeader(&device.DeviceLock.Header, kSynchronizationEventObject, 1);
    if (extensionSize != 0) {
        device.DeviceExtension = KernelAllocate(extensionSize, kExtensionTag);
        if (device.DeviceExtension != nullptr) {
            std::memset(device.DeviceExtension, 0, extensionSize);
        }
    }
}

void AddToDriver(PDEVICE_OBJECT device) {
    std::lock_guard guard(g_lock);
    device->NextDevice = device->DriverObject->DeviceObject;
    device->DriverObject->DeviceObject = device;
}

void RemoveFromDriver(PDEVICE_OBJECT device) {
    std::lock_guard guard(g_lock);
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link != nullptr && *link != device) {
        link = &(*link)->NextDevice;
    }
    if (*link == device) {
        *link = device->NextDevice;
    }
}

bool IsDevice(PDEVICE_OBJECT device, const char* operation) {
    if (device != nullptr && device->Type == IO_TYPE_DEVICE && !device->DeviceObjectExtension->deleted) {
        return true;
    }
    Violation("%s %p, which is no device or has been deleted", operation, static_cast<void*>(device));
    return false;
}

std::string NameOf(PDEVICE_OBJECT device) {
    const std::u16string name = ObNameOf(device);
    return name.empty() ? "(without a name)" : Utf8FromWide(name);
}

}  // namespace

void DeleteDeviceObject(PVOID object) {
    auto* const device = static_cast<PDEVICE_OBJECT>(object);
    if (device->DeviceExtension != nullptr) {
        KernelFree(device->DeviceExtension);
    }
}

// The shutdown requests' turn: the device registered last, with a reference, no longer registered; null when all are.
PDEVICE_OBJECT TakeShutdownDevice() {
    std::lock_guard guard(g_lock);
    if (g_shutdownList.empty()) {
        return nullptr;
    }
    PDEVICE_OBJECT const device = g_shutdownList.back();
    g_shutdownList.pop_back();
    if (--device->DeviceObjectExtension->shutdownRegistrations == 0) {
        device->Flags &= ~DO_SHUTDOWN_REGISTERED;
    }
    ObfReferenceObject(device);
    return device;
}

bool HasOpenDevices(PDRIVER_OBJECT driver) {
    std::lock_guard guard(g_lock);
    for (PDEVICE_OBJECT device = driver->DeviceObject; device != nullptr; device = device->NextDevice) {
        if (__atomic_load_n(&device->ReferenceCount, __ATOMIC_ACQUIRE) != 0) {
            return true;
        }
    }
    return false;
}

void FinishDriverStart(PDRIVER_OBJECT driver) {
    std::lock_guard guard(g_lock);
    for (PDEVICE_OBJECT device = driver->DeviceObject; device != nullptr; device = device->NextDevice) {
        device->Flags &= ~DO_DEVICE_INITIALIZING;
    }
}

// Devices and links themselves are on the object list; here is what they are registered for.
void AddDeviceLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    std::lock_guard guard(g_lock);
    for (PLIST_ENTRY entry = g_fileSystems.Flink; entry != &g_fileSystems; entry = entry->Flink) {
        PDEVICE_OBJECT const device = CONTAINING_RECORD(entry, DEVICE_OBJECT, FileSystemListEntry);
        if (driver == nullptr || device->DriverObject == driver) {
            leaks.push_back({"file system registration", "of " + NameOf(device), 1, 0});
        }
    }
    for (PDEVICE_OBJECT const device : g_shutdownList) {
        if (driver == nullptr || device->DriverObject == driver) {
            leaks.push_back({"shutdown registration", "of " + NameOf(device), 1, 0});
        }
    }
}

void DevicesShutdown() {
    std::lock_guard guard(g_lock);
    InitializeListHead(&g_fileSystems);
    g_shutdownList.clear();
}

void ForgetDevices(PDRIVER_OBJECT driver) {
    std::lock_guard guard(g_lock);
    std::erase_if(g_shutdownList, [driver](PDEVICE_OBJECT device) { return device->DriverObject == driver; });
    for (PLIST_ENTRY entry = g_fileSystems.Flink; entry != &g_fileSystems;) {
        PDEVICE_OBJECT const device = CONTAINING_RECORD(entry, DEVICE_OBJECT, FileSystemListEntry);
        entry = entry->Flink;
        if (device->DriverObject == driver) {
            RemoveEntryList(&device->FileSystemListEntry);
        }
    }
}

}  // namespace nt

using nt::FaultPoint;
using nt::Violation;

NTKERNELAPI NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                          PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                          ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                          PDEVICE_OBJECT* DeviceObject) {
    *DeviceObject = nullptr;
    if (FaultPoint(nt::FaultKind::kObject)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const memory = static_cast<nt::DeviceMemory*>(nt::ObAllocate(&nt::g_deviceType, sizeof(nt::DeviceMemory)));
    if (memory == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PDEVICE_OBJECT const device = &memory->device;
    nt::Initialize(memory, DriverObject, DeviceExtensionSize, DeviceType, DeviceCharacteristics, Exclusive != FALSE);
    nt::ObSetOwner(device, DriverObject);
    NTSTATUS status = STATUS_SUCCESS;
    if (DeviceExtensionSize != 0 && device->DeviceExtension == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else if (DeviceName != nullptr && DeviceName->Length != 0) {
        status = nt::ObInsertName(nt::View(DeviceName), device);
        device->Flags |= DO_DEVICE_HAS_NAME;
    }
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(device);
        return status;
    }
    nt::AddToDriver(device);
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

NTKERNELAPI VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    if (!nt::IsDevice(DeviceObject, "delete of")) {
        return;
    }
    if (DeviceObject->DeviceObjectExtension->fileSystemRegistrations != 0) {
        Violation("device %s deleted while registered as a file system", nt::NameOf(DeviceObject).c_str());
        IoUnregisterFileSystem(DeviceObject);
    }
    if ((DeviceObject->Flags & DO_SHUTDOWN_REGISTERED) != 0) {
        IoUnregisterShutdownNotification(DeviceObject);
    }
    nt::RemoveFromDriver(DeviceObject);
    nt::ObRemoveName(DeviceObject);
    DeviceObject->DeviceObjectExtension->deleted = true;
    ObfDereferenceObject(DeviceObject);
}

NTKERNELAPI NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
    if (FaultPoint(nt::FaultKind::kObject)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const link = static_cast<nt::LinkBody*>(nt::ObAllocate(&nt::g_linkType, sizeof(nt::LinkBody)));
    if (link == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    link->target = new std::u16string(nt::View(DeviceName));
    const NTSTATUS status = nt::ObInsertName(nt::View(SymbolicLinkName), link);
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(link);
    }
    return status;
}

NTKERNELAPI NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) {
    PVOID link = nullptr;
    const NTSTATUS status = nt::ObReferenceByName(nt::View(SymbolicLinkName), &nt::g_linkType, &link);
    if (NT_SUCCESS(status)) {
        nt::ObRemoveName(link);
        ObfDereferenceObject(link);
        ObfDereferenceObject(link);
    }
    return status;
}

NTKERNELAPI VOID NTAPI IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject) {
    if (!nt::IsDevice(DeviceObject, "registration as a file system of")) {
        return;
    }
    std::lock_guard guard(nt::g_lock);
    if (DeviceObject->DeviceObjectExtension->fileSystemRegistrations++ != 0) {
        Violation("device %s registered as a file system twice", nt::NameOf(DeviceObject).c_str());
        return;
    }
    InsertHeadList(&nt::g_fileSystems, &DeviceObject->FileSystemListEntry);
    DeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;
}

NTKERNELAPI VOID NTAPI IoUnregisterFileSystem(PDEVICE_OBJECT DeviceObject) {
    if (!nt::IsDevice(DeviceObject, "end of the registration as a file system of")) {
        return;
    }
    std::lock_guard guard(nt::g_lock);
    if (DeviceObject->DeviceObjectExtension->fileSystemRegistrations == 0) {
        Violation("device %s is not registered as a file system", nt::NameOf(DeviceObject).c_str());
        return;
    }
    DeviceObject->DeviceObjectExtension->fileSystemRegistrations = 0;
    RemoveEntryList(&DeviceObject->FileSystemListEntry);
    InitializeListHead(&DeviceObject->FileSystemListEntry);
}

NTKERNELAPI NTSTATUS NTAPI IoRegisterShutdownNotification(PDEVICE_OBJECT DeviceObject) {
    if (!nt::IsDevice(DeviceObject, "registration for shutdown of") || FaultPoint(nt::FaultKind::kObject)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::lock_guard guard(nt::g_lock);
    nt::g_shutdownList.push_back(DeviceObject);
    DeviceObject->DeviceObjectExtension->shutdownRegistrations++;
    DeviceObject->Flags |= DO_SHUTDOWN_REGISTERED;
    return STATUS_SUCCESS;
}

NTKERNELAPI VOID NTAPI IoUnregisterShutdownNotification(PDEVICE_OBJECT DeviceObject) {
    if (!nt::IsDevice(DeviceObject, "end of the registration for shutdown of")) {
        return;
    }
    std::lock_guard guard(nt::g_lock);
    std::erase(nt::g_shutdownList, DeviceObject);
    DeviceObject->DeviceObjectExtension->shutdownRegistrations = 0;
    DeviceObject->Flags &= ~DO_SHUTDOWN_REGISTERED;
}

namespace nt {

NTSTATUS QueryLink(std::u16string_view link, std::u16string* target) {
    PVOID object = nullptr;
    const NTSTATUS status = ObReferenceByName(link, &g_linkType, &object);
    if (NT_SUCCESS(status)) {
        *target = *static_cast<LinkBody*>(object)->target;
        ObfDereferenceObject(object);
    }
    return status;
}

}  // namespace nt
