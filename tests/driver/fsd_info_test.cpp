// File and volume information: lengths, values, refusals.
#include <algorithm>

#include "tests/driver/fsd_fixture.h"
#include "tests/driver/media_rig.h"

namespace tests {
namespace {

constexpr std::size_t kBufferBytes = 256;

// A trusted caller, so that every length and class reaches the driver as it is.
class FsdInfo : public FsdTest {
  protected:
    using Answer = std::pair<NTSTATUS, ULONG_PTR>;  // with the information

    void SetUp() override {
        FsdTest::SetUp();
        trusted_ = std::make_unique<nt::Process>("trusted", KernelMode);
    }
    void TearDown() override {
        trusted_.reset();
        FsdTest::TearDown();
    }

    nt::Handle Trusted(const std::u16string& path) {
        return OpenTrusted(*trusted_, path, FILE_READ_DATA | FILE_WRITE_DATA);
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
    Record Ask(nt::Handle handle, int informationClass) {
        EXPECT_EQ(Query(handle, informationClass, sizeof(Record)), Answer(STATUS_SUCCESS, sizeof(Record)));
        Record record;
        std::memcpy(&record, buffer_, sizeof(record));
        return record;
    }

    std::unique_ptr<nt::Process> trusted_;
    std::byte buffer_[kBufferBytes]{};
};

// One of everything that a handle can stand for. PIC shows clips as folders of frames of 1000 bytes.
struct Kind {
    const char16_t* path;
    NTSTATUS deletable;
};
const Kind kKinds[] = {
    {u"\\", STATUS_CANNOT_DELETE},
    {u"\\RZV", STATUS_CANNOT_DELETE},
    {u"\\RZV\\VolA", STATUS_CANNOT_DELETE},
    {u"\\RZV\\VolA\\Clips", STATUS_CANNOT_DELETE},
    {u"\\RZV\\VolA\\Empty", STATUS_SUCCESS},
    {u"\\PIC\\VolA\\Empty", STATUS_CANNOT_DELETE},
    {u"\\RZV\\VolA\\Clips\\Take1", STATUS_SUCCESS},
    {u"\\RZV\\VolA\\Clips\\Shot.RZV", STATUS_SUCCESS},
    {u"\\PIC\\VolA\\Clips\\Shot.RZV", STATUS_CANNOT_DELETE},
    {u"\\PIC\\VolA\\Clips\\Shot.RZV\\Shot0002.PIC", STATUS_SUCCESS},
    {u"\\PIC\\VolA\\Clips\\Shot.RZV\\notes", STATUS_SUCCESS},
    {u"\\RZV\\VolA\\Clips\\___Port0___", STATUS_CANNOT_DELETE},
    {u"\\PIC\\VolA\\Clips\\Shot.RZV\\___Port0___", STATUS_CANNOT_DELETE},
};

class FsdInfoKinds : public FsdInfo {
  protected:
    void SetUp() override {
        FsdInfo::SetUp();
        AddType(u"PIC", 2, 1000);
        Make(u"\\RZV\\VolA\\Empty", host::option::kDirectoryFile);
        const host::ScopedHandle shot = Hold(u"\\RZV\\VolA\\Clips\\Shot.RZV", kReadWrite, host::Disposition::kCreate);
        const Bytes image = BuildImage({.videoSdti = 0, .videoFields = {1, 2, 3, 4, 5, 6}}, true);
        ASSERT_TRUE(User().Write(shot.Get(), image, 0).status.Ok());
        const host::ScopedHandle notes =
            Hold(u"\\PIC\\VolA\\Clips\\Shot.RZV\\notes", kReadWrite, host::Disposition::kCreate);
        ASSERT_TRUE(User().Write(notes.Get(), Bytes(10), 0).status.Ok());
    }
};

TEST_F(FsdInfoKinds, EveryQueryOnEveryKindOfHandle) {
    for (const Kind& kind : kKinds) {
        const std::u16string path = kind.path;
        const ULONG_PTR name = 4 + path.size() * 2 + 2;
        const struct {
            int informationClass;
            ULONG minimum;
            NTSTATUS status;
            ULONG_PTR atMinimum, returned;
        } queries[] = {
            {FileBasicInformation, 40, STATUS_SUCCESS, 40, 40},
            {FileStandardInformation, 24, STATUS_SUCCESS, 24, 24},
            {FileInternalInformation, 0, STATUS_NOT_IMPLEMENTED, 0, 0},
            {FileEaInformation, 4, STATUS_SUCCESS, 4, 4},
            {FileNameInformation, 8, STATUS_SUCCESS, std::min<ULONG_PTR>(8, name), name},
            {FilePositionInformation, 8, STATUS_SUCCESS, 8, 8},
            {FileAllInformation, 104, STATUS_SUCCESS, 96 + std::min<ULONG_PTR>(8, name), 96 + name},
            {FileAlternateNameInformation, 0, STATUS_NOT_IMPLEMENTED, 0, 0},
            {FileStreamInformation, 0, STATUS_NOT_IMPLEMENTED, 0, 0},
            {FileCompressionInformation, 0, STATUS_NOT_IMPLEMENTED, 0, 0},
            {FileNetworkOpenInformation, 56, STATUS_SUCCESS, 56, 56},
            {FileRenameInformation, 0, STATUS_INVALID_PARAMETER, 0, 0},
            {FileAttributeTagInformation, 0, STATUS_INVALID_PARAMETER, 0, 0},
        };
        const nt::Handle handle = Trusted(path);
        for (const auto& test : queries) {
            SCOPED_TRACE(std::string(path.begin(), path.end()) + " " + std::to_string(test.informationClass));
            if (test.minimum != 0) {
                EXPECT_EQ(Query(handle, test.informationClass, test.minimum - 1), Answer(STATUS_BUFFER_TOO_SMALL, 0));
            }
            for (const ULONG length : {test.minimum, ULONG{kBufferBytes}}) {
                const ULONG_PTR returned = length == kBufferBytes ? test.returned : test.atMinimum;
                EXPECT_EQ(Query(handle, test.informationClass, length), Answer(test.status, returned));
                for (std::size_t at = returned; at < kBufferBytes; ++at) {
                    ASSERT_EQ(buffer_[at], std::byte{0xEE}) << "written behind what was asked for";
                }
            }
        }
        EXPECT_EQ(trusted_->Close(handle), STATUS_SUCCESS);
    }
}

TEST_F(FsdInfoKinds, EverySetOnEveryKindOfHandle) {
    constexpr LONGLONG kTime = 132'000'000'000'000'000;
    for (const Kind& kind : kKinds) {
        const std::u16string path = kind.path;
        const bool ram = path.ends_with(u"notes");
        const nt::Handle handle = Trusted(path);
        const struct {
            int informationClass;
            ULONG minimum;
            NTSTATUS status;
        } sets[] = {
            {FileBasicInformation, 40, STATUS_SUCCESS},
            {FileDispositionInformation, 1, kind.deletable},
            {FilePositionInformation, 8, STATUS_SUCCESS},
            {FileAllocationInformation, 8, STATUS_SUCCESS},
            {FileEndOfFileInformation, 8, STATUS_SUCCESS},
            {FileStandardInformation, 0, STATUS_INVALID_PARAMETER},
            {FileAlignmentInformation, 0, STATUS_INVALID_PARAMETER},
        };
        const LONGLONG size = Ask<FILE_STANDARD_INFORMATION>(handle, FileStandardInformation).EndOfFile.QuadPart;
        const LONGLONG before = Ask<FILE_BASIC_INFORMATION>(handle, FileBasicInformation).LastWriteTime.QuadPart;
        for (const auto& test : sets) {
            SCOPED_TRACE(std::string(path.begin(), path.end()) + " " + std::to_string(test.informationClass));
            FILE_BASIC_INFORMATION basic{};
            basic.LastAccessTime.QuadPart = kTime;
            std::memset(buffer_, 0, sizeof(buffer_));
            std::memcpy(buffer_, &basic, sizeof(basic));
            if (test.minimum != 0) {
                EXPECT_EQ(Set(handle, test.informationClass, test.minimum - 1), STATUS_BUFFER_TOO_SMALL);
            }
            EXPECT_EQ(Set(handle, test.informationClass, std::max<ULONG>(test.minimum, 1)), test.status);
        }
        // A time of 0 changes nothing; another one is taken by what has a time of its own.
        auto basic = Ask<FILE_BASIC_INFORMATION>(handle, FileBasicInformation);
        EXPECT_EQ(basic.LastWriteTime.QuadPart, before);
        basic.LastWriteTime.QuadPart = kTime;
        std::memcpy(buffer_, &basic, sizeof(basic));
        ASSERT_EQ(Set(handle, FileBasicInformation, 40), STATUS_SUCCESS);
        const bool takes = ram || (path.starts_with(u"\\RZV\\VolA\\Clips\\") && !path.ends_with(u"___"));
        EXPECT_EQ(Ask<FILE_BASIC_INFORMATION>(handle, FileBasicInformation).LastWriteTime.QuadPart,
                  takes ? kTime : before);
        // Only a RAM file has a size that can be set: it was set to 0 above.
        EXPECT_EQ(Ask<FILE_STANDARD_INFORMATION>(handle, FileStandardInformation).EndOfFile.QuadPart, ram ? 0 : size);
        EXPECT_EQ(trusted_->Close(handle), STATUS_SUCCESS);
    }
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
        EXPECT_EQ(QueryVolume(handle, test.informationClass, test.length), Answer(test.status, test.returned));
        for (std::size_t at = test.length; at < kBufferBytes; ++at) {
            ASSERT_EQ(buffer_[at], std::byte{0xEE}) << "written behind the buffer";
        }
    }
    ASSERT_EQ(QueryVolume(handle, 3, 24), Answer(STATUS_SUCCESS, 24));
    FILE_FS_SIZE_INFORMATION size;
    std::memcpy(&size, buffer_, sizeof(size));
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
    ASSERT_EQ(QueryVolume(handle, 5, 100), Answer(STATUS_SUCCESS, 26));
    EXPECT_EQ(std::memcmp(buffer_ + 12, u"RZV_VFS", 14), 0);
    EXPECT_EQ(SetLabel(handle, 12, u"Studio", 16), STATUS_SUCCESS);
    ASSERT_EQ(QueryVolume(handle, 5, 100), Answer(STATUS_SUCCESS, 24));
    EXPECT_EQ(std::memcmp(buffer_ + 12, u"Studio", 12), 0);
    ASSERT_EQ(QueryVolume(handle, 1, 100), Answer(STATUS_SUCCESS, 30));
    EXPECT_EQ(std::memcmp(buffer_ + 18, u"Studio", 12), 0);
    EXPECT_EQ(SetLabel(handle, 64, std::u16string(32, u'y'), 100), STATUS_SUCCESS);
    EXPECT_EQ(QueryVolume(handle, 1, 100), Answer(STATUS_SUCCESS, 82));
}

}  // namespace
}  // namespace tests
