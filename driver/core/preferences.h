#pragma once

#include <vrkfs/control.h>
#include "nt.h"

struct GlobalData;

// A card's preferences, kept below the service key in "Parameters" (card 0) or "Parameters" and the card digit. The
// records are those that applications exchange; the preferences are packed, so fields are copied, never pointed to.
// Changed at run time by control requests without a lock: each field is read once where it is used.
using Preferences = VrkFsPreferences;
using ScsiPrefs = VrkFsScsiPrefs;

inline constexpr ULONG kDefaultMinFrameDigits = 4;
inline constexpr ULONG kDefaultBaseFrameNumber = 0;
inline constexpr ULONG kDefaultHCrop = 0;
inline constexpr ULONG kDefaultVCrop = 0;
inline constexpr ULONG kDefaultRamFileMaxSize = 2097152;  // bytes
inline constexpr ULONG kDefaultTotalRamFiles = 10;
inline constexpr UCHAR kDefaultDriveLetter = 'P';  // plus the card index
inline constexpr ULONG kDefaultImportProcessing = 0;
inline constexpr ULONG kDefaultScsiMaxRetries = 4;
inline constexpr ULONG kDefaultScsiVerifyWrite = 1;
inline constexpr ULONG kScsiPrefMissing = 0xFFFFFFFF;  // a stored value like this counts as missing

// Every value that is missing or cannot be read takes its default; nothing is written back.
VOID VrkFsGlobGetPreferences(GlobalData* Global, ULONG CardIndex, Preferences* Prefs);
// Writes every value but the reserved bytes; failures are ignored.
VOID VrkFsGlobSetPreferences(GlobalData* Global, ULONG CardIndex, const Preferences* Prefs);

// A missing value takes its default, and then both are written back so that the registry holds a complete set.
VOID VrkFsGlobGetScsiPrefs(GlobalData* Global, ULONG CardIndex, ScsiPrefs* Prefs);
VOID VrkFsGlobSetScsiPrefs(GlobalData* Global, ULONG CardIndex, const ScsiPrefs* Prefs);

// A preference can hold any byte. Only A to Z can stand in a link name: small letters count as capitals, and whatever
// else stands for the card's default letter.
[[nodiscard]] UCHAR VrkFsGlobUsableDriveLetter(UCHAR Letter, ULONG CardIndex);
