// The `vrkfs` program as its users meet it: exit statuses, one line for each failure, JSON, and what is on the drive
// afterwards.
#include <gmock/gmock.h>

#include "tests/tool/program_fixture.h"
#include "volume/records.h"

namespace {

using testing::HasSubstr;
using tests::Outcome;

using Cli = tests::ProgramTest;

TEST_F(Cli, MistakesOfTheLine) {
    MakeStation();
    const struct {
        const char* line;
        int status;
        const char* says;
    } mistakes[] = {
        {"", 2, "a command is wanted"},
        {"list P:/", 2, "no command 'list'"},
        {"create-station @/x --size 2Q", 2, "--size"},
        {"create-station @/x --cards 11", 2, "1 to 10 cards"},
        {"create-station @/station", 1, "not empty"},
        {"create-station @/x --size 1M", 1, "at least 4M"},
        {"format --name A --disks 0,0", 2, "twice"},
        {"format --name A --disks 0,1,2", 2, "even number"},
        {"format --name A --disks 7", 2, "other than 7"},
        {"format --name A --disks 9", 1, "it has disks 0, 1, 2, 3"},
        {"format --name A:B --disks 0", 1, "VRKFS_FORMAT_BAD_NAME"},
        {"ls P:/RZV/NONE", 1, "STATUS_OBJECT_NAME_NOT_FOUND"},
        {"ls ''", 2, "empty"},
        {"mkdir P:/RZV/NONE/A", 1, "vrkfs volumes"},
        {"mkdir P:/RZV/A", 1, "STATUS_ACCESS_DENIED"},
        {"rmdir P:/RZV", 1, "cannot delete P:/RZV: STATUS_"},
        {"rmdir P:/RZV/NONE/A", 1, "STATUS_OBJECT_PATH_NOT_FOUND"},
        {"put @/none P:/RZV/A/B/C", 1, "No such file"},
        {"put @/station/registry.json P:/RZV/A/B/C", 1, "not a clip"},
        {"get P:/RZV @/x", 1, "vrkfs ls"},
        {"cat P:/RZV/A P:/RZV/B", 2, "P:/RZV/B"},
        {"info P:/RZV", 1, "STATUS_FILE_IS_A_DIRECTORY"},
        {"mv P:/RZV/A/B/C X:/RZV/A/B/C", 1, "this station has P:"},
        {"mv P:/RZV/A/B P:/RZV/A/B/C", 2, "no place for a folder"},
        {"mv P:/RZV/A/B/C P:/RZV/A", 2, "no place for a clip"},
        {"touch -d yesterday P:/RZV/A/B/C", 2, "is no time"},
        {"touch P:/RZV", 1, "only the time of a clip"},
        {"space P:/RZV", 2, "--video"},
        {"space P:/RZV --video 1", 2, "lies on no volume"},
        {"label 123456789012345678901234567890123", 2, "32 characters"},
        {"app-info P:/A --set @/none --text A", 2, "--text"},
        {"owner 4294967296", 2, "4294967296"},
        {"owner 1", 1, "there is no volume"},
        {"prefs DriveLetters", 2, "there are MinFrameDigits, "},
        {"prefs DriveLetter PQ", 2, "A to Z"},
        {"prefs HCrop 4294967296", 2, "0 to 4294967295"},
        {"scsi-prefs ScsiMaxRetries 101", 2, "0 to 100"},
        {"exclusive", 2, "COMMAND is required"},
        {"exclusive true", 2, "behind --"},
        {"exclusive -- @/none", 1, "No such file"},
        {"events -s @/none", 1, "create-station"},
        {"clip", 2, "vrkfs clip --help"},
        {"clip verify @/none", 1, "No such file"},
        {"clip make @/x --fields 9..2", 2, "longest"},
        {"clip make @/x --interleave", 2, "needs an alpha"},
        {"clip make @/none/x", 1, "cannot create"},
        {"clip make /dev/full --frames 1", 1, "No space left"},
    };
    for (const auto& mistake : mistakes) {
        SCOPED_TRACE(std::string("vrkfs ") + mistake.line);
        ExpectFailure(Run(mistake.line), mistake.status, mistake.says);
        // The same for a program, and the line is one object with the same status.
        const Outcome json = Run(std::string("--json ") + mistake.line);
        EXPECT_EQ(json.status, mistake.status);
        const auto object = nlohmann::json::parse(json.err, nullptr, false);
        ASSERT_TRUE(object.is_object()) << json.err;
        EXPECT_EQ(object.value("exit", -1), mistake.status);
        EXPECT_FALSE(object.value("error", "").empty());
    }
    EXPECT_FALSE(std::filesystem::exists(Path("x")) || std::filesystem::exists(Path("x.part")));
    noStation_ = true;
    ExpectFailure(Run("volumes"), 2, "VRKFS_STATION");
}

TEST_F(Cli, PutListReadBack) {
    MakeVolumes();
    const std::string clip = Contents(Path("clip"));
    const std::string folder = "P:/RZV/TWO/A";
    const Outcome put = Run("put @/clip " + folder + "/First --json");
    ASSERT_EQ(put.status, 0) << put.err;
    EXPECT_EQ(put.Objects().at(0)["bytes"], clip.size());
    EXPECT_EQ(Run("put - " + folder + "/second", Path("clip")).status, 0);

    EXPECT_EQ(Run("ls " + folder).out, "First\nsecond\n");
    const auto listed = Run("ls --json -l " + folder).Objects();
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed[0]["kind"], "clip");
    EXPECT_EQ(listed[0]["bytes"], clip.size());
    EXPECT_EQ(listed[1]["path"], folder + "/second");

    ASSERT_EQ(Run("get " + folder + "/FIRST @/back").status, 0);
    EXPECT_TRUE(Contents(Path("back")) == clip);
    EXPECT_TRUE(Run("cat " + folder + "/second").out == clip);
    EXPECT_THAT(Run("info " + folder + "/second").out, HasSubstr("fields 0..40, seed 5"));
    EXPECT_EQ(Run("rm " + folder + "/First").status, 0);
    EXPECT_EQ(Run("ls " + folder).out, "second\n");
    ExpectFailure(Run("rmdir " + folder), 1, "only an empty folder");
    ExpectFailure(Run("rmdir " + folder + "/second"), 1, "vrkfs rm");
    ExpectFailure(Run("rm " + folder), 1, "vrkfs rmdir");
}

TEST_F(Cli, EverySpellingOfAPathAndOfTheStation) {
    MakeVolumes();
    for (const char* line : {"ls P:/RZV/ONE", "ls p:/rzv/one/", "ls P:\\RZV\\ONE", "ls /RZV/ONE", "ls RZV/ONE",
                             "ls //RZV//ONE//", "ls P:RZV\\ONE"}) {
        EXPECT_EQ(Run(line).out, "A\n") << line;
    }
    EXPECT_EQ(Run("ls").out, "RZV\n");
    noStation_ = true;
    for (const char* line : {"-s @/station ls P:/RZV/ONE", "ls -s @/station P:/RZV/ONE",
                             "ls P:/RZV/ONE --station @/station", "ls P:/RZV/ONE -s@/station"}) {
        EXPECT_EQ(Run(line).out, "A\n") << line;
    }
    ASSERT_EQ(Run("create-station @/two --cards 2 --disks 1 --size 8M").status, 0);
    ExpectFailure(Run("ls RZV -s @/two"), 2, "this station has P:, Q:");
    ExpectFailure(Run("format --name A --disks 0 -s @/two"), 2, "--card N");
    EXPECT_EQ(Run("format --name A --disks 0 --card 1 -s @/two").status, 0);
    EXPECT_EQ(Run("ls Q:/RZV -s @/two").out, "A\n");
    EXPECT_EQ(Run("ls P:/RZV -s @/two").out, "");
}

TEST_F(Cli, NamesThatNoTerminalShows) {
    MakeVolumes();
    // Half a surrogate pair, a control character, more than 16 bits, letters beyond ASCII.
    for (const char* name : {"<D800>x", "a<000A>b", "\U0001F3AC", "\u00DCber|x"}) {
        SCOPED_TRACE(name);
        const std::string path = std::string("P:/RZV/ONE/") + name;
        ASSERT_EQ(Run("mkdir " + path).status, 0);
        std::string shown = name;
        std::ranges::replace(shown, '|', ' ');
        EXPECT_EQ(Run("ls P:/RZV/ONE").out, "A\n" + shown + "\n");
        EXPECT_EQ(Run("ls --json P:/RZV/ONE").Objects().back()["name"], shown);
        EXPECT_EQ(Run("rmdir " + path).status, 0);
    }
    ExpectFailure(Run("mkdir P:/RZV/ONE/a<005C>b"), 2, "a<005C>b");
    ExpectFailure(Run("mkdir P:/RZV/ONE/\xFF"), 2, "UTF-8");
    ExpectFailure(Run("mkdir P:/RZV/ONE/a*"), 1, "STATUS_OBJECT_NAME_INVALID");
    ExpectFailure(Run("put @/clip P:/RZV/ONE/A/___port0___ --replace"), 1, "the name is reserved");
    ExpectFailure(Run("mkdir P:/RZV/ONE/.."), 1, "the name is reserved");
    ExpectFailure(Run("mv P:/RZV/ONE/A ."), 1, "the name is reserved");
    EXPECT_EQ(Run("ls P:/RZV/ONE/A").out, "");
}

TEST_F(Cli, VolumesAreTold) {
    MakeVolumes();
    const auto rows = Run("volumes --json").Objects();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0]["name"], "ONE");
    EXPECT_EQ(rows[1]["disks"], (std::vector<int>{1, 2}));
    EXPECT_EQ(rows[1]["total_bytes"].get<std::uint64_t>(), 2 * rows[0]["total_bytes"].get<std::uint64_t>());
    EXPECT_EQ(rows[2]["disks_in_no_volume"], (std::vector<int>{3}));

    // A missing disk, then a disk of another station with a volume of the same name.
    std::filesystem::remove(Image(2));
    EXPECT_THAT(Run("volumes").out, HasSubstr("incomplete"));
    std::filesystem::copy_file(Image(0), Path("stranger"));
    ASSERT_EQ(Run("format --name TEMP --disks 3").status, 0);
    ASSERT_EQ(Run("create-station @/other --disks 1 --size 16M").status, 0);
    ASSERT_EQ(Run("format --name one --disks 0 -s @/other").status, 0);
    std::filesystem::copy_file(Path("other") / "card0" / "scsi0.img", Image(3),
                               std::filesystem::copy_options::overwrite_existing);
    const auto conflict = Run("volumes --json").Objects();
    EXPECT_EQ(std::ranges::count_if(conflict, [](const auto& row) { return row.value("name_conflict", false); }), 1);
}

// Gives a disk's volume another name, with the checksum that belongs to it.
void RenameOnDisk(const std::filesystem::path& image, const std::u16string& name) {
    VolumeEntry entry;
    std::ifstream(image, std::ios::binary).read(reinterpret_cast<char*>(&entry), sizeof(entry));
    std::ranges::fill(entry.Name, u'\0');
    std::ranges::copy(name, entry.Name);
    entry.Checksum = VrkFsHwCalcVolumeChecksum(&entry);
    tests::ProgramTest::WriteAt(image, 0, {reinterpret_cast<const char*>(&entry), sizeof(entry)});
}

TEST_F(Cli, AVolumeOfAnImpossibleNameHidesNoOther) {
    MakeVolumes();
    for (const std::u16string& name : {std::u16string(u"TWO\\A"), std::u16string(u"a/b"), std::u16string()}) {
        RenameOnDisk(Image(0), name);
        const auto rows = Run("volumes --json").Objects();
        ASSERT_EQ(rows.size(), 3u);
        EXPECT_EQ(rows[0]["free_bytes"], nullptr);
        EXPECT_FALSE(rows[0].value("status", "").empty());
        EXPECT_EQ(rows[1]["name"], "TWO");
        EXPECT_EQ(Run("ls P:/RZV/TWO").out, "A\n");
        EXPECT_EQ(Run("ls P:/RZV").status, 0);
    }
    RenameOnDisk(Image(0), u"ONE again");
    EXPECT_EQ(Run("ls P:/RZV/ONE|again").out, "A\n");
}

TEST_F(Cli, FormatDestroysNothingUnasked) {
    MakeVolumes();
    const auto stillThere = [&] { return Run("ls P:/RZV/ONE").out == "A\n"; };
    ExpectFailure(Run("format --name NEW --disks 0"), 1, "volume 'ONE' on disks 0");
    ExpectFailure(Run("format --name NEW --disks 3,0"), 1, "--yes");
    EXPECT_EQ(RunOnTerminal("format --name NEW --disks 0", "n\n").status, 1);
    EXPECT_EQ(RunOnTerminal("format --name NEW --disks 0", "\n").status, 1);
    EXPECT_EQ(RunOnTerminal("format --name NEW --disks 0 --json", "y\n").status, 1);
    EXPECT_TRUE(stillThere());
    ExpectFailure(Run("format --name TWO --disks 0 --yes"), 1, "VRKFS_FORMAT_NAME_TAKEN");
    EXPECT_TRUE(stillThere());

    WriteAt(Image(3), 65536, "somebody's file system");
    ExpectFailure(Run("format --name NEW --disks 3 --yes"), 1, "--force");
    EXPECT_EQ(Contents(Image(3)).substr(65536, 22), "somebody's file system");
    ExpectFailure(Run("format --name NEW --disks 3 --force"), 1, "--yes");
    EXPECT_EQ(Run("format --name NEW --disks 3 --force --yes").status, 0);

    const Outcome asked = RunOnTerminal("format --name OTHER --disks 0", "y\n");
    EXPECT_EQ(asked.status, 0) << asked.out;
    EXPECT_THAT(asked.out, HasSubstr("This destroys volume 'ONE'"));
    EXPECT_EQ(Run("ls P:/RZV").out, "OTHER\nTWO\nNEW\n");
    EXPECT_EQ(Run("format --name OTHER --disks 0 --yes").status, 0);
    // Half of a volume: its rest is gone too, so that is asked.
    ExpectFailure(Run("format --name HALF --disks 1"), 1, "volume 'TWO' on disks 1, 2");
}

TEST_F(Cli, OnlyWholeClipsAreStored) {
    MakeVolumes();
    const std::string clip = Contents(Path("clip"));
    ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
    const auto freeBytes = [&] { return Run("volumes --json").Objects().at(0)["free_bytes"]; };
    const auto before = freeBytes();
    const struct {
        const char* what;
        std::string bytes;
        const char* says;
    } cases[] = {
        {"nothing", "", "ends inside"},
        {"text", std::string(5000, 'x'), "not a clip"},
        {"half a header", clip.substr(0, 200), "ends inside"},
        {"half the data", clip.substr(0, clip.size() / 2), "early"},
        {"one byte less", clip.substr(0, clip.size() - 1), "early"},
        {"one byte more", clip + "x", "bytes follow"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        std::ofstream(Path("bad"), std::ios::binary) << test.bytes;
        EXPECT_EQ(Run("put @/bad P:/RZV/ONE/A/bad").status, 1);
        // From a pipe the end is seen only when it comes.
        const pid_t writer = Start("if=@/bad of=@/pipe", "/dev/null", "-writer", "/bin/dd");
        ExpectFailure(Run("put - P:/RZV/ONE/A/bad", Path("pipe")), 1, test.says);
        (void)Await(writer);
        EXPECT_EQ(Run("ls P:/RZV/ONE/A").out, "");
        EXPECT_EQ(freeBytes(), before);
    }
    ExpectFailure(Run("put @/clip P:/RZV/ONE"), 2, "no place for a clip");
    ExpectFailure(Run("put @/clip P:/RZV/ONE/A/B/C"), 2, "no place for a clip");
    ASSERT_EQ(Run("put @/clip P:/RZV/ONE/A").status, 0);
    EXPECT_EQ(Run("ls P:/RZV/ONE/A").out, "clip\n");
}

TEST_F(Cli, ReplaceKeepsTheOldClipUntilTheNewIsWhole) {
    MakeVolumes();
    ASSERT_EQ(Run("clip make @/other --frames 4 --alpha --interleave --fields 0..40 --seed 9").status, 0);
    ASSERT_EQ(Run("put @/clip P:/RZV/TWO/A/c").status, 0);
    ExpectFailure(Run("put @/other P:/RZV/TWO/A/c"), 1, "--replace");
    ASSERT_EQ(Run("put @/other P:/RZV/TWO/A/c --replace").status, 0);
    EXPECT_EQ(Run("ls P:/RZV/TWO/A").out, "c\n");
    EXPECT_THAT(Run("info P:/RZV/TWO/A/c").out, HasSubstr("4 frames"));
    ASSERT_EQ(Run("get P:/RZV/TWO/A/c @/back").status, 0);
    EXPECT_THAT(Run("clip verify @/back").out, HasSubstr("right: 4 frames"));

    // No room for a second copy: the old clip stays and nothing else does.
    ASSERT_EQ(Run("clip make @/large --frames 30 --alpha --fields 200..300").status, 0);
    ASSERT_EQ(Run("put @/clip P:/RZV/ONE/A/c").status, 0);
    const auto before = Run("volumes --json").out;
    ExpectFailure(Run("put @/large P:/RZV/ONE/A/c --replace"), 1, "STATUS_DISK_FULL");
    EXPECT_EQ(Run("ls P:/RZV/ONE/A").out, "c\n");
    EXPECT_EQ(Run("volumes --json").out, before);
    EXPECT_TRUE(Run("cat P:/RZV/ONE/A/c").out == Contents(Path("clip")));
    // A broken one likewise.
    std::ofstream(Path("bad"), std::ios::binary) << Contents(Path("other")).substr(0, 90000);
    ExpectFailure(Run("put - P:/RZV/ONE/A/c --replace", Path("bad")), 1, "P:/RZV/ONE/A/c is as it was before");
    EXPECT_EQ(Run("ls P:/RZV/ONE/A").out, "c\n");
}

TEST_F(Cli, GetLeavesWholeFilesOnly) {
    MakeVolumes();
    ASSERT_EQ(Run("put @/clip P:/RZV/ONE/A/c").status, 0);
    std::filesystem::create_directory(Path("folder"));
    EXPECT_EQ(Run("get P:/RZV/ONE/A/c @/folder").status, 0);
    EXPECT_TRUE(Contents(Path("folder") / "c") == Contents(Path("clip")));
    ExpectFailure(Run("get P:/RZV/ONE/A/c @/none/x"), 1, "cannot create");
    ExpectFailure(Run("get P:/RZV/ONE/A/c /dev/full"), 1, "No space left");
    ExpectFailure(Run("get P:/RZV/ONE/A/none @/back"), 1, "cannot read P:/RZV/ONE/A/none");
    ASSERT_EQ(Run("put @/clip P:/RZV/ONE/A/-").status, 0);
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(Path("folder"));
    EXPECT_EQ(Run("get P:/RZV/ONE/A/-").status, 0);
    std::filesystem::current_path(before);
    EXPECT_TRUE(std::filesystem::exists(Path("folder") / "-"));
    EXPECT_EQ(Run("get P:/RZV/ONE/A/c @/d --json").Objects().at(0)["bytes"], Contents(Path("clip")).size());
    EXPECT_FALSE(std::filesystem::exists(Path("back")) || std::filesystem::exists(Path("d.part")));
}

TEST_F(Cli, AStationInUseIsLeftAlone) {
    MakeVolumes();
    host::Problem problem;
    const auto station = host::Station::Read(Path(kStationName), problem);
    ASSERT_TRUE(station);
    const std::string holder = "tester (process " + std::to_string(::getpid()) + ")";
    {
        const auto lock = host::StationLock::Take(*station, "tester", false, problem);
        ASSERT_TRUE(lock);
        for (const char* line :
             {"volumes", "ls P:/", "put @/clip P:/RZV/ONE/A/c", "format --name NEW --disks 3", "volumes --read-only"}) {
            SCOPED_TRACE(line);
            ExpectFailure(Run(line), 3, holder);
        }
        EXPECT_EQ(nlohmann::json::parse(Run("ls --json P:/").err)["exit"], 3);
        EXPECT_EQ(Run("events").status, 0);
    }
    const auto shared = host::StationLock::Take(*station, "reader", true, problem);
    ASSERT_TRUE(shared);
    EXPECT_EQ(Run("ls P:/RZV/ONE --read-only").out, "A\n");
    ExpectFailure(Run("mkdir P:/RZV/ONE/B"), 3, "another program");  // not the last one that had it to itself
}

TEST_F(Cli, AnImageServesOneDiskOfOneStation) {
    MakeVolumes();
    ASSERT_EQ(Run("put @/clip P:/RZV/ONE/A/c").status, 0);
    ASSERT_EQ(Run("create-station @/other --disks 1 --size 4M").status, 0);
    const auto otherImage = Path("other") / "card0" / "scsi0.img";
    std::filesystem::remove(otherImage);
    std::filesystem::create_symlink(Image(0), otherImage);
    EXPECT_EQ(Run("ls P:/RZV/ONE -s @/other").out, "A\n");
    {
        host::Problem problem;
        const auto lock =
            host::StationLock::Take(*host::Station::Read(Path("other"), problem), "tester", false, problem);
        ASSERT_TRUE(lock);
        ExpectFailure(Run("volumes"), 3, "in use by another station");
    }
    ExpectFailure(Run("get P:/RZV/ONE/A/c @/station/card0/scsi0.img"), 1, "is a disk of the station");

    // A link to another disk of its own, and what is no disk at all: nobody waits for a pipe.
    for (const bool pipe : {false, true}) {
        std::filesystem::remove(Image(3));
        if (pipe) {
            ASSERT_EQ(::mkfifo(Image(3).c_str(), 0600), 0);
        } else {
            std::filesystem::create_symlink(Image(2), Image(3));
        }
        for (const char* line : {"volumes", "ls --read-only", "format --name NEW --disks 3 --yes"}) {
            SCOPED_TRACE(line);
            ExpectFailure(Run(line), 1,
                          pipe ? "neither a file nor a block device" : "is the image of another disk too");
        }
    }
}

// What is opened next would take the place of a stream that the caller closed, and be written over by a report.
TEST_F(Cli, ClosedStandardStreamsAreNoImagesAndAFullOneIsAFailure) {
    MakeVolumes();
    ASSERT_EQ(Run("put @/clip P:/RZV/ONE/A/c").status, 0);
    const std::string image = Contents(Image(0));
    const std::string program =
        std::string("cd ") + Path("").string() + "; VRKFS_STATION=station timeout 60 " + VRKFS_PROGRAM;
    for (const char* streams : {"<&-", ">&-", "2>&-", "<&- >&-", "<&- >&- 2>&-", ">/dev/full"}) {
        for (const char* line : {"cat P:/RZV/ONE/A/c", "volumes", "ls /none", "clip info -"}) {
            SCOPED_TRACE(std::string(line) + streams);
            const std::string all = program + " " + line + " >out 2>err </dev/null " + streams;
            const int status = WEXITSTATUS(std::system(all.c_str()));
            EXPECT_EQ(status, Contents(Path("out")).empty() ? 1 : 0);
        }
    }
    EXPECT_TRUE(Contents(Image(0)) == image);
}

// A put that is stopped when most of a clip is on the drive.
class StoppedPut : public Cli {
  protected:
    void SetUp() override {
        MakeVolumes();
        ASSERT_EQ(Run("clip make @/long --frames 8 --fields 200..300").status, 0);
    }
    Outcome StopWith(int signal) const {
        EXPECT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
        const pid_t child = Start("put - P:/RZV/ONE/A/c", Path("pipe"));
        const int pipe = ::open(Path("pipe").c_str(), O_WRONLY);
        // When all but the end is in the pipe, which holds little, the program has written most of it to the drive.
        const std::string clip = Contents(Path("long"));
        const std::string_view most(clip.data(), clip.size() - 1000);
        for (std::size_t at = 0; at < most.size();) {
            const ssize_t done = ::write(pipe, most.data() + at, most.size() - at);
            EXPECT_GT(done, 0);
            at += static_cast<std::size_t>(std::max<ssize_t>(done, 1));
        }
        ::kill(child, signal);
        const Outcome outcome = Finish(child);
        ::close(pipe);
        std::filesystem::remove(Path("pipe"));
        return outcome;
    }
};

TEST_F(StoppedPut, BySignalLeavesNothing) {
    const std::string before = Run("volumes --json").out;
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        const Outcome outcome = StopWith(signal);
        ExpectFailure(outcome, 1, "P:/RZV/ONE/A/c was not made");
        EXPECT_THAT(outcome.err, HasSubstr("stopped"));
        EXPECT_EQ(Run("ls P:/RZV/ONE/A").out, "");
        EXPECT_EQ(Run("volumes --json").out, before);
    }
}

TEST_F(StoppedPut, ByTheEndOfItsProcessLeavesAnEmptyFile) {
    EXPECT_EQ(StopWith(SIGKILL).status, -SIGKILL);
    EXPECT_EQ(Run("ls -l --json P:/RZV/ONE/A").Objects().at(0)["kind"], "empty");
    ExpectFailure(Run("get P:/RZV/ONE/A/c @/back"), 1, "nothing was recorded");
    ExpectFailure(Run("info P:/RZV/ONE/A/c"), 1, "nothing was recorded");
    ExpectFailure(Run("put @/clip P:/RZV/ONE/A/c"), 1, "--replace");
    EXPECT_EQ(Run("put @/clip P:/RZV/ONE/A/c --replace").status, 0);
    EXPECT_TRUE(Run("cat P:/RZV/ONE/A/c").out == Contents(Path("clip")));
}

TEST_F(Cli, EventsAreRendered) {
    MakeVolumes();
    EXPECT_EQ(Run("events").out, "no events\n");
    EXPECT_EQ(Run("events --json").out, "");
    const std::uint64_t lastBlock = std::filesystem::file_size(Image(0)) / 512 - 1;
    WriteAt(Image(0), (lastBlock - 4607) * 512 + 600, "\x01");  // in the record of folder A
    EXPECT_THAT(Run("ls P:/RZV/ONE").out, HasSubstr("BAD_DIR_"));
    const auto events = Run("events --json").Objects();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events[0]["severity"], "error");
    EXPECT_EQ(events[0]["id"], "0xC0050008");
    EXPECT_THAT(events[0]["text"].get<std::string>(),
                HasSubstr("Checksum error. ID=0 LBA=" + std::to_string(lastBlock - 4607) + " Type=DirEntry"));
    EXPECT_EQ(events[0]["data"].get<std::string>().substr(0, 8), "464f4c30");
    std::ofstream(Path(kStationName) / "events.log", std::ios::app) << "no entry\n";
    const Outcome damaged = Run("events");
    EXPECT_EQ(damaged.status, 0);
    EXPECT_THAT(damaged.err, HasSubstr("1 damaged line"));
}

}  // namespace
