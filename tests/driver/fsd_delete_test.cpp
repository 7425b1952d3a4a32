// Deleting: when it happens, what it leaves alone, and what other paths to the object then see.
#include <algorithm>

#include "tests/driver/fsd_fixture.h"
#include "volume/entries.h"

namespace tests {
namespace {

using host::Disposition;
constexpr const char* kOk = "STATUS_SUCCESS";
constexpr std::uint32_t kReadWriteDelete = kReadWrite | host::access::kDelete;

class FsdDelete : public FsdTest {
  protected:
    // As a recording that reserved its space and never used it.
    static void Reserve(FCB* fcb, bool alpha) {
        Locked([&] {
            FileEntry* entry = fcb->Common->FileEntry;
            DualAllocation dual{};
            ASSERT_EQ(VrkFsVolAllocAllocateDualSpace(&Volume()->Allocator, 40, 3, &dual), STATUS_SUCCESS);
            entry->Kind = kFileKindMedia;
            if (alpha) {
                entry->AlphaDataStartLba = dual.LowerStart;
                entry->AlphaDataBlockCount = dual.LowerCount;
                entry->AlphaBodyTableLba = dual.UpperStart;
                entry->AlphaBodyTableBlockCount = dual.UpperCount;
                entry->Flags |= kFileAlphaReserved | kFileHasAlpha;
            } else {
                entry->DataStartLba = dual.LowerStart;
                entry->DataBlockCount = dual.LowerCount;
                entry->VideoBodyTableLba = dual.UpperStart;
                entry->VideoBodyTableBlockCount = dual.UpperCount;
                entry->FrameCount = 5;
                entry->Flags |= kFileVideoReserved;
            }
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
        nt::FaultPlan plan;
        plan.failAt = 1;
        plan.forEver = true;
        plan.driver = pVrkFsGlobalData->DriverObject;
        nt::ArmFaults(plan);
    }
};

TEST_F(FsdDelete, HappensWhenTheLastHandleOfThePathGoes) {
    const ULONGLONG freeBefore = FreeBlocks();
    Make(u"\\RZV\\VolA\\Clips\\Take2");
    host::ScopedHandle first = Hold(u"\\RZV\\VolA\\Clips\\Take2", kReadWriteDelete);
    host::ScopedHandle second = Hold(u"\\RZV\\VolA\\Clips\\Take2", host::access::kDelete);
    EXPECT_EQ(SetDelete(first, true), kOk);
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take2"), "STATUS_DELETE_PENDING");
    EXPECT_EQ(SetDelete(second, false), kOk);
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take2"), kOk);
    EXPECT_EQ(SetDelete(second, true), kOk);
    first.Reset();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take2"), "STATUS_DELETE_PENDING");
    second.Reset();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take2"), "STATUS_OBJECT_NAME_NOT_FOUND");
    EXPECT_EQ(FreeBlocks(), freeBefore);
    EXPECT_EQ(Volume()->Allocator.ReservedCount, 0u);
    ExpectIdle("after the delete");
}

TEST_F(FsdDelete, AFolderThatGotAFileMeanwhileStays) {
    Make(u"\\RZV\\VolA\\Empty", host::option::kDirectoryFile);
    host::ScopedHandle folder = Hold(u"\\RZV\\VolA\\Empty", host::access::kDelete);
    EXPECT_EQ(SetDelete(folder, true), kOk);
    Make(u"\\XYZ\\VolA\\Empty\\Late");  // through another path, which is not marked
    folder.Reset();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Empty\\Late"), kOk);
    ExpectIdle("at the end");

    const host::ScopedHandle late = Hold(u"\\RZV\\VolA\\Empty\\Late", host::access::kDelete);
    EXPECT_EQ(SetDelete(late, true), kOk);
}

TEST_F(FsdDelete, OfOnePathIsSeenByTheOther) {
    host::ScopedHandle deleter = Hold(u"\\RZV\\VolA\\Clips\\Take1", host::access::kDelete);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Clips\\Take1", kReadWriteDelete);
    FCB* fcb = Find({u"RZV", u"VolA", u"Clips", u"Take1"});
    FCB* otherFcb = Find({u"XYZ", u"VolA", u"Clips", u"Take1"});
    ASSERT_TRUE(fcb != nullptr && otherFcb != nullptr);
    EXPECT_NE(fcb, otherFcb);
    ASSERT_EQ(fcb->Common, otherFcb->Common);
    EXPECT_EQ(fcb->Common->ReferenceCount, 2u);
    EXPECT_EQ(fcb->Parent->Parent->Common->ReferenceCount, 2u);
    const ULONG recordLba = fcb->Common->RecordLba;

    EXPECT_EQ(SetDelete(deleter, true), kOk);
    deleter.Reset();
    EXPECT_EQ(TryOpen(u"\\XYZ\\VolA\\Clips\\Take1"), "STATUS_DELETE_PENDING");
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take1"), "STATUS_OBJECT_NAME_NOT_FOUND");
    std::byte data[512]{};
    EXPECT_EQ(host::StatusName(User().Write(other.Get(), data, 0).status), "STATUS_FILE_DELETED");
    EXPECT_EQ(host::StatusName(User().Read(other.Get(), data, 0).status), "STATUS_FILE_DELETED");
    EXPECT_EQ(SetDelete(other, true), "STATUS_FILE_DELETED");

    // A new file takes the deleted one's slot and blocks. The old handle, which could write, must not reach it.
    host::ScopedHandle fresh(User(), Open(u"\\RZV\\VolA\\Clips\\Take1", Disposition::kCreate, kReadWrite).handle);
    FCB* freshFcb = Find({u"RZV", u"VolA", u"Clips", u"Take1"});
    ASSERT_NE(freshFcb, nullptr);
    EXPECT_NE(freshFcb->Common, otherFcb->Common);
    EXPECT_EQ(freshFcb->Common->RecordLba, recordLba);
    const ULONGLONG created = freshFcb->Common->FileEntry->CreationTime;
    fresh.Reset();
    other.Reset();
    ExpectIdle("when all handles are gone");

    RestartWithTypes();
    const host::ScopedHandle again = Hold(u"\\RZV\\VolA\\Clips\\Take1");
    EXPECT_EQ(Find({u"RZV", u"VolA", u"Clips", u"Take1"})->Common->FileEntry->CreationTime, created);
}

TEST_F(FsdDelete, OfOneFolderPathIsSeenByTheOther) {
    Make(u"\\RZV\\VolA\\Empty", host::option::kDirectoryFile);
    host::ScopedHandle deleter = Hold(u"\\RZV\\VolA\\Empty", host::access::kDelete);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Empty");
    EXPECT_EQ(SetDelete(deleter, true), kOk);
    deleter.Reset();
    EXPECT_EQ(host::StatusName(Open(u"\\XYZ\\VolA\\Empty\\File", Disposition::kCreate).status),
              "STATUS_DELETE_PENDING");
    Make(u"\\RZV\\VolA\\Next", host::option::kDirectoryFile);  // takes the slot
    host::OpenRequest request;
    request.path = u"File";
    request.root = other.Get();
    request.disposition = Disposition::kCreate;
    EXPECT_EQ(host::StatusName(User().Create(request).status), "STATUS_DELETE_PENDING");
    other.Reset();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Next"), kOk);
    ExpectIdle("at the end");
}

TEST_F(FsdDelete, NeedsNoMemoryOnceItIsPending) {
    const ULONGLONG freeBefore = FreeBlocks();
    std::vector<DualAllocation> between;
    Make(u"\\RZV\\VolA\\Clips\\Doomed");
    host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\Doomed", kReadWriteDelete);
    for (const bool alpha : {false, true}) {  // ranges that each become a segment of their own
        Reserve(Find({u"RZV", u"VolA", u"Clips", u"Doomed"}), alpha);
        between.push_back(TakeSome());
    }
    EXPECT_EQ(SetDelete(handle, true), kOk);
    ArmNoMemory();
    handle.Reset();
    nt::DisarmFaults();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Doomed"), "STATUS_OBJECT_NAME_NOT_FOUND");
    std::ranges::for_each(between, GiveBack);
    EXPECT_EQ(FreeBlocks(), freeBefore);
    EXPECT_EQ(Volume()->Allocator.ReservedCount, 0u);
    ExpectIdle("at the end");
}

// ---- Cleanup of handles that could write ----

class FsdSettle : public FsdDelete {
  protected:
    static void ExpectPlain(const FileEntry* entry) {
        EXPECT_EQ(entry->Kind, kFileKindPlain);
        EXPECT_EQ(entry->FrameCount, 0u);
        EXPECT_EQ(entry->Flags, 0u);
        EXPECT_EQ(entry->DataStartLba | entry->DataBlockCount | entry->VideoBodyTableLba |
                      entry->VideoBodyTableBlockCount | entry->AlphaDataStartLba | entry->AlphaDataBlockCount |
                      entry->AlphaBodyTableLba | entry->AlphaBodyTableBlockCount,
                  0u);
    }
    void ExpectPlainOnDisk() {
        RestartWithTypes();
        const host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\Take1");
        ExpectPlain(Find({u"RZV", u"VolA", u"Clips", u"Take1"})->Common->FileEntry);
    }
};

TEST_F(FsdSettle, UnusedSpaceGoesBackWithTheLastHandleOfAnyPath) {
    const ULONGLONG freeBefore = FreeBlocks();
    host::ScopedHandle first = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    host::ScopedHandle second = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Clips\\Take1", kReadWrite);
    Reserve(Find({u"RZV", u"VolA", u"Clips", u"Take1"}), false);
    Reserve(Find({u"RZV", u"VolA", u"Clips", u"Take1"}), true);
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
    host::ScopedHandle writer = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    host::ScopedHandle second = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    Reserve(Find({u"RZV", u"VolA", u"Clips", u"Take1"}), false);
    const DualAllocation between = TakeSome();  // keeps what is given back from merging with free space
    const ULONGLONG reserved = FreeBlocks();
    second.Reset();  // the record on disk names it now
    EXPECT_EQ(FreeBlocks(), reserved);

    board::Misbehaviour rule;
    rule.operation = board::Operation::kWrite;
    Board().Misbehave().Add(rule);
    writer.Reset();  // the record on disk may still name it
    Board().Misbehave().Clear();
    EXPECT_EQ(FreeBlocks(), reserved);
    ExpectIdle("after the refused write");
    Hold(u"\\RZV\\VolA\\Clips\\Take1").Reset();  // a reader settles nothing
    EXPECT_EQ(FreeBlocks(), reserved);

    writer = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    ArmNoMemory();
    writer.Reset();
    nt::DisarmFaults();
    EXPECT_EQ(FreeBlocks(), reserved);

    writer = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    host::ScopedHandle reader = Hold(u"\\RZV\\VolA\\Clips\\Take1");
    writer.Reset();
    EXPECT_EQ(FreeBlocks(), reserved);
    reader.Reset();  // not even when it outlives the writer
    EXPECT_EQ(FreeBlocks(), reserved);
    Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite).Reset();
    GiveBack(between);
    EXPECT_EQ(FreeBlocks(), freeBefore);
    EXPECT_EQ(Volume()->Allocator.ReservedCount, 0u);
    ExpectPlainOnDisk();
}

TEST_F(FsdSettle, OnlyWhatTheFileHoldsGoesBack) {
    Make(u"\\RZV\\VolA\\Clips\\Take2");
    const ULONGLONG freeBefore = FreeBlocks();
    // Alpha that was settled goes with the video that was not: a file without frames keeps neither.
    host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    FCB* fcb = Find({u"RZV", u"VolA", u"Clips", u"Take1"});
    Reserve(fcb, false);
    Reserve(fcb, true);
    fcb->Common->FileEntry->Flags &= ~kFileAlphaReserved;
    handle.Reset();
    EXPECT_EQ(FreeBlocks(), freeBefore);

    // Tables and alpha that a damaged plain file names are another file's.
    host::ScopedHandle other = Hold(u"\\RZV\\VolA\\Clips\\Take2");
    const ULONG otherLba = Find({u"RZV", u"VolA", u"Clips", u"Take2"})->Common->RecordLba;
    handle = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    FileEntry* entry = Find({u"RZV", u"VolA", u"Clips", u"Take1"})->Common->FileEntry;
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
