// Disks written from outside, record by record, and the volumes that the driver makes of them. Test code calls the
// entry operations as the driver itself does, with a folder's control block built by hand.
#pragma once

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/directory.h"
#include "storage/hw_context.h"
#include "tests/support/driver_fixture.h"
#include "volume/entries.h"
#include "volume/records.h"

namespace tests {

inline constexpr ULONG kRigBlocks = 16384;
inline constexpr ULONG kRigLastLba = kRigBlocks - 1;
inline constexpr ULONG kRigFirstDir = kRigLastLba - 4607;
inline constexpr ULONG kRigLastData = kRigFirstDir - 1;
inline constexpr ULONG kRigDataBlocks = kRigLastLba - 5631;

inline std::u16string NameOf(const WCHAR* field) {
    std::size_t length = 0;
    while (length < kRecordNameChars && field[length] != 0) {
        ++length;
    }
    return {field, length};
}

inline DirEntry MakeFolder(const std::u16string& name, const std::map<ULONG, ULONG>& table = {}) {
    DirEntry entry{};
    entry.Magic = kDirEntryMagic;
    entry.CreationTime = kRigTime;
    entry.InUse = 1;
    SetName(entry.Name, name);
    for (const auto& [slot, lba] : table) {
        entry.FileTable[slot] = lba;
    }
    VrkFsHwRecountFiles(&entry);
    entry.Checksum = VrkFsHwCalcFolderChecksum(&entry);
    return entry;
}

inline FileEntry MakePlainFile(const std::u16string& name, ULONG start = 0, ULONG count = 0) {
    FileEntry entry{};
    entry.Magic = kFileEntryMagic;
    entry.CreationTime = kRigTime;
    entry.DataStartLba = start;
    entry.DataBlockCount = count;
    entry.FileSize = std::uint64_t{count} * 512;
    SetName(entry.Name, name);
    entry.Checksum = VrkFsHwCalcFileChecksum(&entry);
    return entry;
}

inline FileEntry MakeMedia(const std::u16string& name, ULONG frames, ULONG data, ULONG blocks, ULONG table,
                           ULONG tableBlocks) {
    FileEntry entry = MakePlainFile(name, data, blocks);
    entry.Kind = kFileKindMedia;
    entry.FrameCount = frames;
    entry.VideoBodyTableLba = table;
    entry.VideoBodyTableBlockCount = tableBlocks;
    entry.Checksum = VrkFsHwCalcFileChecksum(&entry);
    return entry;
}

class VolumeTest : public DriverTest {
  protected:
    // Blank disks, and a volume "V" on the first.
    void SetUp() override {
        MakeStation(5, std::uint64_t{kRigBlocks} * 512);
        Put(0, 0, MakeVolumeEntry(u"V", 1, 0));
    }

    // A folder as the request frame keeps it while it is open.
    struct OpenedFolder {
        OpenedFolder() {
            fcb.Common = &common;
            common.FolderEntry = &image;
            common.Level = kLevelFolder;
        }
        explicit OpenedFolder(ULONG slot) : OpenedFolder() { OpenFolder(*this, slot); }
        OpenedFolder(const OpenedFolder&) = delete;
        OpenedFolder& operator=(const OpenedFolder&) = delete;

        FCB fcb{};
        FCBCommon common{};
        DirEntry image{};
    };

    // ---- disks, from outside, while the machine is off ----

    void PutFolder(std::uint32_t id, ULONG slot, const DirEntry& folder) { Put(id, FolderLba(slot), folder); }
    void ResizeDisk(std::uint32_t id, ULONG blocks) {
        std::filesystem::resize_file(ImagePath(id), std::uint64_t{blocks} * 512);
    }
    static ULONG FolderLba(ULONG slot) { return kRigFirstDir + 18 * slot; }

    // ---- the running driver ----

    // With one attempt for each record, so that an ordered failure is a failure.
    void Start() {
        DriverTest::Start();
        if (machine_) {
            Card()->ScsiPrefs = {};
        }
    }
    void Restart() {
        Stop();
        Start();
    }

    // "NEWS(1) OLD(5,-)!incomplete": every volume with its devices and what hides it.
    static std::string DescribeVolumes() {
        std::string text;
        for (const HwVolume* volume : Volumes()) {
            const std::u16string name = NameOf(volume->Name);
            text += (text.empty() ? "" : " ") + std::string(name.begin(), name.end()) + "(";
            for (ULONG i = 0; i < volume->DeviceCount; ++i) {
                text += i == 0 ? "" : ",";
                text += volume->Devices[i] == kNoDevice ? "-" : std::to_string(volume->Devices[i]);
            }
            text += ")";
            text += (volume->Flags & kVolumeIncomplete) != 0 ? "!incomplete" : "";
            text += (volume->Flags & kVolumeNameConflict) != 0 ? "!conflict" : "";
        }
        return text;
    }

    static void OpenFolder(OpenedFolder& folder, ULONG slot) {
        folder.common.VolumeHandle = Volume();
        folder.common.FolderEntryIndex = slot;
        BOOLEAN substituted = FALSE;
        EXPECT_EQ(Locked([&] {
                      return VrkFsHwReadDirEntry(Hw(), folder.common.VolumeHandle, slot, &folder.image, &substituted);
                  }),
                  STATUS_SUCCESS);
        if (substituted) {
            folder.common.Flags |= kFcbCommonSubstitute;
        }
    }
    static NTSTATUS CreateFolder(const std::u16string& name, OpenedFolder& folder) {
        folder.common.VolumeHandle = Volume();
        const UNICODE_STRING counted = CountedName(name);
        return Locked([&] {
            return VrkFsHwCreateDirEntry(Hw(), Vcb(), folder.common.VolumeHandle, &counted, &folder.image,
                                         &folder.common.FolderEntryIndex);
        });
    }
    static NTSTATUS RenameFolder(DirEntry& image, ULONG slot, std::u16string_view to) {
        const UNICODE_STRING name = CountedName(to);
        return Locked([&] { return VrkFsHwRenameFolder(Hw(), Vcb(), Volume(), &image, slot, &name); });
    }
    static NTSTATUS RemoveFolder(DirEntry& image, ULONG slot) {
        return Locked([&] { return VrkFsHwInvalidateDirEntry(Hw(), Vcb(), Volume(), &image, slot); });
    }
    static NTSTATUS CreateFile(OpenedFolder& folder, const std::u16string& name, FileEntry& image, ULONG& slot) {
        const UNICODE_STRING counted = CountedName(name);
        return Locked([&] { return VrkFsHwCreateFileEntry(Hw(), Vcb(), &folder.fcb, &counted, &image, &slot); });
    }
    static NTSTATUS RemoveFile(OpenedFolder& folder, const FileEntry& image, ULONG slot) {
        return Locked([&] { return VrkFsHwRemoveFileEntry(Hw(), Vcb(), &folder.fcb, &image, slot); });
    }
    static NTSTATUS WriteFile(OpenedFolder& folder, FileEntry& image, ULONG slot, ULONG lba) {
        return Locked([&] { return VrkFsHwWriteFileEntry(Hw(), &folder.fcb, &image, slot, lba); });
    }
    static FileEntry ReadFile(OpenedFolder& folder, ULONG slot, BOOLEAN* substituted = nullptr) {
        FileEntry image{};
        EXPECT_EQ(Locked([&] { return VrkFsHwReadFileEntry(Hw(), &folder.fcb, slot, &image, substituted); }),
                  STATUS_SUCCESS);
        return image;
    }
    // "0:A 3:BAD_DIR_11830": slot and name of every folder of a volume, as a walk gives them.
    static std::string ListFolders(HwVolume* volume = nullptr) {
        return Listed([&](ULONG* slot, FoundEntry* entry, BOOLEAN* found) {
            return VrkFsHwGetNextDirEntry(Hw(), volume != nullptr ? volume : Volume(), slot, entry, found);
        });
    }
    static std::string ListFiles(OpenedFolder& folder) {
        return Listed([&](ULONG* slot, FoundEntry* entry, BOOLEAN* found) {
            return VrkFsHwGetNextFileEntry(Hw(), &folder.fcb, slot, entry, found);
        });
    }

    // What the free count must be when exactly these blocks are taken.
    static ULONGLONG FreeWithout(ULONG taken) { return kRigDataBlocks - taken; }
    static bool IsFree(ULONG lba) {
        return !VrkFsVolAllocIsOwnedSpace(&Volume()->Allocator, lba, 1) && Locked([&] {
            const NTSTATUS status = VrkFsVolAllocAllocateSpecificAnySpace(&Volume()->Allocator, lba, 1);
            return NT_SUCCESS(status) && NT_SUCCESS(VrkFsVolAllocReleaseSpace(&Volume()->Allocator, lba, 1));
        });
    }
    void FailReads(ULONG firstLba, ULONG lastLba) {
        Board().Misbehave().Add({.operation = board::Operation::kRead, .firstLba = firstLba, .lastLba = lastLba});
    }

  private:
    template <typename Next>
    static std::string Listed(Next next) {
        std::string text;
        FoundEntry entry;
        for (ULONG slot = 0;; ++slot) {
            BOOLEAN found = FALSE;
            EXPECT_EQ(Locked([&] { return next(&slot, &entry, &found); }), STATUS_SUCCESS);
            if (!found) {
                return text;
            }
            const std::u16string name(entry.Name, entry.NameLength / sizeof(WCHAR));
            text += (text.empty() ? "" : " ") + std::to_string(entry.Index) + ":";
            text.append(name.begin(), name.end());
        }
    }
};

}  // namespace tests
