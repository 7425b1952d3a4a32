// File information, volume information, file-system control, flush: lengths, values, refusals.
#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

constexpr std::size_t kBufferBytes = 256;

// A trusted caller, so that every length and class reaches the driver as it is.
class FsdInfo : public FsdTest {
  protected:
    struct Answer {
        NTSTATUS status;
        ULONG_PTR information;
    };

    void SetUp() override {
        FsdTest::SetUp();
        trusted_ = std::make_unique<nt::Process>("trusted", KernelMode);
    }
    void TearDown() override {
        trusted_.reset();
        FsdTest::TearDown();
    }

    nt::Handle Trusted(const std::u16string& path) {
        const std::u16string name = u"\\DosDevices\\P:" + path;
        nt::OpenParameters parameters;
        parameters.name = name;
        parameters.desiredAccess = FILE_READ_DATA | FILE_WRITE_DATA | DELETE | SYNCHRONIZE;
        nt::Handle handle = 0;
        EXPECT_EQ(trusted_->Open(parameters, &handle), STATUS_SUCCESS);
        return handle;
    }
    Answer Query(nt::Handle handle, int informationClass, ULONG length) {
        std::memset(buffer_, 0xEE, sizeof(buffer_));
        IO_STATUS_BLOCK block{};
        const NTSTATUS status = trusted_->QueryInformation(handle, &block, buffer_, length,
                                                           static_cast<FILE_INFORMATION_CLASS>(informationClass));
        return {status, block.Information};
    }
    NTSTATUS Set(nt::Handle handle, int informationClass, ULONG length) {
        IO_STATUS_BLOCK block{};
        return trusted_->SetInformation(handle, &block, buffer_, length,
                                        static_cast<FILE_INFORMATION_CLASS>(informationClass));
    }
    Answer QueryVolume(nt::Handle handle, int informationClass, ULONG length) {
        std::memset(buffer_, 0xEE, sizeof(buffer_));
        IO_STATUS_BLOCK block{};
        const NTSTATUS status = trusted_->QueryVolumeInformation(handle, &block, buffer_, length,
                                                                 static_cast<FS_INFORMATION_CLASS>(informationClass));
        return {status, block.Information};
    }
    NTSTATUS SetLabel(nt::Handle handle, ULONG declared, std::u16string_view label, ULONG length) {
        std::memset(buffer_, 0, sizeof(buffer_));
        std::memcpy(buffer_, &declared, sizeof(declared));
        std::memcpy(buffer_ + 4, label.data(), label.size() * 2);
        IO_STATUS_BLOCK block{};
        return trusted_->SetVolumeInformation(handle, &block, buffer_, length, FileFsLabelInformation);
    }
    template <typename Record>
    Record As() const {
        Record record;
        std::memcpy(&record, buffer_, sizeof(record));
        return record;
    }

    std::unique_ptr<nt::Process> trusted_;
    std::byte buffer_[kBufferBytes]{};
};

TEST_F(FsdInfo, ClassesCheckTheirLengthFirst) {
    const nt::Handle file = Trusted(u"\\RZV\\VolA\\Clips\\Take1");
    const struct {
        int informationClass;
        ULONG minimum;
        NTSTATUS answer;
        ULONG_PTR returned;
    } queries[] = {
        {4, 40, STATUS_SUCCESS, 40},         {5, 24, STATUS_SUCCESS, 24},         {6, 0, STATUS_NOT_IMPLEMENTED, 0},
        {7, 4, STATUS_NOT_IMPLEMENTED, 0},   {9, 8, STATUS_NOT_IMPLEMENTED, 0},   {18, 104, STATUS_NOT_IMPLEMENTED, 0},
        {21, 0, STATUS_NOT_IMPLEMENTED, 0},  {22, 0, STATUS_NOT_IMPLEMENTED, 0},  {28, 0, STATUS_NOT_IMPLEMENTED, 0},
        {34, 56, STATUS_NOT_IMPLEMENTED, 0}, {8, 0, STATUS_INVALID_PARAMETER, 0}, {16, 0, STATUS_INVALID_PARAMETER, 0},
    };
    for (const auto& test : queries) {
        SCOPED_TRACE(test.informationClass);
        if (test.minimum != 0) {
            EXPECT_EQ(Query(file, test.informationClass, test.minimum - 1).status, STATUS_BUFFER_TOO_SMALL);
        }
        const Answer answer = Query(file, test.informationClass, kBufferBytes);
        if (test.informationClass == 8 || test.informationClass == 16) {
            continue;  // the kernel answers these itself
        }
        EXPECT_EQ(answer.status, test.answer);
        EXPECT_EQ(NT_SUCCESS(answer.status) ? answer.information : 0, test.returned);
    }
    std::memset(buffer_, 0, sizeof(buffer_));
    const struct {
        int informationClass;
        ULONG minimum;
        NTSTATUS answer;
    } sets[] = {
        {4, 40, STATUS_SUCCESS},
        {13, 1, STATUS_SUCCESS},
        {19, 8, STATUS_NOT_IMPLEMENTED},
        {20, 8, STATUS_NOT_IMPLEMENTED},
    };
    for (const auto& test : sets) {
        SCOPED_TRACE(test.informationClass);
        EXPECT_EQ(Set(file, test.informationClass, test.minimum - 1), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(Set(file, test.informationClass, test.minimum), test.answer);
    }
}

TEST_F(FsdInfo, SaysWhatAnObjectIs) {
    const struct {
        const char16_t* path;
        LONGLONG size;
        bool folder;
    } cases[] = {
        {u"\\", 0, true},
        {u"\\RZV", 0, true},
        {u"\\RZV\\VolA", 0, true},
        {u"\\RZV\\VolA\\Clips", 0, true},
        {u"\\RZV\\VolA\\Clips\\Take1", 0, false},
        {u"\\FRM\\VolA\\Clips\\Take1", 0, true},
        {u"\\RZV\\VolA\\Clips\\___Port0___", 2048, false},
    };
    for (const auto& test : cases) {
        const nt::Handle handle = Trusted(test.path);
        ASSERT_EQ(Query(handle, FileStandardInformation, 24).status, STATUS_SUCCESS);
        const auto standard = As<FILE_STANDARD_INFORMATION>();
        EXPECT_EQ(standard.EndOfFile.QuadPart, test.size);
        EXPECT_EQ(standard.AllocationSize.QuadPart, test.size);
        EXPECT_EQ(standard.NumberOfLinks, 1u);
        EXPECT_EQ(standard.Directory, test.folder);
        EXPECT_EQ(standard.DeletePending, 0);
        ASSERT_EQ(Query(handle, FileBasicInformation, 40).status, STATUS_SUCCESS);
        const auto basic = As<FILE_BASIC_INFORMATION>();
        EXPECT_EQ(basic.FileAttributes, test.folder ? 0x90u : 0x80u);
        EXPECT_EQ(basic.CreationTime.QuadPart, test.folder ? basic.LastWriteTime.QuadPart : 0);
        EXPECT_NE(basic.LastWriteTime.QuadPart, 0);
        EXPECT_EQ(basic.LastAccessTime.QuadPart | basic.ChangeTime.QuadPart, 0);
        EXPECT_EQ(trusted_->Close(handle), STATUS_SUCCESS);
    }
    const nt::Handle volume = Trusted(u"");
    EXPECT_EQ(Query(volume, FileStandardInformation, 24).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Set(volume, FileDispositionInformation, 1), STATUS_INVALID_PARAMETER);
}

TEST_F(FsdInfo, AWriteTimeThatIsSetReachesTheDisk) {
    constexpr LONGLONG kTime = 132'000'000'000'000'000;
    const nt::Handle file = Trusted(u"\\RZV\\VolA\\Clips\\Take1");
    FILE_BASIC_INFORMATION basic{};
    basic.LastWriteTime.QuadPart = kTime;
    basic.CreationTime.QuadPart = 1;
    basic.FileAttributes = FILE_ATTRIBUTE_READONLY;
    std::memcpy(buffer_, &basic, sizeof(basic));
    EXPECT_EQ(Set(file, FileBasicInformation, sizeof(basic)), STATUS_SUCCESS);
    EXPECT_EQ(trusted_->Close(file), STATUS_SUCCESS);
    trusted_.reset();
    RestartWithTypes();
    trusted_ = std::make_unique<nt::Process>("trusted", KernelMode);
    ASSERT_EQ(Query(Trusted(u"\\RZV\\VolA\\Clips\\Take1"), FileBasicInformation, 40).status, STATUS_SUCCESS);
    EXPECT_EQ(As<FILE_BASIC_INFORMATION>().LastWriteTime.QuadPart, kTime);
    EXPECT_EQ(As<FILE_BASIC_INFORMATION>().FileAttributes, 0x80u);
}

TEST_F(FsdInfo, ThePendingDeleteIsTold) {
    const nt::Handle file = Trusted(u"\\RZV\\VolA\\Clips\\Take1");
    buffer_[0] = std::byte{1};
    ASSERT_EQ(Set(file, FileDispositionInformation, 1), STATUS_SUCCESS);
    ASSERT_EQ(Query(file, FileStandardInformation, 24).status, STATUS_SUCCESS);
    EXPECT_EQ(As<FILE_STANDARD_INFORMATION>().DeletePending, 4);
}

TEST_F(FsdInfo, TheVolumeTellsItsLabelSpaceAndKind) {
    const nt::Handle handle = Trusted(u"\\RZV\\VolA");
    const struct {
        int informationClass;
        ULONG length;
        NTSTATUS status;
        ULONG_PTR returned;
    } cases[] = {
        {1, 23, STATUS_BUFFER_TOO_SMALL, 0}, {1, 24, STATUS_BUFFER_OVERFLOW, 0},  {1, 32, STATUS_SUCCESS, 32},
        {1, 200, STATUS_SUCCESS, 32},        {3, 23, STATUS_BUFFER_TOO_SMALL, 0}, {3, 24, STATUS_SUCCESS, 24},
        {4, 7, STATUS_BUFFER_TOO_SMALL, 0},  {4, 8, STATUS_SUCCESS, 8},           {5, 15, STATUS_BUFFER_TOO_SMALL, 0},
        {5, 25, STATUS_BUFFER_OVERFLOW, 0},  {5, 26, STATUS_SUCCESS, 26},         {6, 200, STATUS_INVALID_PARAMETER, 0},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::to_string(test.informationClass) + " in " + std::to_string(test.length));
        const Answer answer = QueryVolume(handle, test.informationClass, test.length);
        EXPECT_EQ(answer.status, test.status);
        EXPECT_EQ(answer.information, test.returned);
        for (std::size_t at = test.length; at < kBufferBytes; ++at) {
            ASSERT_EQ(buffer_[at], std::byte{0xEE}) << "written behind the buffer";
        }
    }
    ASSERT_EQ(QueryVolume(handle, 3, 24).status, STATUS_SUCCESS);
    const auto size = As<FILE_FS_SIZE_INFORMATION>();
    EXPECT_EQ(size.AvailableAllocationUnits.QuadPart, 409600);
    EXPECT_EQ(size.BytesPerSector * size.SectorsPerAllocationUnit, 512u);
    EXPECT_GT(size.TotalAllocationUnits.QuadPart, 1);
}

TEST_F(FsdInfo, ALabelIsKeptOnlyIfItFits) {
    const nt::Handle handle = Trusted(u"");
    EXPECT_EQ(SetLabel(handle, 12, u"Studio", 7), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(SetLabel(handle, 12, u"Studio", 15), STATUS_INVALID_VOLUME_LABEL);
    EXPECT_EQ(SetLabel(handle, 66, std::u16string(33, u'x'), 100), STATUS_INVALID_VOLUME_LABEL);
    EXPECT_EQ(SetLabel(handle, 11, u"Studio", 100), STATUS_INVALID_VOLUME_LABEL);
    EXPECT_EQ(SetLabel(handle, 0xFFFFFFFE, u"Studio", 100), STATUS_INVALID_VOLUME_LABEL);
    ASSERT_EQ(QueryVolume(handle, 5, 100).information, 26u);
    EXPECT_EQ(std::memcmp(buffer_ + 12, u"RZV_VFS", 14), 0);
    EXPECT_EQ(SetLabel(handle, 12, u"Studio", 16), STATUS_SUCCESS);
    ASSERT_EQ(QueryVolume(handle, 5, 100).information, 24u);
    EXPECT_EQ(std::memcmp(buffer_ + 12, u"Studio", 12), 0);
    ASSERT_EQ(QueryVolume(handle, 1, 100).information, 30u);
    EXPECT_EQ(std::memcmp(buffer_ + 18, u"Studio", 12), 0);
    EXPECT_EQ(SetLabel(handle, 64, std::u16string(32, u'y'), 100), STATUS_SUCCESS);
    EXPECT_EQ(QueryVolume(handle, 1, 100).information, 82u);
}

TEST_F(FsdInfo, FileSystemControlsAreAcceptedOrRefusedWithoutEffect) {
    const host::ScopedHandle volume = Hold(u"");
    const struct {
        ULONG code;
        const char* status;
    } cases[] = {
        {FSCTL_IS_VOLUME_MOUNTED, "STATUS_SUCCESS"},
        {FSCTL_REQUEST_OPLOCK_LEVEL_1, "STATUS_SUCCESS"},
        {FSCTL_OPLOCK_BREAK_ACK_NO_2, "STATUS_SUCCESS"},
        {FSCTL_LOCK_VOLUME, "STATUS_INVALID_DEVICE_REQUEST"},
        {FSCTL_UNLOCK_VOLUME, "STATUS_INVALID_DEVICE_REQUEST"},
        {FSCTL_DISMOUNT_VOLUME, "STATUS_INVALID_DEVICE_REQUEST"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(host::StatusName(User().FileSystemControl(volume.Get(), test.code, {}, {}).status), test.status);
    }
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA"), "STATUS_SUCCESS");
}

TEST_F(FsdInfo, FlushSucceedsOnEveryHandle) {
    for (const char16_t* path : {u"", u"\\", u"\\RZV\\VolA\\Clips", u"\\RZV\\VolA\\Clips\\Take1"}) {
        const host::ScopedHandle handle = Hold(path, kReadWrite);
        EXPECT_TRUE(User().Flush(handle.Get()).Ok());
    }
    const host::ScopedHandle control(User(), OpenControl().handle);
    EXPECT_TRUE(User().Flush(control.Get()).Ok());
}

TEST_F(FsdInfo, TheControlDeviceRefusesWhatItDoesNotServe) {
    const host::ScopedHandle control(User(), OpenControl().handle);
    std::byte data[104];
    const char* refused = "STATUS_INVALID_DEVICE_REQUEST";
    EXPECT_EQ(host::StatusName(User().Read(control.Get(), data, 0).status), refused);
    EXPECT_EQ(host::StatusName(User().Write(control.Get(), data, 0).status), refused);
    EXPECT_EQ(host::StatusName(User().QueryInformation(control.Get(), 5, std::span(data, 24)).status), refused);
    EXPECT_EQ(host::StatusName(User().QueryVolumeInformation(control.Get(), 3, data).status), refused);
    EXPECT_EQ(host::StatusName(User().FileSystemControl(control.Get(), FSCTL_IS_VOLUME_MOUNTED, {}, {}).status),
              refused);
    EXPECT_EQ(host::StatusName(User().QueryDirectory(control.Get(), {}, data).status), refused);
}

}  // namespace
}  // namespace tests
