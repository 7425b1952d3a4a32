// A look inside the driver that a machine runs: its first card, the card's volumes, and its routines called under the
// locks that a request holds.
#pragma once

#include <initializer_list>
#include <string_view>

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/file_types.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "fsd/vcb.h"
#include "nt/kernel.h"
#include "tests/support/machine_fixture.h"
#include "volume/allocator.h"
#include "volume/hw_volume.h"
#include "volume/records.h"

namespace tests {

inline constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;
inline constexpr ULONGLONG kRigTime = 0x01C0000000000000;

inline void SetName(WCHAR (&field)[kRecordNameChars], const std::u16string& name) {
    std::memset(field, 0, sizeof(field));
    std::memcpy(field, name.data(), std::min<std::size_t>(name.size(), kRecordNameChars) * sizeof(WCHAR));
}

inline VolumeEntry MakeVolumeEntry(const std::u16string& name, ULONG count, ULONG position, ULONGLONG time = kRigTime) {
    VolumeEntry entry{};
    entry.Magic = kVolumeEntryMagic;
    entry.Version = kVolumeEntryVersion;
    entry.CreationTime = time;
    entry.DeviceCount = count;
    entry.Position = position;
    SetName(entry.Name, name);
    entry.Checksum = VrkFsHwCalcVolumeChecksum(&entry);
    return entry;
}

// A counted string over text that outlives it.
inline UNICODE_STRING CountedName(std::u16string_view text) {
    UNICODE_STRING string;
    string.Buffer = const_cast<PWSTR>(text.data());
    string.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    string.MaximumLength = string.Length;
    return string;
}

class DriverTest : public MachineTest {
  protected:
    static CardInstance* Card() { return CONTAINING_RECORD(pVrkFsGlobalData->CardInstances.Flink, CardInstance, Link); }
    static HwContext* Hw() { return &Card()->Hw; }
    static VCB* Vcb() { return &VrkFsDiskExtOfDevice(Card()->DiskDevice)->Vcb; }
    static std::vector<HwVolume*> Volumes() {
        std::vector<HwVolume*> volumes;
        for (PLIST_ENTRY link = Hw()->Volumes.Flink; link != &Hw()->Volumes; link = link->Flink) {
            volumes.push_back(CONTAINING_RECORD(link, HwVolume, Link));
        }
        return volumes;
    }
    static HwVolume* Volume(std::size_t index = 0) { return Volumes().at(index); }
    static ULONGLONG FreeBlocks() { return VrkFsVolAllocGetFreeBlocks(&Volume()->Allocator); }

    // Runs the routine as the driver's code under the lock that a create or a set request holds.
    template <typename Routine>
    static auto Locked(Routine routine) {
        nt::DriverScope scope(pVrkFsGlobalData->DriverObject);
        CriticalRegionGuard region;
        ResourceGuard volume;
        volume.Exclusive(&Vcb()->Resource);
        return routine();
    }
    // One more type folder over the same disks; mode 2 shows files as folders of frames.
    static void AddType(const char16_t* extension, ULONG accessMode = 0, ULONG frameSize = 0,
                        ULONG frameSizeSdti1 = 0) {
        nt::DriverScope scope(pVrkFsGlobalData->DriverObject);
        FileType row{};
        row.TypeCode = 7;
        row.AccessMode = accessMode;
        row.FrameSize = frameSize;
        row.FrameSizeSdti1 = frameSizeSdti1;
        std::memcpy(row.Extension, extension, sizeof(row.Extension));
        ASSERT_EQ(VrkFsGlobAddFileType(pVrkFsGlobalData, &row), STATUS_SUCCESS);
    }

    host::ScopedHandle Hold(const std::u16string& path, std::uint32_t access = host::access::kReadData,
                            host::Disposition disposition = host::Disposition::kOpen, std::uint32_t options = 0) {
        const host::OpenResult opened = Open(path, disposition, access, options);
        EXPECT_EQ(host::StatusName(opened.status), "STATUS_SUCCESS") << std::string(path.begin(), path.end());
        return {User(), opened.handle};
    }
    void Make(const std::u16string& path, std::uint32_t options = 0) {
        Hold(path, kReadWrite, host::Disposition::kCreate, options).Reset();
    }
    // In the order of the listing.
    std::vector<std::u16string> List(const std::u16string& path) {
        std::vector<host::DirectoryEntry> entries;
        EXPECT_TRUE(host::ListDirectory(User(), Hold(path).Get(), entries).Ok());
        std::vector<std::u16string> names;
        for (const host::DirectoryEntry& entry : entries) {
            names.push_back(entry.name);
        }
        return names;
    }
    std::filesystem::path ImagePath(std::uint32_t id) const {
        return StationPath() / "card0" / ("scsi" + std::to_string(id) + ".img");
    }
    // A disk's image, and a record on it: from outside, as other hands would read and write it.
    board::Disk OpenImage(std::uint32_t id) {
        std::string error;
        std::optional<board::Disk> disk = board::Disk::Open(ImagePath(id).string(), {}, error);
        EXPECT_TRUE(disk) << error;
        return std::move(*disk);
    }
    template <typename Record>
    void Put(std::uint32_t id, ULONG lba, const Record& record) {
        ASSERT_TRUE(OpenImage(id).Write(lba, sizeof(Record) / 512, &record));
    }
    template <typename Record>
    Record Get(std::uint32_t id, ULONG lba) {
        Record record{};
        EXPECT_TRUE(OpenImage(id).Read(lba, sizeof(Record) / 512, &record));
        return record;
    }
};

}  // namespace tests
