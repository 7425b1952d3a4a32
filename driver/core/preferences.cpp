#include "core/preferences.h"

#include "core/global_data.h"
#include "core/pool.h"
#include "core/registry.h"

namespace {

// "Parameters" for card 0, "Parameters" and the card digit for the others.
struct SubkeyName {
    WCHAR Text[12] = VRKFS_W("Parameters");
};

SubkeyName SubkeyOfCard(ULONG CardIndex) {
    SubkeyName name;
    if (CardIndex != 0) {
        name.Text[10] = static_cast<WCHAR>('0' + CardIndex);
    }
    return name;
}

// One card's values: where they lie, and reads and writes that never fail.
struct CardValues {
    PCWSTR Base;
    SubkeyName Subkey;
};

ULONG ReadULONG(const CardValues& Values, PCWSTR Name, ULONG Default) {
    ULONG value = Default;
    return NT_SUCCESS(VrkFsRtlRegReadULONG(Values.Base, Values.Subkey.Text, Name, &value)) ? value : Default;
}

VOID WriteULONG(const CardValues& Values, PCWSTR Name, ULONG Value) {
    static_cast<void>(VrkFsRtlRegWriteULONG(Values.Base, Values.Subkey.Text, Name, Value));
}

constexpr UCHAR DefaultDriveLetter(ULONG CardIndex) {
    return static_cast<UCHAR>(kDefaultDriveLetter + CardIndex);
}

UCHAR ReadDriveLetter(const CardValues& Values, ULONG CardIndex) {
    PWSTR text = nullptr;
    if (!NT_SUCCESS(VrkFsRtlRegReadStringW(Values.Base, Values.Subkey.Text, VRKFS_W("DriveLetter0"), &text))) {
        return DefaultDriveLetter(CardIndex);
    }
    const UCHAR letter = static_cast<UCHAR>(text[0]);
    VrkFsFreePool(text);
    return letter;
}

// The preset of a SCSI value stands for "missing", in the registry too.
ULONG ReadScsiValue(const CardValues& Values, PCWSTR Name, ULONG Default, PBOOLEAN DefaultUsed) {
    const ULONG value = ReadULONG(Values, Name, kScsiPrefMissing);
    if (value != kScsiPrefMissing) {
        return value;
    }
    *DefaultUsed = TRUE;
    return Default;
}

}  // namespace

VOID VrkFsGlobGetPreferences(GlobalData* Global, ULONG CardIndex, Preferences* Prefs) {
    const CardValues values{Global->RegistryPath.Buffer, SubkeyOfCard(CardIndex)};
    RtlZeroMemory(Prefs, sizeof(*Prefs));
    Prefs->MinFrameDigits = ReadULONG(values, VRKFS_W("MinFrameDigits"), kDefaultMinFrameDigits);
    Prefs->BaseFrameNumber = ReadULONG(values, VRKFS_W("BaseFrameNumber"), kDefaultBaseFrameNumber);
    Prefs->HCrop = ReadULONG(values, VRKFS_W("HCrop"), kDefaultHCrop);
    Prefs->VCrop = ReadULONG(values, VRKFS_W("VCrop"), kDefaultVCrop);
    Prefs->RAMFileMaxSize = ReadULONG(values, VRKFS_W("RAMFileMaxSize"), kDefaultRamFileMaxSize);
    Prefs->TotalRAMFiles = ReadULONG(values, VRKFS_W("TotalRAMFiles"), kDefaultTotalRamFiles);
    Prefs->DriveLetter = ReadDriveLetter(values, CardIndex);
    Prefs->ImportProcessingVideo = ReadULONG(values, VRKFS_W("ImportProcessingVideo"), kDefaultImportProcessing);
    Prefs->ImportProcessingAlpha = ReadULONG(values, VRKFS_W("ImportProcessingAlpha"), kDefaultImportProcessing);
}

VOID VrkFsGlobSetPreferences(GlobalData* Global, ULONG CardIndex, const Preferences* Prefs) {
    const CardValues values{Global->RegistryPath.Buffer, SubkeyOfCard(CardIndex)};
    WriteULONG(values, VRKFS_W("MinFrameDigits"), Prefs->MinFrameDigits);
    WriteULONG(values, VRKFS_W("BaseFrameNumber"), Prefs->BaseFrameNumber);
    WriteULONG(values, VRKFS_W("HCrop"), Prefs->HCrop);
    WriteULONG(values, VRKFS_W("VCrop"), Prefs->VCrop);
    WriteULONG(values, VRKFS_W("RAMFileMaxSize"), Prefs->RAMFileMaxSize);
    WriteULONG(values, VRKFS_W("TotalRAMFiles"), Prefs->TotalRAMFiles);
    const WCHAR letter[2] = {Prefs->DriveLetter, 0};
    static_cast<void>(VrkFsRtlRegWriteStringW(values.Base, values.Subkey.Text, VRKFS_W("DriveLetter0"), letter));
    WriteULONG(values, VRKFS_W("ImportProcessingVideo"), Prefs->ImportProcessingVideo);
    WriteULONG(values, VRKFS_W("ImportProcessingAlpha"), Prefs->ImportProcessingAlpha);
}

VOID VrkFsGlobGetScsiPrefs(GlobalData* Global, ULONG CardIndex, ScsiPrefs* Prefs) {
    const CardValues values{Global->RegistryPath.Buffer, SubkeyOfCard(CardIndex)};
    BOOLEAN defaultUsed = FALSE;
    Prefs->MaxRetries = ReadScsiValue(values, VRKFS_W("ScsiMaxRetries"), kDefaultScsiMaxRetries, &defaultUsed);
    Prefs->VerifyWrite = ReadScsiValue(values, VRKFS_W("ScsiVerifyWrite"), kDefaultScsiVerifyWrite, &defaultUsed);
    if (defaultUsed) {
        VrkFsGlobSetScsiPrefs(Global, CardIndex, Prefs);
    }
}

VOID VrkFsGlobSetScsiPrefs(GlobalData* Global, ULONG CardIndex, const ScsiPrefs* Prefs) {
    const CardValues values{Global->RegistryPath.Buffer, SubkeyOfCard(CardIndex)};
    WriteULONG(values, VRKFS_W("ScsiMaxRetries"), Prefs->MaxRetries);
    WriteULONG(values, VRKFS_W("ScsiVerifyWrite"), Prefs->VerifyWrite);
}

UCHAR VrkFsGlobUsableDriveLetter(UCHAR Letter, ULONG CardIndex) {
    if (Letter >= 'a' && Letter <= 'z') {
        return static_cast<UCHAR>(Letter - 'a' + 'A');
    }
    return Letter >= 'A' && Letter <= 'Z' ? Letter : DefaultDriveLetter(CardIndex);
}
