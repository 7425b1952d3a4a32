#include <algorithm>

#include "core/card_instance.h"
#include "core/event_log.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"
#include "storage/hw_context.h"

// Transfers of the file system's own records: repeated within the card's limit, tested, and reported to the operator.

namespace {

constexpr const char* kRecordTypeNames[] = {"VolumeEntry", "DirEntry", "FileEntry", "BodyTable"};
constexpr ULONG kRecordBlocks[] = {kVolumeEntryBlocks, kDirEntryBlocks, kFileEntryBlocks, 1};
constexpr ULONG kDumpBytes = 40;  // of the record, with a checksum or verify event

struct RecordPlace {
    ULONG ScsiId;
    ULONG Lba;
    ULONG BlockCount;
    ULONG CardMemoryFlag;
    ULONG RecordType;

    [[nodiscard]] SIZE_T Bytes() const { return SIZE_T{BlockCount} * kBlockSize; }
};

// How the attempts at one record went.
struct Attempts {
    ULONG Limit;      // retries allowed after the first attempt
    ULONG Failed;     // attempts that failed so far
    bool BoardError;  // at least one of them at the board, not at the test of what was moved

    [[nodiscard]] bool GaveUp() const { return Failed > Limit; }
};

Attempts AttemptsOfCard(HwContext* Hw) {
    return {std::min<ULONG>(VrkFsGlobScsiPrefsOf(VrkFsCardOfHw(Hw)).MaxRetries, kMaxRetriesUsed), 0, false};
}

// FALSE once the card has logged its share; several threads may ask at once.
bool TakeEvent(HwContext* Hw) {
    for (LONG logged = Hw->ErrorsLogged; logged < static_cast<LONG>(kMaxErrorsLogged);) {
        const LONG seen = InterlockedCompareExchange(&Hw->ErrorsLogged, logged + 1, logged);
        if (seen == logged) {
            return true;
        }
        logged = seen;
    }
    return false;
}

struct PlaceTexts {
    CHAR ScsiId[kIntegerStringBytes];
    CHAR Lba[kIntegerStringBytes];
    CHAR Retries[kIntegerStringBytes];
};

PlaceTexts TextsOf(const RecordPlace& Place, const Attempts& Tries) {
    PlaceTexts texts;
    VrkFsRtlIntegerToString(Place.ScsiId, texts.ScsiId);
    VrkFsRtlIntegerToString(Place.Lba, texts.Lba);
    VrkFsRtlIntegerToString(Tries.Failed - 1, texts.Retries);
    return texts;
}

VOID LogBoardError(const RecordPlace& Place, const Attempts& Tries, const char* Direction) {
    const PlaceTexts texts = TextsOf(Place, Tries);
    VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, Tries.GaveUp() ? kVrkFsEventScsiFailed : kVrkFsEventScsiRecovered,
                      0, nullptr, 0, Direction, texts.ScsiId, texts.Lba, kRecordTypeNames[Place.RecordType],
                      texts.Retries, nullptr);
}

VOID LogBadContent(const RecordPlace& Place, const Attempts& Tries, ULONG EventId, const VOID* Dump) {
    const PlaceTexts texts = TextsOf(Place, Tries);
    VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, EventId, 0, Dump, kDumpBytes, texts.ScsiId, texts.Lba,
                      kRecordTypeNames[Place.RecordType], texts.Retries, nullptr);
}

VOID LogRead(HwContext* Hw, const RecordPlace& Place, const Attempts& Tries, const VOID* Buffer) {
    if (Tries.Failed == 0 || !TakeEvent(Hw)) {
        return;
    }
    if (Tries.BoardError) {
        LogBoardError(Place, Tries, "read");
        return;
    }
    LogBadContent(Place, Tries, Tries.GaveUp() ? kVrkFsEventChecksumFailed : kVrkFsEventChecksumRecovered, Buffer);
}

VOID LogWrite(HwContext* Hw, const RecordPlace& Place, const Attempts& Tries, const VOID* ReadBack) {
    if (Tries.Failed == 0 || !TakeEvent(Hw)) {
        return;
    }
    if (Tries.BoardError) {
        LogBoardError(Place, Tries, "write");
        return;
    }
    LogBadContent(Place, Tries, Tries.GaveUp() ? kVrkFsEventVerifyFailed : kVrkFsEventVerifyRecovered, ReadBack);
}

// A name for a record that could not be read: Prefix and the block it should have come from.
template <SIZE_T PrefixBytes>
VOID SetSubstituteName(PWCHAR Field, const CHAR (&Prefix)[PrefixBytes], ULONG Lba) {
    CHAR name[PrefixBytes + kIntegerStringBytes];
    RtlCopyMemory(name, Prefix, PrefixBytes);
    VrkFsRtlIntegerToString(Lba, name + PrefixBytes - 1);
    VrkFsRtlWidenText(name, Field, kRecordNameChars);
}

// Zeroes the buffer; folders and files get a record that shows them as what they are, so that the rest of the volume
// stays in reach.
VOID Substitute(const RecordPlace& Place, PVOID Buffer) {
    RtlZeroMemory(Buffer, Place.Bytes());
    if (Place.RecordType == kHwRecordDirEntry) {
        DirEntry* folder = static_cast<DirEntry*>(Buffer);
        folder->Magic = kDirEntryMagic;
        folder->InUse = 1;
        SetSubstituteName(folder->Name, "BAD_DIR_", Place.Lba);
    } else if (Place.RecordType == kHwRecordFileEntry) {
        FileEntry* file = static_cast<FileEntry*>(Buffer);
        file->Magic = kFileEntryMagic;
        SetSubstituteName(file->Name, "BAD_FILE_", Place.Lba);
    }
}

// Reads until the record passes its test or the attempts are used up.
VOID ReadAttempts(HwContext* Hw, const RecordPlace& Place, PVOID Buffer, BOOLEAN AllowEmpty, Attempts* Tries) {
    do {
        const NTSTATUS status =
            VrkFsHwSCSIRead(Hw, Place.ScsiId, Place.Lba, Place.BlockCount, Buffer, Place.CardMemoryFlag);
        if (NT_SUCCESS(status) && VrkFsHwVerifyChecksum(Buffer, Place.RecordType, AllowEmpty)) {
            return;
        }
        Tries->BoardError = Tries->BoardError || !NT_SUCCESS(status);
        ++Tries->Failed;
    } while (!Tries->GaveUp());
}

// Where a written record is read back to: the card's verify buffer, taken after the first write that succeeds and kept
// to the end of the call, or memory of its own for a long record.
struct ReadBack {
    ReadBack() = default;
    ~ReadBack() { VrkFsFreePool(Own); }
    ReadBack(const ReadBack&) = delete;
    ReadBack& operator=(const ReadBack&) = delete;

    PVOID Own = nullptr;
    PVOID Bytes = nullptr;
    EventLockGuard Lock;
};

bool IsWrittenRight(HwContext* Hw, const RecordPlace& Place, const VOID* Buffer, ReadBack* Back) {
    if (Back->Own == nullptr && !Back->Lock.IsHeld()) {
        Back->Lock.Acquire(&Hw->VerifyLock);
        Back->Bytes = Hw->VerifyBuffer;
    }
    RtlZeroMemory(Back->Bytes, kDumpBytes);  // a read that fails leaves nothing of somebody else's to be logged
    const NTSTATUS status =
        VrkFsHwSCSIRead(Hw, Place.ScsiId, Place.Lba, Place.BlockCount, Back->Bytes, Place.CardMemoryFlag);
    return status == STATUS_SUCCESS && RtlEqualMemory(Back->Bytes, Buffer, Place.Bytes());
}

NTSTATUS WriteAttempts(HwContext* Hw, const RecordPlace& Place, PVOID Buffer, Attempts* Tries, ReadBack* Back) {
    NTSTATUS status = STATUS_SUCCESS;
    do {
        status = VrkFsHwSCSIWrite(Hw, Place.ScsiId, Place.Lba, Place.BlockCount, Buffer, Place.CardMemoryFlag);
        if (!NT_SUCCESS(status)) {
            Tries->BoardError = true;
        } else if (IsWrittenRight(Hw, Place, Buffer, Back)) {
            return status;
        } else {
            status = STATUS_UNSUCCESSFUL;
        }
        ++Tries->Failed;
    } while (!Tries->GaveUp());
    return status;
}

}  // namespace

NTSTATUS VrkFsHwSCSIReadEx(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer, ULONG CardMemoryFlag,
                           ULONG RecordType, BOOLEAN AllowEmpty, PBOOLEAN Substituted) {
    if (Substituted != nullptr) {
        *Substituted = FALSE;
    }
    if (Buffer == nullptr) {
        return VrkFsHwSCSIRead(Hw, ScsiId, Lba, BlockCount, nullptr, CardMemoryFlag);
    }
    if (RecordType > kHwRecordBodyTable || BlockCount < kRecordBlocks[RecordType]) {
        return STATUS_INVALID_PARAMETER;
    }
    const RecordPlace place{ScsiId, Lba, BlockCount, CardMemoryFlag, RecordType};
    Attempts tries = AttemptsOfCard(Hw);
    ReadAttempts(Hw, place, Buffer, AllowEmpty, &tries);
    LogRead(Hw, place, tries, Buffer);
    if (tries.GaveUp()) {
        Substitute(place, Buffer);
        if (Substituted != nullptr) {
            *Substituted = TRUE;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwSCSIWriteEx(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer,
                            ULONG CardMemoryFlag, ULONG RecordType) {
    if (RecordType > kHwRecordBodyTable) {
        return STATUS_INVALID_PARAMETER;
    }
    const RecordPlace place{ScsiId, Lba, BlockCount, CardMemoryFlag, RecordType};
    const bool verify = VrkFsGlobScsiPrefsOf(VrkFsCardOfHw(Hw)).VerifyWrite != 0 && Buffer != nullptr &&
                        BlockCount != 0 && BlockCount <= kMaxTransferBlocks;
    ReadBack back;
    if (verify && BlockCount > kVerifyBlocks) {
        back.Own = VrkFsAllocatePool(PagedPool, place.Bytes());
        back.Bytes = back.Own;
    }
    if (!verify || (BlockCount > kVerifyBlocks && back.Own == nullptr)) {
        return VrkFsHwSCSIWrite(Hw, ScsiId, Lba, BlockCount, Buffer, CardMemoryFlag);
    }
    Attempts tries = AttemptsOfCard(Hw);
    const NTSTATUS status = WriteAttempts(Hw, place, Buffer, &tries, &back);
    LogWrite(Hw, place, tries, back.Bytes);
    return status;
}
