// Listings at every level, how they are packed into the caller's buffer, frames and RAM files of a clip shown as a
// folder.
#include <algorithm>
#include <cstring>

#include "core/device_ext.h"
#include "fsd/fcb.h"
#include "fsd/name_tree.h"
#include "tests/driver/media_rig.h"

namespace tests {
namespace {

constexpr std::uint32_t kDirectory = 1;
constexpr std::uint32_t kFull = 2;
constexpr std::uint32_t kBoth = 3;
constexpr std::uint32_t kNames = 12;

std::size_t FixedBytes(std::uint32_t informationClass) {
    return informationClass == kDirectory ? 64 : informationClass == kFull ? 68 : informationClass == kBoth ? 94 : 12;
}

struct Listed {
    std::uint32_t index = 0;
    std::uint64_t size = 0;
    std::int64_t created = 0, written = 0;
    std::uint32_t attributes = 0;
    std::uint32_t nameLength = 0;  // as the entry says it
    std::u16string name;           // as much of it as is there
};

template <typename Value>
Value At(std::span<const std::byte> bytes, std::size_t offset) {
    Value value;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

// Walks a buffer by its own offsets, which must be multiples of 8 and end with 0.
std::vector<Listed> Unpack(std::uint32_t informationClass, std::span<const std::byte> bytes) {
    std::vector<Listed> entries;
    std::uint32_t next = 1;
    for (std::size_t at = 0; next != 0 && at < bytes.size(); at += next) {
        Listed entry;
        EXPECT_EQ(at % 8, 0u);
        next = At<std::uint32_t>(bytes, at);
        entry.index = At<std::uint32_t>(bytes, at + 4);
        if (informationClass == kNames) {
            entry.nameLength = At<std::uint32_t>(bytes, at + 8);
        } else {
            entry.created = At<std::int64_t>(bytes, at + 8);
            entry.written = At<std::int64_t>(bytes, at + 24);
            entry.size = At<std::uint64_t>(bytes, at + 40);
            EXPECT_EQ(At<std::uint64_t>(bytes, at + 48), entry.size);
            entry.attributes = At<std::uint32_t>(bytes, at + 56);
            entry.nameLength = At<std::uint32_t>(bytes, at + 60);
        }
        const std::size_t name = at + FixedBytes(informationClass);
        const std::size_t nameBytes = std::min<std::size_t>(entry.nameLength, bytes.size() - name);
        entry.name.resize(nameBytes / 2);
        std::memcpy(entry.name.data(), bytes.data() + name, nameBytes / 2 * 2);
        entries.push_back(entry);
        if (next == 0) {
            EXPECT_EQ(name + nameBytes, bytes.size()) << "the length told is that of what is stored";
        }
    }
    EXPECT_TRUE(next == 0 || bytes.empty()) << "the last entry leads beyond the buffer";
    return entries;
}

class MediaListing : public MediaTest {
  protected:
    void SetUp() override { StartVolume(1); }

    host::IoResult Query(const host::ScopedHandle& folder, host::Process::DirectoryQuery query, Bytes& buffer) {
        std::fill(buffer.begin(), buffer.end(), std::byte{0xEE});
        return User().QueryDirectory(folder.Get(), query, buffer);
    }
    // All entries, with as many queries of that buffer as it takes.
    std::vector<Listed> ListAll(const host::ScopedHandle& folder, std::uint32_t informationClass,
                                std::optional<std::u16string> pattern = std::nullopt, std::size_t bufferBytes = 4096) {
        std::vector<Listed> all;
        Bytes buffer(bufferBytes);
        for (;;) {
            const host::IoResult result = Query(folder, {informationClass, pattern, false, false, {}}, buffer);
            if (!result.status.Ok()) {
                const host::Status expected = all.empty() ? host::status::kNoSuchFile : host::status::kNoMoreFiles;
                EXPECT_EQ(host::StatusName(result.status), host::StatusName(expected));
                return all;
            }
            const std::vector<Listed> part =
                Unpack(informationClass, std::span(buffer).first(static_cast<std::size_t>(result.information)));
            all.insert(all.end(), part.begin(), part.end());
        }
    }
    static std::vector<std::u16string> NamesOf(const std::vector<Listed>& entries) {
        std::vector<std::u16string> names;
        for (const Listed& entry : entries) {
            names.push_back(entry.name);
        }
        return names;
    }
};

TEST_F(MediaListing, EveryLevelListsItsKind) {
    AddType(u"XYZ", 2, 1000, 2000);
    const ClipSpec clip{.videoSdti = 3, .videoFields = {1, 2, 3, 4, 5, 6}};
    PutClip(u"Clip.RZV", clip);
    const std::uint64_t size = BuildImage(clip, false).size();
    const std::u16string clipFolder = u"\\XYZ\\VOL\\F\\Clip.RZV";
    Make(clipFolder + u"\\note");
    const struct {
        std::u16string path;
        std::vector<std::u16string> names;
        std::vector<std::uint64_t> sizes;
        std::uint32_t attributes;
    } cases[] = {
        {u"\\", {u"RZV", u"XYZ"}, {0, 0}, 0x90},
        {u"\\XYZ", {u"VOL"}, {0}, 0x90},
        {u"\\RZV\\VOL", {u"F"}, {0}, 0x90},
        {u"\\RZV\\VOL\\F", {u"Clip.RZV"}, {size}, 0x80},
        {u"\\XYZ\\VOL\\F", {u"Clip.RZV"}, {size}, 0x90},
        {clipFolder, {u"Clip0000.XYZ", u"Clip0001.XYZ", u"Clip0002.XYZ", u"note"}, {2000, 2000, 2000, 0}, 0x80},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.path.begin(), test.path.end()));
        for (const std::uint32_t informationClass : {kDirectory, kFull, kBoth, kNames}) {
            const std::vector<Listed> entries = ListAll(Hold(test.path), informationClass);
            ASSERT_TRUE(NamesOf(entries) == test.names);
            for (std::size_t i = 0; i < entries.size(); ++i) {
                EXPECT_EQ(entries[i].index, i);
                if (informationClass != kNames) {
                    EXPECT_EQ(entries[i].size, test.sizes[i]);
                    EXPECT_EQ(entries[i].attributes, test.attributes);
                    EXPECT_EQ(entries[i].created, test.attributes == 0x90 ? entries[i].written : 0);
                }
            }
        }
    }
}

TEST_F(MediaListing, PackingAndGoingOn) {
    std::vector<std::u16string> names;
    for (int i = 0; i < 23; ++i) {
        names.push_back(std::u16string(1 + static_cast<std::size_t>(i * 7 % 31), static_cast<char16_t>(u'a' + i)));
        EXPECT_TRUE(OpenClip(names.back(), host::Disposition::kCreate));
    }
    for (const std::uint32_t informationClass : {kDirectory, kFull, kBoth, kNames}) {
        for (const std::size_t bufferBytes : {156, 160, 333, 4096}) {
            SCOPED_TRACE(testing::Message() << "class " << informationClass << " buffer " << bufferBytes);
            const host::ScopedHandle folder = Hold(u"\\RZV\\VOL\\F");
            EXPECT_TRUE(NamesOf(ListAll(folder, informationClass, std::nullopt, bufferBytes)) == names);
        }
    }

    const host::ScopedHandle folder = Hold(u"\\RZV\\VOL\\F");
    Bytes buffer(64 + 10);
    // The second name has 8 characters: it is cut and comes again, as often as the buffer is too small.
    ASSERT_EQ(Query(folder, {kDirectory, u"*", false, true, {}}, buffer).status, host::status::kSuccess);
    for (int i = 0; i < 2; ++i) {
        const host::IoResult cut = Query(folder, {kDirectory, {}, false, false, {}}, buffer);
        EXPECT_EQ(cut.status, host::status::kBufferOverflow);
        EXPECT_EQ(cut.information, buffer.size());
        const std::vector<Listed> entries = Unpack(kDirectory, buffer);
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].nameLength, names[1].size() * 2);
        EXPECT_TRUE(entries[0].name == names[1].substr(0, 5));
    }
    buffer.resize(63);
    EXPECT_EQ(Query(folder, {kDirectory, {}, false, false, {}}, buffer).status, (host::Status{0xC0000004}));
    buffer.resize(4096);
    EXPECT_EQ(Query(folder, {5, {}, false, false, {}}, buffer).status, (host::Status{0xC0000003}));

    // One at a time, from an index on, and from the start again.
    struct {
        bool restart;
        std::optional<std::uint32_t> index;
        std::size_t expected;
    } const steps[] = {{false, {}, 1}, {false, {}, 2}, {false, 5u, 6},  {false, {}, 7},
                       {true, {}, 0},  {false, {}, 1}, {false, 21u, 22}};
    for (const auto& step : steps) {
        const host::IoResult result = Query(folder, {kNames, {}, step.restart, true, step.index}, buffer);
        ASSERT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
        const std::vector<Listed> entries = Unpack(kNames, std::span(buffer).first(result.information));
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].index, step.expected);
    }
    EXPECT_EQ(Query(folder, {kNames, {}, false, true, {}}, buffer).status, host::status::kNoMoreFiles);
    EXPECT_EQ(Query(folder, {kNames, {}, false, true, 0xFFFFFFFFu}, buffer).status, host::status::kNoMoreFiles);
}

TEST_F(MediaListing, PatternsStayWithTheHandle) {
    for (const char16_t* name : {u"alpha.rzv", u"Beta.RZV", u"gamma", u"delta.rzv"}) {
        EXPECT_TRUE(OpenClip(name, host::Disposition::kCreate));
    }
    struct {
        std::u16string pattern;
        std::vector<std::u16string> names;
    } const cases[] = {
        {u"*.rzv", {u"alpha.rzv", u"Beta.RZV", u"delta.rzv"}},
        {u"BETA.rzv", {u"Beta.RZV"}},
        {u"?amm?", {u"gamma"}},
        {u"*", {u"alpha.rzv", u"Beta.RZV", u"gamma", u"delta.rzv"}},
        {u"gamma.", {}},
        {u"*.xyz", {}},
    };
    for (const auto& test : cases) {
        const host::ScopedHandle folder = Hold(u"\\RZV\\VOL\\F");
        EXPECT_TRUE(NamesOf(ListAll(folder, kBoth, test.pattern)) == test.names)
            << std::string(test.pattern.begin(), test.pattern.end());
        // Another name in a later query changes nothing.
        Bytes buffer(4096);
        const host::IoResult again = Query(folder, {kBoth, u"alpha.rzv", true, false, {}}, buffer);
        EXPECT_EQ(again.status, test.names.empty() ? host::status::kNoMoreFiles : host::status::kSuccess);
        EXPECT_TRUE(NamesOf(Unpack(kBoth, std::span(buffer).first(again.information))) == test.names);
    }
}

}  // namespace
}  // namespace tests
