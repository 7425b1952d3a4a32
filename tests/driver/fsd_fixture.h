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

inline constexpr const char* kOk = "STATUS_SUCCESS";
inline constexpr const char* kNotFound = "STATUS_OBJECT_NAME_NOT_FOUND";
inline constexpr const char* kDenied = "STATUS_ACCESS_DENIED";
inline constexpr const char* kDeletePending = "STATUS_DELETE_PENDING";
inline constexpr std::uint32_t kReadWriteDelete = kReadWrite | host::access::kDelete;
inline constexpr char16_t kTake1[] = u"\\RZV\\VolA\\Clips\\Take1";

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

    std::string TryOpen(const std::u16string& path, std::uint32_t access = host::access::kReadData) {
        const host::OpenResult opened = Open(path, host::Disposition::kOpen, access);
        const host::ScopedHandle handle(User(), opened.handle);
        return host::StatusName(opened.status);
    }
    std::string SetDelete(const host::ScopedHandle& handle, bool deleteIt) {
        return host::StatusName(host::SetDeleteOnCleanup(User(), handle.Get(), deleteIt));
    }

    // By a trusted caller, of whom nothing is checked before the driver.
    static nt::Handle OpenTrusted(nt::Process& trusted, const std::u16string& path, ACCESS_MASK access) {
        const std::u16string name = u"\\DosDevices\\P:" + path;
        nt::OpenParameters parameters;
        parameters.name = name;
        parameters.desiredAccess = access | DELETE | SYNCHRONIZE;
        parameters.options = 0;  // an asynchronous handle's position is the driver's to answer
        nt::Handle handle = 0;
        EXPECT_EQ(trusted.Open(parameters, &handle), STATUS_SUCCESS);
        return handle;
    }

    // The FCB of an open path, or null.
    static FCB* Find(std::u16string_view path) {
        FCB* at = Vcb()->RootFcb;
        while (at != nullptr && !path.empty()) {
            path.remove_prefix(1);
            const UNICODE_STRING name = CountedName(path.substr(0, path.find(u'\\')));
            path.remove_prefix(std::min(path.find(u'\\'), path.size()));
            if (!VrkFsFCBSplayFindFCB(at, &name, &at)) {
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
        EXPECT_EQ(vcb->RootFcb->ReferenceCount | vcb->RootFcb->HandleCount, 0u) << when;
        EXPECT_EQ(vcb->RootFcb->ShareAccess.OpenCount | vcb->ShareAccess.OpenCount, 0u) << when;
        EXPECT_EQ(vcb->VolumeOpenCount | vcb->FileOpenCount | vcb->ReadOnlyOpenCount, 0u) << when;
        for (const HwVolume* volume : Volumes()) {
            EXPECT_EQ(volume->OpenCount, 0u) << when;
        }
    }
};

}  // namespace tests
