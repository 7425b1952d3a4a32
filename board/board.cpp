#include "board/board.h"

#include <vrkfs/board.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <numeric>
#include <shared_mutex>

namespace board {
namespace {

// The device extension: which board the device belongs to.
struct BoardExtension {
    Board* board;
};

struct FlexBuffer {
    std::byte bytes[VRK_FLEX_BUFFER_SIZE];
};

PFILE_OBJECT FileOf(PIRP irp) {
    return IoGetCurrentIrpStackLocation(irp)->FileObject;
}

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
            const std::lock_guard hold(lock_);
            stopLate_ = true;
        }
        changed_.notify_all();
        lateThread_.join();
    }
    ReleaseHeld();
    {
        std::unique_lock hold(lock_);
        while (const PIRP irp = Take(pathWaiters_)) {
            hold.unlock();
            (void)Complete(irp, STATUS_CANCELLED, 0);
            hold.lock();
        }
        // What is left belongs to cancel routines on their way here.
        changed_.wait(hold, [this] { return pathWaiters_.empty() && held_.empty() && late_.empty(); });
    }
    if (device_ != nullptr) {
        IoDeleteDevice(device_);
    }
}

void Board::AttachDisk(std::uint32_t scsiId, Disk disk) {
    const std::unique_lock hold(disksLock_);
    disks_[scsiId] = std::make_unique<Disk>(std::move(disk));
}

bool Board::DetachDisks() {
    const std::unique_lock hold(disksLock_);
    bool whole = true;
    for (auto& disk : disks_) {
        whole = (!disk || disk->Sync()) && whole;
        disk.reset();
    }
    return whole;
}

Disk* Board::DiskAt(std::uint32_t scsiId) {
    return scsiId < kMaxDisks ? disks_[scsiId].get() : nullptr;
}

bool Board::SyncAll() {
    const std::shared_lock hold(disksLock_);
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

// ---- Requests ----------------------------------------------------------------------------------------------------

NTSTATUS Board::Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    Board* const board = static_cast<BoardExtension*>(device->DeviceExtension)->board;
    switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
        case IRP_MJ_CLEANUP:
            board->CleanUp(FileOf(irp));
            return Complete(irp, STATUS_SUCCESS, 0);
        case IRP_MJ_CREATE:
        case IRP_MJ_CLOSE:
            return Complete(irp, STATUS_SUCCESS, 0);
        case IRP_MJ_DEVICE_CONTROL:
            return board->DeviceControl(irp);
        default:
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

// What the request asks. A request that cannot be understood is refused before any rule or counter sees it.
RequestKind Board::Classify(PIRP irp, NTSTATUS& refusal) const {
    refusal = STATUS_SUCCESS;
    switch (ControlCodeOf(irp)) {
        case IOCTL_VRK_INIT_FLEX:
            if (BufferOf<FlexBuffer>(irp) != nullptr) {
                return {Operation::kInitFlex};
            }
            break;
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
    requests_[static_cast<std::size_t>(request.operation)].fetch_add(1, std::memory_order_relaxed);
    if (const auto rule = rules_.Match(request)) {
        return Misbehaved(irp, request, *rule);
    }
    return Answer(irp, request, nullptr);
}

NTSTATUS Board::Misbehaved(PIRP irp, const RequestKind& request, const Misbehaviour& rule) {
    switch (rule.what) {
        case Wrong::kFail:
            return Refuse(irp, request, rule.status);
        case Wrong::kLate:
        case Wrong::kHold:
        case Wrong::kHoldDeaf:
            return KeepPending(irp, rule.what);
        case Wrong::kFlipBits:
        case Wrong::kTear:
        case Wrong::kTearFail:
            break;
    }
    return Answer(irp, request, &rule);
}

// Carries the request out and completes it, unless it has to wait for the path.
NTSTATUS Board::Answer(PIRP irp, const RequestKind& request, const Misbehaviour* rule) {
    if (powerCut_.load(std::memory_order_relaxed) && afterCut_ == AfterPowerLoss::kError) {
        return Refuse(irp, request, STATUS_NO_SUCH_DEVICE);
    }
    if (request.operation == Operation::kAcquire) {
        return Acquire(irp);
    }
    const Outcome outcome = Perform(irp, request, rule);
    return Complete(irp, outcome.status, outcome.information);
}

// A board that fails a release has let the path go all the same: nobody could give it back any more.
NTSTATUS Board::Refuse(PIRP irp, const RequestKind& request, NTSTATUS status) {
    if (request.operation == Operation::kRelease) {
        (void)Release(FileOf(irp));
    }
    return Complete(irp, status, 0);
}

Board::Outcome Board::Perform(PIRP irp, const RequestKind& request, const Misbehaviour* rule) {
    switch (request.operation) {
        case Operation::kInitFlex:
            return {STATUS_SUCCESS, sizeof(FlexBuffer)};
        case Operation::kInitBoard:
            return {STATUS_SUCCESS, 0};
        case Operation::kScan:
            return {STATUS_SUCCESS, sizeof(VrkScsiRequest)};
        case Operation::kDeviceQuery:
            return Query(irp, request.scsiId);
        case Operation::kRead:
        case Operation::kWrite:
            return Move(irp, request, rule);
        case Operation::kRelease:
            return {Release(FileOf(irp)), 0};
        case Operation::kAcquire:  // may have to wait: not answered here
            break;
    }
    return {STATUS_INVALID_DEVICE_REQUEST, 0};
}

Board::Outcome Board::Query(PIRP irp, std::uint32_t scsiId) {
    auto* info = static_cast<VrkScsiDeviceInfo*>(irp->AssociatedIrp.SystemBuffer);
    const std::shared_lock hold(disksLock_);
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
    const std::shared_lock hold(disksLock_);
    Disk* disk = DiskAt(request.scsiId);
    if (disk == nullptr) {
        return {STATUS_NO_SUCH_DEVICE, 0};
    }
    // A program names memory of its own, the kernel its own.
    const bool hostBuffer = command->CardMemory == VRK_TRANSFER_HOST;
    std::unique_lock<std::mutex> card(cardMemoryLock_, std::defer_lock);
    std::byte* buffer = nullptr;
    if (hostBuffer) {
        const std::uint64_t bytes = std::uint64_t{request.count} * kBlockSize;
        if (command->HostBufferLength != bytes) {
            return {STATUS_INVALID_PARAMETER, 0};
        }
        buffer =
            static_cast<std::byte*>(irp->RequestorMode == KernelMode ? NtTokenResolve(command->HostBuffer)
                                                                     : NtUserTokenResolve(command->HostBuffer, bytes));
    } else if (command->CardMemory == VRK_TRANSFER_CARD_MEMORY && request.count <= kCardMemoryBlocks) {
        card.lock();
        buffer = cardMemory_.data();
    }
    if (buffer == nullptr) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    const NTSTATUS status = request.operation == Operation::kRead
                                ? ReadBlocks(*disk, request, buffer, rule != nullptr && rule->what == Wrong::kFlipBits)
                                : WriteBlocks(*disk, request, buffer, rule);
    if (!NT_SUCCESS(status)) {
        return {status, 0};
    }
    auto& moved = request.operation == Operation::kRead ? blocksRead_ : blocksWritten_;
    moved.fetch_add(request.count, std::memory_order_relaxed);
    return {status, sizeof(VrkScsiRequest)};
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
    if (left == 0) {
        return std::min(count, blocksOfLastWrite_);
    }
    refused = afterCut_ == AfterPowerLoss::kError;
    return 0;
}

// ---- The SCSI path -----------------------------------------------------------------------------------------------

NTSTATUS Board::Acquire(PIRP irp) {
    std::unique_lock hold(lock_);
    if (!pathClaimed_) {
        pathClaimed_ = true;
        pathOwner_ = FileOf(irp);
        hold.unlock();
        return Complete(irp, STATUS_SUCCESS, 0);
    }
    const bool kept = Keep(pathWaiters_, irp, false);
    hold.unlock();
    if (!kept) {
        (void)Complete(irp, STATUS_CANCELLED, 0);
    }
    return STATUS_PENDING;
}

// Only who claimed the path can give it back: a program that opened the card must not end the driver's claim.
NTSTATUS Board::Release(PFILE_OBJECT claimant) {
    PIRP next = nullptr;
    {
        const std::lock_guard hold(lock_);
        if (!pathClaimed_ || pathOwner_ != claimant) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        next = PassPath();
    }
    if (next != nullptr) {
        (void)Complete(next, STATUS_SUCCESS, 0);
    }
    return STATUS_SUCCESS;
}

// Gives the path to whoever has waited longest, and returns that request for completion, or frees it. Under the lock.
PIRP Board::PassPath() {
    const PIRP next = Take(pathWaiters_);
    pathClaimed_ = next != nullptr;
    pathOwner_ = next != nullptr ? FileOf(next) : nullptr;
    return next;
}

// The last handle of an open of the card has gone. What it still asked for is cancelled, and its claim of the path
// ends, so that a program that died does not keep everybody else from the path.
void Board::CleanUp(PFILE_OBJECT file) {
    std::list<PIRP> cancelled;
    PIRP next = nullptr;
    {
        const std::lock_guard hold(lock_);
        for (KeptList* list : {&pathWaiters_, &held_, &late_}) {
            while (const PIRP irp = Take(*list, file)) {
                cancelled.push_back(irp);
            }
        }
        if (pathClaimed_ && pathOwner_ == file) {
            next = PassPath();
        }
    }
    for (const PIRP irp : cancelled) {
        (void)Complete(irp, STATUS_CANCELLED, 0);
    }
    if (next != nullptr) {
        (void)Complete(next, STATUS_SUCCESS, 0);
    }
}

// ---- Requests that are answered later ----------------------------------------------------------------------------
// Who takes a kept request's cancel routine out owns its completion. A request whose cancel has begun stays in its list
// until its cancel routine removes it there, so that an empty list means that no cancel routine is on its way.

// Puts the request into the list. False: it has been cancelled already, and is the caller's to complete. Either way it
// is pending now. Under the lock.
bool Board::Keep(KeptList& list, PIRP irp, bool deaf) {
    IoMarkIrpPending(irp);
    list.push_back({irp, deaf});
    if (deaf) {
        return true;
    }
    KIRQL irql = PASSIVE_LEVEL;
    IoAcquireCancelSpinLock(&irql);
    const bool cancelled = irp->Cancel != FALSE;
    if (!cancelled) {
        IoSetCancelRoutine(irp, &Board::CancelKept);
    }
    IoReleaseCancelSpinLock(irql);
    if (cancelled) {
        list.pop_back();
    }
    return !cancelled;
}

// Takes the oldest request for its completion; with `ofFile` only what a cleanup of that open ends. Null when there is
// none that is not being cancelled. Under the lock.
PIRP Board::Take(KeptList& list, PFILE_OBJECT ofFile) {
    for (auto kept = list.begin(); kept != list.end(); ++kept) {
        const PIRP irp = kept->irp;
        if (ofFile != nullptr && (FileOf(irp) != ofFile || kept->deaf)) {
            continue;
        }
        if (kept->deaf || IoSetCancelRoutine(irp, nullptr) != nullptr) {
            list.erase(kept);
            return irp;
        }
    }
    return nullptr;
}

void NTAPI Board::CancelKept(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Board* const board = static_cast<BoardExtension*>(device->DeviceExtension)->board;
    {
        const std::lock_guard hold(board->lock_);
        for (KeptList* list : {&board->pathWaiters_, &board->held_, &board->late_}) {
            list->remove_if([irp](const Kept& kept) { return kept.irp == irp; });
        }
        board->changed_.notify_all();
    }
    (void)Complete(irp, STATUS_CANCELLED, 0);
}

NTSTATUS Board::KeepPending(PIRP irp, Wrong how) {
    std::unique_lock hold(lock_);
    const bool kept = Keep(how == Wrong::kLate ? late_ : held_, irp, how == Wrong::kHoldDeaf);
    changed_.notify_all();
    hold.unlock();
    if (!kept) {
        (void)Complete(irp, STATUS_CANCELLED, 0);
    }
    return STATUS_PENDING;
}

void Board::FinishPending(PIRP irp) {
    NTSTATUS refusal = STATUS_SUCCESS;
    (void)Answer(irp, Classify(irp, refusal), nullptr);
}

void Board::ReleaseHeld() {
    std::unique_lock hold(lock_);
    while (const PIRP irp = Take(held_)) {
        hold.unlock();
        FinishPending(irp);
        hold.lock();
    }
}

std::size_t Board::HeldCount() {
    const std::lock_guard hold(lock_);
    return held_.size();
}

void Board::RunLate() {
    std::unique_lock hold(lock_);
    while (true) {
        if (const PIRP irp = Take(late_)) {
            hold.unlock();
            FinishPending(irp);
            hold.lock();
        } else if (stopLate_) {
            return;
        } else {
            changed_.wait(hold);
        }
    }
}

}  // namespace board
