#include "board/board.h"

#include <vrkfs/board.h>

#include <algorithm>
#include <cstring>
#include <numeric>

namespace board {
namespace {

// The device extension: which board the device belongs to.
struct BoardExtension {
    Board* board;
};

ULONG ControlCodeOf(PIRP irp) {
    return IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
}

// The request's buffer, when the caller gave at least `length` bytes each way.
template <typename Record>
Record* BufferOf(PIRP irp) {
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    if (parameters.InputBufferLength < sizeof(Record) || parameters.OutputBufferLength < sizeof(Record)) {
        return nullptr;
    }
    return static_cast<Record*>(irp->AssociatedIrp.SystemBuffer);
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void FlipOneBitPerBlock(std::byte* data, std::uint32_t blocks) {
    for (std::uint32_t block = 0; block < blocks; ++block) {
        data[std::size_t{block} * kBlockSize + 100] ^= std::byte{0x10};
    }
}

}  // namespace

std::uint64_t Counters::Total() const {
    return std::accumulate(requests.begin(), requests.end(), std::uint64_t{0});
}

std::unique_ptr<Board> Board::Plug(PDRIVER_OBJECT driver, std::uint32_t cardIndex, std::string& error) {
    std::unique_ptr<Board> board(new Board());
    board->cardMemory_.resize(std::size_t{kCardMemoryBlocks} * kBlockSize);

    WCHAR buffer[] = VRKFS_W("\\Device\\Vrk0");
    buffer[(sizeof(buffer) / sizeof(WCHAR)) - 2] = static_cast<WCHAR>(u'0' + cardIndex);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, buffer);
    const NTSTATUS status =
        IoCreateDevice(driver, sizeof(BoardExtension), &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &board->device_);
    if (!NT_SUCCESS(status)) {
        error = "the board's device for card " + std::to_string(cardIndex) + " cannot be made";
        board->device_ = nullptr;
        return nullptr;
    }
    static_cast<BoardExtension*>(board->device_->DeviceExtension)->board = board.get();
    board->device_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    board->lateThread_ = std::thread([raw = board.get()] { raw->RunLate(); });
    return board;
}

Board::~Board() {
    if (lateThread_.joinable()) {
        {
            const std::lock_guard hold(pendingLock_);
            stopLate_ = true;
        }
        pendingChanged_.notify_all();
        lateThread_.join();
    }
    ReleaseHeld();
    std::list<PIRP> waiters;
    {
        const std::lock_guard hold(pathLock_);
        waiters.swap(pathWaiters_);
    }
    for (PIRP irp : waiters) {
        (void)Complete(irp, STATUS_CANCELLED, 0);
    }
    if (device_ != nullptr) {
        IoDeleteDevice(device_);
    }
}

void Board::AttachDisk(std::uint32_t scsiId, Disk disk) {
    disks_[scsiId] = std::make_unique<Disk>(std::move(disk));
}

Disk* Board::DiskAt(std::uint32_t scsiId) {
    return scsiId < kMaxDisks ? disks_[scsiId].get() : nullptr;
}

bool Board::SyncAll() {
    bool whole = true;
    for (const auto& disk : disks_) {
        whole = (!disk || disk->Sync()) && whole;
    }
    return whole;
}

void Board::OverrideDeviceState(std::uint32_t scsiId, std::uint32_t state) {
    stateOverride_[scsiId] = state;
}

Counters Board::Count() const {
    Counters counters;
    for (std::size_t i = 0; i < kOperationCount; ++i) {
        counters.requests[i] = requests_[i].load(std::memory_order_relaxed);
    }
    counters.blocksRead = blocksRead_.load(std::memory_order_relaxed);
    counters.blocksWritten = blocksWritten_.load(std::memory_order_relaxed);
    return counters;
}

void Board::ResetCounters() {
    for (auto& counter : requests_) {
        counter = 0;
    }
    blocksRead_ = 0;
    blocksWritten_ = 0;
}

void Board::CountRequest(const RequestKind& request) {
    requests_[static_cast<std::size_t>(request.operation)].fetch_add(1, std::memory_order_relaxed);
    if (request.operation == Operation::kRead) {
        blocksRead_.fetch_add(request.count, std::memory_order_relaxed);
    } else if (request.operation == Operation::kWrite) {
        blocksWritten_.fetch_add(request.count, std::memory_order_relaxed);
    }
}

// ---- Requests ----------------------------------------------------------------------------------------------------

NTSTATUS Board::Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
        case IRP_MJ_CREATE:
        case IRP_MJ_CLEANUP:
        case IRP_MJ_CLOSE:
            return Complete(irp, STATUS_SUCCESS, 0);
        case IRP_MJ_DEVICE_CONTROL:
            return static_cast<BoardExtension*>(device->DeviceExtension)->board->DeviceControl(irp);
        default:
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

// What the request asks. A request that cannot be understood is refused before any rule or counter sees it.
RequestKind Board::Classify(PIRP irp, NTSTATUS& refusal) const {
    refusal = STATUS_SUCCESS;
    switch (ControlCodeOf(irp)) {
        case IOCTL_VRK_INIT_FLEX:
            return {Operation::kInitFlex};
        case IOCTL_VRK_INIT_BOARD:
            return {Operation::kInitBoard};
        case IOCTL_VRK_SCSI_ACQUIRE:
            return {Operation::kAcquire};
        case IOCTL_VRK_SCSI_RELEASE:
            return {Operation::kRelease};
        case IOCTL_VRK_SCSI_DEVICE_QUERY:
            if (const auto* info = BufferOf<VrkScsiDeviceInfo>(irp); info != nullptr && info->ScsiId < kMaxDisks) {
                return {Operation::kDeviceQuery, info->ScsiId};
            }
            break;
        case IOCTL_VRK_SCSI_COMMAND:
            if (const auto* request = BufferOf<VrkScsiRequest>(irp); request != nullptr) {
                if (request->Command == VRK_SCSI_SCAN) {
                    return {Operation::kScan};
                }
                if (request->Command == VRK_SCSI_READ) {
                    return {Operation::kRead, request->ScsiId, request->Lba, request->BlockCount};
                }
                if (request->Command == VRK_SCSI_WRITE) {
                    return {Operation::kWrite, request->ScsiId, request->Lba, request->BlockCount};
                }
            }
            break;
        default:
            refusal = STATUS_INVALID_DEVICE_REQUEST;
            return {Operation::kScan};
    }
    refusal = STATUS_INVALID_PARAMETER;
    return {Operation::kScan};
}

NTSTATUS Board::DeviceControl(PIRP irp) {
    NTSTATUS refusal = STATUS_SUCCESS;
    const RequestKind request = Classify(irp, refusal);
    if (!NT_SUCCESS(refusal)) {
        return Complete(irp, refusal, 0);
    }
    CountRequest(request);
    if (const auto rule = rules_.Match(request)) {
        return Misbehaved(irp, request, *rule);
    }
    if (request.operation == Operation::kAcquire) {
        return Acquire(irp);
    }
    const Outcome outcome = Perform(irp, request, nullptr);
    return Complete(irp, outcome.status, outcome.information);
}

NTSTATUS Board::Misbehaved(PIRP irp, const RequestKind& request, const Misbehaviour& rule) {
    switch (rule.what) {
        case Wrong::kFail:
            return Complete(irp, rule.status, 0);
        case Wrong::kLate:
            return KeepPending(irp, true);
        case Wrong::kHold:
            return KeepPending(irp, false);
        case Wrong::kFlipBits:
        case Wrong::kTear:
        case Wrong::kTearFail:
            break;
    }
    const Outcome outcome = Perform(irp, request, &rule);
    return Complete(irp, outcome.status, outcome.information);
}

Board::Outcome Board::Perform(PIRP irp, const RequestKind& request, const Misbehaviour* rule) {
    if (powerCut_.load(std::memory_order_relaxed) && afterCut_ == AfterPowerLoss::kError) {
        return {STATUS_NO_SUCH_DEVICE, 0};
    }
    switch (request.operation) {
        case Operation::kInitFlex:
            return {STATUS_SUCCESS, IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength};
        case Operation::kInitBoard:
        case Operation::kAcquire:  // only when misbehaving: a claim that was not queued claims nothing
            return {STATUS_SUCCESS, 0};
        case Operation::kScan:
            return {STATUS_SUCCESS, sizeof(VrkScsiRequest)};
        case Operation::kDeviceQuery:
            return Query(irp, request.scsiId);
        case Operation::kRead:
        case Operation::kWrite:
            return Move(irp, request, rule);
        case Operation::kRelease:
            return {Release(), 0};
    }
    return {STATUS_INVALID_DEVICE_REQUEST, 0};
}

Board::Outcome Board::Query(PIRP irp, std::uint32_t scsiId) {
    auto* info = static_cast<VrkScsiDeviceInfo*>(irp->AssociatedIrp.SystemBuffer);
    const Disk* disk = disks_[scsiId].get();
    std::memset(info, 0, sizeof(*info));
    info->ScsiId = scsiId;
    info->State = disk != nullptr ? VRK_DEVICE_STATE_DISK : 0;
    info->LastLba = disk != nullptr ? static_cast<std::uint32_t>(disk->Blocks() - 1) : 0;
    if (stateOverride_[scsiId] != 0) {
        info->State = stateOverride_[scsiId];
    }
    return {STATUS_SUCCESS, sizeof(*info)};
}

// ---- Block transfers ---------------------------------------------------------------------------------------------

Board::Outcome Board::Move(PIRP irp, const RequestKind& request, const Misbehaviour* rule) {
    const auto* command = static_cast<const VrkScsiRequest*>(irp->AssociatedIrp.SystemBuffer);
    Disk* disk = DiskAt(request.scsiId);
    if (disk == nullptr) {
        return {STATUS_NO_SUCH_DEVICE, 0};
    }
    // Only the kernel may name an address; a program that opened the card has its own way to pass a buffer.
    const bool hostBuffer = command->CardMemory == VRK_TRANSFER_HOST;
    std::unique_lock<std::mutex> card(cardMemoryLock_, std::defer_lock);
    std::byte* buffer = nullptr;
    if (hostBuffer) {
        if (irp->RequestorMode != KernelMode ||
            command->HostBufferLength != std::uint64_t{request.count} * kBlockSize) {
            return {STATUS_INVALID_PARAMETER, 0};
        }
        buffer = static_cast<std::byte*>(NtTokenResolve(command->HostBuffer));
    } else if (request.count <= kCardMemoryBlocks) {
        card.lock();
        buffer = cardMemory_.data();
    }
    if (buffer == nullptr) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    const NTSTATUS status = request.operation == Operation::kRead
                                ? ReadBlocks(*disk, request, buffer, rule != nullptr && rule->what == Wrong::kFlipBits)
                                : WriteBlocks(*disk, request, buffer, rule);
    return {status, NT_SUCCESS(status) ? sizeof(VrkScsiRequest) : 0};
}

NTSTATUS Board::ReadBlocks(Disk& disk, const RequestKind& request, std::byte* buffer, bool flip) {
    if (!disk.Read(request.lba, request.count, buffer)) {
        return STATUS_IO_DEVICE_ERROR;
    }
    if (flip) {
        FlipOneBitPerBlock(buffer, request.count);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Board::WriteBlocks(Disk& disk, const RequestKind& request, std::byte* buffer, const Misbehaviour* rule) {
    bool refused = false;
    std::uint32_t landing = BlocksThatLand(request.count, refused);
    if (refused) {
        return STATUS_NO_SUCH_DEVICE;
    }
    NTSTATUS status = STATUS_SUCCESS;
    std::vector<std::byte> flipped;
    if (rule != nullptr && rule->what == Wrong::kFlipBits) {
        flipped.assign(buffer, buffer + std::size_t{request.count} * kBlockSize);
        FlipOneBitPerBlock(flipped.data(), request.count);
        buffer = flipped.data();
    } else if (rule != nullptr) {
        landing = std::min(landing, rule->blocks);
        status = rule->what == Wrong::kTearFail ? rule->status : STATUS_SUCCESS;
    }
    if (landing > 0 && !disk.Write(request.lba, landing, buffer)) {
        return STATUS_IO_DEVICE_ERROR;
    }
    return status;
}

void Board::CutPowerAtWrite(std::uint64_t n, std::uint32_t blocks, AfterPowerLoss after) {
    blocksOfLastWrite_ = blocks;
    afterCut_ = after;
    powerCut_ = false;
    writesUntilCut_ = static_cast<std::int64_t>(n);
}

// How many blocks of a write of `count` reach the disk, given a power cut that is ordered or has happened.
std::uint32_t Board::BlocksThatLand(std::uint32_t count, bool& refused) {
    if (powerCut_.load(std::memory_order_relaxed)) {
        refused = afterCut_ == AfterPowerLoss::kError;
        return 0;
    }
    if (writesUntilCut_.load(std::memory_order_relaxed) < 0) {
        return count;
    }
    const std::int64_t left = writesUntilCut_.fetch_sub(1) - 1;
    if (left > 0) {
        return count;
    }
    powerCut_ = true;
    return left == 0 ? std::min(count, blocksOfLastWrite_) : 0;
}

// ---- The SCSI path -----------------------------------------------------------------------------------------------

NTSTATUS Board::Acquire(PIRP irp) {
    {
        const std::lock_guard hold(pathLock_);
        if (pathClaimed_) {
            IoMarkIrpPending(irp);
            pathWaiters_.push_back(irp);
            return STATUS_PENDING;
        }
        pathClaimed_ = true;
    }
    return Complete(irp, STATUS_SUCCESS, 0);
}

NTSTATUS Board::Release() {
    PIRP next = nullptr;
    {
        const std::lock_guard hold(pathLock_);
        if (pathWaiters_.empty()) {
            pathClaimed_ = false;
        } else {
            next = pathWaiters_.front();
            pathWaiters_.pop_front();
        }
    }
    if (next != nullptr) {
        (void)Complete(next, STATUS_SUCCESS, 0);
    }
    return STATUS_SUCCESS;
}

// ---- Requests that are answered later ----------------------------------------------------------------------------

NTSTATUS Board::KeepPending(PIRP irp, bool late) {
    IoMarkIrpPending(irp);
    {
        const std::lock_guard hold(pendingLock_);
        (late ? late_ : held_).push_back(irp);
    }
    pendingChanged_.notify_all();
    return STATUS_PENDING;
}

void Board::FinishPending(PIRP irp) {
    NTSTATUS refusal = STATUS_SUCCESS;
    const RequestKind request = Classify(irp, refusal);
    const Outcome outcome = Perform(irp, request, nullptr);
    (void)Complete(irp, outcome.status, outcome.information);
}

void Board::ReleaseHeld() {
    std::list<PIRP> held;
    {
        const std::lock_guard hold(pendingLock_);
        held.swap(held_);
    }
    for (PIRP irp : held) {
        FinishPending(irp);
    }
}

std::size_t Board::HeldCount() {
    const std::lock_guard hold(pendingLock_);
    return held_.size();
}

void Board::RunLate() {
    std::unique_lock hold(pendingLock_);
    while (true) {
        pendingChanged_.wait(hold, [this] { return stopLate_ || !late_.empty(); });
        while (!late_.empty()) {
            const PIRP irp = late_.front();
            late_.pop_front();
            hold.unlock();
            FinishPending(irp);
            hold.lock();
        }
        if (stopLate_) {
            return;
        }
    }
}

}  // namespace board
