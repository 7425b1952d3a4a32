// The service on a running machine: what a program sees of it through the drive.
#include <gtest/gtest.h>
#include <vrkfs/port.h>

#include <cstring>
#include <mutex>
#include <thread>

#include "client/client.h"
#include "service/service.h"
#include "tests/service/frames.h"
#include "tests/support/eventually.h"
#include "tool/clip/writer.h"

namespace tests {
namespace {

using service::Bytes;
using service::FileKind;

#define EXPECT_STATUS(result, name) EXPECT_EQ(host::StatusName((result).status), name)

constexpr std::uint32_t kWrite = host::access::kReadData | host::access::kWriteData | host::access::kReadAttributes;

class ServiceTest : public MachineTest {
  protected:
    void StartStation(std::uint32_t cards = 1) {
        MakeStation(2, 64 << 20, cards);
        Start();
        ASSERT_EQ(Format(u"VOL", {0, 1}), 0);
        Hold(u"\\RZV\\VOL\\CLIPS", host::access::kListDirectory, host::Disposition::kCreate,
             host::option::kDirectoryFile);
    }
    void TearDown() override {
        StopService();
        MachineTest::TearDown();
    }

    void PutClip(const std::u16string& name, const clip::ClipRecipe& recipe) {
        Write(u"\\RZV\\VOL\\CLIPS\\" + name, clip::MakeClipImage(recipe), host::Disposition::kCreate);
    }
    // In one piece, and closed.
    void Write(const std::u16string& path, std::span<const std::byte> bytes,
               host::Disposition disposition = host::Disposition::kOpen) {
        const host::IoResult written = User().Write(Hold(path, kWrite, disposition).Get(), bytes, 0);
        EXPECT_STATUS(written, "STATUS_SUCCESS") << service::ToText(path);
        EXPECT_EQ(written.information, bytes.size());
    }
    // All of it, in pieces of that size.
    Bytes ReadWhole(const std::u16string& path, std::size_t piece = 1 << 20) {
        const host::ScopedHandle file = Hold(path);
        host::FileFacts facts;
        EXPECT_TRUE(host::QueryFacts(User(), file.Get(), facts).Ok());
        Bytes bytes(facts.size);
        const auto all = std::as_writable_bytes(std::span(bytes));
        for (std::size_t at = 0; at < bytes.size();) {
            const auto part = all.subspan(at, std::min(piece, bytes.size() - at));
            const host::IoResult read = User().Read(file.Get(), part, at);
            EXPECT_STATUS(read, "STATUS_SUCCESS") << service::ToText(path) << " at " << at;
            EXPECT_EQ(read.information, part.size());
            at += part.size();
        }
        return bytes;
    }
    std::vector<std::u16string> List(const std::u16string& path) {
        std::vector<std::u16string> names;
        const host::ScopedHandle folder = Hold(path, host::access::kListDirectory);
        std::vector<host::DirectoryEntry> entries;
        EXPECT_TRUE(host::ListDirectory(User(), folder.Get(), entries).Ok()) << service::ToText(path);
        for (const host::DirectoryEntry& entry : entries) {
            names.push_back(entry.name);
        }
        return names;
    }

    std::unique_ptr<service::Service> NewService(bool stay = true) {
        return std::make_unique<service::Service>(
            service::ServiceOptions{[this](std::string&) { return client::MakeClient(Machine().NewProcess()); },
                                    [this](const std::string& line) {
                                        const std::lock_guard hold(logLock_);
                                        log_ += line + "\n";
                                    },
                                    stay});
    }
    void StartService() {
        log_.clear();
        service_ = NewService();
        work_ = std::thread([this] {
            std::string problem;
            EXPECT_TRUE(service_->Run(problem)) << problem;
        });
        // The types may be there already, of a service that has died.
        ASSERT_TRUE(Eventually([&] { return Log().find("serving ") != std::string::npos; })) << Log();
        EXPECT_EQ(List(u"\\").size(), 5u);
    }
    void StopService() {
        if (service_) {
            service_->Stop();
            work_.join();
            service_.reset();
        }
    }
    std::string Log() {
        const std::lock_guard hold(logLock_);
        return log_;
    }

    std::unique_ptr<service::Service> service_;
    std::thread work_;
    std::mutex logLock_;
    std::string log_;
};

TEST_F(ServiceTest, ClipsAreFoldersOfPictures) {
    StartStation();
    const clip::ClipRecipe recipe = BarsRecipe(525, true, 9);
    PutClip(u"BARS.RZV", recipe);
    StartService();
    EXPECT_EQ(List(u"\\"), (std::vector<std::u16string>{u"RZV", u"TGA", u"BMP", u"YUV", u"RAW"}));
    const std::u16string clip = u"\\TGA\\VOL\\CLIPS\\BARS.RZV";
    Write(clip + u"\\NOTES", std::as_bytes(std::span("later")), host::Disposition::kCreate);
    const std::vector<std::u16string> names = List(clip);
    ASSERT_EQ(names.size(), 10u);
    EXPECT_EQ(names[7], u"BARS.0007.TGA");
    EXPECT_EQ(names[9], u"NOTES");

    for (const auto& [type, kind, piece] : {std::tuple{u"TGA", FileKind::kTga, 99'991},
                                            {u"BMP", FileKind::kBmp, 1 << 20},
                                            {u"YUV", FileKind::kYuv, 4096 * 31},
                                            {u"RAW", FileKind::kRaw, 512 * 777}}) {
        const std::u16string name = std::u16string(u"\\") + type + u"\\VOL\\CLIPS\\BARS.RZV\\BARS.0007." + type;
        EXPECT_TRUE(ReadWhole(name, piece) == FileOf(kind, BarsFrame(recipe, 7))) << service::ToText(name);
    }
    ExpectShows(ReadWhole(clip + u"\\BARS.0000.TGA"), FileKind::kTga, BarsFrame(recipe, 0));
    EXPECT_EQ(Log(), "serving 1 card\n");

    // New settings bring new rows, the same again.
    const client::ClientPointer client = client::MakeClient(Machine().NewProcess());
    VrkFsHandle control = 0;
    VrkFsPreferences preferences;
    ASSERT_EQ(VrkFsClientOpenControl(client.get(), 0, &control), VRKFS_STATUS_SUCCESS);
    ASSERT_EQ(VrkFsClientGetPreferences(client.get(), control, &preferences), VRKFS_STATUS_SUCCESS);
    preferences.MinFrameDigits = 2;
    ASSERT_EQ(VrkFsClientSetPreferences(client.get(), control, &preferences), VRKFS_STATUS_SUCCESS);
    EXPECT_EQ(List(u"\\").size(), 5u);
    EXPECT_TRUE(ReadWhole(u"\\YUV\\VOL\\CLIPS\\BARS.RZV\\BARS.01.YUV") == FileOf(FileKind::kYuv, BarsFrame(recipe, 1)));

    StopService();
    EXPECT_EQ(List(u"\\"), std::vector<std::u16string>{u"RZV"});
}

// ---- Writing ----

// A mark on a frame's picture, and the clip's image with that frame.
void Paint(Bytes& tga) {
    for (std::uint32_t row = 300; row < 310; ++row) {
        std::fill_n(&tga[18 + (row * 720 + 200) * 3], 60, std::uint8_t{0x20});
    }
}
std::vector<std::byte> ImageWith(const clip::ClipRecipe& recipe, std::uint32_t index, const service::Frame& frame) {
    std::vector<std::byte> image = clip::MakeClipImage(recipe);
    std::size_t at = VrkFsMediaHeaderSize(VrkFsBodyTableBytes(recipe.frames), recipe.alpha) + VRKFS_CHUNK_HEADER_SIZE;
    at += 2 * index * frame.fields[0][0].size();
    for (const Bytes& field : frame.fields[0]) {
        std::memcpy(&image[at], field.data(), field.size());
        at += field.size();
    }
    return image;
}

class ServiceWrites : public ServiceTest {
  protected:
    void SetUp() override {
        StartStation();
        PutClip(u"BARS.RZV", recipe_);
        StartService();
        changed_ = FileOf(FileKind::kTga, BarsFrame(recipe_, 3));
        Paint(changed_);
        frame_ = BarsFrame(recipe_, 3);
        std::string problem;
        ASSERT_TRUE(service::FileToFrame(FileKind::kTga, changed_, frame_, problem)) << problem;
    }
    void ExpectImage(const std::vector<std::byte>& expected) {
        const Bytes image = ReadWhole(clip_);
        EXPECT_TRUE(std::ranges::equal(std::as_bytes(std::span(image)), expected)) << Log();
    }

    const clip::ClipRecipe recipe_ = BarsRecipe(625, false, 8);
    const std::u16string clip_ = u"\\RZV\\VOL\\CLIPS\\BARS.RZV";
    const std::u16string place_ = u"\\TGA\\VOL\\CLIPS\\BARS.RZV\\BARS.0003.TGA";
    Bytes changed_;         // the picture of frame 3
    service::Frame frame_;  // with it
};

TEST_F(ServiceWrites, AChangedPictureChangesItsFrameAndNothingElse) {
    const host::ScopedHandle file = Hold(place_, kWrite);
    const auto bytes = std::as_bytes(std::span(changed_));
    for (std::size_t at = 0; at < bytes.size(); at += 131'071) {
        const auto piece = bytes.subspan(at, std::min<std::size_t>(131'071, bytes.size() - at));
        EXPECT_STATUS(User().Write(file.Get(), piece, at), "STATUS_SUCCESS");
    }
    ExpectImage(ImageWith(recipe_, 3, frame_));  // while it is open: it was whole with the last piece
    EXPECT_TRUE(ReadWhole(u"\\BMP\\VOL\\CLIPS\\BARS.RZV\\BARS.0003.BMP") == FileOf(FileKind::kBmp, frame_));
}

// A few bytes count when the file is closed; a picture of another layout, when it is whole.
TEST_F(ServiceWrites, PartsOfAPicture) {
    const std::size_t from = 18 + 300 * 720 * 3;
    const auto part = std::as_bytes(std::span(changed_)).subspan(from, 10 * 720 * 3);
    {
        const host::ScopedHandle file = Hold(place_, kWrite);
        EXPECT_STATUS(User().Write(file.Get(), part, from), "STATUS_SUCCESS");
        std::vector<std::byte> seen(part.size());
        EXPECT_STATUS(User().Read(file.Get(), seen, from), "STATUS_SUCCESS");
        EXPECT_TRUE(std::ranges::equal(seen, part));
        // What somebody else paints elsewhere meanwhile stays.
        Bytes& field = frame_.fields[0][0];
        std::fill_n(field.begin(), 64, std::uint8_t{0x55});
        Write(u"\\RAW\\VOL\\CLIPS\\BARS.RZV\\BARS.0003.RAW", std::as_bytes(std::span(field).first(64)));
    }
    ExpectImage(ImageWith(recipe_, 3, frame_));
    EXPECT_NE(Log().find("frame 3: only the first 64 of 829440 bytes were written"), std::string::npos) << Log();

    Bytes other = FileOf(FileKind::kTga, BarsFrame(recipe_, 5));
    other[17] = 0x20;  // upside down
    Write(place_, std::as_bytes(std::span(other)).first(500'000));
    ExpectImage(ImageWith(recipe_, 3, frame_));
    EXPECT_NE(Log().find("BARS.RZV, frame 3: is not changed: the file ends before the picture does"),
              std::string::npos);
    Write(place_, std::as_bytes(std::span(other)));
    EXPECT_FALSE(ReadWhole(place_) == changed_);
}

TEST_F(ServiceWrites, ImportsARamFile) {
    const std::u16string ram = u"\\TGA\\VOL\\CLIPS\\BARS.RZV\\NEW";
    const host::ScopedHandle file = Hold(ram, kWrite | host::access::kDelete, host::Disposition::kCreate);
    EXPECT_STATUS(User().Write(file.Get(), std::as_bytes(std::span(changed_)), 0), "STATUS_SUCCESS");
    EXPECT_EQ(host::StatusName(host::Rename(User(), file.Get(), u"BARS.0003.TGA")), "STATUS_SUCCESS");
    ExpectImage(ImageWith(recipe_, 3, frame_));
    const host::ScopedHandle empty = Hold(ram + u"0", kWrite | host::access::kDelete, host::Disposition::kCreate);
    EXPECT_EQ(host::StatusName(host::Rename(User(), empty.Get(), u"BARS.0003.TGA")), "STATUS_SUCCESS");
    EXPECT_NE(Log().find("frame 3: is not changed: the file is empty"), std::string::npos) << Log();
    EXPECT_TRUE(ReadWhole(place_) == FileOf(FileKind::kTga, frame_));
}

TEST_F(ServiceWrites, RefusesWhatDoesNotFit) {
    const Bytes small = FileOf(FileKind::kTga, BarsFrame(BarsRecipe(525, false), 0));
    const auto tryWrite = [&](std::span<const std::uint8_t> bytes) {
        return User().Write(Hold(place_, kWrite).Get(), std::as_bytes(bytes), 0);
    };
    EXPECT_STATUS(tryWrite(small), "STATUS_UNSUCCESSFUL");
    EXPECT_NE(Log().find("the picture has 720 by 486 pixels, the frame 720 by 576"), std::string::npos);
    EXPECT_STATUS(tryWrite(Bytes(2000, 0xAB)), "STATUS_UNSUCCESSFUL");
    {  // by a program that does not care
        const host::ScopedHandle file = Hold(place_, kWrite);
        const auto bytes = std::as_bytes(std::span(small));
        EXPECT_STATUS(User().Write(file.Get(), bytes.first(1000), 0), "STATUS_UNSUCCESSFUL");
        EXPECT_STATUS(User().Write(file.Get(), bytes.subspan(1000), 1000), "STATUS_UNSUCCESSFUL");
    }
    {
        const host::ScopedHandle writer = Hold(clip_, kWrite);
        EXPECT_STATUS(tryWrite(changed_), "STATUS_UNSUCCESSFUL");
        EXPECT_NE(Log().find("somebody has it open for writing"), std::string::npos);
    }
    ExpectImage(clip::MakeClipImage(recipe_));
    EXPECT_STATUS(tryWrite(changed_), "STATUS_SUCCESS");
}

// Whoever looks into a clip keeps it; it goes when he is done.
TEST_F(ServiceWrites, AClipThatIsDeletedMeanwhile) {
    const host::ScopedHandle looking = Hold(place_, kWrite);
    std::vector<std::byte> some(1000);
    EXPECT_STATUS(User().Read(looking.Get(), some, 0), "STATUS_SUCCESS");
    ASSERT_TRUE(host::SetDeleteOnCleanup(User(), Hold(clip_, host::access::kDelete).Get(), true).Ok());
    EXPECT_STATUS(User().Write(looking.Get(), std::as_bytes(std::span(changed_)), 0), "STATUS_UNSUCCESSFUL");
    const host::ScopedHandle late = Hold(u"\\BMP\\VOL\\CLIPS\\BARS.RZV\\BARS.0003.BMP");
    EXPECT_STATUS(User().Read(late.Get(), some, 0), "STATUS_UNSUCCESSFUL");
}

// ---- The command port ----

struct PortAnswer {
    std::uint32_t length = 0;
    std::int32_t result = 0;
    VrkFsPortSpaceInfo space = {};
};

template <typename Record, typename Parameters>
std::vector<std::byte> PortCommand(std::uint32_t code, const std::u16string& path, const Parameters& parameters) {
    Record record{};
    path.copy(record.Path, VRKFS_PORT_PATH_CHARS - 1);
    std::memcpy(record.Parameters, &parameters, sizeof(parameters));
    const VrkFsPortCommand head{sizeof(VrkFsPortCommand) + sizeof(Record), code};
    std::vector<std::byte> command(head.Length);
    std::memcpy(command.data(), &head, sizeof(head));
    std::memcpy(command.data() + sizeof(head), &record, sizeof(record));
    return command;
}

TEST_F(ServiceTest, TheCommandPortMakesClipsAndMeasures) {
    StartStation();
    StartService();
    const auto ask = [&](const std::u16string& folder, const std::vector<std::byte>& command) {
        const host::ScopedHandle port = Hold(folder + u"\\___Port0___", kWrite);
        EXPECT_STATUS(User().Write(port.Get(), command, 0), "STATUS_SUCCESS");
        PortAnswer answer;
        (void)User().Read(port.Get(), WritableBytesOf(answer), 0);
        return answer;
    };
    const auto create = [&](const std::u16string& folder, const std::u16string& name,
                            const VrkFsPortCreationParameters& parameters) {
        return ask(folder, PortCommand<VrkFsPortCreation>(VRKFS_PORT_CREATE_MEDIA_FILE, name, parameters)).result;
    };
    const auto measure = [&](std::uint32_t standard, std::uint32_t flags) {
        return ask(u"\\TGA\\VOL\\CLIPS", PortCommand<VrkFsPortSpaceQuery>(VRKFS_PORT_AVAILABLE_SPACE, u"",
                                                                          VrkFsPortSpaceParameters{standard, flags}));
    };
    const PortAnswer before = measure(625, VRKFS_PORT_ALPHA);
    EXPECT_EQ(before.result, 0);
    EXPECT_EQ(before.space.FieldSectors, 810u);
    EXPECT_GT(before.space.FrameCount, 50u);
    EXPECT_EQ(measure(0, 0).space.FrameCount, 0u);
    EXPECT_EQ(measure(0, 0).space.FreeBlocks, before.space.FreeBlocks);
    EXPECT_EQ(measure(405, 0).result, VRKFS_PORT_FAILED);

    EXPECT_EQ(create(u"\\TGA\\VOL\\CLIPS", u"NEW.RZV", {1, 625, 5, VRKFS_PORT_ALPHA, {}}), 0);
    const std::vector<std::u16string> names = List(u"\\BMP\\VOL\\CLIPS\\NEW.RZV");
    ASSERT_EQ(names.size(), 5u) << Log();
    Bytes expected = FileOf(FileKind::kTga, BarsFrame(BarsRecipe(625, true), 0));
    std::fill(expected.begin() + 18, expected.end(), std::uint8_t{0});  // black and transparent
    EXPECT_TRUE(ReadWhole(u"\\TGA\\VOL\\CLIPS\\NEW.RZV\\NEW.0004.TGA") == expected);
    const Bytes picture = FileOf(FileKind::kTga, BarsFrame(BarsRecipe(625, true), 2));
    Write(u"\\TGA\\VOL\\CLIPS\\NEW.RZV\\NEW.0002.TGA", std::as_bytes(std::span(picture)));
    EXPECT_TRUE(ReadWhole(u"\\TGA\\VOL\\CLIPS\\NEW.RZV\\NEW.0002.TGA") == picture);
    EXPECT_EQ(measure(625, 0).space.FreeBlocks, before.space.FreeBlocks - (5 * 4 * 810 / 2 + 2 + 2) * 2);

    // What fails leaves nothing behind.
    const std::uint64_t free = measure(0, 0).space.FreeBlocks;
    EXPECT_EQ(create(u"\\RZV\\VOL\\CLIPS", u"NEW.RZV", {1, 625, 5, 0, {}}), VRKFS_PORT_FAILED);  // there is one
    const VrkFsPortCreationParameters wrong[] = {{2, 625, 5, 0, {}},          {1, 405, 5, 0, {}},
                                                 {1, 625, 0, 0, {}},          {1, 625, 5, 2, {}},
                                                 {1, 625, 5, 0, {0, 1}},      {1, 625, 5'000'000, 0, {}},
                                                 {1, 525, 0xFFFFFFFF, 0, {}}, {1, 625, 90, VRKFS_PORT_ALPHA, {}}};
    for (const VrkFsPortCreationParameters& each : wrong) {
        EXPECT_EQ(create(u"\\RZV\\VOL\\CLIPS", u"WRONG.RZV", each), VRKFS_PORT_FAILED);
    }
    EXPECT_EQ(List(u"\\RZV\\VOL\\CLIPS"), std::vector<std::u16string>{u"NEW.RZV"});
    EXPECT_EQ(measure(0, 0).space.FreeBlocks, free);
    EXPECT_EQ(create(u"\\RZV\\VOL", u"NEW.RZV", {1, 625, 5, 0, {}}), VRKFS_PORT_FAILED);
}

// ---- Its life ----

TEST_F(ServiceTest, OneServiceForAllCardsAndNoSecond) {
    StartStation(2);
    ASSERT_EQ(Format(u"OTHER", {0, 1}, 1), 0);
    PutClip(u"BARS.RZV", BarsRecipe(625, false, 2));
    StartService();
    EXPECT_TRUE(host::ScopedHandle(User(), User().Create({.path = u"Q:\\TGA\\OTHER"}).handle));
    EXPECT_EQ(List(u"\\").size(), 5u) << "the rows of one card are those of all";
    std::string problem;
    EXPECT_FALSE(NewService()->Run(problem));
    EXPECT_EQ(problem, "another service is there");
    const std::u16string place = u"\\TGA\\VOL\\CLIPS\\BARS.RZV\\BARS.0001.TGA";
    EXPECT_TRUE(ReadWhole(place) == FileOf(FileKind::kTga, BarsFrame(BarsRecipe(625, false), 1)));

    // Without one there are no pictures, and its successor does not take its files for its own.
    host::ScopedHandle held = Hold(place);
    std::vector<std::byte> some(100);
    EXPECT_STATUS(User().Read(held.Get(), some, 0), "STATUS_SUCCESS");
    StopService();
    EXPECT_FALSE(User().Read(held.Get(), some, 0).status.Ok());
    StartService();
    EXPECT_FALSE(User().Read(held.Get(), some, 0).status.Ok());
    held.Reset();
    EXPECT_EQ(List(u"\\").size(), 5u);
    EXPECT_TRUE(ReadWhole(place) == FileOf(FileKind::kTga, BarsFrame(BarsRecipe(625, false), 1)));
}

// Whoever waits for a service that has died is told as soon as there is another, and does not keep the others waiting.
TEST_F(ServiceTest, ASuccessorEndsWhatTheDeadOneOwes) {
    StartStation();
    PutClip(u"BARS.RZV", BarsRecipe(625, false, 2));
    const auto begun = std::chrono::steady_clock::now();
    std::vector<std::byte> some(100);
    std::thread reader;
    {
        const client::ClientPointer dead = client::MakeClient(Machine().NewProcess());
        VrkFsHandle control = 0;
        ASSERT_EQ(VrkFsClientOpenControl(dead.get(), 0, &control), VRKFS_STATUS_SUCCESS);
        const auto rows = service::FileTypes();
        ASSERT_EQ(VrkFsClientRegisterFileTypes(dead.get(), control, rows.data(), 4), VRKFS_STATUS_SUCCESS);
        reader = std::thread([&] {
            const host::ScopedHandle waiting = Hold(u"\\TGA\\VOL\\CLIPS\\BARS.RZV\\BARS.0001.TGA");
            EXPECT_STATUS(User().Read(waiting.Get(), some, 0), "STATUS_UNSUCCESSFUL");
        });
        VrkFsServiceRequest request;
        EXPECT_EQ(VrkFsClientFetchServiceRequest(dead.get(), control, &request), VRKFS_STATUS_SUCCESS);
    }
    StartService();
    reader.join();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(30));
    EXPECT_EQ(ReadWhole(u"\\TGA\\VOL\\CLIPS\\BARS.RZV\\BARS.0000.TGA").size(),
              service::FileSize(FileKind::kTga, false));
}

}  // namespace
}  // namespace tests
