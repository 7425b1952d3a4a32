// What the cases about opens, names and handles start from: two volumes, a folder with a file, and beside the built-in
// type two more type folders over the same disks. XYZ lets files be created and deleted, FRM shows files as folders of
// frames.
#pragma once

#include <initializer_list>
#include <string_view>

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "nt/kernel.h"
#include "nt/system.h"
#include "tests/support/machine_fixture.h"
#include "volume/hw_volume.h"

namespace tests {

inline constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;

// A counted string over text that outlives it.
inline UNICODE_STRING Counted(std::u16string_view text) {
    UNICODE_STRING string;
    string.Buffer = const_cast<PWSTR>(text.data());
    string.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    string.MaximumLength = string.Length;
    return string;
}

class FsdTest : public MachineTest {
  protected:
    void SetUp() override {
        MakeStation(2);
        Start();
        ASSERT_EQ(Format(u"VolA", {0}), VRKFS_RESULT_DONE);
        ASSERT_EQ(Format(u"VolB", {1}), VRKFS_RESULT_DONE);
        AddTypes();
        Make(u"\\RZV\\VolA\\Clips", host::option::kDirectoryFile);
        Make(u"\\RZV\\VolA\\Clips\\Take1");
        ExpectIdle("after set-up");
    }

    static void AddTypes() {
        nt::DriverScope scope(pVrkFsGlobalData->DriverObject);
        FileType row{};
        row.TypeCode = 7;
        std::memcpy(row.Extension, u"XYZ", sizeof(row.Extension));
        ASSERT_EQ(VrkFsGlobAddFileType(pVrkFsGlobalData, &row), STATUS_SUCCESS);
        row.AccessMode = 2;
        std::memcpy(row.Extension, u"FRM", sizeof(row.Extension));
        ASSERT_EQ(VrkFsGlobAddFileType(pVrkFsGlobalData, &row), STATUS_SUCCESS);
    }

    // The driver again on the same disks: what comes back is what the disks hold.
    void RestartWithTypes() {
        Restart();
        AddTypes();
    }

    void Make(const std::u16string& path, std::uint32_t options = 0) {
        const host::OpenResult made = Open(path, host::Disposition::kCreate, kReadWrite, options);
        ASSERT_EQ(host::StatusName(made.status), "STATUS_SUCCESS");
        ASSERT_TRUE(User().Close(made.handle).Ok());
    }

    host::ScopedHandle Hold(const std::u16string& path, std::uint32_t access = host::access::kReadData) {
        const host::OpenResult opened = Open(path, host::Disposition::kOpen, access);
        EXPECT_EQ(host::StatusName(opened.status), "STATUS_SUCCESS");
        return {User(), opened.handle};
    }
    std::string TryOpen(const std::u16string& path, std::uint32_t access = host::access::kReadData) {
        const host::OpenResult opened = Open(path, host::Disposition::kOpen, access);
        const host::ScopedHandle handle(User(), opened.handle);
        return host::StatusName(opened.status);
    }
    std::string SetDelete(const host::ScopedHandle& handle, bool deleteIt) {
        return host::StatusName(host::SetDeleteOnCleanup(User(), handle.Get(), deleteIt));
    }

    static CardInstance* Card() { return CONTAINING_RECORD(pVrkFsGlobalData->CardInstances.Flink, CardInstance, Link); }
    static VCB* Vcb() { return &VrkFsDiskExtOfDevice(Card()->DiskDevice)->Vcb; }
    static HwVolume* FirstVolume() { return CONTAINING_RECORD(Card()->Hw.Volumes.Flink, HwVolume, Link); }
    static ULONGLONG FreeBlocks() { return VrkFsVolAllocGetFreeBlocks(&FirstVolume()->Allocator); }

    // The FCB of an open path, or null.
    static FCB* Find(std::initializer_list<std::u16string_view> path) {
        FCB* at = Vcb()->RootFcb;
        for (const std::u16string_view name : path) {
            const UNICODE_STRING counted = Counted(name);
            if (at == nullptr || !VrkFsFCBSplayFindFCB(at, &counted, &at)) {
                return nullptr;
            }
        }
        return at;
    }

    // Runs the routine as the driver's code under the locks that a set request holds.
    template <typename Routine>
    static auto Locked(Routine routine) {
        nt::DriverScope scope(pVrkFsGlobalData->DriverObject);
        CriticalRegionGuard region;
        ResourceGuard volume;
        volume.Exclusive(&Vcb()->Resource);
        return routine();
    }

    // Nothing is open: no name, no count, no share access, no opened volume is left.
    static void ExpectIdle(std::string_view when) {
        const VCB* vcb = Vcb();
        EXPECT_TRUE(IsListEmpty(&vcb->RootFcb->Children)) << when;
        EXPECT_EQ(vcb->RootFcb->ChildTree, nullptr) << when;
        EXPECT_TRUE(IsListEmpty(&vcb->RootFcb->Common->Children)) << when;
        EXPECT_EQ(vcb->RootFcb->ReferenceCount, 0u) << when;
        EXPECT_EQ(vcb->RootFcb->HandleCount, 0u) << when;
        EXPECT_EQ(vcb->RootFcb->ShareAccess.OpenCount, 0u) << when;
        EXPECT_EQ(vcb->ShareAccess.OpenCount, 0u) << when;
        EXPECT_EQ(vcb->VolumeOpenCount, 0u) << when;
        EXPECT_EQ(vcb->FileOpenCount, 0u) << when;
        EXPECT_EQ(vcb->ReadOnlyOpenCount, 0u) << when;
        for (PLIST_ENTRY link = Card()->Hw.Volumes.Flink; link != &Card()->Hw.Volumes; link = link->Flink) {
            EXPECT_EQ(CONTAINING_RECORD(link, HwVolume, Link)->OpenCount, 0u) << when;
        }
    }
};

}  // namespace tests
