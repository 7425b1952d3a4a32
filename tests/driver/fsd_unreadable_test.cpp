// Records that cannot be read are shown under a stand-in's name; what is done through it must not reach the real ones.
#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

class FsdUnreadable : public FsdTest {
  protected:
    // Mounts the volumes again while the disk refuses to read the blocks.
    void RemountWithout(ULONG lba, ULONG blocks) {
        Board().Misbehave().Add(
            {.operation = board::Operation::kRead, .scsiId = 0, .firstLba = lba, .lastLba = lba + blocks - 1});
        EXPECT_EQ(Locked([] { return VrkFsHwFlushVolumeCache(&Card()->Hw, Vcb()); }), STATUS_SUCCESS);
        EXPECT_EQ(Locked([] { return VrkFsHwRebuildVolumeCache(&Card()->Hw, Vcb()); }), STATUS_SUCCESS);
    }
    ULONG RecordLba() {
        const host::ScopedHandle handle = Hold(kTake1);
        return Find(kTake1)->Common->RecordLba;
    }
};

TEST_F(FsdUnreadable, AFileKeepsItsRecordWhateverIsDoneToItsStandIn) {
    RemountWithout(RecordLba(), 2);
    const std::vector<std::u16string> names = List(u"\\RZV\\VolA\\Clips");
    ASSERT_EQ(names.size(), 1u);
    ASSERT_TRUE(names[0].starts_with(u"BAD_FILE_"));
    const std::u16string standIn = u"\\RZV\\VolA\\Clips\\" + names[0];

    host::ScopedHandle handle = Hold(standIn, kReadWriteDelete);
    std::byte data[16]{};
    EXPECT_FALSE(User().Write(handle.Get(), data, 0).status.Ok());
    handle.Reset();  // a writer's cleanup writes records back
    handle = Hold(standIn, kReadWriteDelete);

    // The disk reads again: the real name leads to the real record, while the stand-in is still open.
    Board().Misbehave().Clear();
    host::ScopedHandle real = Hold(kTake1, kReadWrite);
    handle.Reset();
    real.Reset();
    ExpectIdle("when both are closed");
    RestartWithTypes();
    EXPECT_EQ(List(u"\\RZV\\VolA\\Clips"), std::vector<std::u16string>{u"Take1"});
}

TEST_F(FsdUnreadable, AStandInThatIsDeletedTakesOnlyTheFile) {
    Make(u"\\RZV\\VolA\\Clips\\Take2");
    const ULONGLONG freeBefore = FreeBlocks();
    RemountWithout(RecordLba(), 2);
    const std::vector<std::u16string> names = List(u"\\RZV\\VolA\\Clips");
    ASSERT_EQ(names.size(), 2u);
    host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\" + names[0], host::access::kDelete);
    EXPECT_EQ(SetDelete(handle, true), kOk);
    handle.Reset();
    Board().Misbehave().Clear();
    EXPECT_EQ(List(u"\\RZV\\VolA\\Clips"), std::vector<std::u16string>{u"Take2"});
    ExpectIdle("after the delete");
    RestartWithTypes();
    EXPECT_EQ(List(u"\\RZV\\VolA\\Clips"), std::vector<std::u16string>{u"Take2"});
    EXPECT_EQ(FreeBlocks(), freeBefore + 2);
}

TEST_F(FsdUnreadable, AFolderKeepsWhatItHolds) {
    RemountWithout(Volume()->FirstDirLba, 18);
    const std::vector<std::u16string> names = List(u"\\RZV\\VolA");
    ASSERT_EQ(names.size(), 1u);
    ASSERT_TRUE(names[0].starts_with(u"BAD_DIR_"));
    const std::u16string standIn = u"\\RZV\\VolA\\" + names[0];
    const host::ScopedHandle handle = Hold(standIn, host::access::kReadData | host::access::kDelete);
    EXPECT_EQ(SetDelete(handle, true), "STATUS_CANNOT_DELETE");
    const host::OpenResult inside = Open(standIn + u"\\New", host::Disposition::kCreate, kReadWrite);
    EXPECT_EQ(host::StatusName(inside.status), "STATUS_UNSUCCESSFUL");
    Board().Misbehave().Clear();
    EXPECT_EQ(TryOpen(kTake1), kOk);
}

}  // namespace
}  // namespace tests
