// Which control codes exist, what they demand of their buffers, and to whom they are refused.
#include <vrkfs/service.h>

#include <algorithm>
#include <cstring>

#include "tests/support/machine_fixture.h"

namespace tests {
namespace {

namespace status = host::status;

struct CodeCase {
    std::uint32_t code;
    std::size_t in;
    std::size_t out;
    host::Status answer;  // to buffers of exactly these lengths
    // What they hold beside zeros: a number of file types, or a type of request; and bytes of data.
    std::uint32_t first = 0;
    std::uint32_t third = 0;
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
// Whose buffers must hold what the input says.
constexpr CodeCase kContents[] = {
    {IOCTL_VRKFS_REGISTER_FILE_TYPES, 92, 0, status::kSuccess, 2},
    {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, 56, 100, status::kCancelled, VRKFS_SERVICE_READ, 100},
    {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, 56, 1, status::kCancelled, VRKFS_SERVICE_WRITE, 1},
    {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, 56, 0, status::kCancelled, VRKFS_SERVICE_OPEN, 0xFFFFFFFF},
};

class ControlCodes : public MachineTest {
  protected:
    void SetUp() override {
        MakeStation(2);
        Start();
        control_ = {User(), OpenControl().handle};
    }
    void TearDown() override {
        control_.Reset();
        MachineTest::TearDown();
    }
    void Expect(const CodeCase& test, std::size_t in, std::size_t out, host::Status wanted) {
        SCOPED_TRACE(testing::Message() << "code " << std::hex << test.code << ", lengths " << in << ", " << out);
        std::vector<std::byte> input(std::max<std::size_t>(in, 12));
        std::vector<std::byte> output(out);
        std::memcpy(input.data(), &test.first, sizeof(test.first));
        std::memcpy(input.data() + 8, &test.third, sizeof(test.third));
        const host::IoResult result =
            User().DeviceControl(control_.Get(), test.code, std::span(input).first(in), output);
        EXPECT_EQ(host::StatusName(result.status), host::StatusName(wanted));
        EXPECT_TRUE(result.status.Ok() || result.information == 0);
    }

    host::ScopedHandle control_;
};

TEST_F(ControlCodes, EveryCodeRefusesBuffersOneByteShort) {
    std::vector<CodeCase> cases(std::begin(kCodes), std::end(kCodes));
    cases.insert(cases.end(), std::begin(kContents), std::end(kContents));
    for (const CodeCase& test : cases) {
        if (test.in != 0) {
            Expect(test, test.in - 1, test.out, status::kBufferTooSmall);
        }
        if (test.out != 0) {
            Expect(test, test.in, test.out - 1, status::kBufferTooSmall);
        }
        if (!test.answer.Pending()) {  // which waits for work as long as its sender lives
            Expect(test, test.in, test.out, test.answer);
        }
    }
}

TEST_F(ControlCodes, PostedCodesThatFailAtOnceAreNeverPending) {
    const host::ScopedHandle control(User(), User().Create({.path = u"VrkFsDevice0", .overlapped = true}).handle);
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
    std::vector<std::uint32_t> codes = {0, 0x00090018, 0x00222004 | 0x4000, 0x00232004, 0x80222004, 0xFFFFFFFF};
    for (std::uint32_t code = 0x00221FF0; code < 0x00222090; ++code) {
        codes.push_back(code);
    }
    for (const std::uint32_t code : codes) {
        if (std::ranges::find(kCodes, code, &CodeCase::code) == std::end(kCodes)) {
            Expect({code, 2048, 2048, status::kInvalidDeviceRequest}, 2048, 2048, status::kInvalidDeviceRequest);
        }
    }
}

}  // namespace
}  // namespace tests
