#pragma once

#include "nt/ex.h"
#include "nt/file_info.h"
#include "nt/mm.h"

// The I/O manager: drivers, devices and links, files, requests and their completion, cancel, share access.

struct _DRIVER_OBJECT;
struct _DEVICE_OBJECT;
struct _FILE_OBJECT;
struct _IRP;
struct _IO_STACK_LOCATION;
typedef struct _DEVICE_OBJECT* PDEVICE_OBJECT;
typedef struct _FILE_OBJECT* PFILE_OBJECT;
typedef struct _IRP* PIRP;

using DEVICE_TYPE = ULONG;

// ---- major and minor functions ----

inline constexpr UCHAR IRP_MJ_CREATE = 0x00;
inline constexpr UCHAR IRP_MJ_CREATE_NAMED_PIPE = 0x01;
inline constexpr UCHAR IRP_MJ_CLOSE = 0x02;
inline constexpr UCHAR IRP_MJ_READ = 0x03;
inline constexpr UCHAR IRP_MJ_WRITE = 0x04;
inline constexpr UCHAR IRP_MJ_QUERY_INFORMATION = 0x05;
inline constexpr UCHAR IRP_MJ_SET_INFORMATION = 0x06;
inline constexpr UCHAR IRP_MJ_QUERY_EA = 0x07;
inline constexpr UCHAR IRP_MJ_SET_EA = 0x08;
inline constexpr UCHAR IRP_MJ_FLUSH_BUFFERS = 0x09;
inline constexpr UCHAR IRP_MJ_QUERY_VOLUME_INFORMATION = 0x0a;
inline constexpr UCHAR IRP_MJ_SET_VOLUME_INFORMATION = 0x0b;
inline constexpr UCHAR IRP_MJ_DIRECTORY_CONTROL = 0x0c;
inline constexpr UCHAR IRP_MJ_FILE_SYSTEM_CONTROL = 0x0d;
inline constexpr UCHAR IRP_MJ_DEVICE_CONTROL = 0x0e;
inline constexpr UCHAR IRP_MJ_INTERNAL_DEVICE_CONTROL = 0x0f;
inline constexpr UCHAR IRP_MJ_SHUTDOWN = 0x10;
inline constexpr UCHAR IRP_MJ_LOCK_CONTROL = 0x11;
inline constexpr UCHAR IRP_MJ_CLEANUP = 0x12;
inline constexpr UCHAR IRP_MJ_QUERY_SECURITY = 0x14;
inline constexpr UCHAR IRP_MJ_SET_SECURITY = 0x15;
inline constexpr UCHAR IRP_MJ_POWER = 0x16;
inline constexpr UCHAR IRP_MJ_PNP = 0x1b;
inline constexpr UCHAR IRP_MJ_MAXIMUM_FUNCTION = 0x1b;

inline constexpr UCHAR IRP_MN_QUERY_DIRECTORY = 0x01;
inline constexpr UCHAR IRP_MN_NOTIFY_CHANGE_DIRECTORY = 0x02;
inline constexpr UCHAR IRP_MN_USER_FS_REQUEST = 0x00;
inline constexpr UCHAR IRP_MN_MOUNT_VOLUME = 0x01;
inline constexpr UCHAR IRP_MN_VERIFY_VOLUME = 0x02;
inline constexpr UCHAR IRP_MN_LOAD_FILE_SYSTEM = 0x03;
inline constexpr UCHAR IRP_MN_NORMAL = 0x00;
inline constexpr UCHAR IRP_MN_DPC = 0x01;
inline constexpr UCHAR IRP_MN_MDL = 0x02;
inline constexpr UCHAR IRP_MN_COMPLETE = 0x04;

// ---- flags ----

// IRP.Flags
inline constexpr ULONG IRP_NOCACHE = 0x00000001;
inline constexpr ULONG IRP_PAGING_IO = 0x00000002;
inline constexpr ULONG IRP_SYNCHRONOUS_API = 0x00000004;
inline constexpr ULONG IRP_ASSOCIATED_IRP = 0x00000008;
inline constexpr ULONG IRP_BUFFERED_IO = 0x00000010;
inline constexpr ULONG IRP_DEALLOCATE_BUFFER = 0x00000020;
inline constexpr ULONG IRP_INPUT_OPERATION = 0x00000040;
inline constexpr ULONG IRP_SYNCHRONOUS_PAGING_IO = 0x00000040;
inline constexpr ULONG IRP_CREATE_OPERATION = 0x00000080;
inline constexpr ULONG IRP_READ_OPERATION = 0x00000100;
inline constexpr ULONG IRP_WRITE_OPERATION = 0x00000200;
inline constexpr ULONG IRP_CLOSE_OPERATION = 0x00000400;
inline constexpr ULONG IRP_DEFER_IO_COMPLETION = 0x00000800;

// IO_STACK_LOCATION.Control
inline constexpr UCHAR SL_PENDING_RETURNED = 0x01;
inline constexpr UCHAR SL_ERROR_RETURNED = 0x02;
inline constexpr UCHAR SL_INVOKE_ON_CANCEL = 0x20;
inline constexpr UCHAR SL_INVOKE_ON_SUCCESS = 0x40;
inline constexpr UCHAR SL_INVOKE_ON_ERROR = 0x80;

// IO_STACK_LOCATION.Flags, by major function
inline constexpr UCHAR SL_FORCE_ACCESS_CHECK = 0x01;
inline constexpr UCHAR SL_OPEN_PAGING_FILE = 0x02;
inline constexpr UCHAR SL_OPEN_TARGET_DIRECTORY = 0x04;
inline constexpr UCHAR SL_CASE_SENSITIVE = 0x80;
inline constexpr UCHAR SL_KEY_SPECIFIED = 0x01;
inline constexpr UCHAR SL_OVERRIDE_VERIFY_VOLUME = 0x02;
inline constexpr UCHAR SL_WRITE_THROUGH = 0x04;
inline constexpr UCHAR SL_RESTART_SCAN = 0x01;
inline constexpr UCHAR SL_RETURN_SINGLE_ENTRY = 0x02;
inline constexpr UCHAR SL_INDEX_SPECIFIED = 0x04;
inline constexpr UCHAR SL_WATCH_TREE = 0x01;

// FILE_OBJECT.Flags
inline constexpr ULONG FO_FILE_OPEN = 0x00000001;
inline constexpr ULONG FO_SYNCHRONOUS_IO = 0x00000002;
inline constexpr ULONG FO_ALERTABLE_IO = 0x00000004;
inline constexpr ULONG FO_NO_INTERMEDIATE_BUFFERING = 0x00000008;
inline constexpr ULONG FO_WRITE_THROUGH = 0x00000010;
inline constexpr ULONG FO_SEQUENTIAL_ONLY = 0x00000020;
inline constexpr ULONG FO_CACHE_SUPPORTED = 0x00000040;
inline constexpr ULONG FO_STREAM_FILE = 0x00000100;
inline constexpr ULONG FO_DIRECT_DEVICE_OPEN = 0x00000800;
inline constexpr ULONG FO_FILE_MODIFIED = 0x00001000;
inline constexpr ULONG FO_FILE_SIZE_CHANGED = 0x00002000;
inline constexpr ULONG FO_CLEANUP_COMPLETE = 0x00004000;
inline constexpr ULONG FO_TEMPORARY_FILE = 0x00008000;
inline constexpr ULONG FO_DELETE_ON_CLOSE = 0x00010000;
inline constexpr ULONG FO_OPENED_CASE_SENSITIVE = 0x00020000;
inline constexpr ULONG FO_HANDLE_CREATED = 0x00040000;
inline constexpr ULONG FO_RANDOM_ACCESS = 0x00100000;
inline constexpr ULONG FO_FILE_OPEN_CANCELLED = 0x00200000;
inline constexpr ULONG FO_VOLUME_OPEN = 0x00400000;

// DEVICE_OBJECT.Flags
inline constexpr ULONG DO_VERIFY_VOLUME = 0x00000002;
inline constexpr ULONG DO_BUFFERED_IO = 0x00000004;
inline constexpr ULONG DO_EXCLUSIVE = 0x00000008;
inline constexpr ULONG DO_DIRECT_IO = 0x00000010;
inline constexpr ULONG DO_DEVICE_HAS_NAME = 0x00000040;
inline constexpr ULONG DO_DEVICE_INITIALIZING = 0x00000080;
inline constexpr ULONG DO_SHUTDOWN_REGISTERED = 0x00000800;

// Types of I/O records
inline constexpr CSHORT IO_TYPE_DEVICE = 3;
inline constexpr CSHORT IO_TYPE_DRIVER = 4;
inline constexpr CSHORT IO_TYPE_FILE = 5;
inline constexpr CSHORT IO_TYPE_IRP = 6;
inline constexpr CSHORT IO_TYPE_VPB = 10;

// Priority boosts of a completion
inline constexpr CCHAR IO_NO_INCREMENT = 0;
inline constexpr CCHAR IO_DISK_INCREMENT = 1;

// File-system control codes
inline constexpr ULONG FSCTL_REQUEST_OPLOCK_LEVEL_1 = 0x00090000;
inline constexpr ULONG FSCTL_REQUEST_OPLOCK_LEVEL_2 = 0x00090004;
inline constexpr ULONG FSCTL_REQUEST_BATCH_OPLOCK = 0x00090008;
inline constexpr ULONG FSCTL_OPLOCK_BREAK_ACKNOWLEDGE = 0x0009000C;
inline constexpr ULONG FSCTL_OPBATCH_ACK_CLOSE_PENDING = 0x00090010;
inline constexpr ULONG FSCTL_OPLOCK_BREAK_NOTIFY = 0x00090014;
inline constexpr ULONG FSCTL_LOCK_VOLUME = 0x00090018;
inline constexpr ULONG FSCTL_UNLOCK_VOLUME = 0x0009001C;
inline constexpr ULONG FSCTL_DISMOUNT_VOLUME = 0x00090020;
inline constexpr ULONG FSCTL_IS_VOLUME_MOUNTED = 0x00090028;
inline constexpr ULONG FSCTL_OPLOCK_BREAK_ACK_NO_2 = 0x00090050;

// ---- drivers ----

typedef NTSTATUS(NTAPI DRIVER_INITIALIZE)(struct _DRIVER_OBJECT* DriverObject, PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;
typedef VOID(NTAPI DRIVER_STARTIO)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_STARTIO* PDRIVER_STARTIO;
typedef VOID(NTAPI DRIVER_UNLOAD)(struct _DRIVER_OBJECT* DriverObject);
typedef DRIVER_UNLOAD* PDRIVER_UNLOAD;
typedef NTSTATUS(NTAPI DRIVER_DISPATCH)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_DISPATCH* PDRIVER_DISPATCH;
typedef VOID(NTAPI DRIVER_CANCEL)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_CANCEL* PDRIVER_CANCEL;
typedef NTSTATUS(NTAPI IO_COMPLETION_ROUTINE)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
typedef IO_COMPLETION_ROUTINE* PIO_COMPLETION_ROUTINE;

typedef struct _DRIVER_EXTENSION {
    struct _DRIVER_OBJECT* DriverObject;
    PVOID AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;  // the driver's devices, latest first
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PDRIVER_EXTENSION DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    struct _FAST_IO_DISPATCH* FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PDRIVER_STARTIO DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT, *PDRIVER_OBJECT;

// ---- devices and links ----

#define MAXIMUM_VOLUME_LABEL_LENGTH (32 * sizeof(WCHAR))

typedef struct _VPB {
    CSHORT Type;
    CSHORT Size;
    USHORT Flags;
    USHORT VolumeLabelLength;
    PDEVICE_OBJECT DeviceObject;
    PDEVICE_OBJECT RealDevice;
    ULONG SerialNumber;
    ULONG ReferenceCount;
    WCHAR VolumeLabel[MAXIMUM_VOLUME_LABEL_LENGTH / sizeof(WCHAR)];
} VPB, *PVPB;

inline constexpr USHORT VPB_MOUNTED = 0x0001;
inline constexpr USHORT VPB_LOCKED = 0x0002;

typedef struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;  // open file objects
    struct _DRIVER_OBJECT* DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    struct _IRP* CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    PVPB volatile Vpb;
    PVOID DeviceExtension;
    DEVICE_TYPE DeviceType;
    CCHAR StackSize;
    LIST_ENTRY FileSystemListEntry;  // of the I/O manager: on the list of file systems while registered
    ULONG AlignmentRequirement;
    ULONG ActiveThreadCount;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    KEVENT DeviceLock;
    USHORT SectorSize;
    USHORT Spare1;
    struct _DEVOBJ_EXTENSION* DeviceObjectExtension;
    PVOID Reserved;
} DEVICE_OBJECT;

// The extension is zeroed, in non-paged memory. A device made after DriverEntry carries DO_DEVICE_INITIALIZING,
// cleared for those made in it. STATUS_OBJECT_NAME_COLLISION when the name is taken,
// STATUS_INSUFFICIENT_RESOURCES.
NTKERNELAPI NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                          PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                          ULONG DeviceCharacteristics, BOOLEAN Exclusive, PDEVICE_OBJECT* DeviceObject);
// The name goes at once, device and extension when the last file object and reference have gone.
NTKERNELAPI VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject);

// STATUS_OBJECT_NAME_COLLISION when the link name is taken. "\??" and "\DosDevices" are one directory.
NTKERNELAPI NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
// STATUS_OBJECT_NAME_NOT_FOUND.
NTKERNELAPI NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);

NTKERNELAPI VOID NTAPI IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject);
NTKERNELAPI VOID NTAPI IoUnregisterFileSystem(PDEVICE_OBJECT DeviceObject);
// At shutdown each registered device gets one IRP_MJ_SHUTDOWN, latest registration first, and is then no longer
// registered. STATUS_INSUFFICIENT_RESOURCES.
NTKERNELAPI NTSTATUS NTAPI IoRegisterShutdownNotification(PDEVICE_OBJECT DeviceObject);
NTKERNELAPI VOID NTAPI IoUnregisterShutdownNotification(PDEVICE_OBJECT DeviceObject);

// Opens the named device (its driver sees create and cleanup now, close when *FileObject is dereferenced). The
// device object itself is not referenced. STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_TYPE_MISMATCH.
NTKERNELAPI NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                                    PFILE_OBJECT* FileObject, PDEVICE_OBJECT* DeviceObject);

// ---- files ----

typedef struct _SECTION_OBJECT_POINTERS {
    PVOID DataSectionObject;
    PVOID SharedCacheMap;
    PVOID ImageSectionObject;
} SECTION_OBJECT_POINTERS, *PSECTION_OBJECT_POINTERS;

typedef struct _FILE_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    PVPB Vpb;
    PVOID FsContext;
    PVOID FsContext2;
    PSECTION_OBJECT_POINTERS SectionObjectPointer;
    PVOID PrivateCacheMap;
    NTSTATUS FinalStatus;
    struct _FILE_OBJECT* RelatedFileObject;  // valid during the create request only
    BOOLEAN LockOperation;
    BOOLEAN DeletePending;
    BOOLEAN ReadAccess;
    BOOLEAN WriteAccess;
    BOOLEAN DeleteAccess;
    BOOLEAN SharedRead;
    BOOLEAN SharedWrite;
    BOOLEAN SharedDelete;
    ULONG Flags;
    UNICODE_STRING FileName;  // what follows the device's name; the driver may rewrite it during create
    LARGE_INTEGER CurrentByteOffset;
    volatile ULONG Waiters;
    volatile ULONG Busy;
    PVOID LastLock;
    KEVENT Lock;
    KEVENT Event;
    PVOID CompletionContext;
    KSPIN_LOCK IrpListLock;
    LIST_ENTRY IrpList;
    PVOID FileObjectExtension;
} FILE_OBJECT;

typedef struct _IO_SECURITY_CONTEXT {
    PVOID SecurityQos;
    PVOID AccessState;
    ACCESS_MASK DesiredAccess;
    ULONG FullCreateOptions;
} IO_SECURITY_CONTEXT, *PIO_SECURITY_CONTEXT;

// ---- requests ----

// A flag that one thread sets while another looks: reads and writes as a BOOLEAN, each of them atomic.
struct NtSharedBoolean {
    BOOLEAN value;
    operator BOOLEAN() const { return __atomic_load_n(&value, __ATOMIC_SEQ_CST); }
    NtSharedBoolean& operator=(BOOLEAN newValue) {
        __atomic_store_n(&value, newValue, __ATOMIC_SEQ_CST);
        return *this;
    }
};

typedef struct _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        volatile LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    NtSharedBoolean Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            __extension__ union {
                PIO_APC_ROUTINE UserApcRoutine;
                PVOID IssuingProcess;
            };
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    volatile PDRIVER_CANCEL CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            PVOID DriverContext[4];
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            LIST_ENTRY ListEntry;
            __extension__ union {
                struct _IO_STACK_LOCATION* CurrentStackLocation;
                ULONG PacketType;
            };
            struct _FILE_OBJECT* OriginalFileObject;
        } Overlay;
        PVOID CompletionKey;
    } Tail;
} IRP;

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options;
            USHORT FileAttributes;
            USHORT ShareAccess;
            ULONG EaLength;
        } Create;
        struct {
            ULONG Length;
            ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Read;
        struct {
            ULONG Length;
            ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Write;
        struct {
            ULONG Length;
            PUNICODE_STRING FileName;
            FILE_INFORMATION_CLASS FileInformationClass;
            ULONG FileIndex;
        } QueryDirectory;
        struct {
            ULONG Length;
            ULONG CompletionFilter;
        } NotifyDirectory;
        struct {
            ULONG Length;
            FILE_INFORMATION_CLASS FileInformationClass;
        } QueryFile;
        struct {
            ULONG Length;
            FILE_INFORMATION_CLASS FileInformationClass;
            PFILE_OBJECT FileObject;
            __extension__ union {
                __extension__ struct {
                    BOOLEAN ReplaceIfExists;
                    BOOLEAN AdvanceOnly;
                };
                ULONG ClusterCount;
                HANDLE DeleteHandle;
            };
        } SetFile;
        struct {
            ULONG Length;
            FS_INFORMATION_CLASS FsInformationClass;
        } QueryVolume;
        struct {
            ULONG Length;
            FS_INFORMATION_CLASS FsInformationClass;
        } SetVolume;
        struct {
            ULONG OutputBufferLength;
            ULONG InputBufferLength;
            ULONG FsControlCode;
            PVOID Type3InputBuffer;
        } FileSystemControl;
        struct {
            ULONG OutputBufferLength;
            ULONG InputBufferLength;
            ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            PVPB Vpb;
            PDEVICE_OBJECT DeviceObject;
        } MountVolume;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PFILE_OBJECT FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

inline constexpr USHORT IoSizeOfIrp(CCHAR StackSize) {
    return static_cast<USHORT>(sizeof(IRP) + static_cast<size_t>(StackSize) * sizeof(IO_STACK_LOCATION));
}

inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation;
}
inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}
inline VOID IoSkipCurrentIrpStackLocation(PIRP Irp) {
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
}
// Copies all but the completion routine.
inline VOID IoCopyCurrentIrpStackLocationToNext(PIRP Irp) {
    PIO_STACK_LOCATION const next = IoGetNextIrpStackLocation(Irp);
    *next = *IoGetCurrentIrpStackLocation(Irp);
    next->CompletionRoutine = nullptr;
    next->Context = nullptr;
    next->Control = 0;
}
inline VOID IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                   BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel) {
    PIO_STACK_LOCATION const next = IoGetNextIrpStackLocation(Irp);
    next->CompletionRoutine = CompletionRoutine;
    next->Context = Context;
    next->Control = static_cast<UCHAR>((InvokeOnSuccess != FALSE ? SL_INVOKE_ON_SUCCESS : 0) |
                                       (InvokeOnError != FALSE ? SL_INVOKE_ON_ERROR : 0) |
                                       (InvokeOnCancel != FALSE ? SL_INVOKE_ON_CANCEL : 0));
}

// Announces that the dispatch routine will return STATUS_PENDING; called in it, before anyone else can complete the
// request. A function here, so that the verifier sees it: setting SL_PENDING_RETURNED by hand is not enough.
VOID IoMarkIrpPending(PIRP Irp);

// Passes the request to the device's driver; returns what its dispatch routine returns. Unless that is
// STATUS_PENDING the request is complete and gone.
NTKERNELAPI NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
#define IoCallDriver IofCallDriver

// Ends the request: IoStatus must be set, no cancel routine, no spin lock held. Nothing of the request may be touched
// afterwards. The reference on its file object has gone too, so a close of that file object may run, on another
// thread, before this returns.
NTKERNELAPI VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCompleteRequest IofCompleteRequest

// TRUE when the request may block the calling thread: its file was opened for synchronous I/O, or the interface that
// made it is synchronous.
NTKERNELAPI BOOLEAN NTAPI IoIsOperationSynchronous(PIRP Irp);

NTKERNELAPI PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
// Makes a request of IoAllocateIrp ready to be sent again, once its completion routine has stopped its completion.
NTKERNELAPI VOID NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Status);
NTKERNELAPI VOID NTAPI IoFreeIrp(PIRP Irp);

// A (internal) device control request that the I/O manager frees at completion. As on the real kernel, *IoStatusBlock
// and Event are written when the request was left pending, or when it did not fail; a failure that IofCallDriver
// itself returned leaves both alone. They must stay valid until then. Null when memory is short.
NTKERNELAPI PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject,
                                                     PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                                     ULONG OutputBufferLength, BOOLEAN InternalDeviceIoControl,
                                                     PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock);

// ---- cancel ----
// The cancel routine runs with the cancel spin lock held and must release it with Irp->CancelIrql. Whoever takes the
// cancel routine out (IoSetCancelRoutine returning non-null) owns the completion. A driver that sets a cancel routine
// looks at Irp->Cancel again after that.

// FALSE when the request had no cancel routine: then only its Cancel flag is set.
NTKERNELAPI BOOLEAN NTAPI IoCancelIrp(PIRP Irp);
NTKERNELAPI VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql);
NTKERNELAPI VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql);
inline PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine) {
    return __atomic_exchange_n(&Irp->CancelRoutine, CancelRoutine, __ATOMIC_SEQ_CST);
}

// ---- descriptor lists (the rest is in nt/mm.h) ----

// Irp, if given, gets the list: as its MdlAddress, or at the end of its chain for a SecondaryBuffer. Null when memory
// is short.
NTKERNELAPI PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                                     PIRP Irp);
NTKERNELAPI VOID NTAPI IoFreeMdl(PMDL Mdl);

// ---- share access: the caller locks ----

typedef struct _SHARE_ACCESS {
    ULONG OpenCount;
    ULONG Readers;
    ULONG Writers;
    ULONG Deleters;
    ULONG SharedRead;
    ULONG SharedWrite;
    ULONG SharedDelete;
} SHARE_ACCESS, *PSHARE_ACCESS;

// Only reading (read data, execute), writing (write data, append) and deleting count. Both set ReadAccess,
// WriteAccess and DeleteAccess of the file object, and its share flags when the open wants one of the three.
NTKERNELAPI VOID NTAPI IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                                        PSHARE_ACCESS ShareAccess);
// STATUS_SHARING_VIOLATION; counts the open only with Update and success.
NTKERNELAPI NTSTATUS NTAPI IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess,
                                              PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess, BOOLEAN Update);
NTKERNELAPI VOID NTAPI IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess);
