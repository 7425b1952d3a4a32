#include <thread>

#include "core/device_ext.h"
#include "tests/driver/core_rig.h"

namespace tests {
namespace {

using board::Operation;
using board::Wrong;

constexpr LONGLONG kSecond = 10'000'000;

class StartUp : public DriverRig {
  protected:
    // Links of other programs that occupy drive letters.
    void TakeLetters(const std::string& letters) {
        const std::u16string device = u"\\Device\\Elsewhere";
        for (const char letter : letters) {
            const std::u16string name = DriveLink(letter);
            UNICODE_STRING link = Counted(name);
            UNICODE_STRING target = Counted(device);
            ASSERT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
        }
        taken_ = letters;
    }
    void TearDown() override {
        Unload();
        for (const char letter : taken_) {
            const std::u16string name = DriveLink(letter);
            UNICODE_STRING link = Counted(name);
            EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_SUCCESS);
        }
        taken_.clear();
        DriverRig::TearDown();
    }
    static std::u16string DriveLink(char letter) {
        return u"\\DosDevices\\" + std::u16string(1, static_cast<char16_t>(letter)) + u":";
    }
    static bool CardNamesTaken(char digit) {
        const std::u16string text(1, static_cast<char16_t>(digit));
        const bool device = NameIsTaken(u"\\Device\\VrkFsDevice" + text);
        EXPECT_EQ(NameIsTaken(u"\\Device\\VrkFsDiskDevice" + text), device);
        EXPECT_EQ(NameIsTaken(u"\\DosDevices\\VrkFsDevice" + text), device);
        return device;
    }

    std::string taken_;
};

TEST_F(StartUp, WithoutACardTheDriverDoesNotLoadAndSaysSoOnce) {
    Boot();
    EXPECT_EQ(Load(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Events(), std::vector<std::string>{"C0050001 Main driver connect failure"});
    EXPECT_FALSE(CardNamesTaken('0'));
}

TEST_F(StartUp, TheDriveLetterIsTheFirstFreeOneFromTheConfiguredOn) {
    const std::string all = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const struct {
        const char* what;
        std::u16string configured;
        std::string taken;
        char used;  // 0: the card does not start
    } cases[] = {
        {"default", u"", "", 'P'},
        {"only the first character counts", u"K:", "", 'K'},
        {"wraps behind Z", u"Z", "ZA", 'B'},
        {"one letter left, just before the configured one", u"P", "ABCDEFGHIJKLMNPQRSTUVWXYZ", 'O'},
        {"none left", u"P", all, 0},
        {"a small letter", u"q", "", 'Q'},
        {"a backslash", u"\\", "", 'P'},
        {"a byte beyond every letter, all taken", u"\u00FF", all, 0},
        {"a digit, default taken", u"7", "P", 'Q'},
        {"only the low byte counts", u"\u0152", "", 'R'},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Boot();
        Plug(0);
        if (!c.configured.empty()) {
            ASSERT_EQ(VrkFsRtlRegWriteStringW(kServiceKey, u"Parameters", u"DriveLetter0", c.configured.c_str()),
                      STATUS_SUCCESS);
        }
        TakeLetters(c.taken);
        if (c.used != 0) {
            EXPECT_EQ(Load(), STATUS_SUCCESS);
            EXPECT_EQ(Cards().at(0)->Prefs.DriveLetter, c.used);
            EXPECT_TRUE(NameIsTaken(DriveLink(c.used)));
        } else {
            EXPECT_FALSE(NT_SUCCESS(Load()));
            EXPECT_EQ(Events().at(0), "C0050001 Create disk device symb. link failed");
        }
        TearDown();
    }
}

TEST_F(StartUp, ABoardThatFailsIsLoggedAndLeavesNothing) {
    const struct {
        Operation operation;
        std::uint64_t skip;
        const char* event;
    } cases[] = {
        {Operation::kInitFlex, 0, "C0050001 Main driver FLEX init. failure"},
        {Operation::kInitBoard, 0, "C0050001 Main board init. failed"},
        {Operation::kScan, 0, "C0050001 Main board SCSI scan failed"},
        {Operation::kDeviceQuery, 9, "C0050001 SCSI device query failed [4]"},
        {Operation::kRead, 0, "C0050001 SCSI volume info. read failed [4]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.event);
        Boot();
        // The last index: its status is the driver's.
        Plug(9, {3}).Misbehave().Add({.operation = c.operation, .skip = c.skip});
        EXPECT_EQ(Load(), STATUS_IO_DEVICE_ERROR);
        EXPECT_EQ(Events().at(1), c.event);
        EXPECT_FALSE(CardNamesTaken('9'));
        TearDown();
    }
}

TEST_F(StartUp, ABoardThatDoesNotAnswerCostsItsCardOnlyAndMayAnswerLater) {
    const struct {
        Operation operation;
        LONGLONG seconds;
        const char* event;
        Wrong what;
    } cases[] = {
        {Operation::kInitFlex, 30, "C0050001 Main driver FLEX init. timeout", Wrong::kHoldDeaf},
        {Operation::kInitBoard, 30, "C0050001 Main board init. timed out", Wrong::kHoldDeaf},
        {Operation::kScan, 10, "C0050001 Main board SCSI scan timed out", Wrong::kHoldDeaf},
        {Operation::kScan, 10, "C0050001 Main board SCSI scan timed out", Wrong::kHold},
        {Operation::kDeviceQuery, 1, "C0050001 SCSI device query timed out [4]", Wrong::kHoldDeaf},
        {Operation::kDeviceQuery, 1, "C0050001 SCSI device query timed out [4]", Wrong::kHold},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.event);
        Boot(true);
        Plug(0, {1}).Misbehave().Add({.what = c.what, .operation = c.operation, .count = 1});
        Plug(1, {1});
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        std::thread loader([&] { status = Load(); });
        EXPECT_TRUE(nt::ClockAwaitTimedWaits(1));
        nt::ClockAdvance(c.seconds * kSecond - 1);
        EXPECT_EQ(nt::ClockTimedWaits(), 1u) << "gave up early";
        nt::ClockAdvance(1);
        loader.join();
        EXPECT_EQ(status, STATUS_SUCCESS);
        EXPECT_EQ(Cards().at(0)->CardIndex, 1u);
        EXPECT_EQ(Events().at(0), c.event);
        // A board that hears cancels has let the request go; one that does not answers long after its sender has gone.
        EXPECT_EQ(BoardOf(0).HeldCount(), c.what == Wrong::kHold ? 0u : 1u);
        BoardOf(0).ReleaseHeld();
        TearDown();
    }
}

}  // namespace
}  // namespace tests
