// What a recording application does through the control device, step by step, on a volume of a MediaTest.
#pragma once

#include "tests/driver/media_rig.h"

namespace tests {

class RecorderTest : public MediaTest {
  protected:
    static constexpr const char* kOk = "STATUS_SUCCESS";

    // By name, so that a failed comparison reads well. What succeeds returns the whole record.
    template <typename Record>
    std::string SendTo(host::Handle control, std::uint32_t code, Record& record) {
        return Answer(User().DeviceControl(control, code, BytesOf(record), WritableBytesOf(record)), sizeof(record));
    }
    template <typename Record>
    std::string Send(std::uint32_t code, Record& record) {
        return SendTo(Control(), code, record);
    }
    template <typename Record>
    std::string SendOnly(std::uint32_t code, const Record& record) {
        return Answer(User().DeviceControl(Control(), code, BytesOf(record), {}), 0);
    }
    std::string SendNothing(std::uint32_t code) { return Answer(User().DeviceControl(Control(), code, {}, {}), 0); }
    // A code that answers with a section's name, into a buffer of that many bytes.
    template <typename Record>
    std::string SendForName(std::uint32_t code, const Record& record, std::u16string* name, std::size_t bytes = 400) {
        std::u16string buffer(bytes / 2 + 1, u'?');
        const std::string answer = Answer(User().DeviceControl(Control(), code, BytesOf(record),
                                                               std::as_writable_bytes(std::span(buffer)).first(bytes)),
                                          0);
        EXPECT_EQ(buffer.back(), u'?') << "behind the end";
        const std::size_t end = buffer.find(u'\0');
        *name = end < bytes / 2 ? buffer.substr(0, end) : u"?";  // not terminated
        return answer;
    }

    VrkFsVideoSpace Allocate(host::Handle file, std::uint32_t table, std::uint32_t data, std::uint32_t flags = 0) {
        VrkFsVideoSpace space{file, table, data, flags, 0, 0, 0, 0, {}, 0};
        EXPECT_EQ(Send(IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, space), kOk);
        return space;
    }
    // What settles the video stream on that many blocks.
    static VrkFsVideoFileUpdate Settlement(host::Handle file, std::uint32_t table, std::uint32_t data) {
        VrkFsVideoFileUpdate update{};
        update.Handle = file;
        update.VideoBodyTableAllocated = update.VideoBodyTableUsed = table;
        update.VideoDataAllocated = update.VideoDataUsed = data;
        update.Flags = VRKFS_UPDATE_VIDEO;
        return update;
    }
    std::string CreateTable(host::Handle file, std::uint32_t frames) {
        return SendOnly(IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, VrkFsBodyTableCreation{file, frames, 0xDEADBEEF});
    }
    std::string AddNodes(host::Handle file, const VrkFsVideoSpace& space, std::u16string* name, bool alpha = false) {
        const VrkFsBodyTableNodes nodes{file, space.BodyTableLba, space.BodyTableBlocks, 0xDEADBEEF};
        return SendForName(
            alpha ? IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE : IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE, nodes, name);
    }
    std::string Reference(host::Handle file, std::u16string* name, bool alpha = false, std::size_t bytes = 400) {
        const VrkFsBodyTableReference request{file, alpha, {}, 0xDEADBEEF};
        return SendForName(IOCTL_VRKFS_REFERENCE_BODY_TABLE, request, name, bytes);
    }
    std::string Dereference(host::Handle file) {
        return SendOnly(IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, VrkFsBodyTableDereference{file, 0xDEADBEEF});
    }
    VrkFsFileLocation Locate(host::Handle file) {
        VrkFsFileLocation place;
        std::memset(&place, 0xEE, sizeof(place));
        place.Handle = file;
        EXPECT_EQ(Send(IOCTL_VRKFS_GET_FILE_LOCATION_INFO, place), kOk);
        return place;
    }

    host::Handle Control() {
        if (!control_) {
            control_ = {User(), OpenControl().handle};
        }
        return control_.Get();
    }
    void CloseControl() { control_.Reset(); }
    void TearDown() override {
        CloseControl();
        MediaTest::TearDown();
    }

  private:
    static std::string Answer(const host::IoResult& result, std::uint64_t returned) {
        EXPECT_EQ(result.information, result.status.Ok() ? returned : 0);
        return host::StatusName(result.status);
    }

    host::ScopedHandle control_;
};

}  // namespace tests
