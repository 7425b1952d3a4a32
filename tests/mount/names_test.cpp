// Names, and what the kernel remembers of them.
#include <linux/fs.h>

#include "tests/mount/mount_fixture.h"

namespace tests {
namespace {

class MountNames : public MountTest {
  protected:
    [[nodiscard]] std::uint64_t Number(const std::string& path) const {
        const std::string out = Sh("stat -c %i '" + path + "' 2>/dev/null").out;
        return out.empty() ? 0 : std::stoull(out);
    }
    [[nodiscard]] bool IsThere(const std::string& path) const { return Number(path) != 0; }
};

TEST_F(MountNames, AnyCaseOneObject) {
    Do("cp small $T/Clip.rzv");
    const std::string folder = "m/P/RZV/TWO/A/";
    const std::uint64_t number = Number(folder + "Clip.rzv");
    EXPECT_NE(number, 0u);
    EXPECT_EQ(Number("m/p/rzv/two/a/CLIP.RZV"), number);
    EXPECT_EQ(Number(folder + "clip.rzv"), number);
    ExpectOut("ls $T", "Clip.rzv\n");
    // A name that was looked for in vain is found when it comes, and every spelling goes with the object.
    EXPECT_FALSE(IsThere(folder + "other"));
    Do("mv $T/CLIP.rzv $T/OTHER");
    EXPECT_TRUE(Eventually([&] { return Number(folder + "other") == number; }));
    EXPECT_FALSE(IsThere(folder + "clip.rzv"));
    Do("mv $T/other $T/x && mv $T/x $T/Other");
    ExpectOut("ls $T", "Other\n");
    EXPECT_EQ(Number(folder + "oTHER"), number);
    Do("rm $T/oTHER");
    for (const char* name : {"Other", "OTHER", "other", "oTHER"}) {
        EXPECT_TRUE(Eventually([&] { return !IsThere(folder + name); })) << name;
    }
    // Beyond what ASCII can spell.
    Do("cp small $T/Äpfel-Ж && cmp small $T/äPFEL-ж && mv $T/äpfel-ж $T/映像 && rm $T/映像");
    // The number stays in the next mount.
    Do("cp small $T/stays");
    const std::uint64_t stays = Number(folder + "stays");
    Remount();
    EXPECT_EQ(Number(folder + "stays"), stays);
}

TEST_F(MountNames, WhatOthersChangeShows) {
    const std::string folder = "m/P/RZV/TWO/A/";
    EXPECT_FALSE(IsThere(folder + "take"));
    EXPECT_FALSE(IsThere(folder + "TAKE"));
    ExpectOut("ls $T", "");
    PutOnDrive(u"\\RZV\\TWO\\A\\Take", "small");
    for (const char* name : {"take", "TAKE", "Take"}) {
        EXPECT_TRUE(Eventually([&] { return Sh("cmp small $T/" + std::string(name)).status == 0; })) << name;
    }
    ExpectOut("ls $T", "Take\n");

    host::ScopedHandle held = Hold(u"\\RZV\\TWO\\A\\Take", host::access::kDelete);
    EXPECT_TRUE(host::Rename(User(), held.Get(), u"Moved").Ok());
    EXPECT_TRUE(Eventually([&] { return !IsThere(folder + "Take") && IsThere(folder + "moved"); }));
    EXPECT_TRUE(host::SetDeleteOnCleanup(User(), held.Get(), true).Ok());
    held.Reset();
    EXPECT_TRUE(Eventually([&] { return !IsThere(folder + "Moved") && Sh("ls $T").out.empty(); }));

    EXPECT_FALSE(IsThere("m/P/RZV/TWO/N"));
    MakeFolder(u"\\RZV\\TWO\\N");
    EXPECT_TRUE(Eventually([&] { return IsThere("m/P/RZV/TWO/N"); }));
    // Another clip under the name, with other bytes; what the kernel kept of the first is not shown.
    PutOnDrive(u"\\RZV\\TWO\\A\\Take", "large");
    EXPECT_TRUE(Eventually([&] { return Sh("cmp large $T/Take").status == 0; }));
    // Who goes on reading the old one brings none of its bytes to who reads the new one.
    std::ifstream old(At(folder + "Take"), std::ios::binary);
    EXPECT_EQ(old.get(), Contents(At("large")).front());
    RenameOnDrive(u"\\RZV\\TWO\\A\\Take", u"Aside");
    PutOnDrive(u"\\RZV\\TWO\\A\\Take", "small");
    for (int round = 0; round < 2; ++round) {
        Do("cmp small $T/Take");
        old.seekg(0);
        EXPECT_EQ(std::string(std::istreambuf_iterator(old), {}).substr(0, 4096),
                  Contents(At("large")).substr(0, 4096));
    }
}

// Right after another program's change, before anybody has told of it: a copy lands all the same.
TEST_F(MountNames, ACopyRightAfterWhatOthersDid) {
    Do("cp small $T/a && ! test -e $T/b");
    RenameOnDrive(u"\\RZV\\TWO\\A\\a", u"c");
    Do("cat large > $T/a && cmp large $T/a");
    PutOnDrive(u"\\RZV\\TWO\\A\\b", "small");
    Do("cat large > $T/b && cmp large $T/b && cmp small $T/c");
    // One that was given up, and the next.
    Do("! dd if=small of=$T/d bs=1000 skip=1 count=9 2>/dev/null && cp large $T/d && cmp large $T/d");
    Do("touch -d 1500-01-01 $T/a && touch -d @9223372036854775807 $T/b");
    ExpectOut("stat -c %y $T/a; stat -c %y $T/b | cut -c1-5", "1601-01-01 00:00:00.000000100 +0000\n30828\n");
}

TEST_F(MountNames, WhatOthersHaveOpenIsTheirs) {
    Do("cp small $T/a");
    host::OpenRequest request;
    request.path = u"P:\\RZV\\TWO\\A\\a";
    request.access = host::access::kReadData | host::access::kWriteData;
    request.shareAccess = host::share::kNone;
    host::OpenResult opened = User().Create(request);
    ASSERT_TRUE(opened.status.Ok());
    for (const char* script : {"cat $T/a", "rm $T/a", "mv $T/a $T/b", "cp large $T/a"}) {
        const Outcome refused = Sh(script);
        EXPECT_NE(refused.out.find("Device or resource busy"), std::string::npos) << script << ": " << refused.out;
    }
    EXPECT_TRUE(HasNoted("STATUS_SHARING_VIOLATION, another program has it open"));
    EXPECT_TRUE(User().Close(opened.handle).Ok());
    Do("cmp small $T/a");

    // A recorder shares its clip with readers; it is read past the kernel's pages, so that they see what comes.
    request.shareAccess = host::share::kRead;
    ASSERT_TRUE(Eventually([&] {  // the kernel takes its time to tell that a reader has gone
        opened = User().Create(request);
        return opened.status.Ok();
    }));
    Do("cmp small $T/a");
    std::string changed = Contents(At("small"));
    changed.back() ^= 1;
    EXPECT_TRUE(User().Write(opened.handle, std::as_bytes(std::span(changed)), 0).status.Ok());
    std::ofstream(At("changed"), std::ios::binary) << changed;
    EXPECT_TRUE(User().Close(opened.handle).Ok());
    Do("cmp changed $T/a");
}

TEST_F(MountNames, RefusalsInWordsThatPeopleKnow) {
    Do("cp small $T/a && cp small $O/b && touch $T/empty");
    const struct {
        const char* script;
        const char* said;
        const char* noted;  // in the journal; null: nothing there
    } refusals[] = {
        {"mkdir $T/folder", "Operation not permitted", "folders stand in volumes only"},
        {"mkdir m/P/RZV/THREE", "Operation not permitted", "vrkfs format"},
        {"mkdir m/P/XYZ", "Operation not permitted", "vrkfs format"},
        {"mkdir m/Q", "Operation not permitted", nullptr},
        {"cp small m/P/RZV/TWO/clip", "Operation not permitted", "clips stand in folders only"},
        {"rmdir m/P/RZV/TWO", "Operation not permitted", "format"},
        {"rmdir m/P/RZV/TWO/A", "Directory not empty", "something is in it"},
        {"rm $T/none", "No such file", nullptr},
        {"cp small '$T/a*b'; cp small \"$T/a*b\"", "Invalid argument", "none of \\ / : *"},
        {"cp small '$T/x'; cp small $T/___port0___", "", nullptr},
        {"mv $T/a $T/___Port0___", "", nullptr},
        {"ln $T/a $T/link", "Operation not permitted", nullptr},
        {"ln -s $T/a $T/link", "Operation not permitted", nullptr},
        {"mkdir m/P/RZV/TWO/$(printf %0256d 0)", "File name too long", nullptr},
        {"mkfifo $T/pipe", "Operation not permitted", nullptr},
        {"dd if=/dev/zero of=$T/a bs=512 seek=20 count=1 conv=notrunc", "Operation not permitted", "finished clip"},
        {"dd if=small of=$T/a oflag=append conv=notrunc", "Operation not permitted", "finished clip"},
        {"truncate -s 1000 $T/a", "Operation not permitted", "the size that its frames take"},
        {"fallocate -l 1000000 $T/empty", "Operation not supported", nullptr},
        {"setfattr -n user.vrkfs.frames -v 3 $T/a", "Operation not permitted", nullptr},
        {"setfattr -n user.other -v 3 $T/a", "Operation not supported", nullptr},
        {"cat part small > $T/joined", "", "was no clip"},
        {"for i in 1 2 3 4 5 6 7 8 9 10 11 12; do cp large $T/big$i || exit 1; done", "No space left on device",
         "no room in one piece"},
    };
    for (const auto& refusal : refusals) {
        const Outcome outcome = Sh(refusal.script);
        EXPECT_NE(outcome.status, 0) << refusal.script;
        EXPECT_NE(outcome.out.find(refusal.said), std::string::npos) << refusal.script << ": " << outcome.out;
        if (refusal.noted != nullptr && *refusal.said != 0) {
            EXPECT_TRUE(HasNoted(refusal.noted)) << refusal.script;
        }
    }
    Do("truncate -s $(stat -c %s $T/a) $T/a && cmp small $T/a && cmp small $O/b");
    // The system's call, with its flags, from a program of its own; its errno.
    const auto rename = [&](const std::string& from, const std::string& to, unsigned flags) {
        return std::stoi(Sh("cd m/P/RZV; python3 -c \"import ctypes; l = ctypes.CDLL(None, use_errno=True); "
                            "r = l.renameat2(-100, b'" +
                            from + "', -100, b'" + to + "', " + std::to_string(flags) +
                            "); print(ctypes.get_errno() if r else 0)\"")
                             .out);
    };
    EXPECT_EQ(rename("TWO/A/a", "TWO/A/empty", RENAME_NOREPLACE), EEXIST);
    EXPECT_EQ(rename("TWO/A/a", "TWO/A/empty", RENAME_EXCHANGE), EINVAL);
    EXPECT_EQ(rename("TWO/A/a", "ONE/A/a", 0), EXDEV);
    EXPECT_EQ(rename("TWO/A", "ONE/B", 0), EXDEV);
    EXPECT_EQ(rename("TWO/A/a", "TWO/A/free", RENAME_NOREPLACE), 0);
    Do("cmp small $T/free && chmod 600 $T/free && chown 1:1 $T/free");
}

TEST_F(MountNames, AFullFolderSaysSo) {
    for (int file = 0; file < 2048; ++file) {
        const std::string digits = std::to_string(file);
        Hold(u"\\RZV\\ONE\\A\\" + std::u16string(digits.begin(), digits.end()), host::access::kWriteData,
             host::Disposition::kCreate);
    }
    EXPECT_TRUE(Eventually([&] { return Sh("ls $O | wc -l").out == "2048\n"; }));
    const Outcome full = Sh("touch $O/more");
    EXPECT_NE(full.out.find("No space left on device"), std::string::npos) << full.out;
    EXPECT_TRUE(HasNoted("the folder has its 2048 files"));
    ExpectOut("find $O -type f | wc -l; rm $O/1*; ls -l $O | wc -l", "2048\n938\n");
}

}  // namespace
}  // namespace tests
