// Clips for the media tests: images built field by field, and volumes whose disks are read raw, so that what the driver
// stores is compared with a placement that the test worked out itself.
#pragma once

#include <vrkfs/media.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/driver_fixture.h"
#include "volume/records.h"

namespace tests {

using Bytes = std::vector<std::byte>;

struct ClipSpec {
    std::uint32_t frames = 3;
    bool is625 = false;
    bool alpha = false;
    bool interleaved = false;
    std::uint32_t videoSdti = 1;
    std::uint32_t alphaSdti = 1;
    std::uint64_t seed = 1;
    std::vector<std::uint32_t> videoFields = {};  // sectors, 2 * frames of them
    std::vector<std::uint32_t> alphaFields = {};

    const std::vector<std::uint32_t>& Fields(bool ofAlpha) const { return ofAlpha ? alphaFields : videoFields; }
};

// The bytes from one place on, up to another or the end.
inline Bytes Part(const Bytes& bytes, std::uint64_t from, std::uint64_t to = ~std::uint64_t{0}) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(to, bytes.size())));
}

// Content of a field that no other field of any other clip has.
inline Bytes FieldBytes(std::uint64_t seed, std::uint32_t stream, std::uint32_t field, std::uint32_t sectors) {
    Bytes bytes(std::size_t{sectors} * 512);
    std::uint64_t state = seed * 0x9E3779B97F4A7C15u + stream * 0xD1B54A32D192ED03u + field * 0x8CB92BA72F3D8DD7u;
    for (std::size_t at = 0; at < bytes.size(); at += 8) {
        state += 0x9E3779B97F4A7C15u;
        std::uint64_t word = (state ^ (state >> 30)) * 0xBF58476D1CE4E5B9u;
        word ^= word >> 27;
        std::memcpy(bytes.data() + at, &word, 8);
    }
    return bytes;
}

inline ClipSpec RandomClip(std::mt19937& random, std::uint32_t frames, bool alpha, bool interleaved,
                           std::uint32_t minSectors, std::uint32_t maxSectors) {
    std::uniform_int_distribution<std::uint32_t> length(minSectors, maxSectors);
    ClipSpec clip{.frames = frames, .is625 = random() % 2 == 0, .alpha = alpha, .interleaved = interleaved};
    clip.seed = random();
    clip.videoSdti = 3 + random() % 13;
    clip.alphaSdti = random() % 2;
    for (std::uint32_t i = 0; i < 2 * frames; ++i) {
        clip.videoFields.push_back(length(random));
        if (alpha) {
            clip.alphaFields.push_back(length(random));
        }
    }
    return clip;
}

class ImageWriter {
  public:
    Bytes bytes;

    void Put16(std::uint32_t value) { Append(&value, 2); }
    void Put32(std::uint32_t value) { Append(&value, 4); }
    void Put64(std::uint64_t value) { Append(&value, 8); }
    void Append(const void* data, std::size_t size) {
        const auto* from = static_cast<const std::byte*>(data);
        bytes.insert(bytes.end(), from, from + size);
    }
    void Append(const Bytes& data) { bytes.insert(bytes.end(), data.begin(), data.end()); }
    void Chunk(std::uint64_t size, std::uint32_t type, std::uint32_t stream) {
        Put64(size);
        Put32(type);
        Put32(stream);
    }
};

inline std::uint64_t Sum(const std::vector<std::uint32_t>& fields) {
    return std::accumulate(fields.begin(), fields.end(), std::uint64_t{0});
}
inline std::size_t TableBytes(std::uint32_t frames) {
    return (std::size_t{frames} * 8 + 511) / 512 * 512;
}
inline std::size_t HeaderBytes(const ClipSpec& clip) {
    return clip.alpha ? 2 * TableBytes(clip.frames) + 400 : TableBytes(clip.frames) + 344;
}

inline void PutParameters(ImageWriter& image, const ClipSpec& clip, bool alpha, bool asWritten) {
    image.Chunk(40, 0, alpha ? 1 : 0);
    for (const std::uint32_t value : {720, clip.is625 ? 576 : 486, 8, 4, 3, clip.is625 ? 25 : 30}) {
        image.Put16(value);
    }
    image.Put32(alpha ? clip.alphaSdti : clip.videoSdti);
    image.Put32(clip.frames);
    image.Put32((alpha ? 2u : 0u) | (clip.is625 ? 0u : 4u) | (alpha && asWritten && clip.interleaved ? 8u : 0u));
}

inline void PutTable(ImageWriter& image, const ClipSpec& clip, bool alpha) {
    const std::vector<std::uint32_t>& fields = clip.Fields(alpha);
    image.Chunk(TableBytes(clip.frames) + 16, 2, alpha ? 1 : 0);
    for (const std::uint32_t sectors : fields) {
        image.Put16(sectors / 3);
        image.Put16(sectors - sectors / 3);
    }
    image.bytes.resize(image.bytes.size() + TableBytes(clip.frames) - fields.size() * 4);
}

inline void PutField(ImageWriter& image, const ClipSpec& clip, std::uint32_t stream, std::uint32_t field) {
    image.Append(FieldBytes(clip.seed, stream, field, clip.Fields(stream != 0)[field]));
}

// The image as an application writes it (interleaved if the clip says so), or as it is read back.
inline Bytes BuildImage(const ClipSpec& clip, bool asWritten) {
    ImageWriter image;
    image.Append("RZV0", 4);
    image.Put32(16);
    image.Put32(clip.alpha ? 7 : 4);
    image.Put32(static_cast<std::uint32_t>(HeaderBytes(clip)));
    image.Chunk(272, 1, 0);
    for (std::uint32_t i = 0; i < 64; ++i) {
        image.Put32(static_cast<std::uint32_t>(clip.seed * (i + 1)));
    }
    PutParameters(image, clip, false, asWritten);
    if (clip.alpha) {
        PutParameters(image, clip, true, asWritten);
    }
    PutTable(image, clip, false);
    if (clip.alpha) {
        PutTable(image, clip, true);
    }
    const bool interleaved = asWritten && clip.interleaved;
    image.Chunk(Sum(clip.videoFields) * 512 + 16, 3, 0);
    for (std::uint32_t field = 0; field < 2 * clip.frames; ++field) {
        PutField(image, clip, 0, field);
        if (interleaved && field % 2 == 1) {
            PutField(image, clip, 1, field - 1);
            PutField(image, clip, 1, field);
        }
    }
    if (clip.alpha && !interleaved) {
        image.Chunk(Sum(clip.alphaFields) * 512 + 16, 3, 1);
        for (std::uint32_t field = 0; field < 2 * clip.frames; ++field) {
            PutField(image, clip, 1, field);
        }
    }
    return image.bytes;
}

// A machine with one volume "VOL" over all its disks and a folder "F" on it.
class MediaTest : public DriverTest {
  protected:
    static constexpr std::uint32_t kDiskBlocks = 32768;
    static constexpr std::uint32_t kLastLba = kDiskBlocks - 1;

    void StartVolume(std::uint32_t disks, const host::MachineOptions& options = {}) {
        MakeStation(disks, std::uint64_t{kDiskBlocks} * 512);
        ids_.clear();
        for (std::uint32_t position = 0; position < disks; ++position) {
            ids_.push_back(position < 7 ? position : position + 1);
            Put(ids_.back(), 0, MakeVolumeEntry(u"VOL", disks, position));
        }
        Start(options);
        Make(u"\\RZV\\VOL\\F", host::option::kDirectoryFile);
    }

    host::ScopedHandle OpenClip(const std::u16string& name, host::Disposition disposition = host::Disposition::kOpen,
                                const std::u16string& type = u"RZV") {
        return Hold(u"\\" + type + u"\\VOL\\F\\" + name,
                    kReadWrite | host::access::kReadAttributes | host::access::kDelete, disposition);
    }
    host::IoResult WriteAt(const host::ScopedHandle& handle, const Bytes& bytes, std::uint64_t from, std::uint64_t to) {
        return User().Write(handle.Get(), std::span(bytes).subspan(from, to - from), from);
    }
    // In pieces of at most `most` bytes, sizes at random.
    void WriteSplit(const host::ScopedHandle& handle, const Bytes& bytes, std::mt19937& random, std::size_t most,
                    std::uint64_t from = 0) {
        while (from < bytes.size()) {
            std::uint64_t to = std::min<std::uint64_t>(bytes.size(), from + 1 + random() % most);
            to = from == 0 ? std::max<std::uint64_t>(to, 16) : to;
            const host::IoResult result = WriteAt(handle, bytes, from, to);
            ASSERT_EQ(host::StatusName(result.status), "STATUS_SUCCESS") << "bytes " << from << " to " << to;
            ASSERT_EQ(result.information, to - from);
            from = to;
        }
    }
    void PutClip(const std::u16string& name, const ClipSpec& clip) {
        const host::ScopedHandle handle = OpenClip(name, host::Disposition::kCreate);
        const Bytes image = BuildImage(clip, true);
        const host::IoResult result = WriteAt(handle, image, 0, image.size());
        ASSERT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
        ASSERT_EQ(result.information, image.size());
    }
    Bytes ReadRange(const host::ScopedHandle& handle, std::uint64_t offset, std::size_t length) {
        Bytes bytes(length);
        const host::IoResult result = User().Read(handle.Get(), bytes, offset);
        EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS") << "at " << offset;
        bytes.resize(result.status.Ok() ? result.information : 0);
        return bytes;
    }
    void ExpectImage(const std::u16string& name, const ClipSpec& clip) {
        const host::ScopedHandle handle = OpenClip(name);
        const Bytes image = BuildImage(clip, false);
        EXPECT_TRUE(ReadRange(handle, 0, image.size() + 100) == image) << "image of seed " << clip.seed;
    }

    Bytes RawBlocks(std::uint32_t position, std::uint32_t lba, std::uint32_t count) {
        Bytes bytes(std::size_t{count} * 512);
        EXPECT_TRUE(Board().DiskAt(ids_.at(position))->Read(lba, count, bytes.data()));
        return bytes;
    }
    template <typename Record>
    Record RawRecord(std::uint32_t lba) {
        return Get<Record>(ids_[0], lba);
    }
    // The file's record as it lies on the disk.
    FileEntry RawFile(const std::u16string& name) {
        const DirEntry folder = Get<DirEntry>(0, kLastLba - 4607);
        for (const ULONG lba : folder.FileTable) {
            if (lba != 0) {
                const FileEntry entry = Get<FileEntry>(0, lba);
                if (name == std::u16string(entry.Name)) {
                    return entry;
                }
            }
        }
        ADD_FAILURE() << "no such file on the disk";
        return {};
    }
    // Every field where the rule puts it: on its disk in turn, behind the one before it on that disk.
    void ExpectFieldsOnDisk(const ClipSpec& clip, std::uint32_t stream, std::uint32_t startLba, std::uint32_t blocks) {
        std::vector<std::uint32_t> next(ids_.size(), startLba);
        const std::vector<std::uint32_t>& fields = clip.Fields(stream != 0);
        for (std::uint32_t field = 0; field < fields.size(); ++field) {
            std::uint32_t& lba = next[field % ids_.size()];
            ASSERT_LE(lba + fields[field], startLba + blocks);
            ASSERT_TRUE(RawBlocks(field % ids_.size(), lba, fields[field]) ==
                        FieldBytes(clip.seed, stream, field, fields[field]))
                << "stream " << stream << " field " << field << " at " << lba;
            lba += fields[field];
        }
        EXPECT_EQ(*std::max_element(next.begin(), next.end()), startLba + blocks) << "space taken";
    }

    std::vector<std::uint32_t> ids_;  // by position
};

}  // namespace tests
