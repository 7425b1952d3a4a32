// The channel to the user-mode service: what goes over it, byte for byte; what an answer may do; silence, late answers,
// cancelling, several operations at once, services that come and go.
#include <algorithm>
#include <atomic>

#include "core/device_ext.h"
#include "tests/driver/service_rig.h"

namespace tests {
namespace {

const char* const kOk = "STATUS_SUCCESS";
const char* const kFailed = "STATUS_UNSUCCESSFUL";
const char* const kInvalid = "STATUS_INVALID_PARAMETER";
const char* const kCancelled = "STATUS_CANCELLED";

class ServiceChannelTest : public ServiceTest {};

// ---- The records ----

TEST_F(ServiceChannelTest, AllRequestsByteForByte) {
    Bytes open = Record(1568, {{0, 1}});
    PutText(open, 8, u"P:\\RZV\\VOL\\F\\CLIP.RZV");
    const std::uint32_t kHandle = 0x71;
    const auto expect = [&](const Bytes& wanted) {
        const Bytes request = Service().Take();
        EXPECT_TRUE(request == wanted) << "type " << WordAt(request, 0);
        Service().Answer(request, 33);
    };
    {
        host::ScopedHandle frame = OpenFrame(5);
        auto read = Beside([&] { return Read(frame, 5, 100, 50); });
        expect(open);
        expect(Record(1568, {{0, 4}, {8, kHandle}, {12, 7}, {16, 100}, {24, 50}, {28, 5}}));
        EXPECT_EQ(read.get(), "right");
        const Bytes bytes = FrameBytes(1, 0, 70);
        auto write = Beside([&] { return User().Write(frame.Get(), bytes, 0x1'0000'0002).information; });
        expect(Record(1568, {{0, 5}, {8, kHandle}, {12, 7}, {16, 2}, {20, 1}, {24, 70}, {28, 5}}));
        EXPECT_EQ(write.get(), 70u);
        EXPECT_TRUE(Service().Written() == bytes);
        auto close = Beside([&] { return User().Close(frame.Release()).Ok(); });
        expect(Record(1568, {{0, 2}, {8, kHandle}, {12, 7}, {16, 5}}));
        expect(Record(1568, {{0, 3}, {8, kHandle}}));
        EXPECT_TRUE(close.get());
    }
    Bytes prefs = Record(1568, {{0, 6}});
    const VrkFsPreferences now = VrkFsGlobPreferencesOf(Card());
    std::memcpy(prefs.data() + 8, &now, sizeof(now));
    auto set = Beside([&] { return SetPrefs(); });
    expect(prefs);
    EXPECT_EQ(set.get(), kOk);

    Bytes space = Record(1568, {{0, 7}});
    PutText(space, 8, u"P:\\RZV\\VOL");
    std::memset(space.data() + 1032, 0xA5, 8);
    auto query = Beside([&] { return Command(u"\\RZV\\VOL\\F", VRKFS_PORT_AVAILABLE_SPACE, u"ignored"); });
    Bytes request = Service().Take();
    std::fill(request.begin() + 30, request.begin() + 1032, std::byte{});  // what is left of the client's path
    EXPECT_TRUE(request == space);
    Bytes answer = Record(56, {{0, 7}});
    std::memset(answer.data() + 8, 0x5A, 24);
    EXPECT_EQ(Service().Respond(answer)->WaitName(), kOk);
    EXPECT_EQ(query.get(), 0u);
    EXPECT_TRUE(std::equal(reply_.begin() + 8, reply_.end(), answer.begin() + 8, answer.begin() + 32));

    Bytes creation = Record(1568, {{0, 8}});
    PutText(creation, 8, u"P:\\RZV\\VOL\\F\\New.RZV");
    std::memset(creation.data() + 1032, 0xA5, 24);
    auto create = Beside([&] { return Command(u"\\RZV\\VOL\\F", VRKFS_PORT_CREATE_MEDIA_FILE, u"New.RZV"); });
    expect(creation);
    EXPECT_EQ(create.get(), 0u);
}

// ---- The answers ----

TEST_F(ServiceChannelTest, PiecesOfATransfer) {
    struct {
        std::uint32_t bytes;
        std::vector<std::uint32_t> pieces;
        bool fits;  // the last piece ends the transfer well
    } const cases[] = {
        {100, {60, 40}, true},
        {100, {100}, true},
        {3, {1, 1, 1}, true},
        {4500, {4096, 403, 1}, true},
        {100, {101}, false},
        {100, {60, 41}, false},
        {100, {0xFFFFFFFF}, false},  // what the output buffer cannot
                                     // hold is refused before it gets so
                                     // far
        {100, {60, 0}, false},       // nothing would come of it, for ever
    };
    for (const bool writing : {false, true}) {
        for (const auto& test : cases) {
            host::ScopedHandle frame = OpenFrame(2);
            const Bytes bytes = FrameBytes(2, 7, test.bytes);
            auto transfer = Beside([&] {
                return writing ? host::StatusName(User().Write(frame.Get(), bytes, 7).status)
                               : Read(frame, 2, 7, test.bytes);
            });
            Service().Answer(Service().Take());
            const std::uint32_t type = WordAt(Service().Take(), 0);
            Bytes got;
            for (std::size_t i = 0; i < test.pieces.size(); ++i) {
                const std::uint32_t count = test.pieces[i];
                const bool last = i + 1 == test.pieces.size();
                if (count == 0xFFFFFFFF) {
                    EXPECT_EQ(Service().Respond(type, 0, count, Bytes(10))->WaitName(), "STATUS_BUFFER_TOO_SMALL");
                    EXPECT_EQ(Service().Respond(type, 9)->WaitName(), kOk);
                    continue;
                }
                Bytes piece(count + 5);  // longer than it says
                for (std::uint32_t at = 0; !writing && at < count; ++at) {
                    piece[at] = ScriptedService::Content(2, 7 + static_cast<std::uint32_t>(got.size()) + at);
                }
                const PostedPtr posted = Service().Respond(type, 0, count, piece);
                EXPECT_EQ(posted->WaitName(), last && !test.fits ? kInvalid : kOk) << count;
                got.insert(got.end(), posted->out.begin(), posted->out.begin() + count);
            }
            EXPECT_EQ(transfer.get(), !test.fits ? kFailed : writing ? kOk : "right") << test.pieces[0];
            EXPECT_TRUE(!writing || !test.fits || got == bytes);
            auto close = Beside([&] { frame.Reset(); });
            Service().Answer(Service().Take());
            Service().Answer(Service().Take());
            close.get();
        }
    }
}

TEST_F(ServiceChannelTest, AnswersThatRefuseOrMakeNoSense) {
    const auto rows = [](std::uint32_t count, std::uint32_t sent) {
        Bytes answer = Record(12 + std::max(sent, 1u) * 44, {{0, 6}, {8, count}});
        for (std::uint32_t row = 0; row < sent; ++row) {
            std::memcpy(answer.data() + 12 + row * 44, &row, 4);
            PutText(answer, 12 + row * 44 + 8, u"N" + std::u16string(2, static_cast<char16_t>(u'a' + row % 26)));
        }
        return answer;
    };
    struct {
        const char* what;
        Bytes answer;
        const char* completion;
        bool accepted;
    } const cases[] = {
        {"refused", Record(56, {{0, 6}, {4, 1}, {8, 1}}), kOk, false},
        {"of another request", Record(56, {{0, 8}}), kInvalid, false},
        {"of no request", Record(56, {{0, 0xFFFFFFFF}}), kInvalid, false},
        {"rows behind the input", rows(2, 1), kInvalid, false},
        {"so many that their size wraps", rows(0x5D1745E, 2), kInvalid, false},
        {"a row too many", rows(32, 32), kInvalid, false},
        {"no row", rows(0, 0), kOk, true},
        {"all rows", rows(31, 31), kOk, true},
    };
    const VrkFsPreferences before = VrkFsGlobPreferencesOf(Card());
    for (const auto& test : cases) {
        VrkFsFileType builtIn = pVrkFsGlobalData->FileTypes[0];
        auto set = Beside([&] { return SetPrefs(); });
        Service().Take();
        EXPECT_EQ(Service().Respond(test.answer)->WaitName(), test.completion) << test.what;
        EXPECT_EQ(set.get(), test.accepted ? kOk : kFailed) << test.what;
        EXPECT_EQ(pVrkFsGlobalData->FileTypeCount, 2u);
        EXPECT_EQ(std::memcmp(&pVrkFsGlobalData->FileTypes[0], &builtIn, sizeof(builtIn)), 0);
        const bool replaced = pVrkFsGlobalData->FileTypes[1].Extension[0] == u'N';
        EXPECT_EQ(replaced, &test == std::end(cases) - 1) << test.what;
    }
    EXPECT_EQ(pVrkFsGlobalData->FileTypes[31].TypeCode, 30u);
    const VrkFsPreferences after = VrkFsGlobPreferencesOf(Card());
    EXPECT_EQ(std::memcmp(&before, &after, sizeof(before)), 0);

    Service().Leave();
    Service().Announce();
    // An open that is refused, or answered by no handle, is tried again by the next read.
    const host::ScopedHandle frame = OpenFrame(0);
    for (const std::uint32_t result : {1u, 0u}) {
        auto read = Beside([&] { return Read(frame, 0, 0, 10); });
        EXPECT_EQ(WordAt(Service().Take(), 0), 1u);
        EXPECT_EQ(Service().Respond(1, result, result == 0 ? 0 : 77)->WaitName(), result == 0 ? kInvalid : kOk);
        EXPECT_EQ(read.get(), kFailed);
    }
    // A read that is refused half-way fails whole, and is the last one of this open file.
    auto read = Beside([&] { return Read(frame, 0, 0, 10); });
    Service().Answer(Service().Take());
    Service().Take();
    EXPECT_EQ(Service().Respond(4, 0, 4, Bytes(4))->WaitName(), kOk);
    EXPECT_EQ(Service().Respond(4, 5)->WaitName(), kOk);
    EXPECT_EQ(read.get(), kFailed);
    EXPECT_EQ(Read(frame, 0, 0, 10), kFailed);
    Service().Serve();
}

TEST_F(ServiceChannelTest, RequestsThatNobodyCanUse) {
    const PostedPtr fetch = Service().Fetch();
    EXPECT_EQ(Service().Fetch()->Wait().status.code, 0x80000011) << "one at a time";
    for (std::uint32_t type = 0; type < 10; ++type) {
        EXPECT_EQ(Service().Respond(type, 0)->WaitName(), kCancelled) << "nobody waits for an answer";
    }
    EXPECT_FALSE(fetch->IsOver());
    Service().Cancel(fetch);
    EXPECT_EQ(fetch->WaitName(), kCancelled);
    EXPECT_EQ(fetch->Wait().information, 0u);
    const PostedPtr second = Service().Fetch();  // the slot is free again
    EXPECT_FALSE(second->IsOver());
    auto set = Beside([&] { return SetPrefs(); });
    EXPECT_EQ(second->WaitName(), kOk);
    EXPECT_EQ(Service().Respond(6, 0)->WaitName(), kOk);
    EXPECT_EQ(set.get(), kOk);
    EXPECT_EQ(Service().Respond(6, 0)->WaitName(), kCancelled) << "once is enough";
    // A frame that a RAM file is renamed onto: every step of the import in its order, whoever does it.
    Service().Serve();
    for (const bool posted : {false, true}) {
        const host::ScopedHandle picture =
            OpenFile(u"\\TGA\\VOL\\F\\CLIP.RZV\\a.picture", posted, host::Disposition::kCreate);
        const Bytes bytes = FrameBytes(1, posted ? 1 : 2, posted ? 3000 : 0);
        if (!bytes.empty()) {
            EXPECT_TRUE(User().Write(picture.Get(), bytes, 0).status.Ok());
        }
        EXPECT_TRUE(host::Rename(User(), picture.Get(), names_[3]).Ok());
        std::string types;
        while (types.size() < 4) {
            types += Service().TakeTypes();
            std::this_thread::yield();
        }
        EXPECT_EQ(types, "1523");
        EXPECT_TRUE(Service().Written() == bytes);
    }
}

// ---- Silence ----

class ServiceSilence : public ServiceTest {
  protected:
    void SetUp() override {
        host::MachineOptions options;
        options.manualClock = true;
        StartWith(options);
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
    for (const bool fetches : {false, true}) {
        for (const auto& test : cases) {
            auto operation = Beside([&]() -> std::string {
                if (test.type >= 7) {
                    const auto code = test.type == 7 ? VRKFS_PORT_AVAILABLE_SPACE : VRKFS_PORT_CREATE_MEDIA_FILE;
                    return std::to_string(static_cast<std::int32_t>(Command(u"\\RZV\\VOL", code, u"x")));
                }
                if (test.type == 6) {
                    return SetPrefs();
                }
                host::ScopedHandle frame = OpenFrame(0);
                const std::string moved = test.type == 5
                                              ? host::StatusName(User().Write(frame.Get(), Bytes(10), 0).status)
                                              : Read(frame, 0, 0, 10);
                const bool closes = test.type == 2 || test.type == 3;
                EXPECT_TRUE(!closes || moved == "right");
                return closes ? host::StatusName(User().Close(frame.Release())) : moved;
            });
            for (const char* type = test.before; *type != 0; ++type) {
                const Bytes request = Service().Take();
                ASSERT_EQ(WordAt(request, 0), static_cast<std::uint32_t>(*type - '0'));
                Service().Answer(request);
            }
            if (fetches) {
                EXPECT_EQ(WordAt(Service().Take(), 0), test.type);
            }
            PassLimit();
            EXPECT_EQ(operation.get(), test.status) << test.event;
            ASSERT_FALSE(TimeOuts().empty());
            EXPECT_EQ(TimeOuts().back(), test.event);
            // Now there is no service: nothing waits any more, and an answer is too late.
            EXPECT_EQ(Service().Respond(test.type, 0)->WaitName(), kCancelled);
            EXPECT_EQ(Read(OpenFrame(1), 1, 0, 10), kFailed);
            EXPECT_EQ(SetPrefs(), kOk);
            Service().Leave();
            Service().Announce();
        }
    }
    EXPECT_EQ(TimeOuts().size(), 2 * std::size(cases));
}

TEST_F(ServiceSilence, WhoeverWaitsBehindFailsWithTheFirst) {
    std::vector<host::ScopedHandle> frames;
    std::atomic<int> failed{0};
    std::vector<Bytes> buffers(12, Bytes(10));
    std::vector<std::future<std::string>> waiting;
    for (std::uint32_t i = 0; i < 12; ++i) {
        frames.push_back(OpenFrame(i % kFrames, i % 2 == 0));
        if (i % 2 == 0) {
            EXPECT_TRUE(User()
                            .ReadOverlapped(
                                frames[i].Get(), buffers[i], 0,
                                [&](host::IoResult result) { failed += result.status.Ok() ? 0 : 1; }, nullptr)
                            .Pending());
        } else {
            waiting.push_back(Beside([&, i] { return Read(frames[i], 0, 0, 10); }));
        }
    }
    Service().Take();
    PassLimit();
    for (auto& one : waiting) {
        EXPECT_EQ(one.get(), kFailed);
    }
    while (failed < 6) {
        std::this_thread::yield();
    }
    EXPECT_EQ(TimeOuts(), std::vector<std::string>{"File Open"});
}

TEST_F(ServiceSilence, DeathReturnAndOldHandles) {
    host::ScopedHandle frame = OpenFrame(4);
    auto opening = Beside([&] { return Read(frame, 4, 0, 10); });
    Service().Answer(Service().Take());
    Service().Answer(Service().Take());
    EXPECT_EQ(opening.get(), "right");

    // The service ends without a word while a write waits for its answer, and another one comes before it is missed.
    auto write = Beside([&] { return host::StatusName(User().Write(frame.Get(), Bytes(10), 0).status); });
    EXPECT_EQ(WordAt(Service().Take(), 0), 5u);
    const PostedPtr idle = Service().Fetch();
    Service().Die();
    EXPECT_EQ(idle->WaitName(), kCancelled);
    service_ = std::make_unique<ScriptedService>(Machine());
    Service().Announce();
    PassLimit();
    EXPECT_EQ(write.get(), kFailed);
    EXPECT_EQ(TimeOuts(), std::vector<std::string>{"File Write"});

    // The newcomer is not blamed for that, and is not told the other one's handles.
    auto read = Beside([&] { return Read(frame, 4, 0, 10); });
    Bytes request = Service().Take();
    EXPECT_EQ(WordAt(request, 0), 1u);
    EXPECT_EQ(Service().Respond(1, 0, 0x99)->WaitName(), kOk);
    request = Service().Take();
    EXPECT_EQ(WordAt(request, 8), 0x99u);
    Service().Answer(request);
    EXPECT_EQ(read.get(), "right");

    // Nor does one that leaves and comes back hear of what it forgot, not even a close.
    Service().Leave();
    Service().Announce();
    EXPECT_TRUE(User().Close(frame.Release()).Ok());
    auto set = Beside([&] { return SetPrefs(); });
    EXPECT_EQ(WordAt(Service().Take(), 0), 6u);
    EXPECT_EQ(Service().Respond(6, 0)->WaitName(), kOk);
    EXPECT_EQ(set.get(), kOk);
}

// ---- Several at once ----

// The service reads the clip itself, with more requests at once than the system has workers, for every frame that it is
// asked for; programs read frames, send commands, open, list and close beside it.
TEST_F(ServiceChannelTest, AServiceThatUsesTheDriveIsNotLockedOut) {
    const Bytes image = BuildImage(clip_, false);
    std::atomic<int> rounds{0};
    Service().Serve([&](const Bytes&) {
        host::OpenRequest request;
        request.path = u"P:\\RZV\\VOL\\F\\CLIP.RZV";
        request.overlapped = true;
        host::Process& process = Service().Process();
        const host::ScopedHandle clip(process, process.Create(request).handle);
        std::vector<PostedPtr> reads;
        for (std::size_t i = 0; i < 6; ++i) {
            const PostedPtr read = reads.emplace_back(std::make_shared<Posted>());
            read->out.resize(image.size());
            EXPECT_TRUE(
                process
                    .ReadOverlapped(
                        clip.Get(), read->out, 0, [read](host::IoResult result) { read->Finish(result); }, nullptr)
                    .Ok());
        }
        for (const PostedPtr& read : reads) {
            EXPECT_EQ(read->WaitName(), kOk);
            EXPECT_TRUE(read->out == image);
        }
        rounds += 1;
    });
    std::vector<host::ScopedHandle> frames;
    std::vector<PostedPtr> reads;
    for (std::uint32_t i = 0; i < 6; ++i) {
        frames.push_back(OpenFrame(i, true));
        const PostedPtr read = reads.emplace_back(std::make_shared<Posted>());
        read->out.resize(100);
        EXPECT_TRUE(
            User()
                .ReadOverlapped(
                    frames[i].Get(), read->out, i, [read](host::IoResult result) { read->Finish(result); }, nullptr)
                .Ok());
    }
    auto commands = Beside([&] { return Command(u"\\RZV\\VOL\\F", VRKFS_PORT_CREATE_MEDIA_FILE, u"x"); });
    auto closes = Beside([&] {
        for (std::uint32_t i = 0; i < 5; ++i) {
            host::ScopedHandle frame = OpenFrame(i);
            EXPECT_EQ(Read(frame, i, 10, 10), "right");
        }
    });
    for (int i = 0; rounds < 12; ++i) {
        const host::ScopedHandle clip = OpenClip(u"CLIP.RZV");
        std::vector<host::DirectoryEntry> entries;
        const host::ScopedHandle folder = OpenFile(u"\\TGA\\VOL\\F\\CLIP.RZV");
        EXPECT_TRUE(host::ListDirectory(User(), folder.Get(), entries).Ok());
    }
    for (std::uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(reads[i]->WaitName(), kOk);
        EXPECT_TRUE(reads[i]->out == FrameBytes(i, i, 100));
    }
    EXPECT_EQ(commands.get(), 0u);
    closes.get();
    // A handle that is closed under its read: the service hears of the cleanup and, by whichever thread, of the close.
    Service().TakeTypes();
    Bytes late(100);
    (void)User().ReadOverlapped(
        frames[0].Get(), late, 0, [](host::IoResult) {}, nullptr);
    frames.clear();
    for (std::string types; std::count(types.begin(), types.end(), '3') < 6;) {
        types += Service().TakeTypes();
        std::this_thread::yield();
    }
    EXPECT_TRUE(TimeOuts().empty());
}

TEST_F(ServiceChannelTest, RequestsCancelledAtAnyMomentEndOnce) {
    std::atomic<bool> done{false};
    std::thread service([&] {
        std::mt19937 random(11);
        PostedPtr fetch = Service().Fetch();
        while (!done) {
            if (random() % 3 != 0) {
                Service().Cancel(fetch);
            }
            if (!fetch->IsOver()) {
                std::this_thread::yield();
                continue;
            }
            if (fetch->Wait().status.Ok()) {
                const std::uint32_t type = WordAt(fetch->out, 0);
                const std::uint32_t count = type == VRKFS_SERVICE_READ ? WordAt(fetch->out, 24) : 0;
                const Bytes data = FrameBytes(WordAt(fetch->out, 28), WordAt(fetch->out, 16), count);
                const std::uint32_t word = type == VRKFS_SERVICE_OPEN ? 5 : count;
                // Taken back or used, never both: what was taken back is sent again.
                for (bool used = false; !used;) {
                    const PostedPtr response = Service().Respond(type, 0, word, data);
                    if (random() % 2 == 0) {
                        Service().Cancel(response);
                    }
                    const std::string end = response->WaitName();
                    used = end == kOk;
                    EXPECT_TRUE(used || end == kCancelled) << end;
                }
            }
            fetch = Service().Fetch();
        }
        Service().Cancel(fetch);
        EXPECT_EQ(fetch->WaitName(), kCancelled);
    });
    std::vector<std::future<void>> readers;
    for (std::uint32_t i = 0; i < 3; ++i) {
        readers.push_back(Beside([&, i] {
            for (std::uint32_t step = 0; step < 60; ++step) {
                const host::ScopedHandle frame = OpenFrame(i);
                EXPECT_EQ(Read(frame, i, step, 200), "right");
            }
        }));
    }
    for (auto& reader : readers) {
        reader.get();
    }
    done = true;
    service.join();
    EXPECT_TRUE(TimeOuts().empty());
}

// ---- The port's commands, with a service to hear them ----

TEST_F(ServiceChannelTest, CommandsNamePathsFromWhereThePortStands) {
    constexpr std::uint32_t kCreate = VRKFS_PORT_CREATE_MEDIA_FILE;
    constexpr std::uint32_t kSpace = VRKFS_PORT_AVAILABLE_SPACE;
    struct {
        const char16_t* folder;
        std::uint32_t code;
        const char16_t* given;
        const char16_t* told;  // null: refused before the service hears of it
    } const cases[] = {
        {u"", kCreate, u"RZV\\VOL\\F\\N", u"P:\\RZV\\VOL\\F\\N"},
        {u"\\RZV", kCreate, u"VOL\\F\\N", u"P:\\RZV\\VOL\\F\\N"},
        {u"\\TGA\\VOL", kCreate, u"F\\N", u"P:\\TGA\\VOL\\F\\N"},
        {u"\\RZV\\vol\\f", kCreate, u"N", u"P:\\RZV\\VOL\\F\\N"},
        {u"\\TGA\\VOL\\F\\CLIP.RZV", kCreate, u"N", nullptr},
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
        EXPECT_EQ(Command(test.folder, test.code, test.given), test.told != nullptr ? 0 : 0xFFFFFFFF);
        EXPECT_TRUE(told == (test.told != nullptr ? test.told : u"")) << &test - cases;
        EXPECT_EQ(reply_.size(), test.told != nullptr && test.code == kSpace ? 32u : 8u);
    }
}

}  // namespace
}  // namespace tests
