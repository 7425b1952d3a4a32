// Deleting: when it happens, what it leaves alone, and what other paths to the object then see.
#include <algorithm>

#include "tests/driver/fsd_fixture.h"
#include "volume/entries.h"

namespace tests {
namespace {

using host::Disposition;
constexpr char16_t kTake2[] = u"\\RZV\\VolA\\Clips\\Take2";
constexpr char16_t kEmpty[] = u"\\RZV\\VolA\\Empty";

class FsdDelete : public FsdTest {
  protected:
    // As a recording that reserved its space and never used it.
    static void Reserve(FCB* fcb, bool alpha) {
        Locked([&] {
            FileEntry* entry = fcb->Common->FileEntry;
            DualAllocation dual{};
            ASSERT_EQ(VrkFsVolAllocAllocateDualSpace(&Volume()->Allocator, 40, 3, &dual), STATUS_SUCCESS);
            entry->Kind = kFileKindMedia;
            (alpha ? entry->AlphaDataStartLba : entry->DataStartLba) = dual.LowerStart;
            (alpha ? entry->AlphaDataBlockCount : entry->DataBlockCount) = dual.LowerCount;
            (alpha ? entry->AlphaBodyTableLba : entry->VideoBodyTableLba) = dual.UpperStart;
            (alpha ? entry->AlphaBodyTableBlockCount : entry->VideoBodyTableBlockCount) = dual.UpperCount;
            entry->FrameCount = alpha ? entry->FrameCount : 5;
            entry->Flags |= alpha ? kFileAlphaReserved | kFileHasAlpha : kFileVideoReserved;
        });
    }
    // Space beside what was reserved last, so that neither merges with free space when it is given back.
    static DualAllocation TakeSome() {
        DualAllocation dual{};
        Locked([&] { EXPECT_EQ(VrkFsVolAllocAllocateDualSpace(&Volume()->Allocator, 7, 2, &dual), STATUS_SUCCESS); });
        return dual;
    }
    static void GiveBack(const DualAllocation& dual) {
        Locked([&] {
            AllocObject* allocator = &Volume()->Allocator;
            EXPECT_EQ(VrkFsVolAllocReleaseSpace(allocator, dual.LowerStart, dual.LowerCount), STATUS_SUCCESS);
            EXPECT_EQ(VrkFsVolAllocReleaseSpace(allocator, dual.UpperStart, dual.UpperCount), STATUS_SUCCESS);
        });
    }
    static void ArmNoMemory() {
        nt::ArmFaults({.failAt = 1, .forEver = true, .driver = pVrkFsGlobalData->DriverObject});
    }
};

TEST_F(FsdDelete, HappensWhenTheLastHandleOfThePathGoes) {
    const ULONGLONG freeBefore = FreeBlocks();
    Make(kTake2);
    host::ScopedHandle first = Hold(kTake2, kReadWriteDelete);
    host::ScopedHandle second = Hold(kTake2, host::access::kDelete);
    EXPECT_EQ(SetDelete(first, true), kOk);
    EXPECT_EQ(TryOpen(kTake2), kDeletePending);
    EXPECT_EQ(SetDelete(second, false), kOk);
    EXPECT_EQ(TryOpen(kTake2), kOk);
    EXPECT_EQ(SetDelete(second, true), kOk);
    first.Reset();
    EXPECT_EQ(TryOpen(kTake2), kDeletePending);
    second.Reset();
    EXPECT_EQ(TryOpen(kTake2), kNotFound);
    EXPECT_EQ(FreeBlocks(), freeBefore);
    EXPECT_EQ(Volume()->Allocator.ReservedCount, 0u);
    ExpectIdle("after the delete");
}

TEST_F(FsdDelete, AFolderThatGotAFileMeanwhileStays) {
    Make(kEmpty, host::option::kDirectoryFile);
    host::ScopedHandle folder = Hold(kEmpty, host::access::kDelete);
    EXPECT_EQ(SetDelete(folder, true), kOk);
    Make(u"\\XYZ\\VolA\\Empty\\Late");  // through another path, which is not marked
    folder.Reset();
    EXPECT_EQ(SetDelete(Hold(u"\\RZV\\VolA\\Empty\\Late", host::access::kDelete), true), kOk);
    ExpectIdle("at the end");
}

TEST_F(FsdDelete, OfOnePathIsSeenByTheOther) {
    host::ScopedHandle deleter = Hold(kTake1, host::access::kDelete);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Clips\\Take1", kReadWriteDelete);
    FCB* fcb = Find(kTake1);
    FCB* otherFcb = Find(u"\\XYZ\\VolA\\Clips\\Take1");
    ASSERT_TRUE(fcb != nullptr && otherFcb != nullptr);
    ASSERT_EQ(fcb->Common, otherFcb->Common);
    EXPECT_EQ(fcb->Common->ReferenceCount, 2u);
    EXPECT_EQ(fcb->Parent->Parent->Common->ReferenceCount, 2u);
    const ULONG recordLba = fcb->Common->RecordLba;

    EXPECT_EQ(SetDelete(deleter, true), kOk);
    deleter.Reset();
    EXPECT_EQ(TryOpen(u"\\XYZ\\VolA\\Clips\\Take1"), kDeletePending);
    EXPECT_EQ(TryOpen(kTake1), kNotFound);
    std::byte data[512]{};
    EXPECT_EQ(host::StatusName(User().Write(other.Get(), data, 0).status), "STATUS_FILE_DELETED");
    EXPECT_EQ(host::StatusName(User().Read(other.Get(), data, 0).status), "STATUS_FILE_DELETED");
    EXPECT_EQ(SetDelete(other, true), "STATUS_FILE_DELETED");

    // A new file takes the deleted one's slot and blocks. The old handle, which could write, must not reach it.
    host::ScopedHandle fresh = Hold(kTake1, kReadWrite, Disposition::kCreate);
    FCB* freshFcb = Find(kTake1);
    ASSERT_NE(freshFcb, nullptr);
    EXPECT_NE(freshFcb->Common, otherFcb->Common);
    EXPECT_EQ(freshFcb->Common->RecordLba, recordLba);
    const ULONGLONG created = freshFcb->Common->FileEntry->CreationTime;
    fresh.Reset();
    other.Reset();
    ExpectIdle("when all handles are gone");

    RestartWithTypes();
    const host::ScopedHandle again = Hold(kTake1);
    EXPECT_EQ(Find(kTake1)->Common->FileEntry->CreationTime, created);
}

TEST_F(FsdDelete, OfOneFolderPathIsSeenByTheOther) {
    Make(kEmpty, host::option::kDirectoryFile);
    host::ScopedHandle deleter = Hold(kEmpty, host::access::kDelete);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Empty");
    EXPECT_EQ(SetDelete(deleter, true), kOk);
    deleter.Reset();
    EXPECT_EQ(host::StatusName(Open(u"\\XYZ\\VolA\\Empty\\File", Disposition::kCreate).status), kDeletePending);
    Make(u"\\RZV\\VolA\\Next", host::option::kDirectoryFile);  // takes the slot
    const host::OpenRequest request{.path = u"File", .disposition = Disposition::kCreate, .root = other.Get()};
    EXPECT_EQ(host::StatusName(User().Create(request).status), kDeletePending);
    other.Reset();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Next"), kOk);
    ExpectIdle("at the end");
}

TEST_F(FsdDelete, NeedsNoMemoryOnceItIsPending) {
    const ULONGLONG freeBefore = FreeBlocks();
    std::vector<DualAllocation> between;
    Make(kTake2);
    host::ScopedHandle handle = Hold(kTake2, kReadWriteDelete);
    for (const bool alpha : {false, true}) {  // ranges that each become a segment of their own
        Reserve(Find(kTake2), alpha);
        between.push_back(TakeSome());
    }
    EXPECT_EQ(SetDelete(handle, true), kOk);
    ArmNoMemory();
    handle.Reset();
    nt::DisarmFaults();
    EXPECT_EQ(TryOpen(kTake2), kNotFound);
    std::ranges::for_each(between, GiveBack);
    EXPECT_EQ(FreeBlocks(), freeBefore);
    EXPECT_EQ(Volume()->Allocator.ReservedCount, 0u);
    ExpectIdle("at the end");
}

// ---- Cleanup of handles that could write ----

class FsdSettle : public FsdDelete {
  protected:
    void ExpectPlainOnDisk() {
        RestartWithTypes();
        const host::ScopedHandle handle = Hold(kTake1);
        const FileEntry* entry = Find(kTake1)->Common->FileEntry;
        EXPECT_EQ(entry->Kind, kFileKindPlain);
        EXPECT_EQ(entry->FrameCount | entry->Flags, 0u);
        EXPECT_EQ(entry->DataStartLba | entry->DataBlockCount | entry->VideoBodyTableLba |
                      entry->VideoBodyTableBlockCount | entry->AlphaDataStartLba | entry->AlphaDataBlockCount |
                      entry->AlphaBodyTableLba | entry->AlphaBodyTableBlockCount,
                  0u);
    }
};

TEST_F(FsdSettle, UnusedSpaceGoesBackWithTheLastHandleOfAnyPath) {
    const ULONGLONG freeBefore = FreeBlocks();
    host::ScopedHandle first = Hold(kTake1, kReadWrite);
    host::ScopedHandle second = Hold(kTake1, kReadWrite);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Clips\\Take1", kReadWrite);
    Reserve(Find(kTake1), false);
    Reserve(Find(kTake1), true);
    EXPECT_EQ(FreeBlocks(), freeBefore - 86);
    first.Reset();
    EXPECT_EQ(FreeBlocks(), freeBefore - 86);
    second.Reset();  // the last of its path, but a recording may go on through the other
    EXPECT_EQ(FreeBlocks(), freeBefore - 86);
    other.Reset();
    EXPECT_EQ(FreeBlocks(), freeBefore);
    ExpectPlainOnDisk();
    EXPECT_EQ(FreeBlocks(), freeBefore);
}

TEST_F(FsdSettle, SpaceStaysReservedUntilItCanBeGivenBack) {
    const ULONGLONG freeBefore = FreeBlocks();
    host::ScopedHandle writer = Hold(kTake1, kReadWrite);
    host::ScopedHandle second = Hold(kTake1, kReadWrite);
    Reserve(Find(kTake1), false);
    const DualAllocation between = TakeSome();  // keeps what is given back from merging with free space
    const ULONGLONG reserved = FreeBlocks();
    second.Reset();  // the record on disk names it now
    EXPECT_EQ(FreeBlocks(), reserved);

    Board().Misbehave().Add({.operation = board::Operation::kWrite});
    writer.Reset();  // the record on disk may still name it
    Board().Misbehave().Clear();
    EXPECT_EQ(FreeBlocks(), reserved);
    ExpectIdle("after the refused write");
    Hold(kTake1).Reset();  // a reader settles nothing
    EXPECT_EQ(FreeBlocks(), reserved);

    writer = Hold(kTake1, kReadWrite);
    ArmNoMemory();
    writer.Reset();
    nt::DisarmFaults();
    EXPECT_EQ(FreeBlocks(), reserved);

    writer = Hold(kTake1, kReadWrite);
    host::ScopedHandle reader = Hold(kTake1);
    writer.Reset();
    reader.Reset();  // not even when it outlives the writer
    EXPECT_EQ(FreeBlocks(), reserved);
    Hold(kTake1, kReadWrite).Reset();
    GiveBack(between);
    EXPECT_EQ(FreeBlocks(), freeBefore);
    EXPECT_EQ(Volume()->Allocator.ReservedCount, 0u);
    ExpectPlainOnDisk();
}

TEST_F(FsdSettle, OnlyWhatTheFileHoldsGoesBack) {
    Make(kTake2);
    const ULONGLONG freeBefore = FreeBlocks();
    // Alpha that was settled goes with the video that was not: a file without frames keeps neither.
    host::ScopedHandle handle = Hold(kTake1, kReadWrite);
    FCB* fcb = Find(kTake1);
    Reserve(fcb, false);
    Reserve(fcb, true);
    fcb->Common->FileEntry->Flags &= ~kFileAlphaReserved;
    handle.Reset();
    EXPECT_EQ(FreeBlocks(), freeBefore);

    // Tables and alpha that a damaged plain file names are another file's.
    host::ScopedHandle other = Hold(kTake2);
    const ULONG otherLba = Find(kTake2)->Common->RecordLba;
    handle = Hold(kTake1, kReadWrite);
    FileEntry* entry = Find(kTake1)->Common->FileEntry;
    entry->VideoBodyTableLba = entry->AlphaDataStartLba = entry->AlphaBodyTableLba = otherLba;
    entry->VideoBodyTableBlockCount = entry->AlphaDataBlockCount = entry->AlphaBodyTableBlockCount = kFileEntryBlocks;
    entry->Flags = kFileVideoReserved | kFileAlphaReserved;
    handle.Reset();
    other.Reset();
    EXPECT_EQ(FreeBlocks(), freeBefore);
    ExpectPlainOnDisk();
}

}  // namespace
}  // namespace tests
