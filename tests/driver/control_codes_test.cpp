// Which control codes exist, what they demand of their buffers, and to whom they are refused.
#include <vrkfs/service.h>

#include <cstring>

#include "nt/kernel.h"
#include "nt/section.h"
#include "nt/system.h"
#include "tests/driver/core_rig.h"
#include "tests/support/machine_fixture.h"

namespace tests {
namespace {

namespace status = host::status;

struct CodeCase {
    std::uint32_t code;
    std::size_t in;
    std::size_t out;
    host::Status answer;  // to zero-filled buffers of exactly these lengths
};

constexpr host::Status kInvalidHandle{0xC0000008};

constexpr CodeCase kCodes[] = {
    {0x00222000, 4, 0, status::kSuccess},    {0x00222004, 584, 4, status::kSuccess},
    {0x00222008, 4, 4, status::kSuccess},    {0x0022200C, 620, 620, kInvalidHandle},
    {0x00222010, 64, 64, kInvalidHandle},    {0x00222014, 664, 664, kInvalidHandle},
    {0x00222018, 48, 0, status::kSuccess},   {0x0022201C, 0, 0, status::kSuccess},
    {0x00222020, 0, 1568, status::kPending}, {0x00222026, 56, 0, status::kCancelled},
    {0x00222028, 0, 41, status::kSuccess},   {0x0022202C, 41, 0, status::kSuccess},
    {0x00222030, 4, 1024, kInvalidHandle},   {0x00222034, 260, 0, kInvalidHandle},
    {0x00222038, 36, 36, kInvalidHandle},    {0x0022203E, 12, 0, kInvalidHandle},
    {0x00222040, 8, 0, kInvalidHandle},      {0x00222044, 12, 0, kInvalidHandle},
    {0x0022204A, 16, 0, kInvalidHandle},     {0x0022204E, 16, 0, kInvalidHandle},
    {0x00222050, 44, 44, kInvalidHandle},    {0x00222054, 48, 56, kInvalidHandle},
    {0x00222058, 0, 0, status::kSuccess},    {0x0022205C, 0, 0, status::kSuccess},
    {0x00222060, 0, 8, status::kSuccess},    {0x00222064, 8, 0, status::kSuccess},
    {0x00222068, 12, 0, kInvalidHandle},     {0x0022206C, 4, 0, status::kSuccess},
    {0x00222070, 4, 0, status::kSuccess},    {0x00222074, 0, 0, status::kSuccess},
};
static_assert(std::size(kCodes) == 30);

class ControlCodes : public MachineTest {
  protected:
    void SetUp() override {
        MakeStation(2);
        Start();
    }
    host::IoResult Send(host::Handle handle, std::uint32_t code, std::size_t in, std::size_t out) {
        std::vector<std::byte> input(in);
        std::vector<std::byte> output(out);
        return User().DeviceControl(handle, code, input, output);
    }
    void ExpectRefusedWithoutBytes(const host::IoResult& result, host::Status wanted, const std::string& what) {
        EXPECT_EQ(host::StatusName(result.status), host::StatusName(wanted)) << what;
        EXPECT_EQ(result.information, 0u) << what;
    }
    static std::string Name(const CodeCase& test) {
        char text[16];
        std::snprintf(text, sizeof(text), "code %08X", test.code);
        return text;
    }
};

TEST_F(ControlCodes, EveryCodeRefusesBuffersOneByteShort) {
    const host::ScopedHandle control(User(), OpenControl().handle);
    for (const CodeCase& test : kCodes) {
        if (test.in != 0) {
            ExpectRefusedWithoutBytes(Send(control.Get(), test.code, test.in - 1, test.out), status::kBufferTooSmall,
                                      Name(test) + ", input");
        }
        if (test.out != 0) {
            ExpectRefusedWithoutBytes(Send(control.Get(), test.code, test.in, test.out - 1), status::kBufferTooSmall,
                                      Name(test) + ", output");
        }
        if (test.answer.Pending()) {
            continue;  // waits for work as long as its sender lives
        }
        const host::IoResult exact = Send(control.Get(), test.code, test.in, test.out);
        EXPECT_EQ(host::StatusName(exact.status), host::StatusName(test.answer)) << Name(test);
    }
}

TEST_F(ControlCodes, PostedCodesThatFailAtOnceAreNeverPending) {
    host::OpenRequest request;
    request.path = u"VrkFsDevice0";
    request.overlapped = true;
    const host::ScopedHandle control(User(), User().Create(request).handle);
    ASSERT_TRUE(control);
    for (const std::uint32_t code : {0x0022203E, 0x00222040, 0x00222044, 0x0022204A, 0x0022204E, 0x00222054}) {
        for (const std::size_t length : {0u, 56u}) {
            std::vector<std::byte> buffer(length);
            host::RequestId id = 0;
            const host::Status answer = User().DeviceControlOverlapped(
                control.Get(), code, buffer, buffer, [](host::IoResult) { ADD_FAILURE() << "completed later"; }, &id);
            EXPECT_EQ(host::StatusName(answer),
                      host::StatusName(length == 0 ? status::kBufferTooSmall : kInvalidHandle));
        }
    }
}

TEST_F(ControlCodes, OtherCodesDoNotExist) {
    const host::ScopedHandle control(User(), OpenControl().handle);
    const auto known = [](std::uint32_t code) {
        return std::any_of(std::begin(kCodes), std::end(kCodes),
                           [code](const CodeCase& test) { return test.code == code; });
    };
    std::vector<std::uint32_t> codes = {0, 0x00090018, 0x00222004 | 0x4000, 0x00232004, 0x80222004, 0xFFFFFFFF};
    for (std::uint32_t code = 0x00221FF0; code < 0x00222090; ++code) {
        codes.push_back(code);
    }
    for (const std::uint32_t code : codes) {
        if (!known(code)) {
            ExpectRefusedWithoutBytes(Send(control.Get(), code, 2048, 2048), status::kInvalidDeviceRequest,
                                      std::to_string(code));
        }
    }
}

TEST_F(ControlCodes, BuffersMustHoldWhatTheirContentSays) {
    const host::ScopedHandle control(User(), OpenControl().handle);
    const auto answer = [&](std::uint32_t code, std::uint32_t first, std::uint32_t third, std::size_t in,
                            std::size_t out) {
        std::vector<std::byte> input(in);
        std::vector<std::byte> output(out);
        std::memcpy(input.data(), &first, sizeof(first));
        std::memcpy(input.data() + 8, &third, sizeof(third));
        return host::StatusName(User().DeviceControl(control.Get(), code, input, output).status);
    };
    struct {
        std::uint32_t code;
        std::uint32_t first;  // number of file types, or the request that is answered
        std::uint32_t third;  // bytes of data
        std::size_t in;
        std::size_t out;
        bool fits;
    } const cases[] = {
        {IOCTL_VRKFS_REGISTER_FILE_TYPES, 1, 0, 48, 0, true},
        {IOCTL_VRKFS_REGISTER_FILE_TYPES, 2, 0, 91, 0, false},
        {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, VRKFS_SERVICE_READ, 100, 56, 99, false},
        {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, VRKFS_SERVICE_READ, 100, 56, 100, true},
        {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, VRKFS_SERVICE_WRITE, 1, 56, 0, false},
        {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, VRKFS_SERVICE_WRITE, 0, 56, 0, true},
        {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, VRKFS_SERVICE_OPEN, 0xFFFFFFFF, 56, 0, true},
    };
    for (const auto& test : cases) {
        const bool isList = test.code == IOCTL_VRKFS_REGISTER_FILE_TYPES;
        EXPECT_EQ(answer(test.code, test.first, test.third, test.in, test.out), !test.fits ? "STATUS_BUFFER_TOO_SMALL"
                                                                                : isList   ? "STATUS_SUCCESS"
                                                                                           : "STATUS_CANCELLED")
            << test.code << " " << test.first << " " << test.in << " " << test.out;
    }
}

// An object that a handle names may be anything; a device extension may be nobody's.
class ControlObjects : public DriverRig {};

TEST_F(ControlObjects, AHandleOfNoFileIsNotReadAsOne) {
    Boot();
    Plug(0, {0});
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const std::u16string name = u"\\BaseNamedObjects\\control-test";
    UNICODE_STRING counted = Counted(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &counted, 0, nullptr, nullptr);
    LARGE_INTEGER size;
    size.QuadPart = 4096;
    HANDLE kept = nullptr;
    ASSERT_EQ(ZwCreateSection(&kept, SECTION_ALL_ACCESS, &attributes, &size, PAGE_READWRITE, SEC_COMMIT, nullptr),
              STATUS_SUCCESS);
    {
        nt::Process user("user");
        nt::Handle control = 0;
        ASSERT_EQ(user.Open({.name = u"\\Device\\VrkFsDevice0"}, &control), STATUS_SUCCESS);
        nt::SectionDescriptor section;
        uint32_t handle = 0;
        ASSERT_EQ(nt::OpenSectionFor(user.Object(), u"control-test", SECTION_MAP_READ, &handle, &section),
                  STATUS_SUCCESS);
        ::close(section.descriptor);
        VrkFsVolumeSpaceInfo info{};
        IO_STATUS_BLOCK io;
        for (const std::uint32_t object : {handle, control}) {
            info.Handle = object;
            EXPECT_EQ(user.DeviceControl(control, &io, IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, &info, sizeof(info), &info,
                                         sizeof(info)),
                      STATUS_UNSUCCESSFUL);
        }
        for (const std::uint32_t wild : {0u, 0x7FFFFFFCu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
            info.Handle = wild;
            EXPECT_FALSE(NT_SUCCESS(user.DeviceControl(control, &io, IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, &info,
                                                       sizeof(info), &info, sizeof(info))))
                << wild;
        }
    }
    EXPECT_EQ(ZwClose(kept), STATUS_SUCCESS);
}

}  // namespace
}  // namespace tests
