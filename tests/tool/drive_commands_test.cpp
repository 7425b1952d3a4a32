// The commands that name, measure, set and lock: what they answer, and what is on the disks afterwards.
#include <gmock/gmock.h>

#include <cstring>

#include "tests/tool/program_fixture.h"

namespace {

using testing::HasSubstr;
using tests::Outcome;

const std::string kClip = "P:/RZV/TWO/A/c";

class DriveCommands : public tests::ProgramTest {
  protected:
    void SetUp() override {
        MakeVolumes();
        ASSERT_EQ(Run("put @/clip " + kClip).status, 0);
    }
    nlohmann::json One(const std::string& line) const {
        const Outcome outcome = Run("--json " + line);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        const auto objects = outcome.Objects();
        EXPECT_EQ(objects.size(), 1u) << outcome.out;
        return objects.empty() ? nlohmann::json() : objects.front();
    }
    // Of the first disk of TWO.
    std::string Blocks(std::uint32_t first, std::uint32_t count) const {
        return Contents(Image(1)).substr(std::size_t{first} * 512, std::size_t{count} * 512);
    }
};

TEST_F(DriveCommands, MovedThingsAreWholeUnderTheirNewNames) {
    ASSERT_EQ(Run("mkdir P:/RZV/TWO/B").status, 0);
    ASSERT_EQ(Run("put @/clip P:/RZV/TWO/B/taken").status, 0);
    const Step steps[] = {
        {"mv P:/RZV/TWO/A/c d", nullptr},
        {"mv P:/RZV/TWO/A/d D", nullptr},  // the case of letters alone
        {"mv P:/RZV/TWO/A/d P:/RZV/TWO/A/e", nullptr},
        {"mv P:/RZV/TWO/A/e P:/RZV/TWO/B/Taken", "STATUS_OBJECT_NAME_COLLISION"},
        {"mv P:/RZV/TWO/A/e taken*", "STATUS_OBJECT_NAME_INVALID"},
        {"mv P:/RZV/TWO/A/e P:/RZV/ONE/A", "vrkfs put"},
        {"mv P:/RZV/TWO/A/e P:/RZV/TWO/NONE/e", "vrkfs mkdir"},
        {"mv P:/RZV/TWO/A/c x", "STATUS_OBJECT_NAME_NOT_FOUND"},
        {"mv P:/RZV/TWO/A/e RZV/TWO/B/", nullptr},
        {"mv P:/RZV/TWO/B/e P:/RZV/TWO/A/f", nullptr},  // with another name at once
        {"mv P:/RZV/TWO/A B", "STATUS_OBJECT_NAME_COLLISION"},
        {"mv P:/RZV/TWO/A P:/RZV/ONE/Z", "keep their place"},
        {"mv P:/RZV/TWO/A P:/RZV/TWO/Z", nullptr},
        {"mv P:/RZV/TWO one", "STATUS_OBJECT_NAME_COLLISION"},
        {"mv P:/RZV/TWO P:/RZV/THREE", nullptr},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.line);
        Expect(Run(step.line), step.says);
    }
    EXPECT_EQ(Run("ls P:/RZV").out, "ONE\nTHREE\n");
    EXPECT_EQ(Run("ls P:/RZV/THREE").out, "Z\nB\n");
    EXPECT_EQ(Run("ls P:/RZV/THREE/Z").out, "f\n");
    EXPECT_TRUE(Run("cat P:/RZV/THREE/Z/f").out == Contents(Path("clip")));
    EXPECT_TRUE(Run("cat P:/RZV/THREE/B/taken").out == Contents(Path("clip")));
}

TEST_F(DriveCommands, RecordsAreShownAndChangedOnTheDisk) {
    const auto entry = One("entry " + kClip);
    EXPECT_EQ(entry["frames"], 9);
    EXPECT_EQ(entry["kind"], "media");
    EXPECT_EQ(entry["record"]["blocks"], 2);
    const std::uint32_t record = entry["record"]["first"];
    const auto onDisk = [&] { return Blocks(record, 2); };
    EXPECT_EQ(onDisk().substr(0, 4), "FIL0");
    EXPECT_THAT(Run("entry " + kClip).out,
                HasSubstr("blocks " + std::to_string(record) + " to " + std::to_string(record + 1)));

    ASSERT_EQ(Run("touch -d 2001-02-03T04:05:06 " + kClip).status, 0);
    std::int64_t time = 0;
    std::memcpy(&time, onDisk().data() + 8, sizeof(time));
    EXPECT_EQ(time, 126'256'467'060'000'000);
    EXPECT_EQ(One("ls P:/RZV/TWO/A")["time"], "2001-02-03T04:05:06Z");

    std::string full(256, 'x');
    full[255] = '!';
    const struct {
        const char* option;
        std::string file;
        std::string kept;  // empty: refused
    } cases[] = {
        {"--set @/info", full, full},
        {"--set @/info", full + "x", ""},
        {"--set -", "short", "short" + std::string(251, '\0')},
        {"--text take|3", "", "take 3" + std::string(250, '\0')},
        {"--set @/info", "", std::string(256, '\0')},
    };
    std::string kept = onDisk().substr(256, 256);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.option);
        std::ofstream(Path("info"), std::ios::binary) << test.file;
        const Outcome outcome = Run("app-info " + kClip + " " + test.option, Path("info"));
        EXPECT_EQ(outcome.status, test.kept.empty() ? 1 : 0) << outcome.err;
        kept = test.kept.empty() ? kept : test.kept;
        EXPECT_EQ(onDisk().substr(256, 256), kept);
    }
    EXPECT_EQ(Run("app-info " + kClip).out, "nothing\n");
    EXPECT_EQ(Run("cat " + kClip).out.size(), Contents(Path("clip")).size());
}

TEST_F(DriveCommands, EveryBlockHasItsOwner) {
    const auto entry = One("entry " + kClip);
    const std::uint32_t last = static_cast<std::uint32_t>(std::filesystem::file_size(Image(1)) / 512) - 1;
    struct Case {
        std::uint32_t block;
        std::optional<std::string> owner;
        const char* as;
    };
    std::vector<Case> cases = {
        {0, "P:/RZV/TWO", "volume record"},
        {1, "P:/RZV/TWO", "volume record"},
        {2, std::nullopt, "not used by the format"},
        {1023, std::nullopt, "not used by the format"},
        {last - 4608, kClip, "record"},  // records are taken from the top of the data area
        {last - 4607, "P:/RZV/TWO/A", "folder record"},
        {last - 4607 + 17, "P:/RZV/TWO/A", "folder record"},
        {last - 4607 + 18, std::nullopt, "place for a folder record, not in use"},
        {last, std::nullopt, "place for a folder record, not in use"},
        {last + 1, std::nullopt, "behind the volume"},
        {0xFFFFFFFF, std::nullopt, "behind the volume"},
    };
    const std::pair<const char*, const char*> parts[] = {{"record", "record"},
                                                         {"data", "data"},
                                                         {"body_table", "body table"},
                                                         {"alpha_data", "alpha data"},
                                                         {"alpha_body_table", "alpha body table"}};
    for (const auto& [key, as] : parts) {
        const std::uint32_t first = entry[key]["first"];
        cases.push_back({first, kClip, as});
        cases.push_back({first + entry[key]["blocks"].get<std::uint32_t>() - 1, kClip, as});
    }
    const std::uint32_t behind =
        entry["alpha_data"]["first"].get<std::uint32_t>() + entry["alpha_data"]["blocks"].get<std::uint32_t>();
    cases.push_back({behind, std::nullopt, "free"});
    for (const Case& test : cases) {
        SCOPED_TRACE(test.block);
        const auto told = One("owner " + std::to_string(test.block) + " --volume TWO");
        EXPECT_EQ(told["owner"], test.owner ? nlohmann::json(*test.owner) : nlohmann::json());
        EXPECT_EQ(told["as"], test.as);
    }
    EXPECT_EQ(One("owner 1024 --volume p:/rzv/two")["disks"], (std::vector<int>{1, 2}));
    EXPECT_EQ(Run("owner 1024 --json").Objects().size(), 2u);
}

TEST_F(DriveCommands, SpaceIsTold) {
    const auto rows = Run("df --json").Objects();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[2]["free_bytes"],
              rows[0]["free_bytes"].get<std::uint64_t>() + rows[1]["free_bytes"].get<std::uint64_t>());
    // As many frames as the estimate says can be stored, and no more.
    const std::uint32_t frames = One("space P:/RZV/ONE --video 100")["frames"];
    for (const std::uint32_t count : {frames + 1, frames}) {
        EXPECT_EQ(Run("clip make @/long --fields 100..100 --frames " + std::to_string(count)).status, 0);
        EXPECT_EQ(Run("put @/long P:/RZV/ONE/A/long").status, count > frames ? 1 : 0);
    }
    // A volume that cannot be opened hides no other.
    std::filesystem::remove(Image(2));
    EXPECT_EQ(Run("df --json").Objects().at(1)["free_bytes"], nullptr);
    EXPECT_EQ(Run("space --json --video 100").Objects().size(), 1u);
}

TEST_F(DriveCommands, SettingsStay) {
    const struct {
        const char* set;
        const char* get;
        const char* value;
    } cases[] = {
        {"prefs minframedigits 255", "prefs MinFrameDigits", "255"},
        {"prefs BaseFrameNumber 4294967295", "prefs BaseFrameNumber", "4294967295"},
        {"prefs TotalRAMFiles 0", "prefs TotalRAMFiles", "0"},
        {"prefs ImportProcessingAlpha 7", "prefs importprocessingalpha", "7"},
        {"prefs DriveLetter v", "prefs DriveLetter", "V"},
        {"scsi-prefs ScsiMaxRetries 100", "scsi-prefs ScsiMaxRetries", "100"},
        {"scsi-prefs ScsiVerifyWrite 0", "scsi-prefs ScsiVerifyWrite", "0"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.set);
        EXPECT_EQ(Run(test.set).out, std::string(test.value) + "\n");
        EXPECT_EQ(Run(test.get).out, std::string(test.value) + "\n");
    }
    EXPECT_EQ(Run("ls V:/RZV/ONE").out, "A\n");
    const auto all = Run("prefs --json").Objects();
    ASSERT_EQ(all.size(), 9u);
    EXPECT_EQ(all[0]["value"], 255);
    EXPECT_EQ(all[4]["value"], 2 << 20) << "what is not named keeps its value";

    ASSERT_EQ(Run("create-station @/two --cards 2 --disks 1 --size 8M").status, 0);
    ExpectFailure(Run("prefs -s @/two"), 2, "--card N");
    ExpectFailure(Run("prefs -s @/two --card 0 DriveLetter Q"), 1, "it is R now");
    EXPECT_EQ(Run("prefs -s @/two --card 0 DriveLetter").out, "R\n");
    EXPECT_EQ(Run("label").out, "RZV_VFS\n");
    EXPECT_EQ(Run("label Studio").out, "Studio\n");
}

TEST_F(DriveCommands, AProgramHasTheDisksToItself) {
    // The words of a line are split at spaces: scripts come from a file.
    const auto exclusive = [&](const std::string& script, const std::string& options = "") {
        std::ofstream(Path("script")) << script;
        return Run("exclusive " + options + " -- sh @/script");
    };
    const Outcome told = exclusive(
        "echo $VRKFS_CARD: $VRKFS_DISKS\n"
        "head -c4 \"$VRKFS_DISK_1\"; echo\n"
        "ls -l /proc/$PPID/fd | grep -c scsi\n"
        "\"/proc/$PPID/exe\" ls P:/ 2>&1 >/dev/null | grep -c 'vrkfs exclusive'\n"
        "exit 7\n");
    EXPECT_EQ(told.status, 7);
    EXPECT_EQ(told.out, "0: 0 1 2 3\nVOL0\n0\n1\n") << told.err;
    EXPECT_EQ(Run("exclusive -- echo ls --json {} [x,y] --").out, "ls --json {} [x,y] --\n");
    EXPECT_EQ(exclusive("kill -9 $$").status, 128 + SIGKILL);
    EXPECT_EQ(exclusive("kill -TERM $PPID; sleep 20 & wait").status, 128 + SIGTERM);
    EXPECT_EQ(exclusive("kill -INT $PPID; exit 5").status, 5);

    // Whatever it did to the disks is found afterwards, in the same run.
    const Outcome moved = exclusive("mv \"$VRKFS_DISK_0\" \"$VRKFS_DISK_3\"", "--json");
    EXPECT_EQ(moved.status, 0) << moved.err;
    EXPECT_EQ(nlohmann::json::parse(moved.err)["volumes"], 2);
    EXPECT_EQ(Run("ls P:/RZV/ONE").out, "A\n");
    EXPECT_EQ(exclusive(": >\"$VRKFS_DISK_1\"").status, 1);
    EXPECT_THAT(Run("volumes").err + exclusive("exit 3").err, HasSubstr("disk 1"));
}

TEST_F(DriveCommands, ReplacingLeavesOthersNamesAlone) {
    for (const std::string& line :
         {"put @/clip " + kClip + ".new", "put @/clip " + kClip + ".old",
          std::string("clip make @/other --frames 4 --fields 0..40 --seed 9"), "put --replace @/other " + kClip}) {
        ASSERT_EQ(Run(line).status, 0) << line;
    }
    const std::string listed = Run("ls P:/RZV/TWO/A").out;
    EXPECT_EQ(std::ranges::count(listed, '\n'), 3) << listed;
    EXPECT_EQ(One("entry " + kClip)["frames"], 4);
    for (const char* name : {".new", ".old"}) {
        EXPECT_TRUE(Run("cat " + kClip + name).out == Contents(Path("clip"))) << name;
    }
}

}  // namespace
