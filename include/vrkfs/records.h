/*
 * Records that the driver keeps in memory in exactly the form in which control codes carry them. All integers are
 * little-endian.
 */
#ifndef VRKFS_RECORDS_H
#define VRKFS_RECORDS_H

#include <vrkfs/layout.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- A volume ------------------------------------------------------------------------------------------------ */

#define VRKFS_VOLUME_NAME_CHARS 256u    /* a name of so many has no terminating zero */
#define VRKFS_VOLUME_MAX_DEVICES 16u    /* positions of a volume */
#define VRKFS_NO_DEVICE 0xFFFFFFFFu     /* a position without a device */
#define VRKFS_VOLUME_INCOMPLETE 0x1u    /* a member device is missing: hidden, and no space is reported */
#define VRKFS_VOLUME_NAME_CONFLICT 0x2u /* another volume of the card has the name: hidden */
#define VRKFS_VOLUME_HIDDEN (VRKFS_VOLUME_INCOMPLETE | VRKFS_VOLUME_NAME_CONFLICT)

typedef struct VrkFsVolumeInfoRecord {
    VrkFsChar Name[VRKFS_VOLUME_NAME_CHARS];    /* zero-terminated if shorter than the field */
    uint32_t DeviceCount;                       /* disks of the volume */
    uint32_t Devices[VRKFS_VOLUME_MAX_DEVICES]; /* SCSI IDs by position, VRKFS_NO_DEVICE where there is none */
    uint32_t Flags;                             /* VRKFS_VOLUME_...; ignored in a format request */
} VrkFsVolumeInfoRecord;

VRKFS_ASSERT_SIZE(VrkFsVolumeInfoRecord, 584);
VRKFS_ASSERT_OFFSET(VrkFsVolumeInfoRecord, DeviceCount, 512);
VRKFS_ASSERT_OFFSET(VrkFsVolumeInfoRecord, Devices, 516);
VRKFS_ASSERT_OFFSET(VrkFsVolumeInfoRecord, Flags, 580);

/* ---- A card's preferences ------------------------------------------------------------------------------------ */

#pragma pack(push, 1)
typedef struct VrkFsPreferences {
    uint32_t MinFrameDigits;        /* digits of a frame number, padded with zeros */
    uint32_t BaseFrameNumber;       /* number of a clip's first frame */
    uint32_t HCrop;                 /* for the service only */
    uint32_t VCrop;                 /* for the service only */
    uint32_t RAMFileMaxSize;        /* bytes */
    uint32_t TotalRAMFiles;         /* RAM files per volume */
    uint8_t DriveLetter;            /* one ASCII character */
    uint8_t Reserved[8];            /* kept and returned, never interpreted */
    uint32_t ImportProcessingVideo; /* for the service only */
    uint32_t ImportProcessingAlpha; /* for the service only */
} VrkFsPreferences;
#pragma pack(pop)

VRKFS_ASSERT_SIZE(VrkFsPreferences, 41);
VRKFS_ASSERT_OFFSET(VrkFsPreferences, DriveLetter, 24);
VRKFS_ASSERT_OFFSET(VrkFsPreferences, Reserved, 25);
VRKFS_ASSERT_OFFSET(VrkFsPreferences, ImportProcessingVideo, 33);
VRKFS_ASSERT_OFFSET(VrkFsPreferences, ImportProcessingAlpha, 37);

typedef struct VrkFsScsiPrefs {
    uint32_t MaxRetries;  /* repeats of a failed transfer, 0 for none */
    uint32_t VerifyWrite; /* not 0: records are read back after they are written */
} VrkFsScsiPrefs;

VRKFS_ASSERT_SIZE(VrkFsScsiPrefs, 8);
VRKFS_ASSERT_OFFSET(VrkFsScsiPrefs, VerifyWrite, 4);

/* ---- A file type --------------------------------------------------------------------------------------------- */

#define VRKFS_FILE_TYPE_BUILT_IN 0u          /* TypeCode of the media type that the driver itself serves */
#define VRKFS_FILE_TYPE_CREATE_AND_DELETE 0u /* AccessMode: files may be created and deleted through their type */
#define VRKFS_FILE_TYPE_FRAME_FOLDERS 2u     /* AccessMode: a file is a folder of its frames */
#define VRKFS_FILE_TYPE_EXTENSION_CHARS 3u
#define VRKFS_FILE_TYPE_DOT 1u /* Dot: a "." stands between base name and frame number */

typedef struct VrkFsFileType {
    uint32_t TypeCode;   /* handed to the service with each request for a file of the type */
    uint32_t AccessMode; /* VRKFS_FILE_TYPE_CREATE_AND_DELETE, VRKFS_FILE_TYPE_FRAME_FOLDERS or another value */
    VrkFsChar Extension[VRKFS_FILE_TYPE_EXTENSION_CHARS]; /* also the name of the type's folder; no terminator */
    uint16_t Unused;
    /* Sizes in bytes of a frame file, by SDTI type: none or 14 and up, 1 to 11, 12 and 13. */
    uint32_t FrameSize;                /* no SDTI type, video alone */
    uint32_t FrameSizeWithAlpha;       /* with alpha, no SDTI type common to both streams */
    uint32_t Dot;                      /* VRKFS_FILE_TYPE_DOT or another value */
    uint32_t FrameSizeSdti1;           /* video type 1 to 11, video alone */
    uint32_t FrameSizeSdti1WithAlpha;  /* common type 1 to 11 */
    uint32_t FrameSizeSdti12;          /* video type 12 or 13, video alone */
    uint32_t FrameSizeSdti12WithAlpha; /* common type 12 or 13 */
} VrkFsFileType;

VRKFS_ASSERT_SIZE(VrkFsFileType, 44);
VRKFS_ASSERT_OFFSET(VrkFsFileType, AccessMode, 4);
VRKFS_ASSERT_OFFSET(VrkFsFileType, Extension, 8);
VRKFS_ASSERT_OFFSET(VrkFsFileType, FrameSize, 16);
VRKFS_ASSERT_OFFSET(VrkFsFileType, FrameSizeWithAlpha, 20);
VRKFS_ASSERT_OFFSET(VrkFsFileType, Dot, 24);
VRKFS_ASSERT_OFFSET(VrkFsFileType, FrameSizeSdti1, 28);
VRKFS_ASSERT_OFFSET(VrkFsFileType, FrameSizeSdti1WithAlpha, 32);
VRKFS_ASSERT_OFFSET(VrkFsFileType, FrameSizeSdti12, 36);
VRKFS_ASSERT_OFFSET(VrkFsFileType, FrameSizeSdti12WithAlpha, 40);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VRKFS_RECORDS_H */
