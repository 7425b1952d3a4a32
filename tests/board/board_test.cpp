// The main board, asked by its six requests as the driver above it and as a program that opened the card would.
#include "board/board.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <vrkfs/board.h>

#include <atomic>
#include <numeric>
#include <random>
#include <thread>

#include "nt/kernel.h"
#include "nt/system.h"

namespace tests {
namespace {

using board::Misbehaviour;
using board::Operation;
using board::Wrong;

constexpr std::uint32_t kId = 3;
constexpr std::uint32_t kBlocks = 600;
constexpr std::uint32_t kWords = board::kBlockSize / 4;
constexpr NTSTATUS kGone = STATUS_NO_SUCH_DEVICE;
constexpr NTSTATUS kBad = STATUS_INVALID_PARAMETER;

using Words = std::vector<std::uint32_t>;

// `count` blocks whose words name their block, as the disk of a case holds them at first.
Words Named(std::uint32_t lba, std::uint32_t count) {
    Words words(std::size_t{count} * kWords);
    for (std::size_t i = 0; i < words.size(); ++i) {
        words[i] = lba + static_cast<std::uint32_t>(i / kWords);
    }
    return words;
}

// A request that may be answered after its call has returned.
struct Asked {
    Asked() { KeInitializeEvent(&over, NotificationEvent, FALSE); }
    // A transfer between the disk and the buffer of the token.
    Asked(std::uint32_t command, std::uint32_t lba, std::uint32_t count, ULONG token) : Asked() {
        request.Command = command;
        request.ScsiId = kId;
        request.Lba = lba;
        request.BlockCount = count;
        request.HostBuffer = token;
        request.HostBufferLength = count * 512;
    }
    NTSTATUS Await() {
        KeWaitForSingleObject(&over, Executive, KernelMode, FALSE, nullptr);
        return outcome.Status;
    }
    bool IsOver() { return KeReadStateEvent(&over) != 0; }

    VrkScsiRequest request{};
    KEVENT over;
    IO_STATUS_BLOCK outcome{};
    nt::Overlapped overlapped{nullptr, nullptr, &over};
};

class MainBoard : public testing::Test {
  protected:
    void SetUp() override {
        nt::Boot();
        ASSERT_EQ(nt::LoadDriver({&Entry, u"Vrk", {}}, &driver_), STATUS_SUCCESS);
        std::string error;
        board_ = board::Board::Plug(driver_, 0, error);
        ASSERT_TRUE(board_) << error;
        board_->AttachDisk(kId, MakeDisk(0));
        kernel_ = std::make_unique<nt::Process>("driver", KernelMode);
        card_ = OpenCard(*kernel_);
    }
    void TearDown() override {
        kernel_.reset();
        board_.reset();
        nt::LeakList leaks;
        EXPECT_EQ(nt::UnloadDriver(driver_, &leaks), STATUS_SUCCESS);
        EXPECT_EQ(nt::ToString(leaks) + nt::ToString(nt::Shutdown()), "");
    }

    // Its blocks hold their numbers, counted from `first`.
    static board::Disk MakeDisk(std::uint32_t first) {
        std::string error;
        const int file = ::memfd_create("disk", 0);
        EXPECT_EQ(::ftruncate(file, kBlocks * 512), 0);
        auto disk = board::Disk::Open("/proc/self/fd/" + std::to_string(file), {}, error);
        ::close(file);
        EXPECT_TRUE(disk && disk->Write(0, kBlocks, Named(first, kBlocks).data())) << error;
        return std::move(*disk);
    }

    static nt::Handle OpenCard(nt::Process& process) {
        nt::Handle handle = 0;
        EXPECT_EQ(process.Open({.name = u"\\Device\\Vrk0", .options = 0}, &handle), STATUS_SUCCESS);
        return handle;
    }
    static NTSTATUS Ask(nt::Process& process, nt::Handle card, Asked& asked, ULONG code = IOCTL_VRK_SCSI_COMMAND) {
        const ULONG bytes = code == IOCTL_VRK_SCSI_COMMAND ? sizeof(asked.request) : 0;
        return process.DeviceControl(card, &asked.outcome, code, &asked.request, bytes, &asked.request, bytes,
                                     &asked.overlapped);
    }
    NTSTATUS Ask(Asked& asked, ULONG code = IOCTL_VRK_SCSI_COMMAND) { return Ask(*kernel_, card_, asked, code); }
    // A transfer as the driver asks for it, to its end; the buffer is as long as the request says.
    NTSTATUS Transfer(std::uint32_t command, std::uint32_t lba, std::uint32_t count, Words& words) {
        Asked asked(command, lba, count, NtTokenCreate(words.data()));
        const ULONG token = asked.request.HostBuffer;
        const NTSTATUS status = Ask(asked);
        NtTokenRelease(token);
        return status;
    }
    Words OnDisk(std::uint32_t lba, std::uint32_t count) {
        Words words(std::size_t{count} * kWords);
        EXPECT_TRUE(board_->DiskAt(kId)->Read(lba, count, words.data()));
        return words;
    }
    void GoWrong(Wrong what, std::optional<Operation> operation, std::uint64_t count = 1, std::uint32_t blocks = 0) {
        Misbehaviour rule;
        rule.what = what;
        rule.operation = operation;
        rule.count = count;
        rule.blocks = blocks;
        board_->Misbehave().Add(rule);
    }

    PDRIVER_OBJECT driver_ = nullptr;
    std::unique_ptr<board::Board> board_;
    std::unique_ptr<nt::Process> kernel_;
    nt::Handle card_ = 0;

  private:
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        for (const UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_DEVICE_CONTROL}) {
            driver->MajorFunction[major] = &board::Board::Dispatch;
        }
        driver->DriverUnload = [](PDRIVER_OBJECT) {};
        return STATUS_SUCCESS;
    }
};

TEST_F(MainBoard, MovesBlocksUpToTheLastOneAndNoneBeyond) {
    const std::tuple<std::uint32_t, std::uint32_t, bool> cases[] = {
        {0, kBlocks, true},      {kBlocks - 1, 1, true}, {kBlocks, 0, true},
        {kBlocks - 1, 2, false}, {0xFFFFFFFF, 1, false}, {0xFFFFFFFF, 2, false}};  // the last one wraps to block 0
    for (const auto& [lba, count, exists] : cases) {
        SCOPED_TRACE(testing::Message() << count << " at " << lba);
        const NTSTATUS expected = exists ? STATUS_SUCCESS : STATUS_IO_DEVICE_ERROR;
        Words words = Named(7, count + 1);
        EXPECT_EQ(Transfer(VRK_SCSI_READ, lba, count, words), expected);
        words.resize(count * kWords);
        EXPECT_EQ(words, Named(exists ? lba : 7, count));
        words = Named(1000, count + 1);
        EXPECT_EQ(Transfer(VRK_SCSI_WRITE, lba, count, words), expected);
        EXPECT_EQ(exists ? OnDisk(lba, count) : OnDisk(0, kBlocks), exists ? Named(1000, count) : Named(0, kBlocks));
        words = Named(0, kBlocks);
        EXPECT_EQ(Transfer(VRK_SCSI_WRITE, 0, kBlocks, words), STATUS_SUCCESS);
    }
}

TEST_F(MainBoard, RefusesWhatItCannotUnderstandAndTouchesNothing) {
    Words buffer(kWords, 0xCC);
    const ULONG token = NtTokenCreate(buffer.data());
    const ULONG stale = NtTokenCreate(buffer.data());
    NtTokenRelease(stale);
    using Field = VrkScsiRequest;
    const std::tuple<std::uint32_t Field::*, std::uint32_t, NTSTATUS> fields[] = {
        {&Field::Command, 0x2003, kBad},        {&Field::ScsiId, 4, kGone},    {&Field::ScsiId, 16, kGone},
        {&Field::ScsiId, 0xFFFFFFFF, kGone},    {&Field::BlockCount, 2, kBad}, {&Field::BlockCount, 0xFFFFFFFF, kBad},
        {&Field::BlockCount, 0x00800001, kBad},  // its length is right in 32 bits
        {&Field::HostBufferLength, 511, kBad},  {&Field::HostBuffer, 0, kBad}, {&Field::HostBuffer, stale, kBad},
        {&Field::HostBuffer, 0xFFFFFFFF, kBad}, {&Field::CardMemory, 2, kBad}};
    for (const std::uint32_t command : {VRK_SCSI_READ, VRK_SCSI_WRITE}) {
        for (const auto& [field, value, status] : fields) {
            Asked asked(command, 5, 1, token);
            asked.request.*field = value;
            EXPECT_EQ(Ask(asked), status) << value;
        }
        Asked asked(command, 5, 1, token);
        nt::Process user("program");
        EXPECT_EQ(Ask(user, OpenCard(user), asked), kBad) << "an address from a program";
        asked.request.CardMemory = VRK_TRANSFER_CARD_MEMORY;
        asked.request.BlockCount = board::kCardMemoryBlocks + 1;
        EXPECT_EQ(Ask(asked), kBad);
    }
    std::array<std::uint32_t, 64> record{16};  // as an ID
    const std::tuple<ULONG, ULONG, ULONG, NTSTATUS> lengths[] = {
        {IOCTL_VRK_SCSI_COMMAND, 103, 104, kBad},      {IOCTL_VRK_SCSI_COMMAND, 104, 103, kBad},
        {IOCTL_VRK_SCSI_DEVICE_QUERY, 195, 196, kBad}, {IOCTL_VRK_SCSI_DEVICE_QUERY, 196, 0, kBad},
        {IOCTL_VRK_SCSI_DEVICE_QUERY, 196, 196, kBad}, {IOCTL_VRK_INIT_FLEX, 16, 15, kBad},
        {IOCTL_VRK_INIT_FLEX, 0, 256, kBad},           {0x00222030, 256, 256, STATUS_INVALID_DEVICE_REQUEST}};
    for (const auto& [code, input, output, status] : lengths) {
        IO_STATUS_BLOCK outcome{};
        EXPECT_EQ(kernel_->DeviceControl(card_, &outcome, code, record.data(), input, record.data(), output), status);
    }
    NtTokenRelease(token);
    EXPECT_EQ(buffer, Words(kWords, 0xCC));
    EXPECT_EQ(OnDisk(0, kBlocks), Named(0, kBlocks));
    EXPECT_EQ(board_->Count().blocksRead + board_->Count().blocksWritten, 0u);
}

TEST_F(MainBoard, RulesDecideInTheirOrderAndRunOut) {
    Misbehaviour failure;
    failure.firstLba = 100;
    failure.lastLba = 101;
    failure.skip = 1;
    failure.count = 1;
    board_->Misbehave().Add(failure);
    GoWrong(Wrong::kFlipBits, Operation::kRead, 2);
    std::vector<int> right;  // words of each two blocks
    for (const std::uint32_t lba : {98, 99, 101, 101}) {
        Words words(2 * kWords);
        (void)Transfer(VRK_SCSI_READ, lba, 2, words);
        const Words sound = Named(lba, 2);
        right.push_back(
            std::inner_product(words.begin(), words.end(), sound.begin(), 0, std::plus<>(), std::equal_to<>()));
    }
    // The first read touches no failing block, the second is let pass: the second rule decides over them.
    EXPECT_EQ(right, (std::vector{254, 254, 0, 256}));
}

TEST_F(MainBoard, WritesCanBeTornOrFlippedOrLoseTheirPower) {
    constexpr auto kSilent = board::AfterPowerLoss::kSilent;
    constexpr auto kError = board::AfterPowerLoss::kError;
    const struct {
        std::optional<Wrong> what;  // none: power goes at the second write
        board::AfterPowerLoss after;
        NTSTATUS status[3];
        std::uint32_t landed[3];  // blocks, of three writes of four
    } cases[] = {{Wrong::kTear, kSilent, {0, 0, 0}, {2, 4, 4}},
                 {Wrong::kTearFail, kSilent, {STATUS_IO_DEVICE_ERROR, 0, 0}, {2, 4, 4}},
                 {Wrong::kFail, kSilent, {STATUS_IO_DEVICE_ERROR, 0, 0}, {0, 4, 4}},
                 {Wrong::kFlipBits, kSilent, {0, 0, 0}, {0, 4, 4}},
                 {std::nullopt, kSilent, {0, 0, 0}, {4, 3, 0}},
                 {std::nullopt, kError, {0, 0, kGone}, {4, 3, 0}}};
    std::uint32_t lba = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(lba);
        if (c.what) {
            GoWrong(*c.what, Operation::kWrite, 1, 2);
        } else {
            board_->CutPowerAtWrite(2, 3, c.after);
        }
        for (int i = 0; i < 3; ++i, lba += 4) {
            Words words(4 * kWords, 0xAAAA);
            EXPECT_EQ(Transfer(VRK_SCSI_WRITE, lba, 4, words), c.status[i]);
            EXPECT_EQ(words, Words(4 * kWords, 0xAAAA)) << "the caller's buffer is not the board's to change";
            words = OnDisk(lba, 4);
            EXPECT_EQ(std::count(words.begin(), words.end(), 0xAAAA),
                      c.what == Wrong::kFlipBits && i == 0 ? 4 * (kWords - 1) : c.landed[i] * kWords);
        }
        EXPECT_EQ(board_->PowerIsCut(), !c.what);
    }
    Asked claim;  // nothing works without power
    EXPECT_EQ(Ask(claim, IOCTL_VRK_SCSI_ACQUIRE), kGone);
}

TEST_F(MainBoard, WhatWasNotSyncedMayBeLost) {
    board::Disk& disk = *board_->DiskAt(kId);
    disk.KeepUndo(true);
    ASSERT_TRUE(disk.Write(0, 1, Named(8888, 1).data()) && disk.Sync());
    ASSERT_TRUE(disk.Write(0, 40, Named(9000, 40).data()));
    for (std::uint32_t lba = 0; lba < 40; ++lba) {
        ASSERT_TRUE(disk.Write(lba, 1, Named(9999, 1).data()));
    }
    std::mt19937 random(1);
    ASSERT_TRUE(disk.LosePower(random));
    std::uint32_t lost = 0;
    for (std::uint32_t lba = 0; lba < 40; ++lba) {
        const std::uint32_t now = OnDisk(lba, 1)[0];
        EXPECT_TRUE(now == 9999 || now == 9000 + lba || now == (lba == 0 ? 8888 : lba)) << now;
        lost += now != 9999 ? 1 : 0;
    }
    EXPECT_TRUE(lost > 5 && lost < 35) << lost;
}

TEST_F(MainBoard, HeldRequestsAreCarriedOutOrCancelledNeverBoth) {
    Words words = Words(kWords, 9);
    const ULONG token = NtTokenCreate(words.data());
    std::uint32_t lba = 20;
    for (const auto& [how, cancel, cancelled] :
         {std::tuple{Wrong::kHold, false, false}, {Wrong::kHold, true, true}, {Wrong::kHoldDeaf, true, false}}) {
        GoWrong(how, Operation::kWrite);
        Asked asked(VRK_SCSI_WRITE, ++lba, 1, token);
        EXPECT_EQ(Ask(asked), STATUS_PENDING);
        if (cancel) {
            EXPECT_EQ(kernel_->CancelRequest(&asked.outcome), STATUS_SUCCESS);
        }
        EXPECT_EQ(asked.IsOver(), cancelled);
        EXPECT_EQ(board_->HeldCount(), cancelled ? 0u : 1u);
        board_->ReleaseHeld();
        EXPECT_EQ(asked.Await(), cancelled ? STATUS_CANCELLED : STATUS_SUCCESS);
        EXPECT_EQ(OnDisk(lba, 1)[0], cancelled ? lba : 9u);
    }
    // The board's own thread and a cancel run into each other.
    GoWrong(Wrong::kLate, Operation::kRead, 200);
    for (int i = 0; i < 200; ++i) {
        Asked asked(VRK_SCSI_READ, 20, 1, token);
        ASSERT_EQ(Ask(asked), STATUS_PENDING);
        (void)kernel_->CancelRequest(&asked.outcome);
        const NTSTATUS status = asked.Await();
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED);
    }
    NtTokenRelease(token);
}

TEST_F(MainBoard, ThePathHasOneOwnerAndOutlivesNone) {
    nt::Process user("program");
    const nt::Handle opened = OpenCard(user);
    const nt::Handle other = OpenCard(*kernel_);
    Asked first, second, third, fourth, release;
    EXPECT_EQ(Ask(first, IOCTL_VRK_SCSI_ACQUIRE), STATUS_SUCCESS);
    EXPECT_EQ(Ask(*kernel_, other, second, IOCTL_VRK_SCSI_ACQUIRE), STATUS_PENDING);
    EXPECT_EQ(Ask(user, opened, third, IOCTL_VRK_SCSI_ACQUIRE), STATUS_PENDING);
    GoWrong(Wrong::kLate, Operation::kAcquire);
    EXPECT_EQ(Ask(fourth, IOCTL_VRK_SCSI_ACQUIRE), STATUS_PENDING);
    EXPECT_EQ(Ask(user, opened, release, IOCTL_VRK_SCSI_RELEASE), STATUS_INVALID_DEVICE_REQUEST) << "not its claim";
    EXPECT_EQ(kernel_->CancelRequest(&second.outcome), STATUS_SUCCESS);
    EXPECT_EQ(second.Await(), STATUS_CANCELLED);
    EXPECT_FALSE(third.IsOver() || fourth.IsOver());
    GoWrong(Wrong::kFail, Operation::kRelease);
    EXPECT_EQ(Ask(release, IOCTL_VRK_SCSI_RELEASE), STATUS_IO_DEVICE_ERROR) << "failed, and yet let go";
    EXPECT_EQ(third.Await(), STATUS_SUCCESS);
    EXPECT_FALSE(fourth.IsOver());
    user.Exit();  // with the path in its hands
    EXPECT_EQ(fourth.Await(), STATUS_SUCCESS);
    EXPECT_EQ(Ask(release, IOCTL_VRK_SCSI_RELEASE), STATUS_SUCCESS);
    EXPECT_EQ(Ask(release, IOCTL_VRK_SCSI_RELEASE), STATUS_INVALID_DEVICE_REQUEST);
}

}  // namespace
}  // namespace tests
