#include "media/frame_name.h"

#include <vrkfs/media.h>

#include <algorithm>

#include "core/global_data.h"
#include "core/strings.h"
#include "media/directory.h"
#include "volume/records.h"

namespace {

constexpr ULONG kMaxNumberDigits = 10;  // of a 33-bit frame number
constexpr ULONG kExtensionWithDotChars = kFileTypeExtensionChars + 1;
constexpr ULONG kFramesPerBodyTableBlock = VRKFS_SECTOR_SIZE / (VRKFS_FIELDS_PER_FRAME * sizeof(BodyTableNode));

// The digits that a number takes; none for 0.
ULONG CountDigits(ULONGLONG Number) {
    ULONG digits = 0;
    for (; Number != 0; Number /= 10) {
        ++digits;
    }
    return digits;
}

BOOLEAN EndsWithBuiltInExtension(const WCHAR* Name, ULONG Chars) {
    if (Chars < kExtensionWithDotChars) {
        return FALSE;
    }
    const WCHAR* tail = Name + Chars - kExtensionWithDotChars;
    if (tail[0] != VRKFS_W('.')) {
        return FALSE;
    }
    const FileType& builtIn = pVrkFsGlobalData->FileTypes[0];
    for (ULONG i = 0; i < kFileTypeExtensionChars; ++i) {
        if (RtlUpcaseUnicodeChar(tail[1 + i]) != RtlUpcaseUnicodeChar(builtIn.Extension[i])) {
            return FALSE;
        }
    }
    return TRUE;
}

BOOLEAN IsSdtiSmall(ULONG Type) {
    return Type >= 1 && Type <= 11;
}

BOOLEAN IsSdtiLarge(ULONG Type) {
    return Type == 12 || Type == 13;
}

}  // namespace

VOID VrkFsConstructFileFrameName(const WCHAR* BaseName, ULONG TypeIndex, ULONG FrameCount, ULONG FrameIndex,
                                 ULONG BaseFrameNumber, ULONG MinFrameDigits, FoundEntry* Found) {
    const FileType type = VrkFsGlobFileType(pVrkFsGlobalData, TypeIndex);
    const ULONGLONG base = BaseFrameNumber;
    ULONGLONG number = base + FrameIndex;
    // Without a minimum all frames of the file get the width of the last one.
    const ULONG digits =
        MinFrameDigits != 0 ? std::max(MinFrameDigits, CountDigits(number)) : CountDigits(base + FrameCount - 1);
    const BOOLEAN dot = type.Dot == VRKFS_FILE_TYPE_DOT;

    ULONG baseChars = VrkFsRtlBoundedLength(BaseName, kFrameNameMaxChars);
    if (EndsWithBuiltInExtension(BaseName, baseChars)) {
        baseChars -= kExtensionWithDotChars;
    }

    // A name that is too long loses the end of its base name, and leading zeros after that.
    const ULONGLONG wanted = ULONGLONG{baseChars} + digits + kExtensionWithDotChars + (dot ? 1 : 0) + 1;
    ULONG position = static_cast<ULONG>(std::min<ULONGLONG>(wanted, kFrameNameMaxChars)) - 1;
    Found->NameLength = position * sizeof(WCHAR);
    Found->Name[position] = 0;
    for (ULONG i = kFileTypeExtensionChars; i > 0; --i) {
        Found->Name[--position] = type.Extension[i - 1];
    }
    Found->Name[--position] = VRKFS_W('.');
    for (ULONG i = 0; i < digits && position > 0; ++i, number /= 10) {
        Found->Name[--position] = static_cast<WCHAR>(VRKFS_W('0') + number % 10);
    }
    if (dot && position > 0) {
        Found->Name[--position] = VRKFS_W('.');
    }
    RtlCopyMemory(Found->Name, BaseName, position * sizeof(WCHAR));
}

// A frame's name ends in its number and the extension, so the number is one of the values that the digits before the
// extension can be read as: the last one of them, the last two, and so on. Building the name decides.
BOOLEAN VrkFsFindFrameByName(const WCHAR* BaseName, ULONG TypeIndex, ULONG FrameCount, ULONG StartIndex,
                             ULONG BaseFrameNumber, ULONG MinFrameDigits, PCUNICODE_STRING UpcasedName,
                             PULONG FrameIndex, FoundEntry* Found) {
    const ULONG chars = UpcasedName->Length / sizeof(WCHAR);
    if (chars < kExtensionWithDotChars) {
        return FALSE;
    }
    const ULONG tail = chars - kExtensionWithDotChars;
    ULONGLONG number = 0;
    ULONGLONG weight = 1;
    ULONG best = FrameCount;
    for (ULONG digits = 0; digits <= kMaxNumberDigits; ++digits) {
        if (digits > 0) {
            const WCHAR digit = digits <= tail ? UpcasedName->Buffer[tail - digits] : WCHAR{0};
            if (digit < VRKFS_W('0') || digit > VRKFS_W('9')) {
                break;
            }
            number += weight * static_cast<ULONGLONG>(digit - VRKFS_W('0'));
            weight *= 10;
        }
        // Without digits the number is 0 as well.
        if (number < BaseFrameNumber || number - BaseFrameNumber < StartIndex || number - BaseFrameNumber >= best) {
            continue;
        }
        const ULONG index = static_cast<ULONG>(number - BaseFrameNumber);
        VrkFsConstructFileFrameName(BaseName, TypeIndex, FrameCount, index, BaseFrameNumber, MinFrameDigits, Found);
        if (VrkFsFoundEntryHasName(Found, UpcasedName)) {
            best = index;
        }
    }
    if (best == FrameCount) {
        return FALSE;
    }
    VrkFsConstructFileFrameName(BaseName, TypeIndex, FrameCount, best, BaseFrameNumber, MinFrameDigits, Found);
    *FrameIndex = best;
    return TRUE;
}

ULONGLONG VrkFsGetFrameFileSize(ULONG TypeIndex, const FileEntry* Entry) {
    const FileType type = VrkFsGlobFileType(pVrkFsGlobalData, TypeIndex);
    const ULONG video = Entry->VideoFormat;
    if ((Entry->Flags & kFileHasAlpha) == 0) {
        if ((Entry->Flags & kFileVideoFormatSet) != 0 && IsSdtiSmall(video)) {
            return type.FrameSizeSdti1;
        }
        if ((Entry->Flags & kFileVideoFormatSet) != 0 && IsSdtiLarge(video)) {
            return type.FrameSizeSdti12;
        }
        return type.FrameSize;
    }
    constexpr ULONG kBothSet = kFileVideoFormatSet | kFileAlphaFormatSet;
    if ((Entry->Flags & kBothSet) == kBothSet && video == Entry->AlphaFormat) {
        if (IsSdtiSmall(video)) {
            return type.FrameSizeSdti1WithAlpha;
        }
        if (IsSdtiLarge(video)) {
            return type.FrameSizeSdti12WithAlpha;
        }
    }
    return type.FrameSizeWithAlpha;
}

ULONG VrkFsGetFrameFileCount(const FileEntry* Entry) {
    const ULONGLONG room = ULONGLONG{Entry->VideoBodyTableBlockCount} * kFramesPerBodyTableBlock;
    return static_cast<ULONG>(std::min<ULONGLONG>({Entry->FrameCount, room, VRKFS_MEDIA_MAX_FRAMES}));
}

NTSTATUS VrkFsRZVVerifyVideoParameters(const VideoParameters* Parameters) {
    const bool isValid =
        VrkFsSdtiCodeIsValid(Parameters->SdtiType) && Parameters->AspectNumerator == VRKFS_VIDEO_ASPECT_NUMERATOR &&
        Parameters->AspectDenominator == VRKFS_VIDEO_ASPECT_DENOMINATOR &&
        Parameters->BitsPerComponent == VRKFS_VIDEO_BITS &&
        (Parameters->FrameRate == VRKFS_VIDEO_RATE_525 || Parameters->FrameRate == VRKFS_VIDEO_RATE_625) &&
        Parameters->Width == VRKFS_VIDEO_WIDTH &&
        (Parameters->Height == VRKFS_VIDEO_HEIGHT_525 || Parameters->Height == VRKFS_VIDEO_HEIGHT_625) &&
        (Parameters->Flags & VRKFS_PARAMETERS_RESERVED) == 0 &&
        (Parameters->FrameRate != VRKFS_VIDEO_RATE_525 || (Parameters->Flags & VRKFS_PARAMETERS_RATE_30) != 0);
    return isValid ? STATUS_SUCCESS : STATUS_FILE_INVALID;
}
