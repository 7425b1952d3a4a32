#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "nt/object_internal.h"
#include "nt/system.h"
#include "station_fixture.h"

namespace {

using tests::Attributes;

constexpr std::u16string_view kName = u"\\BaseNamedObjects\\P:/RZV/VOL1/CLIPS/CLIP.RZV";

class SectionTest : public tests::StationTest {
  protected:
    static NTSTATUS Create(HANDLE* section, std::u16string_view name, LONGLONG size) {
        LARGE_INTEGER maximum;
        maximum.QuadPart = size;
        return ZwCreateSection(section, SECTION_ALL_ACCESS, Attributes(name, OBJ_OPENIF), &maximum, PAGE_READWRITE,
                               SEC_COMMIT, nullptr);
    }

    static NTSTATUS Map(HANDLE section, void** address, SIZE_T* size) {
        LARGE_INTEGER start{};
        return ZwMapViewOfSection(section, NtCurrentProcess(), address, 0, 0, &start, size, ViewShare, 0,
                                  PAGE_READWRITE);
    }
};

TEST_F(SectionTest, AProgramSharesItButCannotResizeIt) {
    HANDLE section = nullptr;
    ASSERT_EQ(Create(&section, kName, 24 * 10), STATUS_SUCCESS);
    void* view = nullptr;
    SIZE_T viewSize = 0;
    ASSERT_EQ(Map(section, &view, &viewSize), STATUS_SUCCESS);
    {
        nt::Process program("player");
        uint32_t handle = 0;
        nt::SectionDescriptor descriptor;
        EXPECT_EQ(nt::OpenSectionFor(program.Object(), u"P:/OTHER", SECTION_ALL_ACCESS, &handle, &descriptor),
                  STATUS_OBJECT_NAME_NOT_FOUND);
        ASSERT_EQ(nt::OpenSectionFor(program.Object(), u"p:/rzv/vol1/clips/clip.rzv", SECTION_ALL_ACCESS, &handle,
                                     &descriptor),
                  STATUS_SUCCESS);
        EXPECT_EQ(descriptor.size, 240u);
        struct stat status;
        ASSERT_EQ(fstat(descriptor.descriptor, &status), 0);
        EXPECT_EQ(status.st_size, 240);
        EXPECT_NE(ftruncate(descriptor.descriptor, 0), 0);
        EXPECT_NE(ftruncate(descriptor.descriptor, 1 << 20), 0);
        EXPECT_NE(fcntl(descriptor.descriptor, F_ADD_SEALS, F_SEAL_WRITE), 0);
        ASSERT_EQ(pwrite(descriptor.descriptor, "frame", 5, 24), 5);
        close(descriptor.descriptor);
        EXPECT_EQ(std::memcmp(static_cast<char*>(view) + 24, "frame", 5), 0);

        {
            // A view is its process's alone, and goes with it.
            const nt::AttachProcess attached(program.Object());
            EXPECT_EQ(ZwUnmapViewOfSection(NtCurrentProcess(), view), STATUS_NOT_MAPPED_VIEW);
            void* ownView = nullptr;
            ASSERT_EQ(Map(nt::HandleFromValue(handle), &ownView, &(viewSize = 0)), STATUS_SUCCESS);
        }
        // The program's handle keeps section and name when the driver's go.
        EXPECT_EQ(ZwUnmapViewOfSection(NtCurrentProcess(), view), STATUS_SUCCESS);
        ZwClose(section);
        ASSERT_EQ(Create(&section, kName, 24 * 10), STATUS_OBJECT_NAME_EXISTS);
        ZwClose(section);
        EXPECT_EQ(program.Close(handle), STATUS_SUCCESS);
        program.Exit();
        EXPECT_EQ(nt::OpenSectionFor(program.Object(), u"P:/OTHER", SECTION_ALL_ACCESS, &handle, &descriptor),
                  STATUS_PROCESS_IS_TERMINATING);
    }
    EXPECT_EQ(ZwOpenSection(&section, SECTION_ALL_ACCESS, Attributes(kName)), STATUS_OBJECT_NAME_NOT_FOUND);
}

}  // namespace
