// The channel to the user-mode service: what goes over it, byte for byte; what an answer may do; silence, late answers,
// cancelling, several operations at once, services that come and go; the commands of the port.
#include <vrkfs/port.h>

#include <algorithm>
#include <atomic>
#include <future>

#include "core/device_ext.h"
#include "nt/kernel.h"
#include "nt/station.h"
#include "tests/driver/media_rig.h"
#include "tests/support/scripted_service.h"

namespace tests {
namespace {

const char* const kOk = "STATUS_SUCCESS";
const char* const kFailed = "STATUS_UNSUCCESSFUL";
const char* const kInvalid = "STATUS_INVALID_PARAMETER";
const char* const kCancelled = "STATUS_CANCELLED";
const char* const kRight = "the right bytes";

class ServiceChannelTest : public MediaTest {
  protected:
    static constexpr std::uint32_t kFrames = 8;

    void SetUp() override { StartWith({}); }
    void StartWith(const host::MachineOptions& options) {
        ASSERT_NO_FATAL_FAILURE(StartVolume(1, options));
        std::mt19937 random(3);
        clip_ = RandomClip(random, kFrames, false, false, 1, 9);
        PutClip(u"CLIP.RZV", clip_);
        service_ = std::make_unique<ScriptedService>(Machine());
        ASSERT_TRUE(Service().Announce());
        const host::ScopedHandle folder = OpenFile(u"\\TGA\\VOL\\F\\CLIP.RZV");
        ASSERT_TRUE(host::ListDirectory(User(), folder.Get(), frames_, u"*.TGA").Ok());
        ASSERT_EQ(frames_.size(), kFrames);
    }
    void TearDown() override {
        service_.reset();
        MediaTest::TearDown();
    }
    ScriptedService& Service() { return *service_; }

    host::ScopedHandle OpenFile(const std::u16string& path, bool overlapped = false,
                                host::Disposition disposition = host::Disposition::kOpen) {
        const host::OpenResult opened = User().Create({.path = u"P:" + path,
                                                       .access = kReadWrite | host::access::kDelete,
                                                       .disposition = disposition,
                                                       .overlapped = overlapped});
        EXPECT_EQ(host::StatusName(opened.status), kOk);
        return {User(), opened.handle};
    }
    host::ScopedHandle OpenFrame(std::uint32_t frame, bool overlapped = false) {
        return OpenFile(u"\\TGA\\VOL\\F\\CLIP.RZV\\" + frames_.at(frame).name, overlapped);
    }
    std::string Read(const host::ScopedHandle& file, std::uint32_t frame, std::uint32_t offset, std::uint32_t count) {
        Bytes bytes(count);
        const host::IoResult result = User().Read(file.Get(), bytes, offset);
        const bool right = result.information == count && bytes == ScriptedService::Content(frame, offset, count);
        return right ? kRight : host::StatusName(result.status);
    }
    std::string Write(const host::ScopedHandle& file, const Bytes& bytes, std::uint64_t offset = 0) {
        return host::StatusName(User().Write(file.Get(), bytes, offset).status);
    }
    std::string SetPrefs() {
        const VrkFsPreferences prefs = VrkFsGlobPreferencesOf(Card());
        const host::ScopedHandle control(User(), OpenControl().handle);
        return host::StatusName(
            User().DeviceControl(control.Get(), IOCTL_VRKFS_SET_PREFERENCES, BytesOf(prefs), {}).status);
    }
    // Sends a command through the port of a folder; its result, as text.
    std::string Command(const std::u16string& folder, std::uint32_t code, const std::u16string& path) {
        const host::ScopedHandle port = OpenFile(folder + u"\\___Port0___");
        const std::uint32_t size = code == VRKFS_PORT_CREATE_MEDIA_FILE ? 1056 : 1040;
        Bytes command = Record(size, {{0, size}, {4, code}}, path, 8);
        std::fill(command.begin() + 1032, command.end(), std::byte{0xA5});
        EXPECT_EQ(Write(port, command), kOk);
        reply_ = ReadRange(port, 0, 256);
        return std::to_string(static_cast<std::int32_t>(WordAt(reply_, 4)));
    }
    // On a thread of its own, while the service does its part.
    template <typename Call>
    static auto Beside(Call call) {
        return std::async(std::launch::async, std::move(call));
    }
    // From end to end; the service may have sent a fetch before.
    void ExpectSetPrefs(PostedPtr fetch = nullptr) {
        auto client = Beside([&] { return SetPrefs(); });
        fetch = fetch ? fetch : Service().Fetch();
        EXPECT_EQ(fetch->End(), kOk);
        EXPECT_EQ(WordAt(fetch->out, 0), 6u);
        EXPECT_EQ(Service().Respond(6, 0)->End(), kOk);
        EXPECT_EQ(client.get(), kOk);
    }
    // The service leaves and comes back.
    void ChangeService() {
        Service().Leave();
        ASSERT_TRUE(Service().Announce());
    }
    void ExpectTaken(std::uint32_t type) { EXPECT_EQ(WordAt(Service().Take(), 0), type); }
    // Takes and answers requests of these types, in this order.
    void Answer(const char* types) {
        for (; *types != 0; ++types) {
            const Bytes request = Service().Take();
            EXPECT_EQ(WordAt(request, 0), static_cast<std::uint32_t>(*types - '0'));
            Service().Answer(request);
        }
    }
    // Requests of these types, in any order.
    void AwaitTypes(const std::string& wanted) {
        std::string types;
        for (int i = 0; i < 100'000 && types.size() < wanted.size(); ++i) {
            types += Service().TakeTypes();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(std::is_permutation(types.begin(), types.end(), wanted.begin(), wanted.end())) << types;
        EXPECT_EQ(types.back(), '3');
    }
    std::vector<std::string> TimeOuts() {
        std::vector<std::string> texts;
        for (const nt::EventLogEntry& entry : nt::ReadEventLog((StationPath() / "events.log").string()).entries) {
            if (entry.eventId == 0xC0050004) {
                texts.emplace_back(entry.strings.at(0).begin(), entry.strings.at(0).end());
            }
        }
        return texts;
    }

    ClipSpec clip_;
    std::unique_ptr<ScriptedService> service_;
    Bytes reply_;
    std::vector<host::DirectoryEntry> frames_;
};

TEST_F(ServiceChannelTest, AllRequestsByteForByte) {
    const VrkFsPreferences now = VrkFsGlobPreferencesOf(Card());
    Bytes prefs = Record(1568, {{0, 6}});
    std::memcpy(prefs.data() + 8, &now, sizeof(now));
    Bytes space = Record(1568, {{0, 7}}, u"P:\\RZV\\VOL", 8);
    std::fill_n(space.begin() + 1032, 8, std::byte{0xA5});
    Bytes creation = Record(1568, {{0, 8}}, u"P:\\RZV\\VOL\\F\\New.RZV", 8);
    std::fill_n(creation.begin() + 1032, 24, std::byte{0xA5});
    const Bytes wanted[] = {
        Record(1568, {{0, 1}}, u"P:\\RZV\\VOL\\F\\CLIP.RZV", 8),
        Record(1568, {{0, 4}, {8, 0x71}, {12, 7}, {16, 100}, {24, 50}, {28, 5}}),
        Record(1568, {{0, 5}, {8, 0x71}, {12, 7}, {16, 2}, {20, 1}, {24, 70}, {28, 5}}),
        Record(1568, {{0, 2}, {8, 0x71}, {12, 7}, {16, 5}}),
        Record(1568, {{0, 3}, {8, 0x71}}),
        prefs,
        space,
        creation,
    };
    const Bytes bytes = ScriptedService::Content(1, 0, 70);
    auto client = Beside([&] {
        {
            const host::ScopedHandle frame = OpenFrame(5);
            EXPECT_EQ(Read(frame, 5, 100, 50), kRight);
            EXPECT_EQ(Write(frame, bytes, 0x1'0000'0002), kOk);
        }
        EXPECT_EQ(SetPrefs(), kOk);
        EXPECT_EQ(Command(u"\\RZV\\VOL\\F", VRKFS_PORT_AVAILABLE_SPACE, u""), "0");
        EXPECT_TRUE(std::equal(reply_.begin() + 8, reply_.end(), Bytes(24, std::byte{0x5A}).begin()));
        EXPECT_EQ(Command(u"\\RZV\\VOL\\F", VRKFS_PORT_CREATE_MEDIA_FILE, u"New.RZV"), "0");
    });
    for (const Bytes& one : wanted) {
        const Bytes request = Service().Take();
        EXPECT_TRUE(request == one) << "type " << WordAt(one, 0);
        Service().Answer(request, 33);
    }
    client.get();
    EXPECT_TRUE(Service().Written() == bytes);
}

TEST_F(ServiceChannelTest, PiecesOfATransfer) {
    struct {
        std::uint32_t bytes;
        std::vector<std::uint32_t> pieces;
        const char* end;  // of the last piece
    } const cases[] = {
        {100, {60, 40}, kOk},
        {3, {1, 1, 1}, kOk},
        {4500, {4096, 403, 1}, kOk},
        {100, {101}, kInvalid},
        {100, {60, 41}, kInvalid},
        {100, {60, 0}, kInvalid},  // nothing would come of it, for ever
        {100, {60, 0xFFFFFFFF}, "STATUS_BUFFER_TOO_SMALL"},
    };
    for (const std::uint32_t type : {VRKFS_SERVICE_READ, VRKFS_SERVICE_WRITE}) {
        for (const auto& test : cases) {
            const bool reads = type == VRKFS_SERVICE_READ;
            const bool fits = test.end == kOk;
            const Bytes bytes = ScriptedService::Content(2, 7, test.bytes);
            auto client = Beside([&] {
                const host::ScopedHandle frame = OpenFrame(2);
                EXPECT_EQ(reads ? Read(frame, 2, 7, test.bytes) : Write(frame, bytes, 7), !fits   ? kFailed
                                                                                          : reads ? kRight
                                                                                                  : kOk);
            });
            Answer("1");
            ExpectTaken(type);
            Bytes got;
            for (const std::uint32_t& count : test.pieces) {
                const bool hostile = count > 10'000;
                // The buffer is longer than the piece.
                Bytes piece =
                    ScriptedService::Content(2, 7 + static_cast<std::uint32_t>(got.size()), hostile ? 9 : count);
                piece.resize(piece.size() + 5);
                const PostedPtr posted = Service().Respond(type, 0, count, reads ? piece : Bytes(piece.size()));
                EXPECT_EQ(posted->End(), &count == &test.pieces.back() ? test.end : kOk) << count;
                got.insert(got.end(), posted->out.begin(), posted->out.end() - 5);
                if (hostile) {  // refused before it got so far: the driver still waits
                    EXPECT_EQ(Service().Respond(type, 9)->End(), kOk);
                }
            }
            EXPECT_TRUE(!fits || got == bytes);
            Answer("23");
            client.get();
        }
    }
    EXPECT_EQ(Service().TakeTypes().size(), 2 * std::size(cases) * 3);
}

TEST_F(ServiceChannelTest, AnswersThatRefuseOrMakeNoSense) {
    const auto rows = [](std::uint32_t count, std::uint32_t sent) {
        Bytes answer = Record(12 + std::max(sent, 1u) * 44, {{0, 6}, {8, count}});
        for (std::uint32_t row = 0; row < sent; ++row) {
            const Bytes one = Record(44, {{0, row}}, u"Nxx", 8);
            std::copy(one.begin(), one.end(), answer.begin() + 12 + row * 44);
        }
        return answer;
    };
    struct {
        const char* what;
        Bytes answer;
        const char* end;
        const char* status;
    } const cases[] = {
        {"refused", Record(56, {{0, 6}, {4, 1}, {8, 1}}), kOk, kFailed},
        {"of another request", Record(56, {{0, 8}}), kInvalid, kFailed},
        {"rows behind the input", rows(2, 1), kInvalid, kFailed},
        {"so many that their size wraps", rows(0x5D1745E, 2), kInvalid, kFailed},
        {"a row too many", rows(32, 32), kInvalid, kFailed},
        {"no row", rows(0, 0), kOk, kOk},
        {"all rows", rows(31, 31), kOk, kOk},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(pVrkFsGlobalData->FileTypes[1].TypeCode, 7u) << "before " << test.what;
        auto client = Beside([&] { return SetPrefs(); });
        (void)Service().Take();
        EXPECT_EQ(Service().Respond(test.answer)->End(), test.end) << test.what;
        EXPECT_EQ(client.get(), test.status) << test.what;
    }
    EXPECT_EQ(pVrkFsGlobalData->FileTypes[0].Extension[0], u'R');
    EXPECT_EQ(pVrkFsGlobalData->FileTypes[1].Extension[0], u'N');
    EXPECT_EQ(pVrkFsGlobalData->FileTypes[31].TypeCode, 30u);
    EXPECT_EQ(pVrkFsGlobalData->FileTypeCount, 2u);
    ChangeService();

    // An open that is refused, or answered by no handle, is tried again; a read that fails half-way is the last one.
    auto client = Beside([&] {
        const host::ScopedHandle frame = OpenFrame(0);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(Read(frame, 0, 0, 10), kFailed);
        }
    });
    for (const std::uint32_t result : {1u, 0u}) {
        ExpectTaken(1);
        EXPECT_EQ(Service().Respond(1, result)->End(), result == 0 ? kInvalid : kOk);
    }
    Answer("1");
    ExpectTaken(4);
    EXPECT_EQ(Service().Respond(4, 0, 4, Bytes(4))->End(), kOk);
    EXPECT_EQ(Service().Respond(4, 5)->End(), kOk);
    Service().Serve();
    client.get();
}

TEST_F(ServiceChannelTest, RequestsThatNobodyCanUseAndImports) {
    const PostedPtr fetch = Service().Fetch();
    EXPECT_EQ(Service().Fetch()->Wait().status.code, 0x80000011) << "one at a time";
    EXPECT_EQ(Service().Respond(6, 0)->End(), kCancelled) << "nobody waits for an answer";
    EXPECT_FALSE(fetch->IsOver());
    Service().Cancel(fetch);
    EXPECT_EQ(fetch->End(), kCancelled);
    ExpectSetPrefs();
    EXPECT_EQ(Service().Respond(6, 0)->End(), kCancelled) << "once is enough";

    // An operation that has not got to the answer that is there: a second one is not taken.
    ServiceChannel& channel = VrkFsDiskExtOfDevice(Card()->DiskDevice)->ServiceChannel;
    channel.ResponseWanted = TRUE;
    const PostedPtr unclaimed = Service().Respond(6, 0);
    EXPECT_EQ(Service().Respond(6, 0)->Wait().status.code, 0x80000011);
    Service().Cancel(unclaimed);
    EXPECT_EQ(unclaimed->End(), kCancelled);
    channel.ResponseWanted = FALSE;

    // The longest path that a request can tell with its end, and one that is longer.
    for (const std::size_t chars : {777, 778}) {
        std::u16string path = u"\\TGA" + std::u16string(chars - 4, u'x');
        const UNICODE_STRING full = {static_cast<USHORT>(2 * chars), static_cast<USHORT>(2 * chars), path.data()};
        ServiceHandle handle = {3, 3};
        auto open = Beside([&] { return VrkFsSReqOpen(&channel, u'P', &full, &handle); });
        if (chars == 777) {
            EXPECT_TRUE(Service().Take() == Record(1568, {{0, 1}}, u"P:\\RZV" + path.substr(4), 8));
            EXPECT_EQ(Service().Respond(1, 0, 7)->End(), kOk);
        }
        EXPECT_EQ(open.get(), chars == 777 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        EXPECT_EQ(handle.Value, chars == 777 ? 7u : 0u);
    }

    // A RAM file takes a frame's name: every step in its order, whichever thread it is left to.
    Service().Serve();
    for (const bool posted : {false, true}) {
        const host::ScopedHandle picture =
            OpenFile(u"\\TGA\\VOL\\F\\CLIP.RZV\\picture", posted, host::Disposition::kCreate);
        const Bytes bytes = ScriptedService::Content(1, 0, posted ? 3000 : 0);
        EXPECT_EQ(Write(picture, bytes), kOk);
        EXPECT_TRUE(host::Rename(User(), picture.Get(), frames_[3].name).Ok());
        AwaitTypes("1523");  // one exchange after the other, of one thread
        EXPECT_TRUE(Service().Written() == bytes);
    }
}

// ---- Silence ----

class ServiceSilence : public ServiceChannelTest {
  protected:
    void SetUp() override { StartWith({.manualClock = true}); }
    // When the flush thread waits, and one that wants something of the service. By default for as long as it may.
    static void Pass(LONGLONG time = 600'000'000) {
        ASSERT_TRUE(nt::ClockAwaitTimedWaits(2, std::chrono::seconds(100)));
        nt::ClockAdvance(time);
    }
};

TEST_F(ServiceSilence, EveryStepHasALimit) {
    struct {
        const char* event;
        const char* before;  // types answered until then
        std::uint32_t type;
        const char* status;
    } const cases[] = {
        {"File Open", "", 1, kFailed},
        {"File Read", "1", 4, kFailed},
        {"File Write", "1", 5, kFailed},
        {"File Cleanup", "14", 2, kOk},
        {"File Close", "142", 3, kOk},
        {"Update Preferences", "", 6, kFailed},
        {"Get Available Volume Space", "", 7, "-1"},
        {"Create New Media File", "", 8, "-1"},
    };
    const auto perform = [&](std::uint32_t type) -> std::string {
        if (type >= 7) {
            const auto code = type == 7 ? VRKFS_PORT_AVAILABLE_SPACE : VRKFS_PORT_CREATE_MEDIA_FILE;
            return Command(u"\\RZV\\VOL", code, u"x");
        }
        if (type == 6) {
            return SetPrefs();
        }
        host::ScopedHandle frame = OpenFrame(0);
        const std::string moved = type == 5 ? Write(frame, Bytes(10)) : Read(frame, 0, 0, 10);
        return moved == kRight ? host::StatusName(User().Close(frame.Release())) : moved;
    };
    for (const bool fetches : {false, true}) {
        for (const auto& test : cases) {
            auto client = Beside([&] { return perform(test.type); });
            Answer(test.before);
            if (fetches) {
                ExpectTaken(test.type);
            }
            Pass();
            EXPECT_EQ(client.get(), test.status) << test.event;
            EXPECT_EQ(TimeOuts().back(), test.event);
            EXPECT_EQ(Service().TakeTypes(), test.before);
            // Now there is no service: nothing waits any more, and an answer is too late.
            EXPECT_EQ(Service().Respond(test.type, 0)->End(), kCancelled);
            EXPECT_EQ(Read(OpenFrame(1), 1, 0, 10), kFailed);
            EXPECT_EQ(SetPrefs(), kOk);
            ChangeService();
        }
    }
    EXPECT_EQ(TimeOuts().size(), 2 * std::size(cases));
}

TEST_F(ServiceSilence, WhoeverWaitsBehindFailsWithTheFirst) {
    std::vector<host::ScopedHandle> frames;
    std::vector<PostedPtr> posted;
    std::vector<std::future<std::string>> waiting;
    for (std::uint32_t i = 0; i < kFrames; ++i) {
        frames.push_back(OpenFrame(i, true));
        posted.push_back(ReadAside(User(), frames[i].Get(), 0, 10));
        waiting.push_back(Beside([&, i] { return Read(OpenFrame(i), i, 0, 10); }));
    }
    ExpectTaken(1);
    Pass();
    for (std::uint32_t i = 0; i < kFrames; ++i) {
        EXPECT_EQ(waiting[i].get(), kFailed);
        EXPECT_EQ(posted[i]->End(), kFailed);
    }
    EXPECT_EQ(TimeOuts(), std::vector<std::string>{"File Open"});
}

TEST_F(ServiceSilence, DeathReturnAndOldHandles) {
    host::ScopedHandle frame = OpenFrame(4);
    auto read = Beside([&] { return Read(frame, 4, 0, 10); });
    Answer("14");
    EXPECT_EQ(read.get(), kRight);

    // The service ends without a word while a write waits for its answer, and another one comes before it is missed.
    auto write = Beside([&] { return Write(frame, Bytes(10)); });
    ExpectTaken(5);
    const PostedPtr idle = Service().Fetch();
    Service().Die();
    EXPECT_EQ(idle->End(), kCancelled);
    service_ = std::make_unique<ScriptedService>(Machine());
    ASSERT_TRUE(Service().Announce());
    Pass();
    EXPECT_EQ(write.get(), kFailed);
    EXPECT_EQ(TimeOuts(), std::vector<std::string>{"File Write"});

    // The newcomer is not blamed for that, and is not told the other one's handles.
    read = Beside([&] { return Read(frame, 4, 0, 10); });
    ExpectTaken(1);
    EXPECT_EQ(Service().Respond(1, 0, 0x99)->End(), kOk);
    const Bytes request = Service().Take();
    EXPECT_EQ(WordAt(request, 8), 0x99u);
    Service().Answer(request);
    EXPECT_EQ(read.get(), kRight);

    // Nor does one that leaves and comes back hear of what it gave before, not even a close.
    ChangeService();
    frame.Reset();
    ExpectSetPrefs();

    // Whoever waits for a request to carry its own goes to the next service: a file is that one's then, and what is
    // about a file of the one before fails without that one's hearing of it.
    frame = OpenFrame(4);
    read = Beside([&] { return Read(frame, 4, 0, 10); });
    Pass(0);
    ChangeService();
    Answer("14");
    EXPECT_EQ(read.get(), kRight);
    write = Beside([&] { return Write(frame, Bytes(10)); });
    Pass(0);
    ChangeService();
    const PostedPtr fetch = Service().Fetch();
    EXPECT_EQ(write.get(), kFailed);
    EXPECT_FALSE(fetch->IsOver());
    ExpectSetPrefs(fetch);
    EXPECT_EQ(TimeOuts().size(), 1u);

    // One that has been replaced answers late: not what the other one is asked by now, but what is waited for can be
    // ended by anybody.
    ScriptedService other(Machine());
    ASSERT_TRUE(other.Announce());
    read = Beside([&] { return Read(frame, 4, 0, 10); });
    for (const std::uint32_t type : {1u, 4u}) {
        const Bytes asked = other.Take();
        EXPECT_EQ(WordAt(asked, 0), type);
        EXPECT_EQ(Service().Respond(type, 0, 10, Bytes(10))->End(), kCancelled);
        other.Answer(asked);
    }
    EXPECT_EQ(read.get(), kRight);
    write = Beside([&] { return Write(frame, Bytes(10)); });
    EXPECT_EQ(WordAt(other.Take(), 0), 5u);
    EXPECT_EQ(Service().Respond(0, 0)->End(), kInvalid);
    EXPECT_EQ(write.get(), kFailed);
    other.Leave();
}

TEST_F(ServiceSilence, OneThatDripsIsNotWaitedForAnyLonger) {
    auto read = Beside([&] { return Read(OpenFrame(0), 0, 0, 100); });
    Answer("1");
    ExpectTaken(4);
    for (int minute = 0; minute < 10; ++minute) {
        Pass(590'000'000);
        EXPECT_EQ(Service().Respond(4, 0, 1, Bytes(1))->End(), kOk);
    }
    Pass(100'000'000);
    EXPECT_EQ(read.get(), kFailed);
    EXPECT_EQ(TimeOuts(), std::vector<std::string>{"File Read"});
    EXPECT_EQ(Service().Respond(4, 0, 1, Bytes(1))->End(), kCancelled);
}

// ---- Several at once ----

// For every request the service reads the clip itself, with more reads at once than the system has workers; programs
// read frames, send commands, open, list and close beside it.
TEST_F(ServiceChannelTest, AServiceThatUsesTheDriveIsNotLockedOut) {
    const Bytes image = BuildImage(clip_, false);
    std::atomic<int> rounds{0};
    Service().Serve([&](const Bytes&) {
        host::Process& process = Service().Process();
        const host::ScopedHandle clip(
            process, process.Create({.path = u"P:\\RZV\\VOL\\F\\CLIP.RZV", .overlapped = true}).handle);
        std::vector<PostedPtr> reads;
        for (int i = 0; i < 6; ++i) {
            reads.push_back(ReadAside(process, clip.Get(), 0, image.size()));
        }
        for (const PostedPtr& read : reads) {
            EXPECT_EQ(read->End(), kOk);
            EXPECT_TRUE(read->out == image);
        }
        rounds += 1;
    });
    std::vector<host::ScopedHandle> frames;
    std::vector<PostedPtr> reads;
    for (std::uint32_t i = 0; i < 6; ++i) {
        frames.push_back(OpenFrame(i, true));
        reads.push_back(ReadAside(User(), frames[i].Get(), i, 100));
    }
    auto beside = Beside([&] {
        EXPECT_EQ(Command(u"\\RZV\\VOL\\F", VRKFS_PORT_CREATE_MEDIA_FILE, u"x"), "0");
        for (std::uint32_t i = 0; i < 6; ++i) {
            EXPECT_EQ(Read(OpenFrame(i), i, 10, 10), kRight);
        }
    });
    while (rounds < 12) {
        const host::ScopedHandle clip = OpenClip(u"CLIP.RZV");
        const host::ScopedHandle folder = OpenFile(u"\\TGA\\VOL\\F\\CLIP.RZV");
        std::vector<host::DirectoryEntry> entries;
        EXPECT_TRUE(host::ListDirectory(User(), folder.Get(), entries).Ok());
    }
    for (std::uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(reads[i]->End(), kOk);
        EXPECT_TRUE(reads[i]->out == ScriptedService::Content(i, i, 100));
    }
    beside.get();
    // A handle that is closed under its read: the service hears of the close, by whichever thread.
    (void)Service().TakeTypes();
    frames.resize(1);
    AwaitTypes("2323232323");
    const PostedPtr late = ReadAside(User(), frames[0].Get(), 0, 100);
    frames.clear();
    EXPECT_EQ(late->End(), kOk);
    AwaitTypes("423");
    EXPECT_TRUE(TimeOuts().empty());
}

TEST_F(ServiceChannelTest, RequestsCancelledAtAnyMomentEndOnce) {
    std::atomic<bool> done{false};
    std::thread service([&] {
        std::mt19937 random(11);
        while (!done) {
            const PostedPtr fetch = Service().Fetch();
            if (random() % 3 != 0) {
                std::this_thread::yield();
                Service().Cancel(fetch);
            }
            while (!fetch->IsOver() && !done) {
                std::this_thread::yield();
            }
            Service().Cancel(fetch);
            if (!fetch->Wait().status.Ok()) {
                continue;
            }
            const std::uint32_t type = WordAt(fetch->out, 0);
            const std::uint32_t count = type == VRKFS_SERVICE_READ ? WordAt(fetch->out, 24) : 0;
            const Bytes data = ScriptedService::Content(WordAt(fetch->out, 28), WordAt(fetch->out, 16), count);
            // Taken back or used, never both: what was taken back is sent again.
            for (std::string end; end != kOk;) {
                const PostedPtr response = Service().Respond(type, 0, type == VRKFS_SERVICE_OPEN ? 5 : count, data);
                if (random() % 2 == 0) {
                    Service().Cancel(response);
                }
                end = response->End();
                ASSERT_TRUE(end == kOk || end == kCancelled) << end;
            }
        }
    });
    {
        std::vector<std::jthread> readers;
        for (std::uint32_t i = 0; i < 3; ++i) {
            readers.emplace_back([&, i] {
                for (std::uint32_t step = 0; step < 60; ++step) {
                    EXPECT_EQ(Read(OpenFrame(i), i, step, 200), kRight);
                }
            });
        }
    }
    done = true;
    service.join();
    EXPECT_TRUE(TimeOuts().empty());
}

TEST_F(ServiceChannelTest, CommandsNamePathsFromWhereThePortStands) {
    constexpr std::uint32_t kCreate = VRKFS_PORT_CREATE_MEDIA_FILE;
    constexpr std::uint32_t kSpace = VRKFS_PORT_AVAILABLE_SPACE;
    struct {
        const char16_t* folder;
        std::uint32_t code;
        const char16_t* given;
        std::u16string told;  // empty: refused before the service hears of it
    } const cases[] = {
        {u"", kCreate, u"RZV\\VOL\\F\\N", u"P:\\RZV\\VOL\\F\\N"},
        {u"\\TGA\\VOL", kCreate, u"F\\N", u"P:\\TGA\\VOL\\F\\N"},
        {u"\\RZV\\vol\\f", kCreate, u"N", u"P:\\RZV\\VOL\\F\\N"},
        {u"\\TGA\\VOL\\F\\CLIP.RZV", kCreate, u"N", u""},
        {u"", kSpace, u"RZV\\VOL", u"P:\\RZV\\VOL"},
        {u"\\TGA", kSpace, u"VOL", u"P:\\TGA\\VOL"},
        {u"\\RZV\\VOL", kSpace, u"x", u"P:\\RZV\\VOL"},
        {u"\\TGA\\VOL\\F", kSpace, u"x", u"P:\\TGA\\VOL"},
        {u"\\TGA\\VOL\\F\\CLIP.RZV", kSpace, u"x", u"P:\\TGA\\VOL"},
    };
    std::u16string told;
    Service().Serve(
        [&](const Bytes& request) { told = std::u16string(reinterpret_cast<const char16_t*>(request.data() + 8)); });
    for (const auto& test : cases) {
        told.clear();
        EXPECT_EQ(Command(test.folder, test.code, test.given), test.told.empty() ? "-1" : "0");
        EXPECT_TRUE(told == test.told) << &test - cases;
        EXPECT_EQ(reply_.size(), !test.told.empty() && test.code == kSpace ? 32u : 8u);
    }
}

}  // namespace
}  // namespace tests
