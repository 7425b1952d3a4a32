// The command port file: greeting, commands in pieces, replies, and paths at their limits.
#include <vrkfs/port.h>

#include <algorithm>
#include <cstring>

#include "tests/support/driver_fixture.h"

namespace tests {
namespace {

class CommandPort : public DriverTest {
  protected:
    void SetUp() override {
        MakeStation(1);
        Start();
        ASSERT_EQ(Format(u"Vol1", {0}), VRKFS_RESULT_DONE);
    }
    host::ScopedHandle OpenPort(const std::u16string& folder) { return Hold(folder + u"\\___port0___", kReadWrite); }
    // The reply as it stands: words of 32 bits.
    std::vector<std::uint32_t> Reply(host::Handle port) {
        std::byte buffer[200] = {};
        const host::IoResult result = User().Read(port, buffer, 0);
        EXPECT_TRUE(result.status.Ok()) << host::StatusName(result.status);
        std::vector<std::uint32_t> words(result.information / 4);
        std::memcpy(words.data(), buffer, words.size() * 4);
        return words;
    }
    std::uint64_t Write(host::Handle port, std::span<const std::byte> bytes, std::uint64_t offset) {
        const host::IoResult result = User().Write(port, bytes, offset);
        EXPECT_TRUE(result.status.Ok()) << host::StatusName(result.status);
        return result.information;
    }
    // A command whose payload starts with a path.
    static std::vector<std::byte> Command(std::uint32_t length, std::uint32_t code, const std::u16string& path = {}) {
        std::vector<std::byte> bytes(std::max<std::size_t>(8 + path.size() * 2, std::min(length, 2048u)));
        std::memcpy(bytes.data(), &length, 4);
        std::memcpy(bytes.data() + 4, &code, 4);
        std::memcpy(bytes.data() + 8, path.data(), path.size() * 2);
        return bytes;
    }

    static constexpr std::uint32_t kFailed = 0xFFFFFFFF;
    static constexpr std::uint32_t kUnknown = 0xFFFFFFFE;
    static constexpr std::uint32_t kIncomplete = 0xFFFFFFFD;
    static constexpr std::uint32_t kMagic = 0x46565A52;  // "RZVF"
};

TEST_F(CommandPort, GreetsAndAnswersEachCommand) {
    struct {
        std::uint32_t length;
        std::uint32_t code;
        std::vector<std::uint32_t> reply;
    } const cases[] = {
        {8, 9, {8, kUnknown}},
        {8, 0, {8, kUnknown}},
        {8, 2, {16, kIncomplete, 1, 0}},
        {0, 3, {16, kIncomplete, 1, 0}},
        {8, 1, {8, 0}},  // an empty path: the folder itself
        {1056, 1, {8, 0}},
        {1057, 1, {8, kFailed}},
        {7, 1, {8, kFailed}},
        {0, 4, {8, kFailed}},
        {1040, 4, {32, 0, 1, 0, 0, 0, 0, 0}},  // without a service the rest of the greeting stays
        {1041, 4, {8, kFailed}},
        {2048, 4, {8, kFailed}},
        {2049, 4, {16, kIncomplete, 1, 0}},  // can never be complete
    };
    for (const auto& test : cases) {
        const host::ScopedHandle port = OpenPort(u"\\RZV\\Vol1");
        EXPECT_EQ(Reply(port.Get()), (std::vector<std::uint32_t>{16, kMagic, 1, 0}));
        const std::vector<std::byte> command = Command(test.length, test.code);
        EXPECT_EQ(Write(port.Get(), command, 0), command.size());
        EXPECT_EQ(Reply(port.Get()), test.reply) << test.length << " " << test.code;
    }
}

TEST_F(CommandPort, ACommandRunsWithTheWriteThatReachesItsEnd) {
    const std::vector<std::byte> command = Command(1040, VRKFS_PORT_AVAILABLE_SPACE);
    for (const std::size_t cut : {1u, 4u, 8u, 9u, 1039u}) {
        const host::ScopedHandle port = OpenPort(u"");
        Write(port.Get(), std::span(command).first(cut), 0);
        EXPECT_EQ(Reply(port.Get()), (std::vector<std::uint32_t>{16, kIncomplete, 1, 0})) << cut;
        Write(port.Get(), std::span(command).subspan(cut), cut);
        EXPECT_EQ(Reply(port.Get()).size(), 8u) << cut;
        // The same again: the buffer keeps its bytes, so its last byte is enough.
        Write(port.Get(), std::span(command).last(1), 1039);
        EXPECT_EQ(Reply(port.Get())[1], 0u);
    }
}

TEST_F(CommandPort, TransfersEndWithTheBuffers) {
    const host::ScopedHandle port = OpenPort(u"\\RZV");
    std::vector<std::byte> bytes(3000);
    struct {
        std::uint64_t offset;
        std::size_t length;
        std::uint64_t moved;
        bool touchesReply;
    } const writes[] = {{2048, 10, 0, false}, {1ull << 32, 10, 0, false}, {2047, 10, 1, true}, {0, 3000, 2048, true}};
    for (const auto& test : writes) {
        const host::ScopedHandle fresh = OpenPort(u"\\RZV");
        EXPECT_EQ(Write(fresh.Get(), std::span(bytes).first(test.length), test.offset), test.moved);
        EXPECT_EQ(Reply(fresh.Get())[1] != kMagic, test.touchesReply) << test.offset;
    }
    struct {
        std::uint64_t offset;
        std::size_t length;
        std::uint64_t moved;
        bool ends;
    } const reads[] = {{0, 16, 16, false}, {12, 100, 4, false}, {16, 100, 0, false},
                       {255, 1, 0, false}, {256, 1, 0, true},   {1ull << 32, 1, 0, true}};
    for (const auto& test : reads) {
        const host::IoResult result = User().Read(port.Get(), std::span(bytes).first(test.length), test.offset);
        EXPECT_EQ(host::StatusName(result.status), test.ends ? "STATUS_END_OF_FILE" : "STATUS_SUCCESS") << test.offset;
        EXPECT_EQ(result.information, test.moved) << test.offset;
    }
}

TEST_F(CommandPort, PathsThatWouldGrowTooLongFail) {
    // "P:\RZV\Vol1\" takes 12 of 512 characters, the terminator one.
    struct {
        std::u16string folder;
        std::uint32_t code;
        std::size_t pathChars;
        std::uint32_t result;
    } const cases[] = {
        {u"\\RZV\\Vol1", VRKFS_PORT_CREATE_MEDIA_FILE, 499, 0},
        {u"\\RZV\\Vol1", VRKFS_PORT_CREATE_MEDIA_FILE, 500, kFailed},
        {u"\\RZV\\Vol1", VRKFS_PORT_CREATE_MEDIA_FILE, 512, kFailed},  // no terminator at all
        {u"", VRKFS_PORT_AVAILABLE_SPACE, 508, 0},
        {u"", VRKFS_PORT_AVAILABLE_SPACE, 509, kFailed},
        {u"\\RZV\\Vol1", VRKFS_PORT_AVAILABLE_SPACE, 512, 0},  // inside a volume the path does not matter
    };
    for (const auto& test : cases) {
        const host::ScopedHandle port = OpenPort(test.folder);
        const std::uint32_t length = test.code == VRKFS_PORT_CREATE_MEDIA_FILE ? 1056 : 1040;
        Write(port.Get(), Command(length, test.code, std::u16string(test.pathChars, u'x')), 0);
        EXPECT_EQ(Reply(port.Get())[1], test.result) << test.code << " " << test.pathChars;
    }
}

}  // namespace
}  // namespace tests
