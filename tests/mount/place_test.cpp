// The mount as such: its place, its end, its extras.
#include "tests/mount/mount_fixture.h"

namespace tests {
namespace {

using MountPlace = MountTest;

TEST_F(MountPlace, AttributesOfAClip) {
    Do("cp small $T/a");
    ExpectOut("cd $T; for f in frames standard streams; do getfattr --only-values -n user.vrkfs.$f a; echo; done",
              "9\n525\nvideo,alpha\n");
    EXPECT_NE(Sh("getfattr -d $T/a").out.find("user.vrkfs.placement=\"record "), std::string::npos);
    Do("setfattr -n user.vrkfs.appinfo -v take-one $T/a");
    ExpectOut(
        "getfattr --only-values -n user.vrkfs.appinfo $T/a | tr -d '\\000'; getfattr --only-values -n "
        "user.vrkfs.appinfo $T/a | wc -c",
        "take-one256\n");
    // They go with a copy, and without harm out of the drive.
    Do("cp -a $T/a $O/b && cmp $T/a $O/b && cp -p $T/a out.rzv && touch $T/none");
    ExpectOut("getfattr --only-values -n user.vrkfs.appinfo $O/b | tr -d '\\000'", "take-one");
    ExpectOut("getfattr -d $T/none; getfattr -d $T", "");
    Remount();
    ExpectOut("getfattr --only-values -n user.vrkfs.appinfo $T/a | tr -d '\\000'", "take-one");
}

// The driver's command port stands in every folder, in any case of its name, and in no listing.
TEST_F(MountPlace, CommandPort) {
    ExpectOut("stat -c %s $T/___port0___ m/P/___PORT0___", "2048\n2048\n");
    ExpectOut("ls -A $T", "");
    // It greets whoever opens it, and takes what is written at its place, whatever the size that it seems to have.
    for (const char* port : {"$T/___Port0___", "m/P/RZV/___PORT0___", "m/P/___port0___"}) {
        ExpectOut(std::string("head -c 256 ") + port + " | wc -c; head -c 8 " + port + " | tail -c 4", "16\nRZVF");
    }
    Do("exec 3<> $T/___port0___; head -c 16 <&3 > one; printf 12345678 >&3; exec 3>&-; test -s one");
    Do("printf 12345678 > $T/___Port0___; truncate -s 0 $T/___Port0___; cat $T/___Port0___ > one; test -s one");
    EXPECT_NE(Sh("rm $T/___Port0___").status, 0);
}

TEST_F(MountPlace, ReadOnlyWritesNothing) {
    Do("cp small $T/a");
    mount_.reset();
    Stop();
    const Outcome before = Sh("cd station && find . -type f -not -name '*lock*' | sort | xargs md5sum");
    const auto expectRefusals = [&] {
        for (const char* script : {"cp small $T/b", "cp small $T/a", "rm $T/a", "mv $T/a $T/b", "mkdir m/P/RZV/TWO/B",
                                   "touch $T/a", "touch $T/b", "setfattr -n user.vrkfs.appinfo -v x $T/a"}) {
            const Outcome refused = Sh(script);
            EXPECT_NE(refused.out.find("Read-only file system"), std::string::npos) << script << ": " << refused.out;
        }
        Do("cmp small $T/a && ls -lR m > listing");
    };
    Start({.readOnly = true});
    MountDrives();
    expectRefusals();
    mount_.reset();
    Stop();
    ExpectOut("cd station && find . -type f -not -name '*lock*' | sort | xargs md5sum", before.out);
    // Refused at this door only, with a station that others may write.
    Start();
    MountDrives([](mount::Options& options) { options.readOnly = true; });
    expectRefusals();
}

TEST_F(MountPlace, OptionsOfAMount) {
    mount_.reset();
    MountDrives([](mount::Options& options) {
        options.drive = 'p';
        options.owner = 12;
        options.group = 34;
        options.fileMode = 0640;
        options.folderMode = 0750;
    });
    Do("cp small m/RZV/TWO/A/a && cmp small m/RZV/TWO/A/a");
    ExpectOut("stat -c '%u %g %a' m m/RZV/TWO/A m/RZV/TWO/A/a", "12 34 750\n12 34 750\n12 34 640\n");
}

TEST_F(MountPlace, PlacesThatWillNotDo) {
    std::filesystem::create_directory(At("full"));
    std::ofstream(At("full/file")) << "x";
    std::filesystem::create_directory(At("empty"));
    const std::tuple<const char*, char, const char*> places[] = {{"m", 'P', "something is mounted on"},
                                                                 {"full", 'P', "is not empty"},
                                                                 {"small", 'P', "is no directory"},
                                                                 {"none", 'P', "No such"},
                                                                 {"empty", 'Z', "no drive Z:"}};
    for (const auto& [place, drive, said] : places) {
        mount::Options options;
        options.mountpoint = At(place);
        options.drive = drive;
        host::Problem problem;
        EXPECT_FALSE(mount::Mount::Start(Machine(), options, {}, problem)) << place;
        EXPECT_NE(problem.what.find(said), std::string::npos) << problem.what;
    }
}

TEST_F(MountPlace, EndsWhenItIsTakenAwayOrGoesWhileInUse) {
    Do("cp small $T/a");
    Do("umount m || fusermount3 -u m");
    std::uint64_t ended = 0;
    EXPECT_TRUE(Eventually([&] { return ::read(mount_->EndedDescriptor(), &ended, sizeof(ended)) > 0; }));
    mount_.reset();
    MountDrives();
    // A reader, a copy and a folder that are open when it goes: the copy is deleted, and the reader told.
    const pid_t user = StartShell(directory_.Path(),
                                  "T=m/P/RZV/TWO/A; exec 3< $T/a 4> $T/b 5< $T; cat part >&4; touch ready; "
                                  "while test -e ready; do sleep 0.01; done; cat <&3 > /dev/null",
                                  At("said"));
    EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(At("ready")); }));
    mount_.reset();
    std::filesystem::remove(At("ready"));
    EXPECT_EQ(Await(user), 1);
    EXPECT_NE(Contents(At("said")).find("not connected"), std::string::npos) << Contents(At("said"));
    MountDrives();
    ExpectOut("ls -A $T; cmp small $T/a", "a\n");
}

// The command: into the background and away again, by whoever ends it, however.
TEST_F(MountPlace, TheCommandComesAndGoes) {
    Do("cp small $T/a");
    mount_.reset();
    Stop();
    const auto isFree = [&] { return Sh("ls m").out.empty() && Sh("mountpoint -q m").status != 0; };
    const std::string vrkfs = std::string(VRKFS_PROGRAM) + " ";
    const char* const ends[] = {"umount m || fusermount3 -u m", "kill -TERM $process", "kill -KILL $process"};
    for (const char* end : ends) {
        const Outcome started = Sh(vrkfs + "mount --json -s station m");
        ASSERT_EQ(started.status, 0) << started.out;
        const auto process = started.out.substr(started.out.rfind(':') + 1);
        const std::string number = "process=" + process.substr(0, process.find('}')) + "; ";
        Do("cmp small $T/a");
        EXPECT_EQ(Sh(vrkfs + "ls -s station P:/").status, 3);
        EXPECT_EQ(Sh(number + end).status, 0) << end;
        EXPECT_TRUE(Eventually(isFree)) << end;
        // Its station is free when its process has gone.
        EXPECT_TRUE(Eventually([&] { return Sh(number + "kill -0 $process").status != 0; })) << end;
        EXPECT_EQ(Sh(vrkfs + "ls -s station P:/RZV").status, 0) << end;
    }
    const Outcome refused = Sh(vrkfs + "mount -s station -o uid=me m");
    EXPECT_EQ(refused.status, 2) << refused.out;
    EXPECT_EQ(Sh(vrkfs + "mount -s station none").status, 1);
    EXPECT_NE(Contents(At("station/mount.log")).find("was taken away"), std::string::npos);
}

// One that changes nothing, beside a daemon that goes on writing for others.
TEST_F(MountPlace, ReadsOnlyThroughADaemonThatWrites) {
    mount_.reset();
    Stop();
    const std::string vrkfs = std::string(VRKFS_PROGRAM) + " ";
    Outcome served = Sh(vrkfs + "serve --json -s station");
    ASSERT_EQ(served.status, 0) << served.out;
    served.out.erase(0, served.out.rfind(':') + 1);
    const std::string number = "process=" + served.out.substr(0, served.out.find('}')) + "; ";
    EXPECT_EQ(Sh(vrkfs + "mount -s station --read-only m").status, 3);
    EXPECT_EQ(Sh(vrkfs + "mount -s station -o ro m").status, 0);
    EXPECT_NE(Sh("mkdir $T/../B").out.find("Read-only file system"), std::string::npos);
    EXPECT_EQ(Sh(vrkfs + "mkdir -s station P:/RZV/TWO/C").status, 0);
    EXPECT_TRUE(Eventually([&] { return Sh("ls $T/..").out == "A\nC\n"; }));
    Do("umount m || fusermount3 -u m");
    Do(number + "kill $process");
    EXPECT_TRUE(Eventually([&] { return Sh(number + "kill -0 $process").status != 0; }));
}

}  // namespace
}  // namespace tests
