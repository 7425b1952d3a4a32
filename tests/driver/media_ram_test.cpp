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
    RamFile* Make(const std::u16string& parent, const std::u16string& name) {
        const UNICODE_STRING parentName = Counted(parent);
        const UNICODE_STRING ownName = Counted(name);
        RamFile* file = nullptr;
        EXPECT_EQ(VrkFsVFCreateNewFile(&set_, &parentName, &ownName, 5, 100, &file), STATUS_SUCCESS);
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

TEST_F(MediaRam, WritesGrowTheFileUpToItsMaximum) {
    constexpr ULONG kMaximum = 2097152;
    struct {
        ULONGLONG offset;
        ULONG count;
        NTSTATUS status;
        ULONG moved, allocation;
        ULONGLONG end;
    } const cases[] = {
        {0, 10, STATUS_SUCCESS, 10, 65536, 10},
        {65530, 100, STATUS_SUCCESS, 100, 131072, 65630},
        {300000, 1, STATUS_SUCCESS, 1, 300001, 300001},
        {2097100, 100, STATUS_SUCCESS, 52, kMaximum, kMaximum},
        {2097152, 1, STATUS_END_OF_FILE, 0, kMaximum, kMaximum},
        {0xFFFFFFFFFFFFFFFF, 100, STATUS_END_OF_FILE, 0, kMaximum, kMaximum},
        {0xFFFFFFFFFFFFFFF0, 16, STATUS_END_OF_FILE, 0, kMaximum, kMaximum},
        {5, 3, STATUS_SUCCESS, 3, kMaximum, kMaximum},
    };
    RamFile* file = Make(u"\\XYZ\\V\\F\\C", u"notes");
    const std::vector<UCHAR> data(100, 'x');
    for (const auto& test : cases) {
        SCOPED_TRACE(test.offset);
        ULONG count = test.count;
        EXPECT_EQ(VrkFsVFWriteFile(file, data.data(), test.offset, &count, kMaximum), test.status);
        EXPECT_EQ(count, test.moved);
        EXPECT_EQ(file->Allocation, test.allocation);
        EXPECT_EQ(file->EndOfFile, test.end);
    }
    EXPECT_EQ(Read(file, 65629, 3), std::string("x\0\0", 3));
    EXPECT_EQ(Read(file, kMaximum - 1, 5), "x");
    EXPECT_EQ(Read(file, kMaximum, 5), "");
}

TEST_F(MediaRam, SizesSetFromOutside) {
    enum What { kAllocation, kEnd, kWrite };
    struct {
        What what;
        ULONGLONG value;  // or offset of a write of four bytes
        ULONG maximum, allocation;
        ULONGLONG end;
    } const steps[] = {
        {kEnd, 5000000, 2097152, 2097152, 2097152},
        {kAllocation, 100, 2097152, 100, 100},  // what does not fit any more is gone
        {kWrite, 50, 2097152, 100, 100},
        {kEnd, 40, 2097152, 100, 40},
        {kWrite, 96, 2097152, 100, 100},
        {kEnd, 90, 2097152, 100, 90},
        {kEnd, 100, 2097152, 100, 100},
        {kAllocation, 0, 2097152, 0, 0},
        {kEnd, 10, 2097152, 10, 10},
        {kAllocation, 200000, 2097152, 200000, 10},
        {kEnd, 60000, 1000, 200000, 1000},
        {kWrite, 200000, 1000, 200000, 1000},  // a lower maximum takes nothing away
        {kAllocation, ~0ull, 70000, 70000, 1000},
    };
    RamFile* file = Make(u"\\XYZ\\V\\F\\C", u"notes");
    const UCHAR bytes[] = {'a', 'b', 'c', 'd'};
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        ULONG count = 4;
        const NTSTATUS status = step.what == kAllocation ? VrkFsVFSetFileAllocation(file, step.maximum, step.value)
                                : step.what == kEnd      ? VrkFsVFSetEndOfFile(file, step.maximum, step.value)
                                                    : VrkFsVFWriteFile(file, bytes, step.value, &count, step.maximum);
        EXPECT_EQ(status, count == 0 ? STATUS_END_OF_FILE : STATUS_SUCCESS);
        EXPECT_EQ(file->Allocation, step.allocation);
        EXPECT_EQ(file->EndOfFile, step.end);
        // What was never written, or was cut off, reads as zero.
        const std::string all = Read(file, 0, static_cast<ULONG>(file->EndOfFile));
        EXPECT_EQ(std::count(all.begin(), all.end(), '\0') + (step.what == kWrite && count == 4 ? 4 : 0),
                  static_cast<std::ptrdiff_t>(all.size()));
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
    const std::u16string third = u"three";
    const UNICODE_STRING name = Counted(third);
    EXPECT_EQ(VrkFsVFCreateNewFile(&set_, &parent, &name, 5, 3, &found), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Events(), std::vector<std::string>{"C0050002 Virtual file limit exceeded"});
    VrkFsVFDeleteFile(&set_, other);
    EXPECT_EQ(VrkFsVFCreateNewFile(&set_, &parent, &name, 5, 3, &found), STATUS_SUCCESS);
    EXPECT_EQ(set_.Count, 3u);
}

}  // namespace
}  // namespace tests
