// What the cases about opens, names and handles start from: two volumes, a folder with a file, and beside the built-in
// type two more type folders over the same disks. XYZ lets files be created and deleted, FRM shows files as folders of
// frames.
#pragma once

#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "nt/system.h"
#include "tests/support/driver_fixture.h"

namespace tests {

class FsdTest : public DriverTest {
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
        AddType(u"XYZ");
        AddType(u"FRM", 2);
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

    std::string TryOpen(const std::u16string& path, std::uint32_t access = host::access::kReadData) {
        const host::OpenResult opened = Open(path, host::Disposition::kOpen, access);
        const host::ScopedHandle handle(User(), opened.handle);
        return host::StatusName(opened.status);
    }
    std::string SetDelete(const host::ScopedHandle& handle, bool deleteIt) {
        return host::StatusName(host::SetDeleteOnCleanup(User(), handle.Get(), deleteIt));
    }

    // The FCB of an open path, or null.
    static FCB* Find(std::initializer_list<std::u16string_view> path) {
        FCB* at = Vcb()->RootFcb;
        for (const std::u16string_view name : path) {
            const UNICODE_STRING counted = CountedName(name);
            if (at == nullptr || !VrkFsFCBSplayFindFCB(at, &counted, &at)) {
                return nullptr;
            }
        }
        return at;
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
