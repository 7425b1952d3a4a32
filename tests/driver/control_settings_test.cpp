// What is set for a card or for the driver through the control device, what of it lasts, and the drive's letter.
#include <cstring>

#include "tests/support/driver_fixture.h"

namespace tests {
namespace {

class ControlSettings : public DriverTest {
  protected:
    void SetUp() override {
        MakeStation(1, 16 << 20, 2);
        Start();
        ASSERT_EQ(Format(u"VOL", {0}), VRKFS_RESULT_DONE);
    }
    std::string Send(std::uint32_t code, std::span<const std::byte> in, std::span<std::byte> out = {},
                     std::uint32_t card = 0) {
        const host::ScopedHandle control(User(), OpenControl(card).handle);
        const host::IoResult result = User().DeviceControl(control.Get(), code, in, out);
        EXPECT_EQ(result.information, result.status.Ok() ? out.size() : 0u);
        return host::StatusName(result.status);
    }
    VrkFsPreferences Prefs() {
        VrkFsPreferences prefs;
        std::memset(&prefs, 0xEE, sizeof(prefs));
        EXPECT_EQ(Send(IOCTL_VRKFS_GET_PREFERENCES, {}, WritableBytesOf(prefs)), "STATUS_SUCCESS");
        return prefs;
    }
    // The letter in force after asking for one.
    char Ask(char letter) {
        VrkFsPreferences prefs = Prefs();
        prefs.DriveLetter = static_cast<std::uint8_t>(letter);
        EXPECT_EQ(Send(IOCTL_VRKFS_SET_PREFERENCES, BytesOf(prefs)), "STATUS_SUCCESS");
        return static_cast<char>(Prefs().DriveLetter);
    }
    // Whether the card's drive is there under the letter.
    bool Opens(char letter) {
        const std::u16string path = std::u16string(1, static_cast<char16_t>(letter)) + u":\\RZV\\VOL";
        return static_cast<bool>(host::ScopedHandle(User(), User().Create({.path = path}).handle));
    }
    static NTSTATUS Link(char letter, bool make) {
        std::u16string name = u"\\DosDevices\\P:";
        name[12] = static_cast<char16_t>(letter);
        UNICODE_STRING link = CountedName(name);
        UNICODE_STRING to = CountedName(u"\\Device\\Nowhere");
        return make ? IoCreateSymbolicLink(&link, &to) : IoDeleteSymbolicLink(&link);
    }
    static bool IsConnected(std::uint32_t card) {
        PLIST_ENTRY link = pVrkFsGlobalData->CardInstances.Flink;
        link = card == 0 ? link : link->Flink;
        const CardInstance* instance = CONTAINING_RECORD(link, CardInstance, Link);
        return VrkFsDiskExtOfDevice(instance->DiskDevice)->ServiceChannel.ServiceConnected != FALSE;
    }
    // A list of rows A00, A01, ... whose count says `count`.
    std::string Register(std::uint32_t count, std::uint32_t rows, std::uint32_t card = 0, char16_t first = u'A') {
        std::vector<std::byte> input(4 + rows * sizeof(VrkFsFileType));
        std::memcpy(input.data(), &count, 4);
        for (std::uint32_t row = 0; row < rows; ++row) {
            VrkFsFileType type{};
            type.TypeCode = row + 1;
            const char16_t name[3] = {first, static_cast<char16_t>(u'0' + row / 10),
                                      static_cast<char16_t>(u'0' + row % 10)};
            std::memcpy(type.Extension, name, sizeof(name));
            std::memcpy(input.data() + 4 + row * sizeof(type), &type, sizeof(type));
        }
        return Send(IOCTL_VRKFS_REGISTER_FILE_TYPES, input, {}, card);
    }
};

TEST_F(ControlSettings, TheDriveTakesTheNextFreeLetter) {
    const struct {
        char asked;
        bool taken;  // by somebody else
        char got;
    } cases[] = {{'S', false, 'S'}, {'Q', false, 'R'} /* Q is the other card's */, {'Z', true, 'A'}, {'*', false, 'P'}};
    char before = 'P';
    for (const auto& test : cases) {
        ASSERT_TRUE(!test.taken || NT_SUCCESS(Link(test.asked, true)));
        EXPECT_EQ(Ask(test.asked), test.got);
        EXPECT_TRUE(Opens(test.got) && !Opens(before)) << test.asked;
        before = test.got;
    }
    EXPECT_EQ(Link('Z', false), STATUS_SUCCESS) << "somebody else's link is gone";
    Restart();
    EXPECT_TRUE(Opens('P'));
}

TEST_F(ControlSettings, ALinkThatIsNotTheDrivesStays) {
    // An unchanged letter leaves the link alone, even a missing one; one that cannot be taken away stays the only one.
    ASSERT_EQ(Link('P', false), STATUS_SUCCESS);
    EXPECT_EQ(Ask('P'), 'P');
    EXPECT_FALSE(Opens('P'));
    EXPECT_EQ(Ask('G'), 'G');
    EXPECT_FALSE(Opens('G'));
    Restart();
    ASSERT_TRUE(Opens('G'));
    // A drive that found no letter has no link: what has the name it tried last is somebody else's.
    nt::ArmFaults({.kinds = nt::FaultBit(nt::FaultKind::kObject), .failAt = 1, .forEver = true});
    const char tried = Ask('M');
    nt::DisarmFaults();
    EXPECT_FALSE(Opens('G'));
    ASSERT_EQ(Link(tried, true), STATUS_SUCCESS);
    EXPECT_EQ(Ask('H'), 'H');
    EXPECT_TRUE(Opens('H'));
    EXPECT_EQ(Link(tried, false), STATUS_SUCCESS);
}

TEST_F(ControlSettings, TheTableOfFileTypesHasAnEnd) {
    ASSERT_EQ(Send(IOCTL_VRKFS_UNREGISTER_FILE_TYPES, {}), "STATUS_SUCCESS");
    const struct {
        std::uint32_t count;
        std::uint32_t rows;
        const char* status;
        std::size_t types;  // afterwards, the built-in one included
    } cases[] = {
        {2, 1, "STATUS_BUFFER_TOO_SMALL", 1},
        {0xFFFFFFFF, 2, "STATUS_BUFFER_TOO_SMALL", 1},
        {0x05D1745E, 2, "STATUS_BUFFER_TOO_SMALL", 1} /* 4 + 44 * count wraps to 12 */,
        {0, 1, "STATUS_SUCCESS", 1},
        {32, 32, "STATUS_INSUFFICIENT_RESOURCES", 1},
        {30, 31, "STATUS_SUCCESS", 31},
        {2, 2, "STATUS_INSUFFICIENT_RESOURCES", 31},
        {1, 1, "STATUS_SUCCESS", 32},
        {1, 1, "STATUS_INSUFFICIENT_RESOURCES", 32},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(Register(test.count, test.rows), test.status) << test.count;
        EXPECT_TRUE(IsConnected(0));
        EXPECT_EQ(List(u"\\").size(), test.types) << test.count;
    }
    ASSERT_EQ(Send(IOCTL_VRKFS_UNREGISTER_FILE_TYPES, {}), "STATUS_SUCCESS");
    EXPECT_FALSE(IsConnected(0));
    EXPECT_EQ(List(u"\\"), std::vector<std::u16string>{u"RZV"});
    // Both cards' services; the table is the driver's.
    EXPECT_EQ(Register(1, 1, 1, u'B'), "STATUS_SUCCESS");
    EXPECT_FALSE(IsConnected(0));
    EXPECT_EQ(Register(1, 1, 0, u'C'), "STATUS_SUCCESS");
    EXPECT_EQ(List(u"\\"), (std::vector<std::u16string>{u"RZV", u"B00", u"C00"}));
    ASSERT_EQ(Send(IOCTL_VRKFS_UNREGISTER_FILE_TYPES, {}), "STATUS_SUCCESS");
    EXPECT_TRUE(IsConnected(1));
    EXPECT_FALSE(IsConnected(0));
    const VrkFsSdtiFlagsRequest flags = {0x12345678};
    EXPECT_EQ(Send(IOCTL_VRKFS_REGISTER_SDTI_FLAGS, BytesOf(flags)), "STATUS_SUCCESS");
    EXPECT_TRUE(IsConnected(0));
    EXPECT_EQ(pVrkFsGlobalData->SdtiFlags, 0x12345678u);
    EXPECT_EQ(Send(IOCTL_VRKFS_UNREGISTER_FILE_TYPES, {}), "STATUS_SUCCESS");
    EXPECT_EQ(Send(IOCTL_VRKFS_UNREGISTER_FILE_TYPES, {}, {}, 1), "STATUS_SUCCESS");
}

}  // namespace
}  // namespace tests
