// Body tables through the control device: the sections' names, when tables reach the disk, and that the card stands
// still for nobody.
#include <atomic>
#include <barrier>
#include <thread>

#include "fsd/fcb.h"
#include "media/body_table_cache.h"
#include "media/body_table_object.h"
#include "nt/kernel.h"
#include "nt/system.h"
#include "tests/driver/recorder_rig.h"
#include "tests/support/scripted_service.h"

namespace tests {
namespace {

constexpr LONGLONG kSecond = 10000000;
constexpr const char* kTooSmall = "STATUS_BUFFER_TOO_SMALL";
constexpr const char* kInvalid = "STATUS_INVALID_PARAMETER";

class ControlBodyTables : public RecorderTest {
  protected:
    static BodyTableCache* Cache() { return &Card()->BodyTableCache; }

    void StartWithClip(bool manualClock = false) {
        StartVolume(1, {.manualClock = manualClock});
        PutClip(u"a.RZV", clip_);
    }
    host::ScopedHandle OpenToRead(const std::u16string& name) {
        return {User(), Open(u"\\RZV\\VOL\\F\\" + name).handle};
    }
    // The first count of the clip's table, as an application changes it and as the disk has it.
    static void Scribble(const host::Process::SectionView& view, std::uint16_t first) {
        std::memcpy(view.bytes.data() + offsetof(VrkFsPlacedNode, Node), &first, 2);
    }
    int OnDisk(const std::u16string& name = u"a.RZV") {
        std::uint16_t first;
        std::memcpy(&first, RawBlocks(0, RawFile(name).VideoBodyTableLba, 1).data(), 2);
        return first;
    }
    void Pass(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            ASSERT_TRUE(nt::ClockAwaitTimedWaits(1));
            nt::ClockAdvance(kSecond);
        }
        ASSERT_TRUE(nt::ClockAwaitTimedWaits(1));
    }
    host::Process::SectionView Map() {
        host::Process::SectionView view;
        EXPECT_EQ(host::StatusName(User().MapSection(name_, true, view)), kOk);
        return view;
    }
    // A handle that may write, and its reference to the table.
    host::ScopedHandle Refer(const std::u16string& clip = u"a.RZV") {
        host::ScopedHandle writer = OpenClip(clip);
        EXPECT_EQ(Reference(writer.Get(), &name_), kOk);
        return writer;
    }
    void WriteBackUnreferenced() {
        const nt::DriverScope driver(pVrkFsGlobalData->DriverObject);
        VrkFsBTFlushUnrefObjects(Cache());
    }

    ClipSpec clip_ = {.frames = 4, .videoFields = {1, 2, 3, 4, 5, 6, 7, 8}, .alphaFields = {}};
    std::u16string name_;  // of the section that the driver told last
};

TEST_F(ControlBodyTables, AFinishedClipsTableIsSharedUnderItsName) {
    StartWithClip();
    const host::ScopedHandle reader = OpenToRead(u"A.rzv");
    struct {
        bool alpha;
        std::size_t bytes;
        const char* answer;
    } const cases[] = {{false, 0, kTooSmall}, {false, 36, kTooSmall}, {false, 37, kTooSmall}, {false, 38, kOk},
                       {false, 4000, kOk},    {true, 400, kTooSmall}, {true, 0, kTooSmall}};
    for (const auto& test : cases) {
        EXPECT_EQ(Reference(reader.Get(), &name_, test.alpha, test.bytes), test.answer) << test.bytes;
        EXPECT_EQ(name_, test.answer == kOk ? u"P:/RZV/VOL/F/A.RZV" : u"?");
    }
    EXPECT_EQ(Cache()->ReferencedCount, 1u);
    auto* object = CONTAINING_RECORD(Cache()->Referenced.Flink, BodyTableObject, Link);
    EXPECT_EQ(object->WriteReferences, 0u) << "nobody can write through these handles";
    {
        const host::ScopedHandle writer = OpenClip(u"a.RZV");
        EXPECT_EQ(Reference(writer.Get(), &name_, false, 36), kTooSmall);
        EXPECT_EQ(object->WriteReferences, 0u);
        EXPECT_EQ(Reference(writer.Get(), &name_), kOk);
        EXPECT_EQ(CreateTable(writer.Get(), 100), kOk) << "it has one";
        EXPECT_EQ(std::pair(object->WriteReferences, object->Frames), std::pair(1u, 4u));
        EXPECT_EQ(Dereference(reader.Get()), kOk);
        EXPECT_EQ(object->WriteReferences, 1u);
    }
    // Every field where it lies on the disk.
    const host::Process::SectionView view = Map();
    EXPECT_EQ(Reference(view.handle, &name_), "STATUS_UNSUCCESSFUL") << "a section is no file";
    std::uint32_t lba = RawFile(u"a.RZV").DataStartLba;
    for (std::uint32_t field = 0; field < 8; ++field) {
        VrkFsPlacedNode node;
        std::memcpy(&node, view.bytes.data() + field * sizeof(node), sizeof(node));
        EXPECT_EQ(std::tuple(node.ScsiId, node.Lba, VrkFsBodyTableNodeSectors(node.Node)),
                  std::tuple(ids_[0], lba, clip_.videoFields[field]));
        lba += clip_.videoFields[field];
    }
    OpenClip(u"plain", host::Disposition::kCreate).Reset();
    EXPECT_EQ(Reference(OpenClip(u"plain").Get(), &name_), "STATUS_INVALID_PARAMETER_4") << "a section is never empty";
    EXPECT_EQ(Cache()->ReferencedCount + Cache()->UnreferencedCount, 1u);
}

TEST_F(ControlBodyTables, TablesStayWithinTheirSectionsAndBlocks) {
    StartWithClip();
    host::ScopedHandle file = OpenClip(u"new.RZV", host::Disposition::kCreate);
    const VrkFsVideoSpace space = Allocate(file.Get(), 2, 10);
    for (const std::uint32_t frames : {0x05555556u, 0x20000000u, 0xFFFFFFFFu}) {  // times 24 or 8 they wrap
        EXPECT_EQ(CreateTable(file.Get(), frames), kInvalid);
    }
    EXPECT_EQ(CreateTable(file.Get(), 128), kOk);
    const std::uint32_t theirs = RawFile(u"a.RZV").VideoBodyTableLba;
    struct {
        std::uint32_t lba;
        std::uint32_t blocks;
        const char* answer;
    } const cases[] = {
        {theirs, 2, kInvalid},
        {0, 0, kInvalid},
        {space.BodyTableLba, 3, kInvalid},
        {space.BodyTableLba, 1, kInvalid},
        {space.BodyTableLba, 0x800001, kInvalid},
        {space.BodyTableLba, 2, kOk},
    };
    for (const auto& test : cases) {
        VrkFsVideoSpace given = space;
        given.BodyTableLba = test.lba;
        given.BodyTableBlocks = test.blocks;
        EXPECT_EQ(AddNodes(file.Get(), given, &name_), test.answer) << test.lba << " " << test.blocks;
    }
    const host::Process::SectionView view = Map();
    EXPECT_EQ(AddNodes(file.Get(), space, &name_, true), kInvalid) << "the file has no alpha";

    // The same name again, larger, while a program still has the old section.
    VrkFsVideoFileUpdate update = Settlement(file.Get(), 2, 10);
    update.VideoBodyTableUsed = update.VideoDataUsed = 0;
    EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), kOk);
    const VrkFsVideoSpace larger = Allocate(file.Get(), 100, 10);
    EXPECT_EQ(CreateTable(file.Get(), 6000), kOk);
    EXPECT_EQ(AddNodes(file.Get(), larger, &name_), "STATUS_OBJECT_NAME_COLLISION");
    User().UnmapSection(view);
    EXPECT_EQ(AddNodes(file.Get(), larger, &name_), kOk);
    const host::Process::SectionView whole = Map();
    EXPECT_GE(whole.bytes.size(), 6000u * 24);

    // What is settled away is not written to any more, even by a table that was shared before.
    std::memset(whole.bytes.data(), 0x5A, whole.bytes.size());
    update = Settlement(file.Get(), 100, 10);
    update.VideoBodyTableUsed = 1;
    update.FrameCount = 60;
    EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), kOk);
    const Bytes freed = RawBlocks(0, larger.BodyTableLba + 1, 99);
    file.Reset();
    EXPECT_EQ(RawBlocks(0, larger.BodyTableLba, 1)[0], std::byte{0x5A});
    EXPECT_TRUE(RawBlocks(0, larger.BodyTableLba + 1, 99) == freed);
    ExpectImage(u"a.RZV", clip_);
}

TEST_F(ControlBodyTables, ACachedTableDoesNotReachBlocksThatWereGivenBack) {
    StartVolume(1);
    clip_.frames = 100;
    clip_.videoFields.assign(200, 1);
    PutClip(u"a.RZV", clip_);
    {
        const host::ScopedHandle writer = Refer();
        std::memset(Map().bytes.data(), 0x5A, 2400);
    }
    ASSERT_EQ(Cache()->UnreferencedCount, 1u);
    const host::ScopedHandle writer = OpenClip(u"a.RZV");
    const VrkFsFileLocation place = Locate(writer.Get());
    const Bytes freed = RawBlocks(0, place.BodyTableLba + 1, 1);
    VrkFsVideoFileUpdate update = Settlement(writer.Get(), 2, place.DataBlocks);
    update.FrameCount = 50;
    update.VideoBodyTableUsed = 1;
    ASSERT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), kOk);
    // The block goes to a new file, whose owner would not like to find the old table in it.
    const host::ScopedHandle other = OpenClip(u"b.RZV", host::Disposition::kCreate);
    const VrkFsVideoSpace space = Allocate(other.Get(), 1, 1);
    ASSERT_EQ(space.BodyTableLba, place.BodyTableLba + 1);
    WriteBackUnreferenced();
    EXPECT_EQ(RawBlocks(0, place.BodyTableLba, 1)[8], std::byte{0x5A});
    EXPECT_TRUE(RawBlocks(0, place.BodyTableLba + 1, 1) == freed);
}

TEST_F(ControlBodyTables, WhatWasWrittenIsNotLostWhenTheClipGetsAlpha) {
    StartWithClip(true);  // nothing becomes due
    for (const bool isNew : {false, true}) {
        host::ScopedHandle writer = Refer();
        const std::uint16_t value = isNew ? 44 : 45;
        Scribble(Map(), value);
        writer.Reset();
        writer = OpenClip(u"a.RZV");
        EXPECT_NE(OnDisk(), value);
        static_cast<void>(Allocate(writer.Get(), 1, 10, VRKFS_SPACE_ALPHA));
        EXPECT_EQ(isNew ? CreateTable(writer.Get(), 4) : Reference(writer.Get(), &name_), kOk);
        EXPECT_EQ(OnDisk(), value);
    }
}

TEST_F(ControlBodyTables, TheOldestOfThirtyThreeGoesAndIsWrittenBack) {
    StartWithClip(true);
    const auto use = [&](const std::u16string& clip) {
        const host::ScopedHandle writer = Refer(clip);
        Scribble(Map(), 50);
    };
    use(u"a.RZV");
    for (std::uint32_t i = 0; i < 32; ++i) {
        EXPECT_EQ(std::pair(OnDisk(), Cache()->UnreferencedCount), std::pair(0, i + 1));
        const std::u16string other = u"b" + std::u16string(1, static_cast<char16_t>(u'A' + i));
        PutClip(other, clip_);
        use(other);
    }
    EXPECT_EQ(std::pair(OnDisk(), Cache()->UnreferencedCount), std::pair(50, 32u));
}

TEST_F(ControlBodyTables, ATableThatIsSharedIsReadAndDoesNotOutliveItsBlocks) {
    StartWithClip();
    const std::uint32_t lba = RawFile(u"a.RZV").VideoBodyTableLba;
    host::ScopedHandle writer = Refer();
    Scribble(Map(), 55);
    std::uint16_t half;
    std::memcpy(&half, ReadRange(OpenToRead(u"a.RZV"), 344, 2).data(), 2);
    EXPECT_EQ(half, 55);
    ClipSpec fresh = clip_;
    fresh.seed = 2;
    const Bytes image = BuildImage(fresh, true);
    ASSERT_TRUE(WriteAt(writer, image, 0, image.size()).status.Ok());
    // What lay in the old table's blocks is the business of whoever gets them now.
    const Bytes before = RawBlocks(0, lba, 1);
    writer.Reset();
    WriteBackUnreferenced();
    EXPECT_TRUE(RawBlocks(0, lba, 1) == before);
    ExpectImage(u"a.RZV", fresh);
}

// ---- Time ----

TEST_F(ControlBodyTables, TablesReachTheDiskAtTheirPace) {
    StartWithClip(true);
    host::ScopedHandle writer = Refer();
    const host::Process::SectionView view = Map();
    std::uint16_t value = 101;
    Scribble(view, value);
    Pass(9);
    EXPECT_EQ(OnDisk(), 0) << "before the 10 s are over";
    Pass(4);
    EXPECT_EQ(OnDisk(), value) << "within 2 s of them";
    Scribble(view, ++value);
    Pass(6);
    EXPECT_EQ(OnDisk(), value - 1);
    Pass(6);
    EXPECT_EQ(OnDisk(), value) << "and again for as long as the reference lasts";
    // Two suspensions, one resumed: held off until the control handle goes.
    ASSERT_EQ(SendNothing(IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND), kOk);
    ASSERT_EQ(SendNothing(IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND), kOk);
    ASSERT_EQ(SendNothing(IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_RESUME), kOk);
    Scribble(view, ++value);
    Pass(30);
    EXPECT_EQ(OnDisk(), value - 1);
    CloseControl();
    EXPECT_EQ(Cache()->SuspendCount, 0u);
    Pass(3);
    EXPECT_EQ(OnDisk(), value);

    // Released without a word: once more, and then never again.
    Scribble(view, ++value);
    writer.Reset();
    EXPECT_EQ(OnDisk(), value - 1);
    Pass(13);
    EXPECT_EQ(OnDisk(), value);
    const auto* object = CONTAINING_RECORD(Cache()->Unreferenced.Flink, BodyTableObject, Link);
    EXPECT_EQ(object->WriteReferences, 0u) << "the program that held it is gone";
    Scribble(view, 7);
    Pass(30);
    EXPECT_EQ(OnDisk(), value);
    // Found again it is written again, by whoever holds a write reference.
    writer = Refer();
    Pass(13);
    EXPECT_EQ(OnDisk(), 7);
}

TEST_F(ControlBodyTables, TheShutdownNoticeWritesBackAndLeavesOpenTablesAlone) {
    StartWithClip(true);
    host::ScopedHandle writer = Refer();
    Scribble(Map(), 99);
    nt::SendShutdown();
    EXPECT_EQ(OnDisk(), 99);
    EXPECT_EQ(Reference(writer.Get(), &name_), kOk);
    writer.Reset();
    EXPECT_EQ(Cache()->UnreferencedCount, 1u);
    CloseControl();
    Stop();  // the thread ends although the clock stands still
}

// ---- Many at once ----

// All threads of the critical queue wait until this goes.
class FullCriticalQueue {
  public:
    FullCriticalQueue() {
        const nt::DriverScope driver(pVrkFsGlobalData->DriverObject);
        for (WORK_QUEUE_ITEM& item : items_) {
            ExInitializeWorkItem(&item, Block, nullptr);
            ExQueueWorkItem(&item, CriticalWorkQueue);
        }
        all_.arrive_and_wait();
    }
    ~FullCriticalQueue() { all_.arrive_and_wait(); }

  private:
    static VOID NTAPI Block(PVOID) {
        all_.arrive_and_wait();
        all_.arrive_and_wait();
    }

    WORK_QUEUE_ITEM items_[4];
    static inline std::barrier<> all_{5};  // these and who fills the queue
};

TEST_F(ControlBodyTables, NothingWaitsForTheCriticalQueue) {
    StartWithClip();
    PutClip(u"b.RZV", clip_);
    PutClip(u"c.RZV", clip_);
    std::vector<host::ScopedHandle> handles;
    for (const char16_t* clip : {u"a.RZV", u"b.RZV", u"c.RZV"}) {
        handles.push_back(Refer(clip));
    }
    host::ScopedHandle late = OpenClip(u"c.RZV");
    const VrkFsBodyTableReference request{late.Get(), 0, {}, 0};
    const host::ScopedHandle control(User(), User().Create({.path = u"VrkFsDevice0", .overlapped = true}).handle);
    PostedPtr posted;
    {
        const FullCriticalQueue full;
        posted = ControlAside(User(), control.Get(), IOCTL_VRKFS_REFERENCE_BODY_TABLE, BytesOf(request), Bytes(400));
        EXPECT_EQ(host::StatusName(host::Rename(User(), handles[0].Get(), u"renamed.RZV")), kOk);
        EXPECT_EQ(host::StatusName(host::SetDeleteOnCleanup(User(), handles[1].Get(), true)), kOk);
        EXPECT_EQ(ReadRange(OpenToRead(u"c.RZV"), 0, 4).size(), 4u);
        handles.clear();
        late.Reset();
        EXPECT_EQ(Format(u"VOL", {ids_[0]}), VRKFS_FORMAT_DEVICE_IN_USE) << "the posted request keeps its file";
        EXPECT_EQ(SendOnly(IOCTL_VRKFS_LOCK_FILE_SYSTEM, VrkFsLockRequest{1}), "STATUS_ACCESS_DENIED");
        EXPECT_FALSE(posted->IsOver());
    }
    EXPECT_EQ(posted->End(), "STATUS_FILE_CLOSED");
    ExpectImage(u"renamed.RZV", clip_);
    const FullCriticalQueue full;
    EXPECT_EQ(SendOnly(IOCTL_VRKFS_LOCK_FILE_SYSTEM, VrkFsLockRequest{1}), kOk);
    EXPECT_EQ(Cache()->ReferencedCount + Cache()->UnreferencedCount, 0u);
    EXPECT_EQ(SendNothing(IOCTL_VRKFS_UNLOCK_FILE_SYSTEM), kOk);
    ExpectImage(u"c.RZV", clip_);
    EXPECT_EQ(Format(u"VOL", {ids_[0]}), VRKFS_RESULT_DONE);
}

// Programs that refer to tables, write into them, read, rename, delete and lock, while the flush thread's time runs.
class ControlStorm : public ControlBodyTables {
  protected:
    static constexpr int kSteps = 200;
    static constexpr std::u16string_view kNames[] = {u"x.RZV", u"y.RZV", u"z.RZV"};

    static host::ScopedHandle OpenAny(host::Process& process, std::u16string_view name, host::Disposition how) {
        return {process, process
                             .Create({.path = u"P:\\RZV\\VOL\\F\\" + std::u16string(name),
                                      .access = kReadWrite | host::access::kDelete,
                                      .disposition = how})
                             .handle};
    }
    // Another thing each time; whatever the others made of the file may refuse it.
    static void Work(host::Process& process, unsigned seed) {
        std::minstd_rand random(seed);
        const host::ScopedHandle control(process, process.Create({.path = u"VrkFsDevice0"}).handle);
        const Bytes image = BuildImage({.frames = 2, .videoFields = {1, 2, 1, 2}, .alphaFields = {}}, true);
        Bytes buffer(2048);
        for (int step = 0; step < kSteps; ++step) {
            const std::u16string_view name = kNames[random() % 3];
            const host::ScopedHandle file = OpenAny(process, name, host::Disposition::kOpenIf);
            const VrkFsLockRequest lock{static_cast<std::uint32_t>(random() % 2)};
            const VrkFsBodyTableReference request{file.Get(), 0, {}, 0};
            const auto send = [&](std::uint32_t code, std::span<const std::byte> in) {
                (void)process.DeviceControl(control.Get(), code, in, buffer);
            };
            switch (random() % 7) {
                case 0:
                    (void)process.Write(file.Get(), image, 0);
                    break;
                case 1:
                    (void)process.Read(file.Get(), buffer, 0);
                    break;
                case 2:
                    (void)host::Rename(process, file.Get(), std::u16string(kNames[random() % 3]));
                    break;
                case 3:
                    (void)host::SetDeleteOnCleanup(process, file.Get(), true);
                    break;
                case 4:
                    send(IOCTL_VRKFS_LOCK_FILE_SYSTEM, BytesOf(lock));
                    send(IOCTL_VRKFS_UNLOCK_FILE_SYSTEM, {});
                    break;
                default:
                    send(IOCTL_VRKFS_REFERENCE_BODY_TABLE, BytesOf(request));
            }
        }
    }
};

TEST_F(ControlStorm, LeavesWholeClipsAndNothingBehind) {
    StartWithClip(true);
    const std::uint64_t before = FreeBlocks();
    std::vector<std::unique_ptr<host::Process>> processes;
    for (int i = 0; i < 3; ++i) {
        processes.push_back(Machine().NewProcess());
    }
    std::atomic<int> running = 3;
    {
        std::vector<std::jthread> threads;
        for (unsigned i = 0; i < 3; ++i) {
            threads.emplace_back([&, i] {
                Work(*processes[i], 31 + i);
                --running;
            });
        }
        while (running != 0) {
            nt::ClockAdvance(kSecond);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    processes.clear();
    EXPECT_EQ(Cache()->ReferencedCount, 0u);
    CloseControl();
    Restart();
    ExpectImage(u"a.RZV", clip_);
    for (const std::u16string_view name : kNames) {
        const host::ScopedHandle file = OpenAny(User(), name, host::Disposition::kOpen);
        if (file) {
            EXPECT_TRUE(host::SetDeleteOnCleanup(User(), file.Get(), true).Ok());
        }
    }
    EXPECT_EQ(FreeBlocks(), before);
}

}  // namespace
}  // namespace tests
