// Daemon, recorder and player are killed at random points, over and over on one station: nothing that was finished
// before is lost, and everything goes on.
//   VRKFS_KILL_ROUNDS  how many rounds, 5 unless it is set
//   VRKFS_KILL_SEED    what the points are drawn from, to have a run again
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <random>

#include "tests/tool/daemon_fixture.h"

namespace {

using tests::Outcome;

constexpr const char* kVictims[] = {"daemon", "recorder", "player"};
constexpr const char* kFolder = "P:/RZV/SHOW/A/";

std::uint64_t Environment(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::stoull(text) : otherwise;
}

class Kill : public tests::DaemonTest {
  protected:
    enum Victim { kDaemon, kRecorder, kPlayer };

    void SetUp() override {
        MakeStation("--disks 4 --size 64M");
        for (const char* line :
             {"format --name SHOW --disks 0,1", "format --name ONE --disks 2", "mkdir P:/RZV/SHOW/A",
              "clip make @/clip --frames 9 --alpha --fields 0..40 --seed 5", "put @/clip P:/RZV/SHOW/A/kept0"}) {
            ASSERT_EQ(Run(line).status, 0) << line;
        }
        std::filesystem::create_directory(Place());
        mounts_ = ::access("/dev/fuse", R_OK | W_OK) == 0;
    }
    void TearDown() override {
        (void)StopDaemon(SIGKILL);
        (void)::umount2(Place().c_str(), MNT_DETACH);
    }

    [[nodiscard]] std::filesystem::path Place() const { return Path("mount"); }

    // Bytes of a volume, of what `df` calls `name`.
    [[nodiscard]] std::uint64_t Bytes(const std::string& volume, const char* name) const {
        for (const auto& row : Run("df --json").Objects()) {
            if (row.value("volume", "") == volume) {
                return row[name].is_number() ? row[name].get<std::uint64_t>() : 0;
            }
        }
        ADD_FAILURE() << "no volume " << volume;
        return 0;
    }

    // Until one of them is killed, after some milliseconds; then until the others have ended by themselves.
    void RecordAndKill(int round, Victim victim, std::chrono::milliseconds after) {
        const std::string take = std::string(kFolder) + "take";
        StartDaemon(mounts_ ? "--mount @/mount" : "");
        const std::string order = take + " frames=40 rate=100 sectors=60 seed=" + std::to_string(round) +
                                  " alpha=" + std::to_string(round % 2);
        const pid_t recorder = StartExample(VRKFS_RECORD, order, "-record");
        const pid_t player = StartExample(VRKFS_PLAY, take + " patience=2000", "-play");
        const pid_t reader = mounts_ ? Start(Place() / "P/RZV/SHOW/A/kept0", "/dev/null", "-read", "/bin/cat") : -1;
        std::this_thread::sleep_for(after);
        const pid_t processes[] = {daemon_, recorder, player};
        ASSERT_GT(processes[victim], 1);
        ::kill(processes[victim], SIGKILL);
        const Outcome recorded = Finish(recorder, "-record");
        (void)Finish(player, "-play");
        const int read = reader < 0 ? 0 : Await(reader);
        if (victim == kDaemon) {
            EXPECT_EQ(Await(std::exchange(daemon_, -1)), -SIGKILL);
        } else {
            EXPECT_EQ(read, 0);
            EXPECT_EQ(recorded.status, victim == kRecorder && recorded.status != 0 ? -SIGKILL : 0) << recorded.err;
            EXPECT_TRUE(reader < 0 || Contents(Path("out-read")) == Contents(Path("clip")));
            EXPECT_EQ(Run("df").status, 0) << "it serves the others";
        }
        whole_ = recorded.status == 0;
    }

    // A daemon that was killed leaves a mount that answers nobody; it can be taken away, and nothing is left of it.
    void TakeMountAway() {
        const bool killed = daemon_ < 0;
        EXPECT_EQ(StopDaemon(), 0) << DaemonLog();
        EXPECT_TRUE(tests::Eventually([&] {
            if (killed) {
                (void)::umount2(Place().c_str(), 0);
            }
            return Contents("/proc/self/mountinfo").find(Place().string()) == std::string::npos;
        }));
    }

    // The clip under way when somebody was killed: not there, empty or readable, and whole if it was finished.
    void CheckTake() {
        const std::string take = std::string(kFolder) + "take";
        const Outcome listed = Run("ls -l --json " + take);
        if (listed.status != 0) {
            EXPECT_FALSE(whole_) << listed.err;
            EXPECT_THAT(listed.err, testing::HasSubstr("STATUS_OBJECT_NAME_NOT_FOUND"));
            return;
        }
        if (listed.Objects().at(0)["kind"] == "clip") {
            const Outcome got = Run("get " + take + " @/back");
            ASSERT_EQ(got.status, 0) << got.err;
            // What was reserved and never settled, because a player outlived the recorder, is no clip for the verifier.
            const Outcome verified = Run("clip verify @/back");
            EXPECT_TRUE(verified.status == 0 || !whole_) << verified.out << verified.err;
        } else {
            EXPECT_FALSE(whole_);
        }
        const Outcome removed = Run("rm " + take);
        EXPECT_EQ(removed.status, 0) << removed.err;
    }

    void CheckKept(const std::vector<std::string>& kept) {
        for (const std::string& name : kept) {
            EXPECT_TRUE(Run("cat " + (kFolder + name)).out == Contents(Path("clip"))) << name;
        }
        const auto listed = Run(std::string("ls --json ") + kFolder).Objects();
        EXPECT_EQ(listed.size(), kept.size());
        for (const auto& row : Run("volumes --json").Objects()) {
            EXPECT_FALSE(row.value("incomplete", false) || row.value("name_conflict", false)) << row;
        }
    }

    bool mounts_ = false;
    bool whole_ = false;  // the recorder said that it had finished
};

TEST_F(Kill, LosesNothingThatWasFinished) {
    const std::uint64_t rounds = Environment("VRKFS_KILL_ROUNDS", 5);
    const std::uint64_t seed = Environment("VRKFS_KILL_SEED", std::random_device{}());
    std::printf("VRKFS_KILL_SEED=%llu VRKFS_KILL_ROUNDS=%llu%s\n", static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(rounds), mounts_ ? "" : ", without a mount: there is no /dev/fuse");
    std::fflush(stdout);  // it may be the last that is heard
    std::mt19937_64 random(seed);
    std::vector<std::string> kept{"kept0"};
    std::uint64_t interrupted = 0;
    for (int round = 1; round <= static_cast<int>(rounds) && !HasFailure(); ++round) {
        constexpr Victim kChoice[] = {kDaemon, kDaemon, kRecorder, kRecorder, kPlayer};
        const Victim victim = kChoice[random() % std::size(kChoice)];
        const std::chrono::milliseconds after{random() % 700};
        SCOPED_TRACE("round " + std::to_string(round) + ": " + kVictims[victim] + " after " +
                     std::to_string(after.count()) + " ms");
        const std::uint64_t free = Bytes("SHOW", "free_bytes");
        RecordAndKill(round, victim, after);
        interrupted += whole_ ? 0 : 1;
        TakeMountAway();
        CheckTake();
        EXPECT_EQ(Bytes("SHOW", "free_bytes"), free) << "what the interrupted clip had is free again";
        EXPECT_EQ(Bytes("SHOW", "free_bytes") + Bytes("SHOW", "used_bytes"), Bytes("SHOW", "total_bytes"));
        kept.push_back("kept" + std::to_string(round));
        EXPECT_EQ(Run("put @/clip " + (kFolder + kept.back())).status, 0);
        CheckKept(kept);
        if (kept.size() > 3) {
            EXPECT_EQ(Run("rm " + (kFolder + kept[1])).status, 0);
            kept.erase(kept.begin() + 1);
        }
    }
    std::printf("%llu recordings were interrupted\n", static_cast<unsigned long long>(interrupted));
}

}  // namespace
