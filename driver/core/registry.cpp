#include "core/registry.h"

#include "core/pool.h"
#include "core/strings.h"

namespace {

// Kernel handles: preferences are also written on callers' threads, where an ordinary handle would be the caller's.
NTSTATUS OpenKey(HANDLE Root, PCWSTR Path, PHANDLE Key) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, Path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, Root, nullptr);
    return ZwOpenKey(Key, KEY_ALL_ACCESS, &attributes);
}

NTSTATUS QueryWholeValue(HANDLE Key, PCWSTR Name, PKEY_VALUE_FULL_INFORMATION* Info) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, Name);
    ULONG size = 0;
    NTSTATUS status = ZwQueryValueKey(Key, &name, KeyValueFullInformation, nullptr, 0, &size);
    if (status != STATUS_BUFFER_TOO_SMALL) {
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    PVOID buffer = VrkFsAllocatePool(PagedPool, size);
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The value may have grown in between; then this fails and the value counts as unreadable.
    status = ZwQueryValueKey(Key, &name, KeyValueFullInformation, buffer, size, &size);
    if (status != STATUS_SUCCESS) {
        VrkFsFreePool(buffer);
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    *Info = static_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
    return STATUS_SUCCESS;
}

const UCHAR* ValueData(const KEY_VALUE_FULL_INFORMATION* Info) {
    return reinterpret_cast<const UCHAR*>(Info) + Info->DataOffset;
}

}  // namespace

NTSTATUS VrkFsRtlRegOpenKey(PCWSTR Base, PHANDLE Key, PCWSTR Subkey) {
    HANDLE base = nullptr;
    NTSTATUS status = OpenKey(nullptr, Base, &base);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = OpenKey(base, Subkey, Key);
    ZwClose(base);
    return status;
}

NTSTATUS VrkFsRtlRegReadValueInfo(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, PKEY_VALUE_FULL_INFORMATION* Info) {
    *Info = nullptr;
    HANDLE key = nullptr;
    NTSTATUS status = VrkFsRtlRegOpenKey(Base, &key, Subkey);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = QueryWholeValue(key, Name, Info);
    ZwClose(key);
    return status;
}

NTSTATUS VrkFsRtlRegReadULONG(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, PULONG Value) {
    PKEY_VALUE_FULL_INFORMATION info = nullptr;
    NTSTATUS status = VrkFsRtlRegReadValueInfo(Base, Subkey, Name, &info);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (info->DataLength >= sizeof(ULONG)) {
        RtlCopyMemory(Value, ValueData(info), sizeof(ULONG));
    } else {
        status = STATUS_INFO_LENGTH_MISMATCH;
    }
    VrkFsFreePool(info);
    return status;
}

NTSTATUS VrkFsRtlRegReadStringW(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, PWSTR* String) {
    *String = nullptr;
    PKEY_VALUE_FULL_INFORMATION info = nullptr;
    NTSTATUS status = VrkFsRtlRegReadValueInfo(Base, Subkey, Name, &info);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // Whatever wrote the value: it need not be text, even or terminated.
    const WCHAR* data = reinterpret_cast<const WCHAR*>(ValueData(info));
    const ULONG length = VrkFsRtlBoundedLength(data, info->DataLength / sizeof(WCHAR));
    PWSTR copy = static_cast<PWSTR>(VrkFsAllocatePool(PagedPool, (SIZE_T{length} + 1) * sizeof(WCHAR)));
    if (copy != nullptr) {
        RtlCopyMemory(copy, data, length * sizeof(WCHAR));
        copy[length] = 0;
        *String = copy;
    } else {
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    VrkFsFreePool(info);
    return status;
}

NTSTATUS VrkFsRtlRegWriteData(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, ULONG Type, const VOID* Data, ULONG Size) {
    HANDLE key = nullptr;
    NTSTATUS status = VrkFsRtlRegOpenKey(Base, &key, Subkey);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, Name);
    status = ZwSetValueKey(key, &name, 0, Type, const_cast<PVOID>(Data), Size);
    ZwClose(key);
    return status;
}

NTSTATUS VrkFsRtlRegWriteULONG(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, ULONG Value) {
    return VrkFsRtlRegWriteData(Base, Subkey, Name, REG_DWORD, &Value, sizeof(Value));
}

NTSTATUS VrkFsRtlRegWriteStringW(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, PCWSTR String) {
    constexpr ULONG kMaxChars = 0x7FFF;
    const ULONG length = VrkFsRtlBoundedLength(String, kMaxChars);
    return VrkFsRtlRegWriteData(Base, Subkey, Name, REG_SZ, String, (length + 1) * sizeof(WCHAR));
}
