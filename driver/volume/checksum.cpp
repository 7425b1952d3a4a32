#include "storage/hw_context.h"
#include "volume/records.h"

// The checksum of a byte range is A + (B << 16) modulo 2^32, where A starts at 1 and adds every byte as a signed value,
// and B starts at 0 and adds A after every byte. A mount computes it over every record of the volume, so runs of 128
// bytes are summed eight at a time: within a run of n bytes, byte i adds its value to A and n - i times its value to B.

namespace {

struct RunningSums {
    ULONG A;
    ULONG B;
};

constexpr ULONG kWordsPerRun = 16;  // keeps the sums of running sums, at most 255 * 136, inside their 16-bit lanes
constexpr ULONG kRunBytes = kWordsPerRun * 8;
constexpr ULONGLONG kSignFlip = 0x8080808080808080;  // makes a signed byte an unsigned one, 128 higher
constexpr ULONGLONG kEvenBytes = 0x00FF00FF00FF00FF;
constexpr ULONG kBias = 128;

// The sum of the four lanes times the weights; weight i stands at lane 3 - i. No lane of the product may pass 16 bits.
constexpr ULONG WeighLanes(ULONGLONG Lanes, ULONGLONG Weights) {
    return static_cast<ULONG>(Lanes * Weights >> 48);
}

constexpr ULONG AddLanes(ULONGLONG Lanes) {
    const ULONGLONG pairs = (Lanes & 0x0000FFFF0000FFFF) + (Lanes >> 16 & 0x0000FFFF0000FFFF);
    return static_cast<ULONG>(pairs) + static_cast<ULONG>(pairs >> 32);
}

VOID AddRun(RunningSums* Sums, const UCHAR* Bytes) {
    ULONGLONG even = 0;  // sums of bytes 0, 2, 4, 6 of the words
    ULONGLONG odd = 0;   // of bytes 1, 3, 5, 7
    ULONGLONG evenRunning = 0;
    ULONGLONG oddRunning = 0;
    for (ULONG word = 0; word < kWordsPerRun; ++word) {
        ULONGLONG bytes;
        __builtin_memcpy(&bytes, Bytes + word * 8, sizeof(bytes));
        bytes ^= kSignFlip;
        even += bytes & kEvenBytes;
        odd += bytes >> 8 & kEvenBytes;
        evenRunning += even;
        oddRunning += odd;
    }
    // Byte p of a word that is followed by w words counts 8 * (w + 1) - p times in B.
    const ULONG sum = WeighLanes(even, 0x0001000100010001) + WeighLanes(odd, 0x0001000100010001);
    const ULONG offsets = WeighLanes(even, 0x0000000200040006) + WeighLanes(odd, 0x0001000300050007);
    const ULONG weighted = 8 * (AddLanes(evenRunning) + AddLanes(oddRunning)) - offsets;
    Sums->B += kRunBytes * Sums->A + weighted - kBias * (kRunBytes * (kRunBytes + 1) / 2);
    Sums->A += sum - kBias * kRunBytes;
}

constexpr ULONG SignedByte(UCHAR Byte) {
    return static_cast<ULONG>(static_cast<signed char>(Byte));
}

RunningSums SumBytes(const UCHAR* Bytes, ULONG Length) {
    RunningSums sums = {1, 0};
    ULONG done = 0;
    for (; Length - done >= kRunBytes; done += kRunBytes) {
        AddRun(&sums, Bytes + done);
    }
    for (; done < Length; ++done) {
        sums.A += SignedByte(Bytes[done]);
        sums.B += sums.A;
    }
    return sums;
}

ULONG Combine(const RunningSums& Sums) {
    return Sums.A + (Sums.B << 16);
}

// Of a record whose checksum field at FieldOffset counts as 0: what its bytes added is taken out again.
ULONG RecordChecksum(const VOID* Record, ULONG Length, ULONG FieldOffset) {
    const UCHAR* const bytes = static_cast<const UCHAR*>(Record);
    RunningSums sums = SumBytes(bytes, Length);
    for (ULONG i = FieldOffset; i < FieldOffset + sizeof(ULONG); ++i) {
        sums.A -= SignedByte(bytes[i]);
        sums.B -= (Length - i) * SignedByte(bytes[i]);
    }
    return Combine(sums);
}

}  // namespace

ULONG VrkFsHwCalcChecksum(const VOID* Bytes, ULONG Length) {
    return Combine(SumBytes(static_cast<const UCHAR*>(Bytes), Length));
}

ULONG VrkFsHwCalcVolumeChecksum(const VolumeEntry* Entry) {
    return RecordChecksum(Entry, sizeof(VolumeEntry), offsetof(VolumeEntry, Checksum));
}

ULONG VrkFsHwCalcFolderChecksum(const DirEntry* Entry) {
    return RecordChecksum(Entry, sizeof(DirEntry), offsetof(DirEntry, Checksum));
}

ULONG VrkFsHwCalcFileChecksum(const FileEntry* Entry) {
    return RecordChecksum(Entry, sizeof(FileEntry), offsetof(FileEntry, Checksum));
}

BOOLEAN VrkFsHwVerifyChecksum(const VOID* Record, ULONG RecordType, BOOLEAN AllowEmpty) {
    if (RecordType > kHwRecordFileEntry) {
        return FALSE;
    }
    if (AllowEmpty && *static_cast<const ULONG*>(Record) == 0) {
        return TRUE;
    }
    switch (RecordType) {
        case kHwRecordVolumeEntry: {
            const VolumeEntry* const entry = static_cast<const VolumeEntry*>(Record);
            return VrkFsHwCalcVolumeChecksum(entry) == entry->Checksum;
        }
        case kHwRecordDirEntry: {
            const DirEntry* const entry = static_cast<const DirEntry*>(Record);
            return VrkFsHwCalcFolderChecksum(entry) == entry->Checksum;
        }
        default: {
            const FileEntry* const entry = static_cast<const FileEntry*>(Record);
            return VrkFsHwCalcFileChecksum(entry) == entry->Checksum;
        }
    }
}
