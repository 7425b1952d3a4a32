#include "nt/irp.h"

// Control requests: how their buffers travel, and the ones that one driver sends to another.

namespace nt {

// The two control requests' parameters are one and the same.
static_assert(offsetof(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer) ==
              offsetof(IO_STACK_LOCATION, Parameters.FileSystemControl.Type3InputBuffer));
static_assert(offsetof(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode) ==
              offsetof(IO_STACK_LOCATION, Parameters.FileSystemControl.FsControlCode));

namespace {

// A system buffer of `length` bytes that begins with the input.
NTSTATUS AttachInput(IrpRecord* record, const ControlBuffers& buffers, ULONG length, KPROCESSOR_MODE mode) {
    if (length == 0) {
        return STATUS_SUCCESS;
    }
    PVOID const system = AllocateSystemBuffer(record, length);
    if (system == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    record->irp->Flags |= IRP_BUFFERED_IO;
    if (!CopyFromUser(mode, system, buffers.input, buffers.inputLength)) {
        return STATUS_ACCESS_VIOLATION;
    }
    FillBeyondInput(system, buffers.inputLength, length);
    return STATUS_SUCCESS;
}

NTSTATUS AttachBuffered(IrpRecord* record, const ControlBuffers& buffers, KPROCESSOR_MODE mode) {
    const ULONG length = buffers.inputLength > buffers.outputLength ? buffers.inputLength : buffers.outputLength;
    const NTSTATUS status = AttachInput(record, buffers, length, mode);
    if (NT_SUCCESS(status) && buffers.output != nullptr) {
        record->irp->UserBuffer = buffers.output;
        record->irp->Flags |= IRP_INPUT_OPERATION;
        record->outputLength = buffers.outputLength;
    }
    return status;
}

NTSTATUS AttachDirect(IrpRecord* record, const ControlBuffers& buffers, KPROCESSOR_MODE mode,
                      LOCK_OPERATION operation) {
    const NTSTATUS status = AttachInput(record, buffers, buffers.inputLength, mode);
    if (!NT_SUCCESS(status) || buffers.outputLength == 0) {
        return status;
    }
    PMDL const mdl = NewMdl(buffers.output, buffers.outputLength);
    record->irp->MdlAddress = mdl;
    return mdl == nullptr ? STATUS_INSUFFICIENT_RESOURCES : NtMmTryProbeAndLockPages(mdl, mode, operation);
}

}  // namespace

NTSTATUS AttachControlBuffers(IrpRecord* record, PIO_STACK_LOCATION stack, ULONG code, const ControlBuffers& buffers,
                              KPROCESSOR_MODE mode) {
    stack->Parameters.DeviceIoControl.OutputBufferLength = buffers.outputLength;
    stack->Parameters.DeviceIoControl.InputBufferLength = buffers.inputLength;
    stack->Parameters.DeviceIoControl.IoControlCode = code;
    switch (METHOD_FROM_CTL_CODE(code)) {
        case METHOD_BUFFERED:
            return AttachBuffered(record, buffers, mode);
        case METHOD_IN_DIRECT:
            return AttachDirect(record, buffers, mode, IoReadAccess);
        case METHOD_OUT_DIRECT:
            return AttachDirect(record, buffers, mode, IoWriteAccess);
        default:
            stack->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<PVOID>(buffers.input);
            record->irp->UserBuffer = buffers.output;
            return STATUS_SUCCESS;
    }
}

}  // namespace nt

NTKERNELAPI PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject,
                                                     PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                                     ULONG OutputBufferLength, BOOLEAN InternalDeviceIoControl,
                                                     PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock) {
    nt::RefuseAtDispatch("building a device control request");
    if (nt::FaultPoint(nt::FaultKind::kIrp)) {
        return nullptr;
    }
    nt::IrpRecord* const record = nt::NewIrp(DeviceObject->StackSize, nt::IrpKind::kDeviceControl);
    if (record == nullptr) {
        return nullptr;
    }
    PIO_STACK_LOCATION const stack = nt::NextStack(
        record, InternalDeviceIoControl != FALSE ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL, 0, nullptr);
    PIRP const irp = record->irp;
    irp->UserIosb = IoStatusBlock;
    irp->UserEvent = Event;
    irp->RequestorMode = KernelMode;
    irp->Tail.Overlay.Thread = nt::Self();
    record->process = nt::CurrentProcess();
    const nt::ControlBuffers buffers{InputBuffer, InputBufferLength, OutputBuffer, OutputBufferLength};
    if (!NT_SUCCESS(nt::AttachControlBuffers(record, stack, IoControlCode, buffers, KernelMode))) {
        nt::FreeAttachedMdls(irp);
        nt::FreeIrp(record);
        return nullptr;
    }
    return irp;
}
