// Shared body tables: who is dropped from the cache, and that a table never reaches blocks
// that are no longer its file's. Objects are made by hand here, with real sections.

#include "core/guards.h"
#include "core/strings.h"
#include "media/body_table_cache.h"
#include "media/body_table_object.h"
#include "nt/kernel.h"
#include "tests/driver/media_rig.h"

namespace tests {
namespace {

class MediaBodyTables : public MediaTest {
  protected:
    void SetUp() override {
        host::MachineOptions options;
        options.manualClock = true;
        StartVolume(1, options);
        clip_.frames = 4;
        clip_.videoFields = {1, 2, 3, 4, 5, 6, 7, 8};
        PutClip(u"a.RZV", clip_);
        entry_ = RawFile(u"a.RZV");
    }

    BodyTableCache* Cache() { return &Card()->BodyTableCache; }

    // An object over the clip's table, on the referenced list, as if an application were using it.
    BodyTableObject* Attach(const std::u16string& name) {
        const nt::DriverScope driver(pVrkFsGlobalData->DriverObject);
        auto* object = static_cast<BodyTableObject*>(ExAllocateFromPagedLookasideList(&Cache()->Objects));
        *object = {};
        const UNICODE_STRING counted = Counted(name);
        EXPECT_EQ(VrkFsRtlCopyUnicodeString(&object->Name, &counted), STATUS_SUCCESS);
        object->References = 1;
        object->CardInstance = Card();
        object->Volume = Volume();
        object->Frames = clip_.frames;
        object->VideoLba = entry_.VideoBodyTableLba;
        object->VideoBytes = entry_.VideoBodyTableBlockCount * 512;
        object->VideoSectionBytes = clip_.frames * 24;
        object->Cache = Cache();
        MapSection(object);
        object->Flags |= kBodyTableName;
        object->FlushDeadline = nt::ClockNow() + kBodyTableFlushDelay;
        MutexGuard lock(&Cache()->Mutex);
        InsertHeadList(&Cache()->Referenced, &object->Link);
        ++Cache()->ReferencedCount;
        return object;
    }
    static UNICODE_STRING Counted(const std::u16string& text) {
        UNICODE_STRING string;
        string.Buffer = const_cast<PWSTR>(text.c_str());
        string.Length = static_cast<USHORT>(text.size() * 2);
        string.MaximumLength = static_cast<USHORT>(string.Length + 2);
        return string;
    }
    // What an application writes: every field's first count becomes `first`.
    static void Scribble(BodyTableObject* object, USHORT first) {
        auto* nodes = static_cast<PlacedBodyTableNode*>(object->VideoView);
        for (ULONG k = 0; k < object->Frames * 2; ++k) {
            nodes[k].Node = {first, 0};
        }
    }
    // The first count in the table on the disk.
    int OnDisk() {
        const Bytes table = RawBlocks(0, entry_.VideoBodyTableLba, 1);
        std::uint16_t first;
        std::memcpy(&first, table.data(), 2);
        return first;
    }
    ClipSpec clip_;
    FileEntry entry_{};

  private:
    static void MapSection(BodyTableObject* object) {
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, nullptr, 0, nullptr, nullptr);
        LARGE_INTEGER size;
        size.QuadPart = object->VideoSectionBytes;
        ASSERT_EQ(ZwCreateSection(&object->VideoSection, SECTION_ALL_ACCESS, &attributes, &size, PAGE_READWRITE,
                                  SEC_COMMIT, nullptr),
                  STATUS_SUCCESS);
        SIZE_T bytes = 0;
        ASSERT_EQ(ZwMapViewOfSection(object->VideoSection, NtCurrentProcess(), &object->VideoView, 0, 0, nullptr,
                                     &bytes, ViewShare, 0, PAGE_READWRITE),
                  STATUS_SUCCESS);
        object->Flags |= kBodyTableVideoSection | kBodyTableVideoView;
    }
};

TEST_F(MediaBodyTables, TheOldestOfThirtyThreeGoesAndIsWrittenBack) {
    BodyTableObject* oldest = Attach(u"\\RZV\\VOL\\F\\0");
    Scribble(oldest, 50);
    VrkFsBTDereferenceObject(Cache(), oldest);
    for (int i = 1; i <= 31; ++i) {
        BodyTableObject* object = Attach(u"\\RZV\\VOL\\F\\" + std::u16string(1, static_cast<char16_t>(u'0' + i)));
        Scribble(object, 60);
        VrkFsBTDereferenceObject(Cache(), object);
    }
    EXPECT_EQ(Cache()->UnreferencedCount, 32u);
    EXPECT_NE(OnDisk(), 50);
    VrkFsBTDereferenceObject(Cache(), Attach(u"\\RZV\\VOL\\F\\last"));
    EXPECT_EQ(Cache()->UnreferencedCount, 32u);
    EXPECT_EQ(OnDisk(), 50);
    VrkFsBTFlushUnrefObjects(Cache());
    EXPECT_EQ(Cache()->UnreferencedCount, 0u);
}

TEST_F(MediaBodyTables, ATableDoesNotOutliveItsBlocks) {
    BodyTableObject* object = Attach(u"\\RZV\\VOL\\F\\a.RZV");
    Scribble(object, 55);
    ClipSpec fresh = clip_;
    fresh.seed = 2;
    {
        const host::ScopedHandle handle = OpenClip(u"a.RZV");
        const Bytes image = BuildImage(fresh, true);
        ASSERT_TRUE(WriteAt(handle, image, 0, image.size()).status.Ok());
    }
    // What lay in the old table's blocks is the business of whoever gets them now.
    const Bytes before = RawBlocks(0, entry_.VideoBodyTableLba, 1);
    const std::u16string clipName = u"\\RZV\\VOL\\F\\a.RZV";
    const UNICODE_STRING name = Counted(clipName);
    VrkFsBTFlushObjectByName(Cache(), &name);
    VrkFsBTDereferenceObject(Cache(), object);
    EXPECT_EQ(Cache()->UnreferencedCount, 0u);
    EXPECT_TRUE(RawBlocks(0, entry_.VideoBodyTableLba, 1) == before);
    ExpectImage(u"a.RZV", fresh);
}

TEST_F(MediaBodyTables, AReadSeesWhatApplicationsWroteToTheTable) {
    BodyTableObject* object = Attach(u"\\RZV\\VOL\\F\\a.RZV");
    auto* nodes = static_cast<PlacedBodyTableNode*>(object->VideoView);
    for (ULONG k = 0; k < 8; ++k) {
        nodes[k].Node = {static_cast<USHORT>(k), 1};
    }
    // The request comes from another process than the one that owns the view.
    const host::ScopedHandle handle = OpenClip(u"a.RZV");
    const Bytes table = ReadRange(handle, 344, 32);
    std::uint16_t halves[16];
    std::memcpy(halves, table.data(), 32);
    EXPECT_EQ(halves[14], 7);
    EXPECT_EQ(halves[15], 1);
    VrkFsBTDereferenceObject(Cache(), object);
}

}  // namespace
}  // namespace tests
