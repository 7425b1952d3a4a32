// Moving the pieces of a file: what is free afterwards, block for block, where the disk says the pieces are, and that
// the clip still reads; and what keeps a piece where it is.
#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "core/device_ext.h"
#include "nt/kernel.h"
#include "tests/driver/recorder_rig.h"
#include "tests/support/scripted_service.h"

namespace tests {
namespace {

constexpr ULONG kRecord = VRKFS_SEGMENT_FILE_ENTRY;
constexpr ULONG kData = VRKFS_SEGMENT_DATA;
constexpr ULONG kTable = VRKFS_SEGMENT_BODY_TABLE;
constexpr ULONG kAlphaData = VRKFS_SEGMENT_ALPHA_DATA;
constexpr ULONG kAlphaTable = VRKFS_SEGMENT_ALPHA_BODY_TABLE;
constexpr std::int32_t kUntouched = 0x5A5A5A5A;
constexpr std::uint32_t kFrames = 200;  // tables of 4 blocks

using Lbas = std::array<std::uint32_t, VRKFS_SEGMENT_COUNT>;
using Results = std::array<std::int32_t, VRKFS_SEGMENT_COUNT>;

struct MoveAnswer {
    std::string status;
    Results results{};
    std::uint32_t progress = 0;
};

struct Place {
    std::uint32_t start = 0;
    std::uint32_t length = 0;
    bool operator==(const Place&) const = default;
};
using Places = std::array<Place, VRKFS_SEGMENT_COUNT>;

class ControlMove : public RecorderTest {
  protected:
    void SetUp() override {
        StartVolume(2);
        AddType(u"XYZ");
        clip_ = Clip(1, true);
        image_ = BuildImage(clip_, false);
        PutClip(u"a.RZV", clip_);
    }

    // Fields of one to four sectors: 500 blocks on each disk, more than one chunk.
    static ClipSpec Clip(std::uint64_t seed, bool alpha) {
        std::mt19937 random(static_cast<unsigned>(seed));
        ClipSpec clip = RandomClip(random, kFrames, alpha, false, 1, 4);
        clip.seed = seed;
        return clip;
    }

    host::ScopedHandle Alone(const std::u16string& name, std::uint32_t shareAccess = 0, bool writing = false) {
        const host::OpenResult opened = User().Create({.path = u"P:\\RZV\\VOL\\F\\" + name,
                                                       .access = writing ? kReadWrite : host::access::kReadData,
                                                       .shareAccess = shareAccess});
        EXPECT_EQ(host::StatusName(opened.status), kOk);
        return {User(), opened.handle};
    }
    MoveAnswer Move(host::Handle file, const Lbas& to, std::optional<std::uint32_t> counterName = {}) {
        host::Process::NamedMemory counter;
        EXPECT_TRUE(User().AllocateMemory(4, counter).Ok());
        VrkFsSegmentMove request{file, {}, counterName.value_or(counter.name), {}, 0xDEADBEEF, 0xDEADBEEF};
        std::ranges::copy(to, request.NewLba);
        std::ranges::fill(request.Results, kUntouched);
        const host::ScopedHandle control(User(), OpenControl().handle);  // nobody waits for another's move
        MoveAnswer answer;
        answer.status = SendTo(control.Get(), IOCTL_VRKFS_MOVE_FILE_SEGMENTS, request);
        std::ranges::copy(request.Results, answer.results.begin());
        std::memcpy(&answer.progress, counter.bytes.data(), 4);
        User().FreeMemory(counter);
        EXPECT_TRUE(answer.status != kOk || (request.ScratchFile | request.ScratchProgress) == 0)
            << "kernel values in the caller's buffer";
        return answer;
    }
    MoveAnswer MoveOne(host::Handle file, ULONG kind, std::uint32_t to) {
        Lbas lbas{};
        lbas[kind] = to;
        return Move(file, lbas);
    }

    // Where the disk says the pieces are.
    Places OnDisk(const std::u16string& name) {
        const DirEntry folder = RawRecord<DirEntry>(kLastLba - 4607);
        EXPECT_EQ(folder.Checksum, VrkFsHwCalcFolderChecksum(&folder));
        const FileEntry entry = RawFile(name);
        EXPECT_EQ(entry.Checksum, VrkFsHwCalcFileChecksum(&entry));
        const auto* lba = std::ranges::find_if(
            folder.FileTable, [&](ULONG at) { return at != 0 && RawRecord<FileEntry>(at).Name == name; });
        return {{{*lba, 2},
                 {entry.DataStartLba, entry.DataBlockCount},
                 {entry.VideoBodyTableLba, entry.VideoBodyTableBlockCount},
                 {entry.AlphaDataStartLba, entry.AlphaDataBlockCount},
                 {entry.AlphaBodyTableLba, entry.AlphaBodyTableBlockCount}}};
    }
    // Which blocks are free, in either region.
    static std::vector<bool> FreeMap() {
        const AllocObject& alloc = Volume()->Allocator;
        std::vector<bool> blocks(kDiskBlocks);
        std::uint64_t count = 0;
        for (const AllocSegmentList* list : {&alloc.Lower, &alloc.Upper}) {
            for (const AllocSegment* at = list->FirstByPosition; at != nullptr; at = at->NextByPosition) {
                std::fill_n(blocks.begin() + at->Start, at->Count, true);
                count += at->Count;
            }
        }
        EXPECT_EQ(count, VrkFsVolAllocGetFreeBlocks(&Volume()->Allocator));
        return blocks;
    }
    static std::vector<bool> Exchanged(std::vector<bool> blocks, const Place& from, std::uint32_t to) {
        std::fill_n(blocks.begin() + from.start, from.length, true);
        std::fill_n(blocks.begin() + to, from.length, false);
        return blocks;
    }
    bool ReadsBack(const host::ScopedHandle& handle, const Bytes& image) {
        return ReadRange(handle, 0, image.size() + 100) == image;
    }

    ClipSpec clip_;
    Bytes image_;
    std::u16string name_;  // of the table
};

TEST_F(ControlMove, EachPieceGoesWhereItIsTold) {
    host::ScopedHandle file = Alone(u"a.RZV");
    ASSERT_TRUE(ReadsBack(file, image_));
    const std::uint32_t high = Volume()->Allocator.Boundary;
    const struct {
        ULONG kind;
        std::uint32_t first;     // a place apart
        std::vector<int> steps;  // from there on, by blocks
    } cases[] = {
        {kRecord, high - 100, {1, -1, 2, -2, 40, -1}}, {kData, 4000, {40, -100, -40, 1, -1, 300, -300, 2000}},
        {kTable, high - 200, {1, -1, 3, -3, 4, -4}},   {kAlphaData, 10000, {100, -40, 700, -1}},
        {kAlphaTable, high - 300, {2, -1, 10}},
    };
    for (const auto& test : cases) {
        std::uint32_t to = test.first;
        std::vector<int> steps = test.steps;
        steps.insert(steps.begin(), 0);
        for (const int step : steps) {
            to += step;
            const Places before = OnDisk(u"a.RZV");
            SCOPED_TRACE(testing::Message() << "segment " << test.kind << " from " << before[test.kind].start << " + "
                                            << before[test.kind].length << " to " << to);
            const std::vector<bool> wanted = Exchanged(FreeMap(), before[test.kind], to);
            const MoveAnswer answer = MoveOne(file.Get(), test.kind, to);
            ASSERT_EQ(answer.status, kOk);
            Results results;
            results.fill(kUntouched);
            results[test.kind] = VRKFS_RESULT_DONE;
            ASSERT_EQ(answer.results, results);
            EXPECT_EQ(answer.progress, before[test.kind].length);
            ASSERT_TRUE(FreeMap() == wanted);
            Places after = before;
            after[test.kind].start = to;
            ASSERT_EQ(OnDisk(u"a.RZV"), after);
            ASSERT_TRUE(ReadsBack(file, image_)) << "through the handle that was open all the time";
        }
    }
    // All at once, and the mount finds what the allocator says.
    const Places now = OnDisk(u"a.RZV");
    const Lbas all = {now[0].start + 10, now[1].start + 10, now[2].start + 10, now[3].start + 10, now[4].start + 10};
    const MoveAnswer answer = Move(file.Get(), all);
    EXPECT_EQ(answer.results, Results{});
    EXPECT_EQ(answer.progress, 2 + now[1].length + now[2].length + now[3].length + now[4].length);
    EXPECT_EQ(Move(file.Get(), {}).status, kOk);
    const std::vector<bool> free = FreeMap();
    file.Reset();
    CloseControl();
    Restart();
    EXPECT_TRUE(FreeMap() == free);
    ExpectImage(u"a.RZV", clip_);
}

TEST_F(ControlMove, PiecesThatCannotMoveStay) {
    ClipSpec plainVideo = Clip(2, false);
    PutClip(u"b.RZV", plainVideo);
    ASSERT_TRUE(User().Close(OpenClip(u"plain", host::Disposition::kCreate).Release()).Ok());
    const Places a = OnDisk(u"a.RZV");
    const Places b = OnDisk(u"b.RZV");
    const Places plain = OnDisk(u"plain");
    const std::uint32_t high = Volume()->Allocator.Boundary;
    const std::uint32_t last = Volume()->LastDataLba;
    const std::uint32_t length = b[kData].length;
    constexpr std::int32_t kStay = kUntouched;
    const struct {
        const char* what;
        const char16_t* file;
        Lbas to;
        Results results;
    } cases[] = {
        {"where it is", u"b.RZV", {b[0].start, b[1].start, b[2].start, 0, 0}, {0, 0, 0, kStay, kStay}},
        {"onto another file's data", u"b.RZV", {0, a[kData].start, 0, 0, 0}, {kStay, -1, kStay, kStay, kStay}},
        {"half onto it", u"b.RZV", {0, a[kAlphaData].start + 3, 0, 0, 0}, {kStay, -1, kStay, kStay, kStay}},
        {"onto records", u"b.RZV", {plain[0].start, high - length + 1, a[2].start, 0, 0}, {-1, -1, -1, kStay, kStay}},
        {"outside the data area", u"b.RZV", {1023, 1, last, 0, 0}, {-1, -1, -1, kStay, kStay}},
        {"beyond the end", u"b.RZV", {last, last - length + 2, 0xFFFFFFFF, 0, 0}, {-1, -1, -1, kStay, kStay}},
        {"wrapping", u"b.RZV", {0xFFFFFFFF, 0xFFFFFFFF - length / 2, 0xFFFFFFFE, 0, 0}, {-1, -1, -1, kStay, kStay}},
        {"no alpha", u"b.RZV", {0, 0, 0, 9000, high - 50}, {kStay, kStay, kStay, -2, -2}},
        {"a plain file", u"plain", {0, 9000, high - 50, 9000, high - 50}, {kStay, -2, -2, -2, -2}},
    };
    const std::vector<bool> free = FreeMap();
    for (const auto& test : cases) {
        const host::ScopedHandle file = Alone(test.file);
        Board().ResetCounters();
        const MoveAnswer answer = Move(file.Get(), test.to);
        EXPECT_EQ(answer.status, kOk) << test.what;
        EXPECT_EQ(answer.results, test.results) << test.what;
        EXPECT_EQ(answer.progress, 0u) << test.what;
        EXPECT_EQ(Board().Count().Of(board::Operation::kWrite), 0u) << test.what;
        EXPECT_TRUE(FreeMap() == free) << test.what;
    }
    // A segment that has no place does not keep the others.
    const host::ScopedHandle file = Alone(u"b.RZV");
    EXPECT_EQ(Move(file.Get(), {high - 10, 9000, 0, 9000, a[kTable].start}).results, (Results{0, 0, kStay, -2, -2}));
    const host::ScopedHandle empty = Alone(u"plain");
    EXPECT_EQ(Move(empty.Get(), {high - 20, 9000, 0, 0, 0}).results, (Results{0, -2, kStay, kStay, kStay}));
}

TEST_F(ControlMove, OnlyWhoHasTheFileAloneMovesIt) {
    const Places before = OnDisk(u"a.RZV");
    const Lbas to = {0, 9000, 0, 0, 0};
    for (const std::uint32_t share : {1u, 2u, 4u, 7u}) {
        EXPECT_EQ(Move(Alone(u"a.RZV", share).Get(), to).status, "STATUS_ACCESS_DENIED") << share;
    }
    for (const char16_t* path : {u"", u"\\RZV\\VOL", u"\\RZV\\VOL\\F", u"\\RZV\\VOL\\F\\___Port0___"}) {
        EXPECT_EQ(Move(host::ScopedHandle(User(), Open(path).handle).Get(), to).status, "STATUS_UNSUCCESSFUL");
    }
    EXPECT_EQ(Move(host::ScopedHandle(User(), OpenControl().handle).Get(), to).status, "STATUS_UNSUCCESSFUL");
    for (const std::uint32_t bad : {0u, 0x7FFCu, 0xFFFFFFFFu}) {
        EXPECT_EQ(Move(bad, to).status, bad == 0xFFFFFFFF ? "STATUS_UNSUCCESSFUL" : "STATUS_INVALID_HANDLE") << bad;
    }
    const host::ScopedHandle file = Alone(u"a.RZV");
    {
        // Sharing is kept per path: this one did not ask it.
        const host::ScopedHandle other = OpenClip(u"a.RZV", host::Disposition::kOpen, u"XYZ");
        EXPECT_EQ(Move(file.Get(), to).status, "STATUS_ACCESS_DENIED");
    }
    // Counters that are not the caller's memory.
    const std::unique_ptr<host::Process> stranger = Machine().NewProcess();
    host::Process::NamedMemory foreign;
    host::Process::NamedMemory released;
    ASSERT_TRUE(stranger->AllocateMemory(4, foreign).Ok());
    ASSERT_TRUE(User().AllocateMemory(4, released).Ok());
    User().FreeMemory(released);
    for (const std::uint32_t name : {foreign.name, released.name, 0u, 1u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Move(file.Get(), to, name).status, "STATUS_ACCESS_DENIED") << name;
    }
    host::Process::NamedMemory small;
    ASSERT_TRUE(User().AllocateMemory(3, small).Ok());
    EXPECT_EQ(Move(file.Get(), to, small.name).status, "STATUS_ACCESS_DENIED");
    EXPECT_EQ(OnDisk(u"a.RZV"), before);
    EXPECT_EQ(Move(file.Get(), to).results[kData], VRKFS_RESULT_DONE);
}

TEST_F(ControlMove, TablesInMemoryFollowOrHoldTheFile) {
    const std::uint32_t high = Volume()->Allocator.Boundary;
    {
        const host::ScopedHandle reader = Alone(u"a.RZV");
        ASSERT_EQ(Reference(reader.Get(), &name_), kOk);
        EXPECT_EQ(Move(reader.Get(), {high - 10, 9000, high - 20, 12000, high - 30}).results, Results{});
        ASSERT_EQ(Reference(reader.Get(), &name_), kOk);
        host::Process::SectionView view;
        ASSERT_TRUE(User().MapSection(name_, false, view).Ok());
        VrkFsPlacedNode node{};
        std::memcpy(&node, view.bytes.data(), sizeof(node));
        EXPECT_EQ(node.Lba, 9000u);
        User().UnmapSection(view);
    }
    const host::ScopedHandle writer = Alone(u"a.RZV", 0, true);
    ASSERT_EQ(Reference(writer.Get(), &name_), kOk);
    const std::vector<bool> free = FreeMap();
    EXPECT_EQ(Move(writer.Get(), {0, 4000, high - 40, 6000, high - 50}).results, (Results{kUntouched, -3, -3, -3, -3}));
    EXPECT_EQ(MoveOne(writer.Get(), kData, 1).results[kData], VRKFS_MOVE_NOT_FREE) << "which is seen first";
    EXPECT_TRUE(FreeMap() == free);
    EXPECT_EQ(MoveOne(writer.Get(), kRecord, high - 60).results[kRecord], VRKFS_RESULT_DONE);
    ASSERT_EQ(Dereference(writer.Get()), kOk);
    EXPECT_EQ(Move(writer.Get(), {0, 4000, high - 40, 6000, high - 50}).results, (Results{kUntouched, 0, 0, 0, 0}));
    EXPECT_TRUE(ReadsBack(writer, image_));
}

// Somebody else's record names the same blocks: they are neither written over nor given back.
TEST_F(ControlMove, DoubtfulBlocksStayWhereTheyAre) {
    PutClip(u"b.RZV", Clip(2, false));
    const Places a = OnDisk(u"a.RZV");
    const Places b = OnDisk(u"b.RZV");
    FileEntry entry = RawFile(u"b.RZV");
    entry.DataStartLba = a[kData].start + 5;
    entry.Checksum = VrkFsHwCalcFileChecksum(&entry);
    ASSERT_TRUE(Board().DiskAt(ids_[0])->Write(b[kRecord].start, 2, &entry));
    Restart();
    const Bytes first = RawBlocks(0, a[kData].start, a[kData].length);
    const Bytes second = RawBlocks(1, a[kData].start, a[kData].length);
    const std::vector<bool> free = FreeMap();
    const host::ScopedHandle file = Alone(u"b.RZV");
    for (const std::uint32_t to : {9000u, a[kData].start + 4, entry.DataStartLba + 1}) {
        EXPECT_LT(MoveOne(file.Get(), kData, to).results[kData], 0) << to;
    }
    EXPECT_TRUE(FreeMap() == free);
    EXPECT_TRUE(RawBlocks(0, a[kData].start, a[kData].length) == first);
    EXPECT_TRUE(RawBlocks(1, a[kData].start, a[kData].length) == second);
}

TEST_F(ControlMove, ACallerThatGoesAwayDoesNoHarm) {
    const Places before = OnDisk(u"a.RZV");
    auto caller = Machine().NewProcess();
    VrkFsSegmentMove move{};
    move.Handle = caller->Create({.path = u"P:\\RZV\\VOL\\F\\a.RZV", .shareAccess = 0}).handle;
    const host::Handle control = caller->Create({.path = u"VrkFsDevice0", .overlapped = true}).handle;
    host::Process::NamedMemory counter;
    ASSERT_TRUE(caller->AllocateMemory(4, counter).Ok());
    move.NewLba[kData] = before[kData].start + 10000;
    move.ProgressAddress = counter.name;
    Board().Misbehave().Add({.what = board::Wrong::kHold, .operation = board::Operation::kWrite, .count = 2});
    const PostedPtr moving =
        ControlAside(*caller, control, IOCTL_VRKFS_MOVE_FILE_SEGMENTS, BytesOf(move), Bytes(sizeof(move)));
    EXPECT_FALSE(moving->IsOver());
    caller->FreeMemory(counter);
    const auto leaving = std::async(std::launch::async, [&] { caller.reset(); });
    while (leaving.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
        Board().ReleaseHeld();
    }
    EXPECT_TRUE(moving->IsOver());
    EXPECT_EQ(OnDisk(u"a.RZV")[kData].start, move.NewLba[kData]);
    ExpectImage(u"a.RZV", clip_);
}

// Two files of one folder, and somebody who lists it: the folder's table is changed by one at a time.
TEST_F(ControlMove, RecordsOfOneFolderMoveAtOnce) {
    PutClip(u"b.RZV", Clip(2, false));
    const std::uint32_t high = Volume()->Allocator.Boundary;
    std::atomic<bool> over = false;
    const auto wander = [&](const char16_t* name, std::uint32_t to) {
        const host::ScopedHandle file = Alone(name);
        for (std::uint32_t round = 0; round < 60; ++round) {
            EXPECT_EQ(MoveOne(file.Get(), kRecord, to + round % 7).results[kRecord], VRKFS_RESULT_DONE);
        }
    };
    std::thread lister([&] {
        const host::ScopedHandle folder(User(), Open(u"\\RZV\\VOL\\F").handle);
        while (!over) {
            std::vector<host::DirectoryEntry> entries;
            EXPECT_TRUE(host::ListDirectory(User(), folder.Get(), entries).Ok());
            EXPECT_EQ(std::count_if(entries.begin(), entries.end(), [](const auto& e) { return e.size > 1000; }), 2);
        }
    });
    std::thread other([&] { wander(u"b.RZV", high - 100); });
    wander(u"a.RZV", high - 200);
    other.join();
    over = true;
    lister.join();
    const std::vector<bool> free = FreeMap();
    CloseControl();
    Restart();
    EXPECT_TRUE(FreeMap() == free);
    ExpectImage(u"a.RZV", clip_);
    ExpectImage(u"b.RZV", Clip(2, false));
}

}  // namespace
}  // namespace tests
