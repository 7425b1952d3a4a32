// What a create answers, and that a create that fails leaves nothing behind.
#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

using host::Disposition;
namespace option = host::option;

class FsdCreate : public FsdTest {};

constexpr std::uint32_t kReadDelete = host::access::kReadData | host::access::kDelete;
constexpr std::uint32_t kOpened = 1;
constexpr std::uint32_t kCreated = 2;
constexpr const char* kInvalid = "STATUS_OBJECT_NAME_INVALID";
const std::u16string kClips = u"\\RZV\\VolA\\Clips\\";

const struct {
    std::u16string path;
    std::uint32_t options;
    Disposition disposition;
    const char* status;
    std::uint32_t action;
} kCases[] = {
    // the volume itself
    {u"", 0, Disposition::kOpen, kOk, kOpened},
    {u"", 0, Disposition::kCreate, kDenied, 0},
    {u"", option::kDirectoryFile, Disposition::kOpen, "STATUS_NOT_A_DIRECTORY", 0},
    // the root folder
    {u"\\", 0, Disposition::kOpen, kOk, kOpened},
    {u"\\", option::kDirectoryFile, Disposition::kOpenIf, kOk, kOpened},
    {u"\\", 0, Disposition::kOverwrite, kDenied, 0},
    {u"\\", option::kNonDirectoryFile, Disposition::kOpen, "STATUS_FILE_IS_A_DIRECTORY", 0},
    {u"\\", option::kDeleteOnClose, Disposition::kOpen, "STATUS_CANNOT_DELETE", 0},
    // backslashes
    {u"\\\\RZV", 0, Disposition::kOpen, kOk, kOpened},
    {u"\\\\\\RZV", 0, Disposition::kOpen, kInvalid, 0},
    {u"\\RZV\\\\VolA", 0, Disposition::kOpen, kInvalid, 0},
    {u"\\RZV\\VolA\\", 0, Disposition::kOpen, kOk, kOpened},
    // names that cannot be
    {u"\\RZV\\VolA\\a?b", 0, Disposition::kOpen, kInvalid, 0},
    {kClips + std::u16string(255, u'n'), 0, Disposition::kOpen, kNotFound, 0},
    {kClips + std::u16string(255, u'n'), 0, Disposition::kCreate, kOk, kCreated},
    {kClips + std::u16string(255, u'N'), 0, Disposition::kOpen, kOk, kOpened},
    {kClips + std::u16string(256, u'n'), 0, Disposition::kOpen, kInvalid, 0},
    {kClips + std::u16string(256, u'n'), 0, Disposition::kCreate, kInvalid, 0},
    // the disk would end the name at the NUL, and there is a Take1
    {kClips + std::u16string(u"Take1\0tail", 10), 0, Disposition::kCreate, kInvalid, 0},
    // folders
    {u"\\rzv\\VOLA\\clips", 0, Disposition::kOpen, kOk, kOpened},
    {u"\\RZV\\VolA\\Clips", option::kNonDirectoryFile, Disposition::kOpen, "STATUS_FILE_IS_A_DIRECTORY", 0},
    {u"\\RZV\\VolA\\Clips", option::kDirectoryFile, Disposition::kCreate, "STATUS_OBJECT_NAME_COLLISION", 0},
    {u"\\RZV\\VolA\\Made", option::kDirectoryFile, Disposition::kCreate, kOk, kCreated},
    {u"\\RZV\\VolA\\None", option::kDirectoryFile, Disposition::kOpen, kNotFound, 0},
    {u"\\RZV\\Made", option::kDirectoryFile, Disposition::kCreate, kDenied, 0},
    {u"\\Made", option::kDirectoryFile, Disposition::kCreate, kDenied, 0},
    {u"\\RZV\\VolA\\Clips\\Made", option::kDirectoryFile, Disposition::kCreate, kDenied, 0},
    // files
    {u"\\RZV\\VolA\\CLIPS\\take1", 0, Disposition::kOpen, kOk, kOpened},
    {u"\\XYZ\\VolA\\CLIPS\\take1", 0, Disposition::kOpenIf, kOk, kOpened},
    {kTake1, option::kDirectoryFile, Disposition::kOpen, "STATUS_NOT_A_DIRECTORY", 0},
    {kTake1, option::kDirectoryFile, Disposition::kCreate, "STATUS_OBJECT_NAME_COLLISION", 0},
    {kTake1, 0, Disposition::kCreate, "STATUS_OBJECT_NAME_COLLISION", 0},
    {kTake1, 0, Disposition::kOverwriteIf, "STATUS_OBJECT_NAME_COLLISION", 0},
    {u"\\RZV\\VolA\\Clips\\New", 0, Disposition::kOpen, kNotFound, 0},
    {u"\\RZV\\VolA\\Clips\\New", 0, Disposition::kCreate, kOk, kCreated},
    {u"\\XYZ\\VolA\\Clips\\New2", 0, Disposition::kSupersede, kOk, kCreated},
    {u"\\RZV\\VolA\\New", 0, Disposition::kCreate, kDenied, 0},
    {u"\\FRM\\VolA\\Clips\\New4", 0, Disposition::kCreate, kDenied, 0},
    // below a file
    {u"\\RZV\\VolA\\Clips\\Take1\\x", 0, Disposition::kOpen, "STATUS_OBJECT_PATH_NOT_FOUND", 0},
    {u"\\FRM\\VolA\\Clips\\Take1", option::kNonDirectoryFile, Disposition::kOpen, "STATUS_FILE_IS_A_DIRECTORY", 0},
    {u"\\FRM\\VolA\\Clips\\Take1", option::kDirectoryFile, Disposition::kOpen, kOk, kOpened},
    {u"\\FRM\\VolA\\Clips\\Take1\\Note", 0, Disposition::kCreate, kOk, kCreated},
    {u"\\FRM\\VolA\\Clips\\Take1\\note", 0, Disposition::kOpen, kOk, kOpened},
    {u"\\FRM\\VolA\\Clips\\Take1\\note", 0, Disposition::kOverwriteIf, kOk, kOpened},
    {u"\\FRM\\VolA\\Clips\\Take1\\Note\\x", 0, Disposition::kCreate, "STATUS_OBJECT_PATH_NOT_FOUND", 0},
    {u"\\FRM\\VolA\\Clips\\Take1\\Made", option::kDirectoryFile, Disposition::kCreate, kDenied, 0},
    // ways that end
    {u"\\RZV\\NoSuchVol\\Clips\\x", 0, Disposition::kOpen, "STATUS_OBJECT_PATH_NOT_FOUND", 0},
    {u"\\RZV\\VolA\\Nowhere\\x", 0, Disposition::kCreate, "STATUS_OBJECT_PATH_NOT_FOUND", 0},
    {u"\\Nothing\\VolA\\Clips\\x", 0, Disposition::kCreate, "STATUS_OBJECT_PATH_NOT_FOUND", 0},
    {u"\\RZV\\NoSuchVol", 0, Disposition::kOpen, kNotFound, 0},
    // the command port, everywhere and nowhere else
    {u"\\___Port0___", 0, Disposition::kOpen, kOk, kOpened},
    {u"\\RZV\\VolA\\___Port0___", 0, Disposition::kOverwrite, kOk, kOpened},
    {u"\\RZV\\VolA\\Clips\\___port0___", 0, Disposition::kCreate, kOk, kOpened},
    {u"\\FRM\\VolA\\Clips\\___PORT0___", 0, Disposition::kSupersede, kOk, kOpened},
    {u"\\FRM\\VolA\\Clips\\Take1\\___Port0___", 0, Disposition::kOpenIf, kOk, kOpened},
    {u"\\RZV\\VolA\\___Port0___", option::kDirectoryFile, Disposition::kCreate, "STATUS_OBJECT_NAME_COLLISION", 0},
    {u"\\RZV\\VolA\\___Port0___", option::kDirectoryFile, Disposition::kOpen, kNotFound, 0},
    {u"\\RZV\\VolA\\___Port0___\\x", 0, Disposition::kOpen, "STATUS_OBJECT_PATH_NOT_FOUND", 0},
};

TEST_F(FsdCreate, AnswersEachNameAndDisposition) {
    for (const auto& test : kCases) {
        SCOPED_TRACE(std::string(test.path.begin(), test.path.end()) + " options " + std::to_string(test.options) +
                     " disposition " + std::to_string(static_cast<int>(test.disposition)));
        const host::OpenResult opened = Open(test.path, test.disposition, kReadDelete, test.options);
        EXPECT_EQ(host::StatusName(opened.status), test.status);
        if (opened.status.Ok()) {
            EXPECT_EQ(opened.action, test.action);
            EXPECT_TRUE(User().Close(opened.handle).Ok());
        }
        ExpectIdle("after the case");
    }
    RestartWithTypes();
    for (const char16_t* path : {u"\\RZV\\VolA\\Clips\\New", u"\\RZV\\VolA\\Clips\\New2", u"\\RZV\\VolA\\Made"}) {
        EXPECT_EQ(TryOpen(path), kOk);
    }
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\Made"), kNotFound);
}

TEST_F(FsdCreate, AFailedAllocationLeavesNothingBehind) {
    const struct {
        const char* what;
        const char16_t* path;
        Disposition disposition;
        std::uint32_t options = 0;
        bool makesSomething = false;
    } cases[] = {
        {"open of a file", kTake1, Disposition::kOpen},
        {"open of a file below a media folder", u"\\FRM\\VolA\\Clips\\Take1\\None", Disposition::kOpen},
        {"open of the volume", u"", Disposition::kOpen},
        {"a new folder", u"\\RZV\\VolA\\Made", Disposition::kCreate, option::kDirectoryFile, true},
        {"a new file", u"\\RZV\\VolA\\Clips\\Made", Disposition::kCreate, 0, true},
        {"an existing folder created", u"\\RZV\\VolA\\Clips", Disposition::kCreate, option::kDirectoryFile},
        {"a new RAM file", u"\\FRM\\VolA\\Clips\\Take1\\Made", Disposition::kCreate, 0, true},
        {"the command port", u"\\RZV\\VolA\\Clips\\___Port0___", Disposition::kOpenIf},
    };
    for (const auto& test : cases) {
        const ULONGLONG freeBefore = FreeBlocks();
        bool fired = true;
        for (std::uint64_t n = 1; fired; ++n) {
            SCOPED_TRACE(std::string(test.what) + ", allocation " + std::to_string(n));
            nt::ArmFaults({.failAt = n, .driver = pVrkFsGlobalData->DriverObject});
            const host::OpenResult opened = Open(test.path, test.disposition, kReadDelete, test.options);
            fired = nt::FaultsFired() != 0;
            nt::DisarmFaults();
            if (opened.status.Ok()) {  // it can do without that memory, or there was no n-th allocation
                const host::ScopedHandle handle(User(), opened.handle);
                EXPECT_TRUE(!test.makesSomething || host::SetDeleteOnCleanup(User(), handle.Get(), true).Ok());
            }
            ExpectIdle("after the attempt");
            EXPECT_EQ(FreeBlocks(), freeBefore);
            EXPECT_TRUE(!test.makesSomething || TryOpen(test.path) == kNotFound);
        }
    }
}

}  // namespace
}  // namespace tests
