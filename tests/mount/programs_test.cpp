// What ordinary programs do with whole clips.
#include <thread>

#include "tests/mount/mount_fixture.h"

namespace tests {
namespace {

using MountPrograms = MountTest;

TEST_F(MountPrograms, CopyInReadBackInEveryWay) {
    Do("cp small $T/a.rzv && cmp small $T/a.rzv && cp $T/a.rzv back && cmp small back");
    Do("cp -p large $T/b.rzv && cmp large $T/b.rzv");
    ExpectOut("stat -c %Y $T/b.rzv", Sh("stat -c %Y large").out);
    Do("cat small > $T/c.rzv && cmp $T/c.rzv small");
    // Pieces that fit nothing in the image, the first ones smaller than its file header.
    Do("for size in 5 777 65537; do dd if=small of=$T/d bs=$size status=none && cmp small $T/d && rm $T/d; done");
    for (const char* place : {"bs=1 skip=15 count=40", "bs=511 skip=3 count=9", "bs=100001 skip=1 count=4"}) {
        Do(std::string("dd status=none of=x if=small ") + place + "; dd status=none of=y if=$T/a.rzv " + place +
           "; cmp x y");
    }
    // Copies with holes: what is left out is zeros.
    Do("cp --sparse=always small $T/e && cmp small $T/e && rm $T/e");
    ExpectOut("md5sum < $T/a.rzv", Sh("md5sum < small").out);
    ExpectOut("cd m/P/RZV; ls TWO/A; find . -type f | sort; wc -c < TWO/A/b.rzv",
              "a.rzv\nb.rzv\nc.rzv\n./TWO/A/a.rzv\n./TWO/A/b.rzv\n./TWO/A/c.rzv\n" + Sh("wc -c < large").out);
    ExpectOut("ls m; ls m/P; ls m/P/RZV", "P\nRZV\nONE\nTWO\n");
    Do("touch $T/empty && test ! -s $T/empty && cat $T/empty && rm $T/empty && test ! -e $T/empty");

    // On the disks, to whoever starts the station next.
    Remount();
    Do("cmp small $T/a.rzv && cmp large $T/b.rzv && cmp small $T/c.rzv");
}

TEST_F(MountPrograms, CopyOverAClipKeepsOneOfTheTwo) {
    Do("cp small $T/a && cp large $T/a && cmp large $T/a");
    Do("rsync --whole-file --inplace small $T/a && cmp small $T/a");
    Do("rsync -a --ignore-times large $T/a && cmp large $T/a");
    Do("cp small $T/b && mv -f $T/b $T/a && cmp small $T/a && test ! -e $T/b");
    Do("cat large > $T/a && cmp large $T/a");
    // What is no whole clip does not take its place.
    for (const char* source : {"part", "/etc/passwd", "/dev/zero"}) {
        const Outcome copy = Sh(std::string("cp ") + source + " $T/a");
        EXPECT_EQ(copy.status, 1) << source;
        EXPECT_NE(copy.out.find("Invalid argument"), std::string::npos) << copy.out;
        Do("cmp large $T/a");
        EXPECT_EQ(Sh(std::string("cp ") + source + " $T/new").status, 1);
        EXPECT_TRUE(Eventually([&] { return Sh("ls -A $T").out == "a\n"; })) << Sh("ls -A $T").out;
    }
    EXPECT_TRUE(HasNoted("A/a: the copy was closed with 70000 of "));
    Do(": > $T/a; truncate -s 0 $T/a; cmp large $T/a");
    Do("exec 3> $T/a; echo x >&3; truncate -s 0 /dev/fd/3; exec 3>&-; cmp large $T/a");
    // Who reads the old clip goes on reading it.
    Do("cp small $T/b; exec 3< $T/a; mv $T/b $T/a; cmp large - <&3; cmp small $T/a; exec 3<&-");
    Do("cp small $T/a; exec 3< $T/a; rm $T/a; test ! -e $T/a; cp large $T/a; cmp small - <&3; cmp large $T/a");
    EXPECT_TRUE(Eventually([&] { return Sh("ls -A $T").out == "a\n"; })) << Sh("ls -A $T").out;
    Remount();
    ExpectOut("ls -A $T; cmp large $T/a", "a\n");
}

TEST_F(MountPrograms, SynchroniseAndMoveTrees) {
    Do("mkdir -p tree/A tree/B; cp small tree/A/s.rzv; cp large tree/A/l.rzv; cp small tree/B/t.rzv");
    Do("rsync -a tree/ m/P/RZV/ONE/ && diff -r tree m/P/RZV/ONE");
    ExpectOut("rsync -ai tree/ m/P/RZV/ONE/ | grep '^[<>c]'", "");
    Do("rsync -a m/P/RZV/ONE/ copy/ && diff -r tree copy");
    Do("cp -a m/P/RZV/ONE/B m/P/RZV/TWO/ && diff -r tree/B m/P/RZV/TWO/B");
    Do("mv m/P/RZV/ONE/B m/P/RZV/TWO/C && diff -r tree/B m/P/RZV/TWO/C && test ! -e m/P/RZV/ONE/B");
    Do("mv m/P/RZV/TWO/C m/P/RZV/TWO/D && diff -r tree/B m/P/RZV/TWO/D");
    Do("mv $O/s.rzv $T/s.rzv && cmp small $T/s.rzv");
    Do("mkdir m/P/RZV/ONE/E && mv $O/l.rzv m/P/RZV/ONE/E && cmp large m/P/RZV/ONE/E/l.rzv && rm -r m/P/RZV/ONE/E");
    Do("touch -d 2001-02-03T04:05:06Z $T/s.rzv");
    ExpectOut("stat -c '%y %s %h %a' $T/s.rzv",
              "2001-02-03 04:05:06.000000000 +0000 " + Sh("stat -c %s small | tr -d '\\n'").out + " 1 644\n");
    Remount();
    ExpectOut("stat -c %y $T/s.rzv; cmp small $T/s.rzv; ls $O", "2001-02-03 04:05:06.000000000 +0000\n");
}

TEST_F(MountPrograms, SpaceAgreesWithWhatIsThere) {
    const auto used = [&](const char* path) {
        return std::stoull(Sh(std::string("df -B1 --output=used ") + path + " | tail -1").out);
    };
    const auto before = used("$T");
    const auto other = used("$O");
    Do("cp large $T/a && cp large $T/b");
    const auto taken = used("$T") - before;
    const auto counted = std::stoull(Sh("du -s -B1 $T").out) - 18 * 512;
    EXPECT_EQ(used("$O"), other);
    EXPECT_NEAR(static_cast<double>(taken), static_cast<double>(counted), 0.02 * static_cast<double>(taken));
    ExpectOut("df --output=fstype,source m | tail -1", "fuse.vrkfs vrkfs\n");
}

// A program that records through the driver beside programs that read and copy through the mount.
TEST_F(MountPrograms, ReadersBesideARecorder) {
    Do("cp small $T/a && cp large $T/b");
    const char* const readers[] = {
        "for i in 1 2 3 4 5 6 7 8; do cmp small $T/a || exit 1; done",
        "for i in 1 2 3 4 5 6 7 8; do dd if=$T/b bs=98765 status=none | cmp - large || exit 1; done",
        "for i in 1 2 3 4; do cp large $T/c && cmp large $T/c || exit 1; done"};
    std::vector<pid_t> programs;
    for (const char* reader : readers) {
        programs.push_back(StartShell(directory_.Path(), "T=m/P/RZV/TWO/A; " + std::string(reader),
                                      At("reader" + std::to_string(programs.size()))));
    }
    for (int take = 0; take < 4; ++take) {
        PutOnDrive(u"\\RZV\\TWO\\A\\TAKE" + std::u16string(1, static_cast<char16_t>(u'0' + take)), "large");
    }
    for (std::size_t index = 0; index < programs.size(); ++index) {
        EXPECT_EQ(Await(programs[index]), 0) << Contents(At("reader" + std::to_string(index)));
    }
    EXPECT_TRUE(Eventually([&] { return Sh("for i in 0 1 2 3; do cmp large $T/TAKE$i || exit 1; done").status == 0; }));
    Remount();
    Do("cmp small $T/a && cmp large $T/b && cmp large $T/c && cmp large $T/TAKE3");
}

}  // namespace
}  // namespace tests
