// Renames and moves: what refuses them, and that afterwards the disk, the listings, every open path, the frames and the
// RAM files all say the same.
#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/driver/fsd_fixture.h"
#include "tests/driver/media_rig.h"
#include "volume/record_io.h"

namespace tests {
namespace {

constexpr const char* kInvalidName = "STATUS_OBJECT_NAME_INVALID";
constexpr const char* kCollision = "STATUS_OBJECT_NAME_COLLISION";
constexpr std::uint32_t kAll = kReadWriteDelete | host::access::kReadAttributes | host::access::kWriteAttributes;
constexpr std::uint32_t kFileNameInformation = 9;
const std::u16string kShot = u"\\RZV\\VolA\\Clips\\Shot.RZV";

std::string Narrow(std::u16string_view text) {
    return {text.begin(), text.end()};
}

// VolA: Clips with Take1, Take2 and the clip Shot.RZV of three frames; Other with Taken. VolB: Store.
class FsdRename : public FsdTest {
  protected:
    void SetUp() override {
        FsdTest::SetUp();
        Make(u"\\RZV\\VolA\\Clips\\Take2");
        Make(u"\\RZV\\VolA\\Other", host::option::kDirectoryFile);
        Make(u"\\RZV\\VolA\\Other\\Taken");
        Make(u"\\RZV\\VolB\\Store", host::option::kDirectoryFile);
        const host::ScopedHandle shot = Hold(kShot, kReadWrite, host::Disposition::kCreate);
        ASSERT_TRUE(User().Write(shot.Get(), BuildImage(Clip(), true), 0).status.Ok());
    }
    static ClipSpec Clip() { return {.videoFields = {1, 2, 3, 4, 5, 6}}; }
    // To a name, or to a path that begins with the drive.
    std::string Change(const host::ScopedHandle& handle, const std::u16string& target) {
        return host::StatusName(host::Rename(User(), handle.Get(), target));
    }
    std::string Change(const std::u16string& path, const std::u16string& target) {
        return Change(Hold(path, kAll), target);
    }
    std::vector<std::u16string> List(const std::u16string& path) {
        std::vector<std::u16string> names = FsdTest::List(path);
        std::ranges::sort(names);
        return names;
    }
    std::u16string NameOf(const host::ScopedHandle& handle) {
        std::vector<std::byte> buffer(4096);
        EXPECT_TRUE(User().QueryInformation(handle.Get(), kFileNameInformation, buffer).status.Ok());
        std::uint32_t bytes = 0;
        std::memcpy(&bytes, buffer.data(), sizeof(bytes));
        return {reinterpret_cast<const char16_t*>(buffer.data() + 4), bytes / 2};
    }
    // The name by which body tables are known.
    static std::u16string ObjectName(FCB* fcb) {
        Locked([&] { EXPECT_EQ(VrkFsFCBCommonSetupFullName(Vcb(), fcb, fcb->Common), STATUS_SUCCESS); });
        const UNICODE_STRING& name = fcb->Common->FullName;
        return {name.Buffer, name.Length / sizeof(WCHAR)};
    }
    template <typename Record>
    std::u16string NameField(ULONG lba) {
        return {Get<Record>(0, lba).Name, kRecordNameChars};
    }
    std::u16string NameOnDisk(const FCBCommon* common) {
        const std::u16string name =
            common->Level == kLevelVolume ? NameField<VolumeEntry>(0)
            : common->Level == kLevelFolder
                ? NameField<DirEntry>(VrkFsHwFolderLba(common->VolumeHandle, common->FolderEntryIndex))
                : NameField<FileEntry>(common->RecordLba);
        const std::size_t end = name.find(u'\0');
        EXPECT_EQ(name.find_first_not_of(u'\0', end), std::u16string::npos) << "a trace of an older name";
        return name.substr(0, end);
    }
    void WriteText(const std::u16string& path, const std::string& text) {
        const host::ScopedHandle handle = Hold(path, kReadWrite, host::Disposition::kCreate);
        EXPECT_TRUE(User().Write(handle.Get(), std::as_bytes(std::span(text)), 0).status.Ok());
    }
    std::string ReadText(const std::u16string& path) {
        const host::ScopedHandle handle = Hold(path);
        std::string text(100, '?');
        text.resize(User().Read(handle.Get(), std::as_writable_bytes(std::span(text)), 0).information);
        return text;
    }
    void ExpectShot(const std::u16string& path) {
        const host::ScopedHandle handle = Hold(path);
        const Bytes image = BuildImage(Clip(), false);
        Bytes read(image.size());
        EXPECT_EQ(User().Read(handle.Get(), read, 0).information, image.size());
        EXPECT_TRUE(read == image);
    }
};

TEST_F(FsdRename, RefusalsLeaveEverythingAsItIs) {
    const struct {
        std::u16string path, target;
        const char* status;
    } cases[] = {
        {u"\\", u"x", "STATUS_INVALID_PARAMETER"},
        {u"\\RZV", u"x", kDenied},
        {u"\\FRM\\VolA\\Clips\\Take1", u"x", kDenied},
        {u"\\FRM\\VolA\\Clips\\Shot.RZV\\Shot0000.FRM", u"x", kDenied},
        {u"\\RZV\\VolA\\Clips\\___Port0___", u"x", kDenied},
        {u"\\RZV\\VolA", u"volb", kCollision},
        {u"\\RZV\\VolA\\Clips", u"OTHER", kCollision},
        {kTake1, u"TAKE2", kCollision},
        {kTake1, u"P:\\RZV\\VolA\\Other\\taken", kCollision},
        {kTake1, u"a*b", kInvalidName},
        {kTake1, u"a\\b", kInvalidName},
        {u"\\RZV\\VolA\\Clips", u"a/b", kInvalidName},
        {u"\\RZV\\VolA", u"a:b", kInvalidName},
        {kTake1, std::u16string(u"Take1\0x", 7), kInvalidName},
        {kTake1, std::u16string(256, u'x'), kInvalidName},
        {kTake1, u"", "STATUS_INVALID_PARAMETER"},
        {kTake1, u"___PORT0___", kDenied},
        {kTake1, u"P:\\RZV\\VolB\\Store\\x", kDenied},
        {kTake1, u"P:\\RZV\\VolA\\x", kDenied},
        {kTake1, u"P:\\x", kDenied},
        {kTake1, u"P:\\FRM\\VolA\\Clips\\Shot.RZV\\x", kDenied},
        {kTake1, u"P:\\RZV\\VolA\\None\\x", "STATUS_OBJECT_PATH_NOT_FOUND"},
        {u"\\RZV\\VolA\\Clips", u"P:\\RZV\\VolA\\Other\\x", kDenied},
        {u"\\RZV\\VolA\\Clips", u"P:\\XYZ\\VolA\\x", kDenied},  // its own volume, but another path
        {u"\\RZV\\VolA", u"P:\\XYZ\\New", kDenied},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(Change(test.path, test.target), test.status) << Narrow(test.path) << " to " << Narrow(test.target);
        ExpectIdle("after a refusal");
    }
    EXPECT_EQ(List(u"\\RZV"), (std::vector<std::u16string>{u"VolA", u"VolB"}));
    EXPECT_EQ(List(u"\\RZV\\VolA"), (std::vector<std::u16string>{u"Clips", u"Other"}));
    EXPECT_EQ(List(u"\\RZV\\VolA\\Clips"), (std::vector<std::u16string>{u"Shot.RZV", u"Take1", u"Take2"}));
    EXPECT_EQ(List(u"\\RZV\\VolA\\Other"), (std::vector<std::u16string>{u"Taken"}));
}

TEST_F(FsdRename, TheRecordsLengthsAreChecked) {
    nt::Process trusted("trusted", KernelMode);  // nothing is checked before the driver
    const nt::Handle handle = OpenTrusted(trusted, kTake1, 0);
    const struct {
        ULONG length, nameBytes;
        NTSTATUS status;
    } cases[] = {
        {15, 2, STATUS_BUFFER_TOO_SMALL},        {16, 5, STATUS_INVALID_PARAMETER},
        {16, 6, STATUS_INVALID_PARAMETER},       {16, 0xFFFFFFFE, STATUS_INVALID_PARAMETER},
        {16, 3, STATUS_INVALID_PARAMETER},       {16, 0, STATUS_OBJECT_NAME_INVALID},
        {1000, 514, STATUS_OBJECT_NAME_INVALID}, {16, 4, STATUS_SUCCESS},
    };
    for (const auto& test : cases) {
        std::u16string buffer(500, u'n');
        buffer.replace(0, 4, 4, u'\0');
        std::memcpy(&buffer[4], &test.nameBytes, 4);
        IO_STATUS_BLOCK block{};
        EXPECT_EQ(trusted.SetInformation(handle, &block, buffer.data(), test.length, FileRenameInformation),
                  test.status)
            << test.length << ", " << test.nameBytes;
    }
    EXPECT_EQ(trusted.Close(handle), STATUS_SUCCESS);
    EXPECT_EQ(TryOpen(u"\\RZV\\VolA\\Clips\\nn"), kOk);
}

// One object at a time through a row of names; another path to it is open all the while.
TEST_F(FsdRename, DiskListingPathsAndObjectNamesAgree) {
    const std::u16string longest(255, u'n');
    for (const std::u16string path : {u"\\VolA", u"\\VolA\\Clips", u"\\VolA\\Kept\\Take1"}) {
        const std::u16string folder = path.substr(0, path.rfind(u'\\'));
        const std::u16string original = path.substr(folder.size() + 1);
        const host::ScopedHandle handle = Hold(u"\\RZV" + path, kAll);
        const host::ScopedHandle other = Hold(u"\\XYZ" + path, kAll);
        FCB* const fcb = Find(u"\\RZV" + path);
        ASSERT_NE(fcb, nullptr);
        std::u16string upper = original;
        upper[1] = static_cast<char16_t>(upper[1] - u'a' + u'A');
        std::u16string before = original;
        bool throughOther = false;
        for (const std::u16string& name : {upper, longest, std::u16string(u"x"), std::u16string(u"Final name")}) {
            SCOPED_TRACE(Narrow(folder + u"\\" + before + u" to " + name));
            ASSERT_EQ(Change(throughOther ? other : handle, name), kOk);
            throughOther = !throughOther;
            EXPECT_EQ(NameOf(handle), u"\\RZV" + folder + u"\\" + name);
            EXPECT_EQ(NameOf(other), u"\\XYZ" + folder + u"\\" + name);
            EXPECT_EQ(ObjectName(fcb), u"\\RZV" + folder + u"\\" + name);
            EXPECT_EQ(NameOnDisk(fcb->Common), name);
            for (const char16_t* type : {u"\\RZV", u"\\XYZ", u"\\FRM"}) {
                EXPECT_EQ(TryOpen(type + folder + u"\\" + name), kOk);
                const auto names = List(type + folder);
                EXPECT_EQ(std::count(names.begin(), names.end(), name), 1);
                EXPECT_EQ(std::count(names.begin(), names.end(), before), 0);
                if (name != upper) {
                    EXPECT_EQ(TryOpen(type + folder + u"\\" + before), kNotFound);
                }
            }
            before = name;
        }
        EXPECT_EQ(fcb->Common->ReferenceCount, 2u) << "an open by the new name finds the paths that are there";
        ASSERT_EQ(Change(handle, folder.empty() ? u"VolA" : u"Kept"), kOk);
    }
    ExpectIdle("at the end");
    RestartWithTypes();
    EXPECT_EQ(List(u"\\RZV\\VolA"), (std::vector<std::u16string>{u"Kept", u"Other"}));
    EXPECT_EQ(List(u"\\RZV\\VolA\\Kept"), (std::vector<std::u16string>{u"Kept", u"Shot.RZV", u"Take2"}));
    ExpectShot(u"\\RZV\\VolA\\Kept\\Shot.RZV");
}

TEST_F(FsdRename, NothingMayBeOpenBelowAFolderOnAnyPath) {
    for (const char16_t* folder : {u"\\RZV\\VolA", u"\\RZV\\VolA\\Clips"}) {
        for (const char16_t* below :
             {kTake1, u"\\XYZ\\VolA\\Clips\\Take1", u"\\FRM\\VolA\\Clips\\Shot.RZV\\Shot0001.FRM",
              u"\\FRM\\VolA\\Clips\\___Port0___"}) {
            const host::ScopedHandle held = Hold(below);
            EXPECT_EQ(Change(folder, u"New"), kDenied) << Narrow(below);
        }
    }
    const host::ScopedHandle same = Hold(u"\\XYZ\\VolA\\Clips");
    const host::ScopedHandle beside = Hold(u"\\RZV\\VolA\\Other\\Taken");
    EXPECT_EQ(Change(u"\\RZV\\VolA\\Clips", u"New"), kOk);
    EXPECT_EQ(NameOf(same), u"\\XYZ\\VolA\\New");
    EXPECT_EQ(NameOf(beside), u"\\RZV\\VolA\\Other\\Taken");
}

TEST_F(FsdRename, AMoveTakesEveryPathAlongWithinItsTypeFolder) {
    WriteText(u"\\FRM\\VolA\\Clips\\Shot.RZV\\notes", "by the clip");
    host::ScopedHandle handle = Hold(kShot, kAll);
    host::ScopedHandle other = Hold(u"\\XYZ\\VolA\\Clips\\Shot.RZV", kAll);
    host::ScopedHandle frame = Hold(u"\\FRM\\VolA\\Clips\\Shot.RZV\\Shot0002.FRM", kAll);
    host::ScopedHandle notes = Hold(u"\\FRM\\VolA\\Clips\\Shot.RZV\\notes", kAll);
    // The folder by the way of another type folder; then the same folder by a third way, which is no move.
    ASSERT_EQ(Change(handle, u"P:\\XYZ\\VolA\\Other\\Moved.rzv"), kOk);
    EXPECT_EQ(Find(u"\\RZV\\VolA\\Clips"), nullptr);
    EXPECT_EQ(Find(u"\\FRM\\VolA\\Clips"), nullptr);
    EXPECT_EQ(NameOf(frame), u"\\FRM\\VolA\\Other\\Moved.rzv\\Moved0002.FRM");
    ASSERT_EQ(Change(handle, u"P:\\FRM\\VolA\\Other\\Again.rzv"), kOk);
    EXPECT_EQ(NameOf(handle), u"\\RZV\\VolA\\Other\\Again.rzv");
    EXPECT_EQ(NameOf(other), u"\\XYZ\\VolA\\Other\\Again.rzv");
    EXPECT_EQ(NameOf(notes), u"\\FRM\\VolA\\Other\\Again.rzv\\notes");
    EXPECT_EQ(ObjectName(Find(u"\\XYZ\\VolA\\Other\\Again.rzv")), u"\\RZV\\VolA\\Other\\Again.rzv");
    EXPECT_EQ(TryOpen(u"\\FRM\\VolA\\Other\\Again.rzv\\Shot0002.FRM"), kNotFound);
    EXPECT_EQ(TryOpen(u"\\FRM\\VolA\\Other\\Again.rzv\\Again0002.FRM"), kOk);
    EXPECT_EQ(ReadText(u"\\FRM\\VolA\\Other\\Again.rzv\\notes"), "by the clip");
    Make(u"\\RZV\\VolA\\Clips\\Next");  // takes the slot that the file had
    handle.Reset();
    // What the other paths change still reaches the record, and only that record.
    FILE_BASIC_INFORMATION basic{};
    basic.LastWriteTime.QuadPart = 132'000'000'000'000'000;
    EXPECT_TRUE(User().SetInformation(other.Get(), FileBasicInformation, BytesOf(basic)).status.Ok());
    other.Reset();
    frame.Reset();
    notes.Reset();
    ExpectIdle("after the move");
    RestartWithTypes();
    EXPECT_EQ(List(u"\\RZV\\VolA\\Clips"), (std::vector<std::u16string>{u"Next", u"Take1", u"Take2"}));
    EXPECT_EQ(List(u"\\RZV\\VolA\\Other"), (std::vector<std::u16string>{u"Again.rzv", u"Taken"}));
    ExpectShot(u"\\RZV\\VolA\\Other\\Again.rzv");
    host::FileFacts facts;
    EXPECT_TRUE(host::QueryFacts(User(), Hold(u"\\RZV\\VolA\\Other\\Again.rzv", kAll).Get(), facts).Ok());
    EXPECT_EQ(facts.lastWriteTime, basic.LastWriteTime.QuadPart);
}

TEST_F(FsdRename, PendingDeletesGoWithTheObject) {
    const ULONGLONG freeBefore = FreeBlocks();
    host::ScopedHandle handle = Hold(kShot, kAll);
    ASSERT_EQ(SetDelete(handle, true), kOk);
    EXPECT_EQ(Change(handle, u"P:\\RZV\\VolA\\Other\\Gone"), kOk);
    handle.Reset();
    EXPECT_EQ(List(u"\\RZV\\VolA\\Other"), (std::vector<std::u16string>{u"Taken"}));
    EXPECT_GT(FreeBlocks(), freeBefore);

    // A folder on its way out takes nothing in; one that is gone through another path neither.
    Make(u"\\RZV\\VolA\\Empty", host::option::kDirectoryFile);
    host::ScopedHandle leaving = Hold(u"\\XYZ\\VolA\\Empty", kAll);
    const host::ScopedHandle target = Hold(u"\\RZV\\VolA\\Empty");
    const host::ScopedHandle file = Hold(kTake1, kAll);
    ASSERT_EQ(SetDelete(leaving, true), kOk);
    EXPECT_EQ(Change(file, u"P:\\XYZ\\VolA\\Empty\\x"), "STATUS_DELETE_PENDING");
    FCB* const targetFcb = Find(u"\\RZV\\VolA\\Empty");
    leaving.Reset();
    FCB* const fileFcb = Find(kTake1);
    const UNICODE_STRING name = CountedName(u"x");
    EXPECT_EQ(Locked([&] {
                  ResourceGuard common;
                  common.Exclusive(fileFcb->Common->Resource);
                  return VrkFsFCBMove(targetFcb, fileFcb, &name, FALSE, &Card()->Hw);
              }),
              STATUS_DELETE_PENDING);

    // A name that only the handles of a deleted file still carry is free, on their paths too.
    host::ScopedHandle deleter = Hold(u"\\RZV\\VolA\\Clips\\Take2", kAll);
    const host::ScopedHandle lingering = Hold(u"\\XYZ\\VolA\\Clips\\Take2", kAll);
    const host::ScopedHandle otherPath = Hold(u"\\XYZ\\VolA\\Clips\\Take1");
    ASSERT_EQ(SetDelete(deleter, true), kOk);
    deleter.Reset();
    EXPECT_EQ(Change(file, u"Take2"), kOk);
    EXPECT_EQ(TryOpen(u"\\XYZ\\VolA\\Clips\\Take2"), kOk);
    EXPECT_EQ(Change(lingering, u"back"), "STATUS_FILE_DELETED");
}

TEST_F(FsdRename, ARamFileTakesTheNameOfAFrameOnly) {
    const std::u16string clip = u"\\FRM\\VolA\\Clips\\Shot.RZV\\";
    WriteText(clip + u"new.frame", "picture");
    WriteText(clip + u"notes", "text");
    for (const char16_t* name : {u"notes", u"new.frame", u"Shot0003.FRM", u"a*", u"P:\\RZV\\VolA\\Clips\\x"}) {
        EXPECT_EQ(Change(clip + u"new.frame", name), kDenied) << Narrow(name);
        EXPECT_EQ(ReadText(clip + u"new.frame"), "picture");
    }
    host::ScopedHandle picture = Hold(clip + u"new.frame", kAll);
    host::ScopedHandle reader = Hold(clip + u"new.frame");
    EXPECT_EQ(Change(picture, u"shot0001.frm"), kOk);  // nobody serves the frame, and nobody is told
    picture.Reset();
    std::byte data[7];
    EXPECT_EQ(User().Read(reader.Get(), data, 0).information, 7u) << "the last handle keeps it";
    EXPECT_EQ(TryOpen(clip + u"new.frame"), "STATUS_DELETE_PENDING");
    reader.Reset();
    EXPECT_EQ(TryOpen(clip + u"new.frame"), kNotFound);
    EXPECT_EQ(ReadText(clip + u"notes"), "text");
}

// One thread renames and moves a file back and forth; another lists or opens it.
TEST_F(FsdRename, RenamesBesideListingsAndOpens) {
    const std::u16string places[] = {u"P:\\RZV\\VolA\\Clips\\Take1", u"P:\\RZV\\VolA\\Clips\\Final",
                                     u"P:\\RZV\\VolA\\Other\\Final"};
    for (const bool listing : {true, false}) {
        std::atomic<bool> done{false};
        const std::unique_ptr<host::Process> second = Machine().NewProcess();
        std::jthread renamer([&] {
            for (int i = 0; i < 201; ++i) {
                const host::OpenResult opened = second->Create({.path = places[i % 3], .access = kAll});
                const host::ScopedHandle handle(*second, opened.handle);
                const host::Status moved = host::Rename(*second, handle.Get(), places[(i + 1) % 3]);
                EXPECT_EQ(host::StatusName(moved), kOk);
            }
            done = true;
        });
        const host::ScopedHandle folder = Hold(u"\\XYZ\\VolA\\Clips");
        while (!done) {
            if (listing) {
                std::vector<host::DirectoryEntry> entries;
                EXPECT_TRUE(host::ListDirectory(User(), folder.Get(), entries).Ok());
                EXPECT_GE(entries.size(), 2u);
                EXPECT_LE(entries.size(), 3u);
                continue;
            }
            for (const std::u16string& place : places) {
                const host::OpenResult opened = Open(u"\\XYZ" + place.substr(6), host::Disposition::kOpen, kAll);
                const host::ScopedHandle handle(User(), opened.handle);
                EXPECT_TRUE(handle ? NameOf(handle).starts_with(u"\\XYZ\\VolA\\")
                                   : host::StatusName(opened.status) == kNotFound)
                    << host::StatusName(opened.status);
            }
        }
    }
    ExpectIdle("at the end");
    RestartWithTypes();
    EXPECT_EQ(List(u"\\RZV\\VolA\\Clips").size() + List(u"\\RZV\\VolA\\Other").size(), 4u);
}

}  // namespace
}  // namespace tests
