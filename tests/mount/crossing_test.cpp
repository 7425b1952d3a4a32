// Requests that cross each other: what one program sees or loses when another one, or the kernel, does something else
// in between.
#include "tests/mount/mount_fixture.h"

namespace tests {
namespace {

class MountCrossing : public MountTest {
  protected:
    // A program in the test's directory; T and O are the folders, `small` and `large` the clips' bytes.
    void Python(const std::string& program) const {
        std::ofstream(At("program.py")) << "import ctypes, mmap, os, time\n"
                                           "T = 'm/P/RZV/TWO/A/'; O = 'm/P/RZV/ONE/A/'\n"
                                           "W = os.O_WRONLY | os.O_CREAT | os.O_TRUNC\n"
                                           "small = open('small', 'rb').read(); large = open('large', 'rb').read()\n"
                                           "def await_file(name):\n"
                                           "    while not os.path.exists(name): time.sleep(0.01)\n" +
                                               program;
        Do("python3 program.py");
    }
};

// What leaves a folder while a program is at listing it is not brought back by the rest of the listing: a copy to the
// old name of a clip that was moved would go onto that clip.
TEST_F(MountCrossing, AListingAndWhatLeavesMeanwhile) {
    Do("mkdir m/P/RZV/TWO/B");
    Python(R"(
names = ['n%03d' % i + 'x' * 120 for i in range(60)]
for name in names: os.close(os.open(T + name, W))
moved, removed = names[-1], names[-2]
open(T + moved, 'wb').write(small)
folder = os.open(T, os.O_RDONLY | os.O_DIRECTORY)
room = ctypes.create_string_buffer(4096)
SYS_getdents64 = {'x86_64': 217, 'aarch64': 61}[os.uname().machine]
some = lambda: ctypes.CDLL(None).syscall(SYS_getdents64, folder, room, 4096)
assert some() > 0
os.rename(T + moved, 'm/P/RZV/TWO/B/' + moved)
os.unlink(T + removed)
while some() > 0: pass
assert not os.path.exists(T + moved) and not os.path.exists(T + removed)
open(T + moved, 'wb').write(large)
assert open('m/P/RZV/TWO/B/' + moved, 'rb').read() == small
)");
}

// The kernel tells of a close when it likes, also after the open that came next.
TEST_F(MountCrossing, ACopyRightAfterOneThatWasGivenUp) {
    Python(R"(
for i in range(60):
    for begun in (b'', small[:70000]):
        a = os.open(T + 'a', W)
        os.write(a, begun)
        try: os.close(a)
        except OSError: pass
        a = os.open(T + 'a', W)
        for at in range(0, len(small), 100000): os.write(a, small[at:at + 100000])
        os.close(a)
        assert open(T + 'a', 'rb').read() == small
)");
    ExpectOut("ls -A $T", "a\n");
}

// A copy that was begun again has no bytes, but a place beside the clip, which does not move.
TEST_F(MountCrossing, ARenameOfWhatIsBeingReplaced) {
    Do("cp small $T/a");
    Python(R"(
a = os.open(T + 'a', W)
os.write(a, large[:70000])
os.ftruncate(a, 0)
try: os.rename(T + 'a', T + 'b'); assert False
except OSError as error: assert error.errno == 16
os.pwrite(a, large[:70000], 0)
try: os.close(a)
except OSError: pass
assert open(T + 'a', 'rb').read() == small
)");
    EXPECT_TRUE(Eventually([&] { return Sh("ls -A $T").out == "a\n"; }));
    Remount();
    ExpectOut("ls -A $T; cmp small $T/a", "a\n");
}

// What others made a moment ago is replaced as if the kernel had known of it.
TEST_F(MountCrossing, ARenameOntoWhatIsNotKnownYet) {
    Do("cp small $T/a; cp large $T/c; ! test -e $T/b");
    PutOnDrive(u"\\RZV\\TWO\\A\\b", "large");
    Python("os.rename(T + 'a', T + 'b')");
    Do("cmp small $T/b; mv $T/c $T/b; cmp large $T/b");
    ExpectOut("ls -A $T", "b\n");
}

TEST_F(MountCrossing, ACopyGoesOnAfterASync) {
    Python(R"(
for clip in (small, large):
    a = os.open(T + 'a', W)
    for at in range(0, len(clip), 300000):
        os.write(a, clip[at:at + 300000])
        os.fsync(a)
        os.close(os.open(T + 'a', os.O_WRONLY))  # somebody who writes nothing is told nothing
    os.close(a)
    assert open(T + 'a', 'rb').read() == clip
)");
}

// A file that is still empty is anybody's to record into. Who had it open before loses nothing of theirs.
TEST_F(MountCrossing, AnEmptyFileThatSomebodyElseRecordsInto) {
    std::thread recorder([&] {
        EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(At("ready")); }));
        const host::OpenResult opened =
            Open(u"\\RZV\\TWO\\A\\a", host::Disposition::kOpen, host::access::kReadData | host::access::kWriteData);
        EXPECT_TRUE(opened.status.Ok()) << host::StatusName(opened.status);
        const std::string bytes = Contents(At("small"));
        EXPECT_TRUE(User().Write(opened.handle, std::as_bytes(std::span(bytes)), 0).status.Ok());
        EXPECT_TRUE(User().Close(opened.handle).Ok());
        std::ofstream(At("recorded")) << "x";
    });
    Python(R"(
a = os.open(T + 'a', W)
os.close(os.dup(a))
open('ready', 'w').close()
await_file('recorded')
other = bytearray(small); other[-1] ^= 1
try: os.write(a, other); assert False
except OSError: pass
try: os.close(a)
except OSError: pass
)");
    recorder.join();
    Remount();
    Do("cmp small $T/a");
}

// A reader beside a writer gets no pages kept, but maps the file: none of it shows up in the clip that comes next.
TEST_F(MountCrossing, AMappingOfTheClipBefore) {
    Do("cp small $T/a");
    host::OpenRequest request;
    request.path = u"P:\\RZV\\TWO\\A\\a";
    request.access = host::access::kReadData | host::access::kWriteData;
    const host::OpenResult writer = User().Create(request);
    ASSERT_TRUE(writer.status.Ok());
    std::thread others([&] {
        EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(At("mapped")); }));
        EXPECT_TRUE(User().Close(writer.handle).Ok());
        std::ofstream(At("closed")) << "x";
    });
    Python(R"(
old = os.open(T + 'a', os.O_RDONLY)
mapping = mmap.mmap(old, len(small), flags=mmap.MAP_PRIVATE, prot=mmap.PROT_READ)
open('mapped', 'w').close()
await_file('closed')
open(T + 'a', 'wb').write(large)
new = os.open(T + 'a', os.O_RDONLY)
assert os.fstat(new).st_ino == os.fstat(old).st_ino
for at in range(0, len(small), 65536): mapping[at]
read = b''
while piece := os.read(new, 1 << 20): read += piece
assert read == large
)");
    others.join();
}

// The kernel has one size for whatever is under a number: neither a longer clip nor a shorter one, nor what there is of
// it yet, shows in what somebody has open.
TEST_F(MountCrossing, AReaderOfTheClipThatIsCopiedOver) {
    Python(R"(
def rest(file):
    read = b''
    while piece := os.read(file, 100000): read += piece
    return read
ways = [(W, False), (os.O_WRONLY, False), (os.O_WRONLY, True)]
for clips, (flags, isWriterFirst) in [(c, w) for c in ((small, large), (large, small)) for w in ways]:
    before, after = clips
    open(T + 'a', 'wb').write(before)
    time.sleep(0.3)  # until pages are kept again
    copy = os.open(T + 'a', flags) if isWriterFirst else None
    old = os.open(T + 'a', os.O_RDONLY)
    head = os.read(old, 1000)
    if not isWriterFirst: copy = os.open(T + 'a', flags)
    os.write(copy, after[:90000])
    os.stat(T + 'a')
    begun = head + rest(old)
    isOwnSize = lambda: isWriterFirst or os.fstat(old).st_size == len(before)  # who finds a writer there shares its node
    assert begun == before and isOwnSize()
    os.write(copy, after[90000:])
    os.close(copy)
    os.lseek(old, 0, os.SEEK_SET)
    assert rest(old) == before and isOwnSize()
    new = os.open(T + 'a', os.O_RDONLY)
    assert os.fstat(new).st_size == os.stat(T + 'a').st_size == len(after) and rest(new) == after
    os.close(new)
    os.close(old)
    assert open(T + 'a', 'rb').read() == after
    os.unlink(T + 'a')
# One that was open before the copy ended does not begin another.
first, second = [os.open(T + 'a', W) for i in range(2)]
os.write(first, large)
os.close(first)
old = os.open(T + 'a', os.O_RDONLY)
head = os.read(old, 1000)
for change in lambda: os.write(second, small), lambda: os.ftruncate(second, 0):
    try: change(); assert False
    except OSError as error: assert error.errno == 16
third = os.open(T + 'a', W)
assert head + rest(old) == large
os.close(second)
os.write(third, small)
os.close(third)
)");
    ExpectOut("ls -A $T; cmp small $T/a", "a\n");
}

// The same when it is no copy through the mount that takes its place.
TEST_F(MountCrossing, AReaderOfTheClipThatOthersReplace) {
    Do("cp small $T/a");
    std::thread others([&] {
        const char* const clips[] = {"large", "small"};
        for (const char* const next : clips) {
            EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(At(std::string("before ") + next)); }));
            RenameOnDrive(u"\\RZV\\TWO\\A\\a", std::u16string(u"before ") + static_cast<char16_t>(next[0]));
            PutOnDrive(u"\\RZV\\TWO\\A\\a", next);
            std::ofstream(At(std::string("put ") + next)) << next;
        }
    });
    Python(R"(
for before, after, name in (small, large, 'large'), (large, small, 'small'):
    old = os.open(T + 'a', os.O_RDONLY)
    read = os.read(old, 1000)
    open('before ' + name, 'w').close()
    await_file('put ' + name)
    while not os.path.exists(T + 'a') or os.path.getsize(T + 'a') != len(after): time.sleep(0.01)
    while piece := os.read(old, 100000): read += piece
    assert read == before and os.fstat(old).st_size == len(before)
    assert open(T + 'a', 'rb').read() == after
    os.close(old)
)");
    others.join();
}

// Who reads a copy under way reads that one to its end, whatever stands there by then, and of one that was given up
// nothing more.
TEST_F(MountCrossing, AReaderOfACopyThatEnds) {
    Python(R"(
for before in b'', large:
    for isWhole in True, False:
        if before: open(T + 'a', 'wb').write(before)
        copy = os.open(T + 'a', W)
        os.write(copy, small[:70000])
        reader = os.open(T + 'a', os.O_RDONLY)
        read = os.read(reader, 1000)
        if isWhole: os.write(copy, small[70000:])
        try: os.close(copy); assert isWhole
        except OSError: assert not isWhole
        open(T + 'a', 'wb').write(large)
        try:
            while piece := os.read(reader, 100000): read += piece
            assert isWhole and read == small
        except OSError: assert not isWhole and read == small[:1000]
        os.close(reader)
        os.unlink(T + 'a')
)");
    ExpectOut("ls -A $T", "");
}

// A copy that is whole and does not get its place, because somebody keeps the clip there: who reads the copy gets
// nothing of that clip.
TEST_F(MountCrossing, AReaderOfACopyThatIsRefusedItsPlace) {
    Do("cp large $T/a");
    host::OpenRequest request;
    request.path = u"P:\\RZV\\TWO\\A\\a";
    request.access = host::access::kReadData;
    request.shareAccess = host::share::kRead;
    const host::OpenResult keeper = User().Create(request);
    ASSERT_TRUE(keeper.status.Ok());
    Python(R"(
copy = os.open(T + 'a', W)
os.write(copy, small[:70000])
reader = os.open(T + 'a', os.O_RDONLY)
assert os.read(reader, 1000) == small[:1000]
os.write(copy, small[70000:])
try: os.close(copy); assert False
except OSError as error: assert error.errno == 16
try: os.read(reader, 1000); assert False
except OSError as error: assert error.errno == 116
)");
    EXPECT_TRUE(User().Close(keeper.handle).Ok());
    ExpectOut("ls -A $T; cmp large $T/a", "a\n");
}

// However the place was named and wherever it is by then, the mount ends when it is told to.
TEST_F(MountCrossing, EndsWhereverItIs) {
    Do("cp small $T/a");
    mount_.reset();
    Do("mkdir -p real x/m && ln -s real link");
    MountDrives([&](mount::Options& options) { options.mountpoint = At("link"); });
    Do("cmp small real/P/RZV/TWO/A/a");
    mount_.reset();
    Do("rmdir real");
    const auto startReader = [&](const std::string& place) {
        std::filesystem::remove(At("ready"));
        const pid_t reader = StartShell(
            directory_.Path(),
            "exec 3< " + place + "/P/RZV/TWO/A/a; touch ready; while test -e ready; do sleep 0.01; done", At("said"));
        EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(At("ready")); }));
        return reader;
    };
    for (const char* away : {"mv x y", "umount -l x/m || fusermount3 -uz x/m"}) {
        for (const bool inUse : {false, true}) {
            MountDrives([&](mount::Options& options) { options.mountpoint = At("x/m"); });
            const pid_t reader = inUse ? startReader("x/m") : -1;
            Do(away);
            mount_.reset();
            Do("grep -q " + directory_.Path().string() +
               " /proc/self/mountinfo && echo still there; test ! -e y || mv y x");
            std::filesystem::remove(At("ready"));
            if (inUse) {
                EXPECT_EQ(Await(reader), 0);
            }
        }
    }
}

}  // namespace
}  // namespace tests
