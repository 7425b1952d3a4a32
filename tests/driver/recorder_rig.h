// What a recording application does through the control device, step by step, on a volume of a MediaTest.
#pragma once

#include "tests/driver/media_rig.h"

namespace tests {

class RecorderTest : public MediaTest {
  protected:
    static constexpr const char* kOk = "STATUS_SUCCESS";

    // By name, so that a failed comparison reads well.
    template <typename Record>
    std::string Send(std::uint32_t code, Record& record, std::uint64_t* returned = nullptr) {
        return Answer(User().DeviceControl(Control(), code, BytesOf(record), WritableBytesOf(record)), returned);
    }
    template <typename Record>
    std::string SendOnly(std::uint32_t code, const Record& record) {
        return Answer(User().DeviceControl(Control(), code, BytesOf(record), {}), nullptr);
    }
    std::string SendNothing(std::uint32_t code) {
        return Answer(User().DeviceControl(Control(), code, {}, {}), nullptr);
    }
    // A code that answers with a section's name, into a buffer of that many bytes.
    template <typename Record>
    std::string SendForName(std::uint32_t code, const Record& record, std::u16string* name, std::size_t bytes = 400) {
        std::vector<std::byte> buffer(bytes, std::byte{0xEE});
        std::uint64_t returned = 0;
        const std::string answer = Answer(User().DeviceControl(Control(), code, BytesOf(record), buffer), &returned);
        EXPECT_EQ(returned, 0u);
        name->clear();
        for (std::size_t at = 0; at + 2 <= bytes; at += 2) {
            char16_t c;
            std::memcpy(&c, buffer.data() + at, 2);
            if (c == 0) {
                return answer;
            }
            name->push_back(c);
        }
        *name = u"?";  // not terminated
        return answer;
    }

    VrkFsVideoSpace Allocate(host::Handle file, std::uint32_t table, std::uint32_t data, std::uint32_t flags = 0) {
        VrkFsVideoSpace space{};
        space.Handle = file;
        space.BodyTableBlocksWanted = table;
        space.DataBlocksWanted = data;
        space.Flags = flags;
        std::uint64_t returned = 0;
        EXPECT_EQ(Send(IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, space, &returned), kOk);
        EXPECT_EQ(returned, sizeof(space));
        return space;
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
        VrkFsBodyTableReference request{};
        request.Handle = file;
        request.Alpha = alpha;
        request.Scratch = 0xDEADBEEF;
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
    static std::string Answer(const host::IoResult& result, std::uint64_t* returned) {
        if (returned != nullptr) {
            *returned = result.information;
        }
        return host::StatusName(result.status);
    }

    host::ScopedHandle control_;
};

}  // namespace tests
