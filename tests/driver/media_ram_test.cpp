// RAM files: their sizes, their limits, and what a reader may see of memory that nobody has written.
#include <algorithm>
#include <cstring>
#include <optional>

#include "media/ram_files.h"
#include "nt/kernel.h"
#include "tests/driver/core_rig.h"

namespace tests {
namespace {

class MediaRam : public DriverRig {
  protected:
    void SetUp() override {
        DriverRig::SetUp();
        Boot();
        Plug(0);
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        scope_.emplace(driver_);
        VrkFsVFInitHandler(&set_);
    }
    void TearDown() override {
        VrkFsVFFreeHandler(&set_);
        scope_.reset();
        DriverRig::TearDown();
    }
    RamFile* Make(const std::u16string& parent, const std::u16string& name, ULONG most = 100,
                  NTSTATUS expected = STATUS_SUCCESS) {
        const UNICODE_STRING parentName = Counted(parent);
        const UNICODE_STRING ownName = Counted(name);
        RamFile* file = nullptr;
        EXPECT_EQ(VrkFsVFCreateNewFile(&set_, &parentName, &ownName, 5, most, &file), expected);
        return file;
    }
    static std::string Read(const RamFile* file, ULONGLONG offset, ULONG count) {
        std::string bytes(count, '?');
        ULONG moved = count;
        const NTSTATUS status = VrkFsVFReadFile(file, reinterpret_cast<PUCHAR>(bytes.data()), offset, &moved);
        EXPECT_EQ(status, moved == 0 ? STATUS_END_OF_FILE : STATUS_SUCCESS);
        bytes.resize(moved);
        return bytes;
    }

    RamFileSet set_{};
    std::optional<nt::DriverScope> scope_;
};

// Writes and sizes set from outside. What was never written, or was cut off, reads as zero.
TEST_F(MediaRam, SizesAndContents) {
    enum What { kWrite, kEnd, kAllocation };
    constexpr ULONG kMaximum = 2097152;
    struct {
        What what;
        ULONGLONG value;  // a size, or the place of a write ...
        ULONG count;      // ... of so many bytes
        ULONG maximum, moved, allocation;
        ULONGLONG end;
    } const steps[] = {
        {kWrite, 0, 10, kMaximum, 10, 65536, 10},
        {kWrite, 65530, 100, kMaximum, 100, 131072, 65630},
        {kWrite, 300000, 1, kMaximum, 1, 300001, 300001},
        {kWrite, 2097100, 100, kMaximum, 52, kMaximum, kMaximum},
        {kWrite, 2097152, 1, kMaximum, 0, kMaximum, kMaximum},
        {kWrite, 0xFFFFFFFFFFFFFFFF, 100, kMaximum, 0, kMaximum, kMaximum},
        {kWrite, 0xFFFFFFFFFFFFFFF0, 16, kMaximum, 0, kMaximum, kMaximum},
        {kWrite, 5, 3, kMaximum, 3, kMaximum, kMaximum},
        {kAllocation, 0, 0, kMaximum, 0, 0, 0},
        {kEnd, 5000000, 0, kMaximum, 0, kMaximum, kMaximum},
        {kAllocation, 100, 0, kMaximum, 0, 100, 100},  // what does not fit any more is gone
        {kWrite, 50, 4, kMaximum, 4, 100, 100},
        {kEnd, 40, 0, kMaximum, 0, 100, 40},
        {kWrite, 96, 4, kMaximum, 4, 100, 100},
        {kEnd, 90, 0, kMaximum, 0, 100, 90},
        {kEnd, 100, 0, kMaximum, 0, 100, 100},
        {kAllocation, 0, 0, kMaximum, 0, 0, 0},
        {kEnd, 10, 0, kMaximum, 0, 10, 10},
        {kAllocation, 200000, 0, kMaximum, 0, 200000, 10},
        {kEnd, 60000, 0, 1000, 0, 200000, 1000},
        {kWrite, 200000, 4, 1000, 0, 200000, 1000},  // a lower maximum takes nothing away
        {kAllocation, ~0ull, 0, 70000, 0, 70000, 1000},
    };
    RamFile* file = Make(u"\\XYZ\\V\\F\\C", u"notes");
    const std::vector<UCHAR> data(100, 'x');
    std::string content;
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        ULONG moved = step.count;
        const NTSTATUS status = step.what == kAllocation ? VrkFsVFSetFileAllocation(file, step.maximum, step.value)
                                : step.what == kEnd
                                    ? VrkFsVFSetEndOfFile(file, step.maximum, step.value)
                                    : VrkFsVFWriteFile(file, data.data(), step.value, &moved, step.maximum);
        EXPECT_EQ(status, step.what == kWrite && step.moved == 0 ? STATUS_END_OF_FILE : STATUS_SUCCESS);
        ASSERT_EQ(moved, step.moved);
        EXPECT_EQ(file->Allocation, step.allocation);
        EXPECT_EQ(file->EndOfFile, step.end);
        content.resize(step.end);
        std::fill_n(content.begin() + (moved == 0 ? 0 : static_cast<std::ptrdiff_t>(step.value)), moved, 'x');
        EXPECT_TRUE(Read(file, 0, kMaximum + 5) == content);
        EXPECT_EQ(Read(file, step.end, 5), "");
    }
}

TEST_F(MediaRam, NamesOrderAndLimit) {
    const std::u16string here = u"\\XYZ\\V\\F\\C";
    const std::u16string there = u"\\XYZ\\V\\F\\D";
    RamFile* first = Make(here, u"one");
    RamFile* other = Make(there, u"ONE");
    RamFile* second = Make(here, u"two");
    const std::u16string lower = u"\\xyz\\v\\f\\c";
    const std::u16string mixed = u"One";
    const UNICODE_STRING parent = Counted(lower);
    const UNICODE_STRING wanted = Counted(mixed);
    RamFile* found = nullptr;
    ULONG ordinal = 0;
    ASSERT_TRUE(VrkFsVFFindFile(&set_, &parent, &wanted, &found, &ordinal));
    EXPECT_EQ(found, first);
    EXPECT_EQ(ordinal, 1u);
    for (ULONG i = 0; i < 3; ++i) {
        RamFile* listed = nullptr;
        const BOOLEAN any = VrkFsVFFindNextFile(&set_, &parent, &i, &listed);
        EXPECT_EQ(any != FALSE, i < 2);
        EXPECT_EQ(listed, i == 0 ? second : i == 1 ? first : nullptr);
    }
    Make(lower, u"three", 3, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Events(), std::vector<std::string>{"C0050002 Virtual file limit exceeded"});
    VrkFsVFDeleteFile(&set_, other);
    Make(lower, u"three", 3);
    EXPECT_EQ(set_.Count, 3u);
}

}  // namespace
}  // namespace tests
