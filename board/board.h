// The main board in software: a driver of its own in the kernel stand-in, device \Device\Vrk<digit>, which answers the
// six requests of <vrkfs/board.h> and nothing more. Behind it a SCSI bus of up to 16 disks and a card memory of one
// chunk (256 blocks) for block moves. Requests of several threads run side by side, each in its caller's thread. Those
// that have to wait, for the SCSI path or because a rule says so, can be cancelled.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "board/disk.h"
#include "board/misbehaviour.h"
#include "nt/nt.h"

namespace board {

constexpr std::uint32_t kMaxDisks = 16;
constexpr std::uint32_t kCardMemoryBlocks = 256;

// How many requests of each kind arrived, and how many blocks those that succeeded moved.
struct Counters {
    std::array<std::uint64_t, kOperationCount> requests{};
    std::uint64_t blocksRead = 0;
    std::uint64_t blocksWritten = 0;

    std::uint64_t Of(Operation operation) const { return requests[static_cast<std::size_t>(operation)]; }
    std::uint64_t Total() const;
};

// What happens to writes once the power has gone.
enum class AfterPowerLoss : std::uint8_t {
    kSilent,  // requests still report success; writes reach no disk
    kError,   // every request fails
};

class Board {
  public:
    // Creates the board's device object; the kernel must be booted. `driver` is the driver object that the host made
    // for boards. Null with `error` filled when the device cannot be made.
    static std::unique_ptr<Board> Plug(PDRIVER_OBJECT driver, std::uint32_t cardIndex, std::string& error);
    // Ends held requests, deletes the device and closes the disks. No driver may hold the device any more.
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    // Disks may come and go while requests run: a transfer in hand ends on the disk that it began on, and without a
    // disk a transfer fails with STATUS_NO_SUCH_DEVICE.
    void AttachDisk(std::uint32_t scsiId, Disk disk);
    // Closes all disks when the transfers in hand are over. False when what was written last may be lost.
    [[nodiscard]] bool DetachDisks();
    Disk* DiskAt(std::uint32_t scsiId);  // null: nothing at this ID; not while disks may be detached
    [[nodiscard]] bool SyncAll();

    // Any device state but 0 for an ID, whatever is attached there (0xFF is "a disk that may be used").
    void OverrideDeviceState(std::uint32_t scsiId, std::uint32_t state);

    Rules& Misbehave() { return rules_; }
    // Carries out and completes what rules with kHold and kHoldDeaf kept waiting.
    void ReleaseHeld();
    std::size_t HeldCount();

    // The n-th write from now on (1 is the next) is the last that reaches its disk; of that one only `blocks` blocks
    // do.
    void CutPowerAtWrite(std::uint64_t n, std::uint32_t blocks, AfterPowerLoss after);
    bool PowerIsCut() const { return powerCut_.load(std::memory_order_relaxed); }

    Counters Count() const;
    void ResetCounters();

    // The device's request entry (one per driver object, it finds the board in the device extension).
    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);

  private:
    struct Outcome {
        NTSTATUS status;
        ULONG_PTR information;
    };

    // Requests that wait inside the board, oldest first. A cancel takes one out, unless it was kept deaf.
    struct Kept {
        PIRP irp;
        bool deaf;
    };
    using KeptList = std::list<Kept>;

    Board() = default;

    NTSTATUS DeviceControl(PIRP irp);
    RequestKind Classify(PIRP irp, NTSTATUS& refusal) const;
    NTSTATUS Misbehaved(PIRP irp, const RequestKind& request, const Misbehaviour& rule);
    NTSTATUS Answer(PIRP irp, const RequestKind& request, const Misbehaviour* rule);
    NTSTATUS Refuse(PIRP irp, const RequestKind& request, NTSTATUS status);
    Outcome Perform(PIRP irp, const RequestKind& request, const Misbehaviour* rule);
    Outcome Query(PIRP irp, std::uint32_t scsiId);
    Outcome Move(PIRP irp, const RequestKind& request, const Misbehaviour* rule);
    NTSTATUS ReadBlocks(Disk& disk, const RequestKind& request, std::byte* buffer, bool flip);
    NTSTATUS WriteBlocks(Disk& disk, const RequestKind& request, std::byte* buffer, const Misbehaviour* rule);
    std::uint32_t BlocksThatLand(std::uint32_t count, bool& refused);
    NTSTATUS Acquire(PIRP irp);
    NTSTATUS Release(PFILE_OBJECT claimant);
    PIRP PassPath();
    void CleanUp(PFILE_OBJECT file);
    NTSTATUS KeepPending(PIRP irp, Wrong how);
    void FinishPending(PIRP irp);
    static bool Keep(KeptList& list, PIRP irp, bool deaf);
    static PIRP Take(KeptList& list, PFILE_OBJECT ofFile = nullptr);
    static void NTAPI CancelKept(PDEVICE_OBJECT device, PIRP irp);
    void RunLate();

    PDEVICE_OBJECT device_ = nullptr;
    std::shared_mutex disksLock_;  // shared for the length of a transfer; guards the pointers that follow
    std::array<std::unique_ptr<Disk>, kMaxDisks> disks_;
    std::array<std::uint32_t, kMaxDisks> stateOverride_{};  // 0: as attached
    Rules rules_;

    std::mutex cardMemoryLock_;
    std::vector<std::byte> cardMemory_;

    std::mutex lock_;                  // guards what follows up to the late thread; the cancel lock comes after it
    std::condition_variable changed_;  // a list or stopLate_
    bool pathClaimed_ = false;
    PFILE_OBJECT pathOwner_ = nullptr;  // the open of the card that claimed the path; null: the driver above
    KeptList pathWaiters_;
    KeptList held_;
    KeptList late_;
    bool stopLate_ = false;
    std::thread lateThread_;

    std::atomic<std::int64_t> writesUntilCut_{-1};  // negative: no cut ordered
    std::atomic<bool> powerCut_{false};
    std::uint32_t blocksOfLastWrite_ = 0;
    AfterPowerLoss afterCut_ = AfterPowerLoss::kSilent;

    std::array<std::atomic<std::uint64_t>, kOperationCount> requests_{};
    std::atomic<std::uint64_t> blocksRead_{0};
    std::atomic<std::uint64_t> blocksWritten_{0};
};

}  // namespace board
