// The tree of open names: walks, full names, renames and moves, locking and dismounting.
#include <set>

#include "fsd/irp_context.h"
#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

constexpr const char* kOk = "STATUS_SUCCESS";

std::u16string Text(const UNICODE_STRING& name) {
    return {name.Buffer, name.Length / sizeof(WCHAR)};
}

class FsdTree : public FsdTest {
  protected:
    // The object's path as the body-table cache knows it, asked for through this FCB.
    static std::u16string ObjectName(FCB* fcb) {
        Locked([&] { EXPECT_EQ(VrkFsFCBCommonSetupFullName(Vcb(), fcb, fcb->Common), STATUS_SUCCESS); });
        return Text(fcb->Common->FullName);
    }
    static NTSTATUS Rename(FCB* fcb, std::u16string_view name) {
        return Locked([&] {
            const UNICODE_STRING counted = Counted(name);
            ResourceGuard common;
            common.Exclusive(fcb->Common->Resource);
            return VrkFsFCBRename(fcb, &counted, FALSE, &Card()->Hw);
        });
    }
    static NTSTATUS Move(FCB* fcb, FCB* folder, std::u16string_view name) {
        return Locked([&] {
            const UNICODE_STRING counted = Counted(name);
            ResourceGuard common;
            common.Exclusive(fcb->Common->Resource);
            return VrkFsFCBMove(folder, fcb, &counted, FALSE, &Card()->Hw);
        });
    }
};

TEST_F(FsdTree, AWalkVisitsEverythingBelowAFolderOnceAndNothingElse) {
    Make(u"\\RZV\\VolA\\Other", host::option::kDirectoryFile);
    std::vector<host::ScopedHandle> handles;
    for (const char16_t* path : {u"\\RZV\\VolA\\Clips\\Take1", u"\\RZV\\VolA\\Clips\\___Port0___",
                                 u"\\RZV\\VolA\\Other\\___Port0___", u"\\RZV\\VolB\\___Port0___", u"\\XYZ\\VolA"}) {
        handles.push_back(Hold(path));
    }
    FCB* volume = Find({u"RZV", u"VolA"});
    std::vector<std::u16string> seen;
    FCB* at = volume;
    while (VrkFsFCBGetNextChild(volume, at, &at)) {
        seen.push_back(Text(at->Name));
    }
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_EQ(std::multiset<std::u16string>(seen.begin(), seen.end()),
              (std::multiset<std::u16string>{u"Clips", u"Take1", u"___Port0___", u"Other", u"___Port0___"}));
    FCB* leaf = Find({u"RZV", u"VolB", u"___Port0___"});
    EXPECT_FALSE(VrkFsFCBGetNextChild(leaf, leaf, &at));
}

TEST_F(FsdTree, FullNamesBeginWithTheTypeFolderAndThoseOfObjectsWithTheBuiltInOne) {
    const host::ScopedHandle handle = Hold(u"\\xyz\\vola\\CLIPS\\take1");
    FCB* fcb = Find({u"XYZ", u"VolA", u"Clips", u"Take1"});
    ASSERT_NE(fcb, nullptr);
    Locked([&] {
        EXPECT_EQ(VrkFsFCBSetupFullName(Vcb(), fcb), STATUS_SUCCESS);
        EXPECT_EQ(VrkFsFCBSetupFullName(Vcb(), Vcb()->RootFcb), STATUS_SUCCESS);
    });
    EXPECT_EQ(Text(fcb->FullName), u"\\XYZ\\VolA\\Clips\\Take1");
    EXPECT_EQ(ObjectName(fcb), u"\\RZV\\VolA\\Clips\\Take1");
    EXPECT_EQ(Text(Vcb()->RootFcb->FullName), u"\\");
    for (const UNICODE_STRING* name : {&fcb->FullName, &fcb->Common->FullName}) {
        EXPECT_EQ(name->Buffer[name->Length / sizeof(WCHAR)], u'\0');
    }
}

TEST_F(FsdTree, RecordsLiveAsLongAsAHandleLeadsToThem) {
    host::ScopedHandle deep = Hold(u"\\RZV\\VolA\\Clips\\Take1");
    host::ScopedHandle folder = Hold(u"\\RZV\\VolA\\Clips");
    EXPECT_EQ(FirstVolume()->OpenCount, 1u);
    deep.Reset();
    EXPECT_EQ(Find({u"RZV", u"VolA", u"Clips", u"Take1"}), nullptr);
    EXPECT_NE(Find({u"RZV", u"VolA", u"Clips"}), nullptr);
    host::ScopedHandle type = Hold(u"\\RZV");
    folder.Reset();
    EXPECT_EQ(Find({u"RZV", u"VolA"}), nullptr);
    EXPECT_EQ(FirstVolume()->OpenCount, 0u);
    EXPECT_NE(Find({u"RZV"}), nullptr);
    type.Reset();
    ExpectIdle("at the end");
}

TEST_F(FsdTree, ARenamedFileIsFoundByItsNewNameOnEveryPath) {
    host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Clips\\Take1", kReadWrite);
    FCB* fcb = Find({u"RZV", u"VolA", u"Clips", u"Take1"});
    FCB* staleFcb = Find({u"XYZ", u"VolA", u"Clips", u"Take1"});
    Locked([&] { EXPECT_EQ(VrkFsFCBSetupFullName(Vcb(), fcb), STATUS_SUCCESS); });
    const struct {
        std::u16string_view name;
        NTSTATUS status;
    } refused[] = {{u"___PORT0___", STATUS_ACCESS_DENIED},
                   {u"a\\b", STATUS_OBJECT_NAME_INVALID},
                   {u"", STATUS_OBJECT_NAME_INVALID},
                   {std::u16string_view(u"a\0b", 3), STATUS_OBJECT_NAME_INVALID}};
    for (const auto& test : refused) {
        EXPECT_EQ(Rename(fcb, test.name), test.status);
    }
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take1"), kOk);

    ASSERT_EQ(Rename(fcb, u"Final"), STATUS_SUCCESS);
    for (const char16_t* type : {u"RZV", u"XYZ"}) {
        const std::u16string folder = std::u16string(u"\\") + type + u"\\VolA\\Clips\\";
        EXPECT_EQ(TryOpen(folder + u"final"), kOk);
        EXPECT_EQ(TryOpen(folder + u"Take1"), "STATUS_OBJECT_NAME_NOT_FOUND");
    }
    Locked([&] { EXPECT_EQ(VrkFsFCBSetupFullName(Vcb(), fcb), STATUS_SUCCESS); });
    EXPECT_EQ(Text(fcb->FullName), u"\\RZV\\VolA\\Clips\\Final");
    EXPECT_EQ(ObjectName(staleFcb), u"\\RZV\\VolA\\Clips\\Final");

    // A new file of the old name is another file, also for the handle that came by the old name.
    Make(u"\\RZV\\VolA\\Clips\\Take1");
    handle.Reset();
    other.Reset();
    ExpectIdle("after the rename");
    RestartWithTypes();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Final"), kOk);
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take1"), kOk);
}

TEST_F(FsdTree, RenamedFoldersAndVolumesKeepWhatTheyHold) {
    host::ScopedHandle below = Hold(u"\\XYZ\\VolA\\Clips\\Take1");
    FCB* belowFcb = Find({u"XYZ", u"VolA", u"Clips", u"Take1"});
    EXPECT_EQ(ObjectName(belowFcb), u"\\RZV\\VolA\\Clips\\Take1");
    for (const bool volume : {false, true}) {
        host::ScopedHandle handle = Hold(volume ? u"\\RZV\\VolA" : u"\\RZV\\VolA\\Clips");
        FCB* fcb = volume ? Find({u"RZV", u"VolA"}) : Find({u"RZV", u"VolA", u"Clips"});
        ASSERT_EQ(Rename(fcb, volume ? u"Store" : u"Takes"), STATUS_SUCCESS);
        EXPECT_EQ(TryOpen(volume ? u"\\XYZ\\Store\\Takes\\Take1" : u"\\XYZ\\VolA\\Takes\\Take1"), kOk);
        EXPECT_EQ(ObjectName(belowFcb), volume ? u"\\RZV\\Store\\Takes\\Take1" : u"\\RZV\\VolA\\Takes\\Take1");
    }
    below.Reset();
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA"), "STATUS_OBJECT_NAME_NOT_FOUND");
    ExpectIdle("at the end");
    RestartWithTypes();
    EXPECT_EQ(TryOpen(u"\\RZV\\Store\\Takes\\Take1"), kOk);
}

TEST_F(FsdTree, AMovedFileIsWrittenWhereItIsAndOnlyThere) {
    Make(u"\\RZV\\VolA\\Other", host::option::kDirectoryFile);
    host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\Take1", kReadWrite);
    host::ScopedHandle stale = Hold(u"\\XYZ\\VolA\\Clips\\Take1", kReadWrite | host::access::kDelete);
    host::ScopedHandle folder = Hold(u"\\RZV\\VolA\\Other");
    FCB* fcb = Find({u"RZV", u"VolA", u"Clips", u"Take1"});
    FCB* staleFcb = Find({u"XYZ", u"VolA", u"Clips", u"Take1"});
    ASSERT_EQ(Move(fcb, Find({u"RZV", u"VolA", u"Other"}), u"Moved"), STATUS_SUCCESS);
    EXPECT_EQ(Find({u"RZV", u"VolA", u"Clips"}), nullptr);  // nothing leads to it any more
    EXPECT_EQ(Find({u"RZV", u"VolA", u"Other", u"Moved"}), fcb);
    EXPECT_TRUE(VrkFsFCBIsInPlace(fcb));
    EXPECT_FALSE(VrkFsFCBIsInPlace(staleFcb));
    EXPECT_EQ(SetDelete(stale, true), "STATUS_CANNOT_DELETE");
    EXPECT_EQ(Rename(staleFcb, u"Back"), STATUS_ACCESS_DENIED);
    Make(u"\\RZV\\VolA\\Clips\\Next");  // takes the slot that the stale path remembers
    stale.Reset();
    handle.Reset();
    folder.Reset();
    ExpectIdle("after the move");
    RestartWithTypes();
    for (const char16_t* path : {u"\\RZV\\VolA\\Other\\Moved", u"\\RZV\\VolA\\Clips\\Next"}) {
        EXPECT_EQ(TryOpen(path), kOk);
    }
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Take1"), "STATUS_OBJECT_NAME_NOT_FOUND");
}

TEST_F(FsdTree, LockingAndUnforcedDismountingNeedAnIdleVolume) {
    FILE_OBJECT locker{};  // stand for control handles, only compared
    FILE_OBJECT stranger{};
    const auto lock = [&] { return Locked([&] { return VrkFsVCBLockVolume(Vcb(), &locker); }); };
    const auto dismount = [](BOOLEAN force) {
        nt::DriverScope scope(pVrkFsGlobalData->DriverObject);
        return VrkFsVCBDismountVolume(Vcb(), force);
    };
    for (const char16_t* path : {u"\\", u"\\___Port0___", u"\\RZV\\VolA\\Clips\\Take1"}) {
        const host::ScopedHandle handle = Hold(path);
        EXPECT_EQ(lock(), STATUS_ACCESS_DENIED);
        EXPECT_EQ(dismount(FALSE), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(Vcb()->Flags & (kVcbMounted | kVcbRegistered), kVcbMounted | kVcbRegistered);
    }
    EXPECT_EQ(lock(), STATUS_SUCCESS);
    EXPECT_EQ(lock(), STATUS_ACCESS_DENIED);
    EXPECT_TRUE(VrkFsVCBIsVolumeLocked(Vcb(), &locker));
    EXPECT_FALSE(VrkFsVCBIsVolumeLocked(Vcb(), &stranger));
    for (const char16_t* path : {u"", u"\\", u"\\RZV\\VolA\\Clips\\Take1", u"\\___Port0___"}) {
        EXPECT_EQ(TryOpen(path), "STATUS_ACCESS_DENIED");
    }
    EXPECT_EQ(Locked([] { return VrkFsVCBUnlockVolume(Vcb()); }), STATUS_SUCCESS);
    EXPECT_EQ(Locked([] { return VrkFsVCBUnlockVolume(Vcb()); }), STATUS_SUCCESS);
    EXPECT_FALSE(VrkFsVCBIsVolumeLocked(Vcb(), &locker));

    const host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\Take1");
    EXPECT_EQ(dismount(TRUE), STATUS_SUCCESS);
    EXPECT_EQ(Vcb()->Flags & (kVcbMounted | kVcbRegistered), 0u);
    EXPECT_EQ(Vcb()->DeviceObject->Vpb, nullptr);
    EXPECT_EQ(Vcb()->DeviceObject->Characteristics & FILE_DEVICE_IS_MOUNTED, 0u);
}

TEST_F(FsdTree, AListCanBeFreedWhileItIsWalked) {
    LIST_ENTRY head;
    InitializeListHead(&head);
    LIST_ENTRY entries[3];
    for (LIST_ENTRY& entry : entries) {
        InsertTailList(&head, &entry);
    }
    ListIterator iterator;
    VrkFsInitializeListIterator(&iterator, &head);
    PLIST_ENTRY entry = nullptr;
    int visited = 0;
    while (VrkFsIterateList(&iterator, &entry)) {
        EXPECT_EQ(entry, &entries[visited++]);
        RemoveEntryList(entry);
        std::memset(static_cast<void*>(entry), 0xDD, sizeof(*entry));
    }
    EXPECT_EQ(visited, 3);
}

}  // namespace
}  // namespace tests
