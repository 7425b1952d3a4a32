// A station with a daemon, as its users meet it: commands reach it by themselves, it ends cleanly or by force, serves
// for reading only, tells what changes, and programs of applications meet at it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <functional>
#include <map>
#include <set>

#include "tests/tool/daemon_fixture.h"

namespace {

using testing::HasSubstr;
using tests::Outcome;

class Daemon : public tests::DaemonTest {
  protected:
    // Everything in the station, by its path: kind and times of change, and contents.
    [[nodiscard]] std::map<std::string, std::string> Everything(bool contents) const {
        std::map<std::string, std::string> all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Path(kStationName))) {
            struct stat status {};
            EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
            all[entry.path()] = std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
                                std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(status.st_ctim.tv_sec) +
                                "." + std::to_string(status.st_ctim.tv_nsec) +
                                (contents && entry.is_regular_file() ? Contents(entry.path()) : "");
        }
        return all;
    }
    [[nodiscard]] std::size_t TimesLogged(const std::string& words) const {
        const std::string log = DaemonLog();
        std::size_t times = 0;
        for (std::size_t at = log.find(words); at != log.npos; at = log.find(words, at + 1)) {
            ++times;
        }
        return times;
    }
};

// Every command, in an order in which each has something to do.
void ForEachCommand(const std::function<void(const std::string&)>& visit) {
    const auto each = [&](std::initializer_list<const char*> lines) { std::ranges::for_each(lines, visit); };
    each({"volumes", "df --json", "space --video 20", "format --name THREE --disks 3", "format --name NEW --disks 0",
          "mkdir P:/RZV/TWO/B"});
    each({"put @/clip P:/RZV/TWO/B/x --json", "put @/clip P:/RZV/TWO/B/y", "put @/clip P:/RZV/TWO/B/y --replace",
          "touch -d 2001-02-03 P:/RZV/TWO/B/x", "touch -d 2001-02-03 P:/RZV/TWO/B/y", "ls -l P:/RZV/TWO/B",
          "info P:/RZV/TWO/B/x", "cat P:/RZV/TWO/B/x", "get P:/RZV/TWO/B/x @/back",
          "get P:/RZV/TWO/B/x @/station/card0/scsi0.img"});
    each({"app-info P:/RZV/TWO/B/x --text take|3", "entry P:/RZV/TWO/B/x", "owner 1024",
          "mv P:/RZV/TWO/B/x P:/RZV/TWO/A/z", "rm P:/RZV/TWO/A/none", "rm P:/RZV/TWO/B/y", "rmdir P:/RZV/TWO/B",
          "map P:/RZV/TWO --json", "defrag P:/RZV/TWO --json"});
    each({"prefs MinFrameDigits 7", "scsi-prefs ScsiMaxRetries 9", "label Studio", "prefs DriveLetter V",
          "ls V:/RZV/TWO/A", "ls P:/", "exclusive -- head -c4 @/station/card0/scsi1.img", "prefs DriveLetter P",
          "events", "volumes"});
}

TEST_F(Daemon, CommandsAreTheSameWithOneAndWithout) {
    MakeVolumes();
    std::filesystem::copy(Path(kStationName), Path("untouched"), std::filesystem::copy_options::recursive);
    std::vector<Outcome> alone;
    ForEachCommand([&](const std::string& line) { alone.push_back(Run(line)); });
    std::filesystem::remove_all(Path(kStationName));
    std::filesystem::rename(Path("untouched"), Path(kStationName));
    StartDaemon();
    auto before = alone.begin();
    ForEachCommand([&](const std::string& line) {
        SCOPED_TRACE(line);
        const Outcome served = Run(line);
        EXPECT_EQ(served.status, before->status) << served.err;
        EXPECT_EQ(served.err, before->err);
        if (!line.starts_with("put") && !line.starts_with("get")) {  // those tell how long they took
            EXPECT_TRUE(served.out == before->out) << served.out << "\nbut alone:\n" << before->out;
        }
        ++before;
    });
    EXPECT_TRUE(Contents(Path("back")) == Contents(Path("clip")));
    EXPECT_EQ(StopDaemon(), 0) << DaemonLog();
    EXPECT_EQ(Run("ls P:/RZV/TWO/A").out, "z\n");
}

TEST_F(Daemon, EndsCleanlyAndLeavesNothing) {
    MakeVolumes();
    const auto names = [&] {
        std::set<std::string> found;
        for (const auto& [path, state] : Everything(false)) {
            found.insert(path);
        }
        return found;
    };
    const auto before = names();
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(signal);
        StartDaemon();
        const std::string holder = "vrkfs serve (process " + std::to_string(daemon_) + ")";
        for (const char* second : {"serve", "serve --foreground", "serve --socket @/elsewhere"}) {
            ExpectFailure(Run(second), 3, holder);
        }
        EXPECT_FALSE(std::filesystem::exists(Path("elsewhere")));
        ASSERT_EQ(Run("put @/clip P:/RZV/TWO/A/c --replace").status, 0);
        EXPECT_EQ(StopDaemon(signal), 0) << DaemonLog();
        EXPECT_THAT(DaemonLog(), HasSubstr("everything is on the disks"));
        auto after = names();
        after.erase(Path(kStationName) / "daemon.log");  // of those that were refused in the background
        EXPECT_EQ(after, before);
        EXPECT_EQ(Contents(Path(kStationName) / "lock"), "");
        EXPECT_TRUE(Run("cat P:/RZV/TWO/A/c").out == Contents(Path("clip")));
    }
}

TEST_F(Daemon, IsFoundAfterOneThatWasKilled) {
    MakeVolumes();
    for (int round = 0; round < 2; ++round) {
        StartDaemon(round == 0 ? "" : "--socket @/elsewhere");
        ASSERT_EQ(Run("put @/clip P:/RZV/TWO/A/c --replace").status, 0);
        EXPECT_EQ(StopDaemon(SIGKILL), -SIGKILL);
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(Socket())));
        EXPECT_TRUE(Run("cat P:/RZV/TWO/A/c").out == Contents(Path("clip")));  // without one
        StartDaemon(round == 0 ? "--socket @/elsewhere" : "");
        EXPECT_EQ(Run("ls P:/RZV/TWO/A").out, "c\n");
        EXPECT_THAT(DaemonLog(), HasSubstr("serving"));
        EXPECT_EQ(StopDaemon(), 0);
        EXPECT_EQ(TimesLogged("client "), 1u) << DaemonLog();  // a command is one line
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(Socket())));
    }
}

TEST_F(Daemon, IsReachedByItsSocketAlone) {
    MakeVolumes();
    ASSERT_EQ(Run("create-station @/other --disks 1 --size 4M").status, 0);
    StartDaemon("--socket @/elsewhere");
    EXPECT_EQ(Run("ls P:/RZV/ONE").out, "A\n");  // the station leads there
    EXPECT_EQ(Run("exclusive --socket @/elsewhere -- true").status, 0);
    ExpectFailure(Run("ls --socket @/elsewhere -s @/other"), 2, "does not serve");
    ExpectFailure(Run("ls --socket @/nowhere"), 1, "no daemon listens");
    ExpectFailure(Run("ls --read-only"), 3, "served for writing");
    noStation_ = true;
    const std::string volumes = Run("volumes --socket @/elsewhere").out;
    EXPECT_THAT(volumes, HasSubstr("disk 3"));
    ExpectFailure(Run("exclusive --socket @/elsewhere -- true"), 2, "give -s DIR");
    ::setenv("VRKFS_SOCKET", Path("elsewhere").c_str(), 1);
    EXPECT_EQ(Run("volumes").out, volumes);
    EXPECT_EQ(Run("ls P:/RZV -s @/other").out, "");
    ::unsetenv("VRKFS_SOCKET");
}

// As `vrkfs serve` does by itself; its starter gets its report and its failure.
TEST_F(Daemon, GoesToTheBackgroundWhenItIsReady) {
    MakeVolumes();
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const Outcome started = Run("serve --json");
    ASSERT_EQ(started.status, 0) << started.err;
    daemon_ = started.Objects().at(0)["process"];
    ASSERT_GT(daemon_, 1);
    EXPECT_EQ(Run("ls P:/RZV/ONE").out, "A\n");
    ::kill(daemon_, SIGHUP);  // its terminal has gone, which is nothing to it
    EXPECT_EQ(Run("ls P:/RZV/ONE").out, "A\n");
    EXPECT_EQ(::getsid(daemon_), daemon_);
    for (const char* descriptor : {"0", "1"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon_) + "/fd/" + descriptor), "/dev/null");
    }
    EXPECT_EQ(StopDaemon(), 0);
    EXPECT_THAT(Contents(Path(kStationName) / "daemon.log"), HasSubstr("everything is on the disks"));

    std::filesystem::remove(Image(3));
    std::filesystem::create_symlink(Image(2), Image(3));
    ExpectFailure(Run("serve"), 1, "is the image of another disk too");
    ExpectFailure(Run("serve --log /proc/none"), 1, "/proc/none");
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(Daemon, TellsItsManagerThatItIsReady) {
    MakeVolumes();
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const std::string name = Path("manager");
    ASSERT_LT(name.size(), sizeof(address.sun_path));
    name.copy(address.sun_path, name.size());
    const int manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(manager, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)), 0);
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    StartDaemon();
    EXPECT_EQ(StopDaemon(), 0);
    ::unsetenv("NOTIFY_SOCKET");
    for (const std::string expected : {"READY=1", "STOPPING=1"}) {
        char text[64];
        const ssize_t length = ::recv(manager, text, sizeof(text), MSG_DONTWAIT);
        EXPECT_EQ(std::string(text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))), expected);
    }
    ::close(manager);
}

// ---- Reading only ----

class ReadOnly : public Daemon {
  protected:
    // What an unclean end leaves, and what a start would set right: a name in the lock, a saved body table, events to
    // be noted.
    void SetUp() override {
        MakeVolumes();
        ASSERT_EQ(Run("put @/clip P:/RZV/TWO/A/c").status, 0);
        ASSERT_EQ(Run("mkdir P:/RZV/TWO/E").status, 0);
        std::ofstream(Path(kStationName) / "lock") << "vrkfs put (process 1)\n";
        const auto backup = Path(kStationName) / "SystemRoot" / "system32" / "drivers";
        std::filesystem::create_directories(backup);
        std::ofstream(backup / "!RZVBKUP.!BT") << std::string(2000, 'x');
        const std::uint64_t lastBlock = std::filesystem::file_size(Image(0)) / 512 - 1;
        WriteAt(Image(0), (lastBlock - 4607) * 512 + 600, "\x01");  // the record of ONE/A
        Remember();
    }
    void Remember() {
        before_ = Everything(false);
        contents_ = Everything(true);
    }
    void Ask(const std::string& line, const std::string& option, const char* says) {
        SCOPED_TRACE(line);
        const std::size_t behindCommand = std::min(line.find(' '), line.size());
        Expect(Run(line.substr(0, behindCommand) + option + line.substr(behindCommand)), says);
        ExpectUntouched();
    }
    void AskEverything(const std::string& option) {
        for (const char* line :
             {"format --name NEW --disks 3 --yes", "mkdir P:/RZV/TWO/B", "rmdir P:/RZV/TWO/E",
              "put @/clip P:/RZV/TWO/A/d", "put @/clip P:/RZV/TWO/A/c --replace", "rm P:/RZV/TWO/A/c",
              "mv P:/RZV/TWO/A/c d", "mv P:/RZV/TWO TWELVE", "touch P:/RZV/TWO/A/c", "app-info P:/RZV/TWO/A/c --text x",
              "prefs HCrop 3", "scsi-prefs ScsiMaxRetries 3"}) {
            Ask(line, option, "nothing can be written");
        }
        Ask("exclusive -- true", option, "could write");
        for (const char* line :
             {"volumes", "df", "ls -l P:/RZV/TWO/A", "get P:/RZV/TWO/A/c @/back", "info P:/RZV/TWO/A/c",
              "entry P:/RZV/TWO/A/c", "owner 1024", "map P:/RZV/TWO", "prefs", "events", "ls P:/RZV/ONE"}) {
            Ask(line, option, nullptr);
        }
        EXPECT_TRUE(Everything(true) == contents_);
        EXPECT_TRUE(Contents(Path("back")) == Contents(Path("clip")));
    }
    void ExpectUntouched() const { EXPECT_THAT(Everything(false), testing::ContainerEq(before_)); }

    std::map<std::string, std::string> before_;
    std::map<std::string, std::string> contents_;
};

TEST_F(ReadOnly, CommandsWriteNothingWhateverHappens) {
    AskEverything(" --read-only");
    // Nor where the lock's file is still to be made.
    std::filesystem::remove(Path(kStationName) / "lock");
    Remember();
    EXPECT_EQ(Run("ls P:/RZV/TWO/A --read-only").out, "c\n");
    ExpectUntouched();
}

TEST_F(ReadOnly, ADaemonWritesNothingWhateverItIsAsked) {
    StartDaemon("--read-only");
    ExpectUntouched();
    const std::string socket = nlohmann::json::parse(Contents(Path("out-daemon")))["socket"];
    AskEverything(" --socket " + socket);
    EXPECT_EQ(Run("ls P:/RZV/TWO/A --read-only").out, "c\n");
    EXPECT_THAT(Run("mkdir P:/RZV/TWO/B").err, HasSubstr("daemon was started with --read-only"));
    ExpectFailure(Run("serve --foreground"), 3, "only reads it");
    EXPECT_EQ(StopDaemon(), 0) << DaemonLog();
    ExpectUntouched();
    EXPECT_FALSE(std::filesystem::exists(socket));
}

// ---- Watching ----

class Watching : public Daemon {
  protected:
    void StartWatch(const std::string& path, const std::string& options = "--json") {
        watch_ = Start("watch " + options + " " + path, "/dev/null", "-watch");
        ASSERT_TRUE(tests::Eventually([&] { return HasEnded(watch_) || !Lines().empty(); }));
    }
    [[nodiscard]] std::vector<nlohmann::json> Lines() const {
        const std::string text = Contents(Path("out-watch"));
        return Outcome{0, text.substr(0, text.rfind('\n') + 1), ""}.Objects();
    }
    // "created P:/RZV/ONE/A/x", once it has been told.
    bool IsTold(const std::string& what) const {
        return tests::Eventually([&] {
            return std::ranges::any_of(Lines(), [&](const nlohmann::json& object) {
                const std::string from = object.contains("from") ? object["from"].get<std::string>() + " " : "";
                return object["event"].get<std::string>() + " " + from + object["path"].get<std::string>() == what;
            });
        });
    }

    pid_t watch_ = -1;
};

TEST_F(Watching, SeesWhatOtherProgramsDo) {
    MakeVolumes();
    ExpectFailure(Run("watch"), 1, "no daemon serves the station");
    StartDaemon();
    ExpectFailure(Run("watch P:/RZV/NONE"), 1, "STATUS_OBJECT_NAME_NOT_FOUND");
    StartWatch("P:/RZV/TWO");
    const std::pair<const char*, const char*> steps[] = {
        {"mkdir P:/RZV/TWO/B", "created P:/RZV/TWO/B"},
        {"put @/clip P:/RZV/TWO/B/x", "created P:/RZV/TWO/B/x"},
        {"mv P:/RZV/TWO/B/x P:/RZV/TWO/A", "renamed P:/RZV/TWO/B/x P:/RZV/TWO/A/x"},
        {"mv P:/RZV/TWO/A/x X", "renamed P:/RZV/TWO/A/x P:/RZV/TWO/A/X"},
        {"mkdir P:/RZV/ONE/B", nullptr},  // beside what is watched
        {"rmdir P:/RZV/TWO/B", "removed P:/RZV/TWO/B"},
        {"mv P:/RZV/TWO/A C", "renamed P:/RZV/TWO/A P:/RZV/TWO/C"},
        {"rm P:/RZV/TWO/C/X", "removed P:/RZV/TWO/C/X"},
        {"mv P:/RZV/TWO THREE", "removed P:/RZV/TWO"},
        {"mv P:/RZV/THREE TWO", "created P:/RZV/TWO/C"},
    };
    for (const auto& [line, told] : steps) {
        SCOPED_TRACE(line);
        Expect(Run(line), nullptr);
        EXPECT_TRUE(told == nullptr || IsTold(told)) << Contents(Path("out-watch"));
    }
    EXPECT_THAT(Contents(Path("out-watch")), testing::Not(HasSubstr("ONE")));
    ExpectFailure(Run("exclusive -- true"), 1, "vrkfs watch");
    ::kill(watch_, SIGINT);
    EXPECT_EQ(Finish(watch_, "-watch").status, 0);
    EXPECT_EQ(StopDaemon(), 0) << DaemonLog();
}

// Changes as fast as they come, while it lists: in the end it has told all.
TEST_F(Watching, MissesNothingInACrowd) {
    MakeVolumes();
    StartDaemon();
    StartWatch("P:/");
    std::vector<pid_t> makers;
    for (int maker = 0; maker < 2; ++maker) {
        const std::string name = std::to_string(maker);
        std::ofstream(Path("script" + name))
            << "for i in 1 2 3 4 5 6 7 8; do " VRKFS_PROGRAM " mkdir P:/RZV/ONE/" + name + "-$i || exit 1; done";
        makers.push_back(Start(Path("script" + name), "/dev/null", name, "/bin/sh"));
    }
    for (int maker = 0; maker < 2; ++maker) {
        const std::string name = std::to_string(maker);
        Expect(Finish(makers[static_cast<std::size_t>(maker)], name), nullptr);
        for (int folder = 1; folder <= 8; ++folder) {
            EXPECT_TRUE(IsTold("created P:/RZV/ONE/" + name + "-" + std::to_string(folder)));
        }
    }
    EXPECT_EQ(StopDaemon(), 0) << DaemonLog();
    const Outcome ended = Finish(watch_, "-watch");
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.err, HasSubstr("the daemon has ended"));
}

// ---- Raw disks, and applications ----

TEST_F(Daemon, DisksOfAProgramThatDiesComeBack) {
    MakeVolumes();
    StartDaemon();
    const auto images = [&] {
        std::size_t open = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_) + "/fd")) {
            std::error_code gone;
            open += std::filesystem::read_symlink(entry.path(), gone).string().ends_with(".img") ? 1 : 0;
        }
        return open;
    };
    EXPECT_GT(images(), 0u);
    std::ofstream(Path("script")) << "echo begun; exec sleep 1000";
    const pid_t client = Start("exclusive -- sh @/script", "/dev/null", "-exclusive");
    ASSERT_TRUE(tests::Eventually([&] { return Contents(Path("out-exclusive")) == "begun\n"; }));
    EXPECT_EQ(images(), 0u);
    for (const char* line :
         {"ls P:/RZV/ONE", "mkdir P:/RZV/ONE/B", "put @/clip P:/RZV/ONE/A/c", "cat P:/RZV/ONE/A/c"}) {
        ExpectFailure(Run(line), 1, "another program");
    }
    const std::string children =
        Contents("/proc/" + std::to_string(client) + "/task/" + std::to_string(client) + "/children");
    ::kill(client, SIGKILL);
    ASSERT_GT(std::atoi(children.c_str()), 1);
    ::kill(std::atoi(children.c_str()), SIGKILL);
    EXPECT_EQ(Await(client), -SIGKILL);
    EXPECT_TRUE(tests::Eventually([&] { return Run("ls P:/RZV/ONE").out == "A\n"; })) << DaemonLog();
    EXPECT_EQ(StopDaemon(), 0) << DaemonLog();
    EXPECT_EQ(TimesLogged("went away"), 1u) << DaemonLog();
}

TEST_F(Daemon, ARecorderAndAPlayerMeetAtIt) {
    MakeStation("--disks 4 --size 64M");
    ASSERT_EQ(Run("format --name SHOW --disks 0,1").status, 0);
    StartDaemon();
    ASSERT_EQ(Run("mkdir P:/RZV/SHOW/A").status, 0);
    const std::string clip = "P:/RZV/SHOW/A/take";
    const pid_t player = StartExample(VRKFS_PLAY, clip + " patience=60000", "-play");
    const pid_t recorder = StartExample(VRKFS_RECORD, clip + " frames=40 rate=40 sectors=60 alpha=1 seed=5", "-record");
    Expect(Finish(recorder, "-record"), nullptr);
    const Outcome played = Finish(player, "-play");
    EXPECT_EQ(played.status, 0) << played.err;
    EXPECT_THAT(played.out, HasSubstr("played 80 fields"));
    EXPECT_THAT(played.out, testing::Not(HasSubstr(" 0 of them while"))) << "it followed live";
    EXPECT_EQ(StopDaemon(), 0) << DaemonLog();
    const Outcome gone = Finish(StartExample(VRKFS_PLAY, clip, "-play"), "-play");
    EXPECT_EQ(gone.status, 1);
    EXPECT_THAT(gone.err, HasSubstr("STATUS_OBJECT_NAME_NOT_FOUND"));
}

}  // namespace
