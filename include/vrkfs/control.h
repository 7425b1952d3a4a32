/*
 * The private control codes of a card's control device (\\.\VrkFsDevice0 to \\.\VrkFsDevice9) and their buffers.
 *
 * A buffered code finds its input and leaves its output in one buffer; a direct code has its input in the system buffer
 * and its output in the caller's locked buffer. A shorter buffer than the record's fails with STATUS_BUFFER_TOO_SMALL
 * and changes nothing. A Handle is a handle of the calling process, opened on the same card's drive. Fields named
 * Scratch belong to the driver while the request runs. All integers are little-endian; block numbers count 512-byte
 * blocks and mean the block at that number on every disk of the volume.
 */
#ifndef VRKFS_CONTROL_H
#define VRKFS_CONTROL_H

#include <vrkfs/layout.h>
#include <vrkfs/records.h>
#include <vrkfs/results.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Codes --------------------------------------------------------------------------------------------------- */

#define VRKFS_METHOD_BUFFERED 0u
#define VRKFS_METHOD_OUT_DIRECT 2u
#define VRKFS_DEVICE_TYPE 0x22u
#define VRKFS_CTL_CODE(Function, Method) ((VRKFS_DEVICE_TYPE << 16) | ((Function) << 2) | (Method))

#define IOCTL_VRKFS_DISMOUNT_VOLUME VRKFS_CTL_CODE(0x800u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_FORMAT_VOLUME VRKFS_CTL_CODE(0x801u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_QUERY_VOLUME_INFO VRKFS_CTL_CODE(0x802u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE VRKFS_CTL_CODE(0x803u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_UPDATE_VIDEO_FILE VRKFS_CTL_CODE(0x804u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_GET_FILE_INFO VRKFS_CTL_CODE(0x805u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_REGISTER_FILE_TYPES VRKFS_CTL_CODE(0x806u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_UNREGISTER_FILE_TYPES VRKFS_CTL_CODE(0x807u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_SEND_SERVICE_REQUEST VRKFS_CTL_CODE(0x808u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_SEND_SERVICE_RESPONSE VRKFS_CTL_CODE(0x809u, VRKFS_METHOD_OUT_DIRECT)
#define IOCTL_VRKFS_GET_PREFERENCES VRKFS_CTL_CODE(0x80Au, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_SET_PREFERENCES VRKFS_CTL_CODE(0x80Bu, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_GET_FILE_ENTRY VRKFS_CTL_CODE(0x80Cu, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO VRKFS_CTL_CODE(0x80Du, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_GET_VOLUME_SPACE_INFO VRKFS_CTL_CODE(0x80Eu, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_REFERENCE_BODY_TABLE VRKFS_CTL_CODE(0x80Fu, VRKFS_METHOD_OUT_DIRECT)
#define IOCTL_VRKFS_DEREFERENCE_BODY_TABLE VRKFS_CTL_CODE(0x810u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_CREATE_NEW_BODY_TABLE VRKFS_CTL_CODE(0x811u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE VRKFS_CTL_CODE(0x812u, VRKFS_METHOD_OUT_DIRECT)
#define IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE VRKFS_CTL_CODE(0x813u, VRKFS_METHOD_OUT_DIRECT)
#define IOCTL_VRKFS_GET_FILE_LOCATION_INFO VRKFS_CTL_CODE(0x814u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_MOVE_FILE_SEGMENTS VRKFS_CTL_CODE(0x815u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND VRKFS_CTL_CODE(0x816u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_RESUME VRKFS_CTL_CODE(0x817u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_GET_SCSI_PREFS VRKFS_CTL_CODE(0x818u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_SET_SCSI_PREFS VRKFS_CTL_CODE(0x819u, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_SET_SDTI_TYPE VRKFS_CTL_CODE(0x81Au, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_REGISTER_SDTI_FLAGS VRKFS_CTL_CODE(0x81Bu, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_LOCK_FILE_SYSTEM VRKFS_CTL_CODE(0x81Cu, VRKFS_METHOD_BUFFERED)
#define IOCTL_VRKFS_UNLOCK_FILE_SYSTEM VRKFS_CTL_CODE(0x81Du, VRKFS_METHOD_BUFFERED)

#define VRKFS_CONTROL_CODE_COUNT 30u

VRKFS_STATIC_ASSERT(IOCTL_VRKFS_DISMOUNT_VOLUME == 0x00222000u, "first code");
VRKFS_STATIC_ASSERT(IOCTL_VRKFS_REFERENCE_BODY_TABLE == 0x0022203Eu, "a direct code");
VRKFS_STATIC_ASSERT(IOCTL_VRKFS_UNLOCK_FILE_SYSTEM == 0x00222074u, "last code");

/* ---- Volumes: DISMOUNT, FORMAT, QUERY_VOLUME_INFO, GET_VOLUME_SPACE_INFO, LOCK ------------------------------- */

/* IOCTL_VRKFS_DISMOUNT_VOLUME, input. */
typedef struct VrkFsDismountRequest {
    uint8_t Force;
    uint8_t Ignored[3];
} VrkFsDismountRequest;

VRKFS_ASSERT_SIZE(VrkFsDismountRequest, 4);

/* IOCTL_VRKFS_FORMAT_VOLUME: a VrkFsVolumeInfoRecord in, an int32_t VRKFS_FORMAT_... result out. */

/* IOCTL_VRKFS_QUERY_VOLUME_INFO, output: as many records as fit. Input: 4 bytes, ignored. */
typedef struct VrkFsVolumeList {
    uint32_t Count; /* all volumes of the card, also those whose records did not fit */
    VrkFsVolumeInfoRecord Volumes[1];
} VrkFsVolumeList;

VRKFS_ASSERT_SIZE(VrkFsVolumeList, 588);
VRKFS_ASSERT_OFFSET(VrkFsVolumeList, Volumes, 4);

/* IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, in and out. */
#pragma pack(push, 4)
typedef struct VrkFsVolumeSpaceInfo {
    uint32_t Handle;              /* in: of a folder or file on the volume */
    uint32_t VideoBlocksPerFrame; /* in: blocks of one disk, that is of one field; 0 asks for the counts alone */
    uint32_t AlphaBlocksPerFrame; /* in: likewise; 0 without alpha */
    uint32_t FrameEstimate;       /* out: frames that can be recorded in one piece */
    uint64_t FreeBlocks;          /* out: over all disks */
    uint64_t TotalBlocks;         /* out: over all disks */
    uint32_t LastBlock;           /* out: last block of the data area, on every disk */
} VrkFsVolumeSpaceInfo;
#pragma pack(pop)

VRKFS_ASSERT_SIZE(VrkFsVolumeSpaceInfo, 36);
VRKFS_ASSERT_OFFSET(VrkFsVolumeSpaceInfo, FrameEstimate, 12);
VRKFS_ASSERT_OFFSET(VrkFsVolumeSpaceInfo, FreeBlocks, 16);
VRKFS_ASSERT_OFFSET(VrkFsVolumeSpaceInfo, TotalBlocks, 24);
VRKFS_ASSERT_OFFSET(VrkFsVolumeSpaceInfo, LastBlock, 32);

/* IOCTL_VRKFS_LOCK_FILE_SYSTEM, input. */
typedef struct VrkFsLockRequest {
    uint32_t Drop; /* not 0: the volumes leave memory until the owner unlocks */
} VrkFsLockRequest;

VRKFS_ASSERT_SIZE(VrkFsLockRequest, 4);

/* ---- Settings of a card and of the service: SET_/GET_PREFERENCES, SCSI_PREFS, REGISTER_... ------------------- */

/* IOCTL_VRKFS_REGISTER_FILE_TYPES, input: Count rows. One row has to fit even when Count is 0. */
typedef struct VrkFsFileTypeList {
    uint32_t Count;
    VrkFsFileType Rows[1];
} VrkFsFileTypeList;

VRKFS_ASSERT_SIZE(VrkFsFileTypeList, 48);
VRKFS_ASSERT_OFFSET(VrkFsFileTypeList, Rows, 4);

/* IOCTL_VRKFS_REGISTER_SDTI_FLAGS, input. */
typedef struct VrkFsSdtiFlagsRequest {
    uint32_t SdtiFlags; /* told to every opener of a command port */
} VrkFsSdtiFlagsRequest;

VRKFS_ASSERT_SIZE(VrkFsSdtiFlagsRequest, 4);

/* ---- Media files --------------------------------------------------------------------------------------------- */

/* VrkFsVideoSpace.Flags */
#define VRKFS_SPACE_ALPHA 0x1u        /* the alpha stream, else the video stream */
#define VRKFS_SPACE_SDTI_ALLOWED 0x2u /* the stream's SDTI type may be set */
#define VRKFS_SPACE_625 0x4u          /* 625 lines, else 525 */

/* IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, in and out. */
typedef struct VrkFsVideoSpace {
    uint32_t Handle;                /* in */
    uint32_t BodyTableBlocksWanted; /* in */
    uint32_t DataBlocksWanted;      /* in */
    uint32_t Flags;                 /* in: VRKFS_SPACE_... */
    uint32_t BodyTableLba;          /* out */
    uint32_t BodyTableBlocks;       /* out */
    uint32_t DataLba;               /* out */
    uint32_t DataBlocks;            /* out */
    VrkFsVolumeInfoRecord Volume;   /* out: the disks to record on */
    int32_t Result;                 /* out: VRKFS_RESULT_DONE or VRKFS_ALLOCATE_NO_SPACE */
} VrkFsVideoSpace;

VRKFS_ASSERT_SIZE(VrkFsVideoSpace, 620);
VRKFS_ASSERT_OFFSET(VrkFsVideoSpace, BodyTableLba, 16);
VRKFS_ASSERT_OFFSET(VrkFsVideoSpace, DataLba, 24);
VRKFS_ASSERT_OFFSET(VrkFsVideoSpace, Volume, 32);
VRKFS_ASSERT_OFFSET(VrkFsVideoSpace, Result, 616);

/* VrkFsVideoFileUpdate.Flags */
#define VRKFS_UPDATE_VIDEO 0x1u
#define VRKFS_UPDATE_ALPHA 0x2u

/* IOCTL_VRKFS_UPDATE_VIDEO_FILE, in and out. */
typedef struct VrkFsVideoFileUpdate {
    uint32_t Handle;
    uint32_t FrameCount; /* 0 makes the file a plain file again */
    uint32_t VideoBodyTableAllocated;
    uint32_t VideoDataAllocated;
    uint32_t VideoBodyTableUsed;
    uint32_t VideoDataUsed;
    uint64_t VideoDataLength; /* blocks over all disks */
    uint32_t AlphaBodyTableAllocated;
    uint32_t AlphaDataAllocated;
    uint32_t AlphaBodyTableUsed;
    uint32_t AlphaDataUsed;
    uint64_t AlphaDataLength; /* blocks over all disks */
    uint32_t Flags;           /* VRKFS_UPDATE_... */
    uint32_t Result;          /* out: always 0 */
} VrkFsVideoFileUpdate;

VRKFS_ASSERT_SIZE(VrkFsVideoFileUpdate, 64);
VRKFS_ASSERT_OFFSET(VrkFsVideoFileUpdate, VideoDataLength, 24);
VRKFS_ASSERT_OFFSET(VrkFsVideoFileUpdate, AlphaBodyTableAllocated, 32);
VRKFS_ASSERT_OFFSET(VrkFsVideoFileUpdate, AlphaDataLength, 48);
VRKFS_ASSERT_OFFSET(VrkFsVideoFileUpdate, Flags, 56);
VRKFS_ASSERT_OFFSET(VrkFsVideoFileUpdate, Result, 60);

/* VrkFsFileInfo.Kind */
#define VRKFS_FILE_PLAIN 0u
#define VRKFS_FILE_MEDIA 1u

/* VrkFsFileInfo.Flags */
#define VRKFS_FILE_HAS_ALPHA 0x01u
#define VRKFS_FILE_VIDEO_SDTI 0x02u    /* the video SDTI type may be set */
#define VRKFS_FILE_ALPHA_SDTI 0x04u    /* the alpha SDTI type may be set */
#define VRKFS_FILE_VIDEO_PENDING 0x08u /* video space is reserved and not yet settled */
#define VRKFS_FILE_ALPHA_PENDING 0x10u /* alpha space is reserved and not yet settled */

/* IOCTL_VRKFS_GET_FILE_INFO, in and out. Fields that do not apply to the file stay as the caller sent them. */
typedef struct VrkFsFileInfo {
    uint32_t Handle;          /* in */
    uint32_t Kind;            /* VRKFS_FILE_PLAIN or VRKFS_FILE_MEDIA */
    uint32_t LineStandard;    /* 525 or 625 */
    uint32_t DataLba;         /* the video data of a media file */
    uint32_t DataBlocks;      /* on each disk */
    uint32_t BodyTableBlocks; /* media files only */
    uint32_t BodyTableLba;    /* media files only */
    uint32_t Unused1;
    uint64_t DataLength;   /* blocks over all disks; media files only */
    uint32_t AlphaDataLba; /* with alpha only, as the next four */
    uint32_t AlphaDataBlocks;
    uint32_t AlphaBodyTableBlocks;
    uint32_t AlphaBodyTableLba;
    uint64_t AlphaDataLength;
    uint32_t FrameCount; /* media files only */
    VrkFsVolumeInfoRecord Volume;
    uint32_t Flags;  /* VRKFS_FILE_...; media files only */
    uint32_t Result; /* always 0 */
    uint32_t Unused2;
} VrkFsFileInfo;

VRKFS_ASSERT_SIZE(VrkFsFileInfo, 664);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, BodyTableLba, 24);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, DataLength, 32);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, AlphaDataLba, 40);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, AlphaDataLength, 56);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, FrameCount, 64);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, Volume, 68);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, Flags, 652);
VRKFS_ASSERT_OFFSET(VrkFsFileInfo, Result, 656);

/* IOCTL_VRKFS_GET_FILE_LOCATION_INFO, in and out. Ranges that the file does not have are 0. */
typedef struct VrkFsFileLocation {
    uint32_t Handle; /* in */
    uint32_t FileEntryLba;
    uint32_t FileEntryBlocks; /* always 2 */
    uint32_t DataLba;
    uint32_t DataBlocks;
    uint32_t BodyTableLba;
    uint32_t BodyTableBlocks;
    uint32_t AlphaDataLba;
    uint32_t AlphaDataBlocks;
    uint32_t AlphaBodyTableLba;
    uint32_t AlphaBodyTableBlocks;
} VrkFsFileLocation;

VRKFS_ASSERT_SIZE(VrkFsFileLocation, 44);
VRKFS_ASSERT_OFFSET(VrkFsFileLocation, DataLba, 12);
VRKFS_ASSERT_OFFSET(VrkFsFileLocation, AlphaDataLba, 28);

/* IOCTL_VRKFS_GET_FILE_ENTRY: a handle in, the file's record out. */
#define VRKFS_FILE_ENTRY_SIZE 1024u
#define VRKFS_FILE_ENTRY_APPLICATION_INFO 0x100u /* where the record holds what applications keep with the file */
#define VRKFS_APPLICATION_INFO_SIZE 256u

typedef struct VrkFsHandleRequest {
    uint32_t Handle;
} VrkFsHandleRequest;

VRKFS_ASSERT_SIZE(VrkFsHandleRequest, 4);

/* IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, input. */
typedef struct VrkFsApplicationInfoRequest {
    uint32_t Handle;
    uint8_t ApplicationInfo[VRKFS_APPLICATION_INFO_SIZE];
} VrkFsApplicationInfoRequest;

VRKFS_ASSERT_SIZE(VrkFsApplicationInfoRequest, 260);

/* IOCTL_VRKFS_SET_SDTI_TYPE, input. A type of 0 always clears; another one is kept only where it may be set. */
typedef struct VrkFsSdtiTypeRequest {
    uint32_t Handle;
    uint32_t VideoSdtiType;
    uint32_t AlphaSdtiType;
} VrkFsSdtiTypeRequest;

VRKFS_ASSERT_SIZE(VrkFsSdtiTypeRequest, 12);

/* ---- Body tables --------------------------------------------------------------------------------------------- */

/* IOCTL_VRKFS_REFERENCE_BODY_TABLE, input; out: the zero-terminated name of the stream's section. */
typedef struct VrkFsBodyTableReference {
    uint32_t Handle;
    uint8_t Alpha; /* not 0: the alpha stream */
    uint8_t Unused[3];
    uint32_t Scratch;
} VrkFsBodyTableReference;

VRKFS_ASSERT_SIZE(VrkFsBodyTableReference, 12);
VRKFS_ASSERT_OFFSET(VrkFsBodyTableReference, Scratch, 8);

/* IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, input. */
typedef struct VrkFsBodyTableDereference {
    uint32_t Handle;
    uint32_t Scratch;
} VrkFsBodyTableDereference;

VRKFS_ASSERT_SIZE(VrkFsBodyTableDereference, 8);

/* IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, input. */
typedef struct VrkFsBodyTableCreation {
    uint32_t Handle;
    uint32_t FrameCount;
    uint32_t Scratch;
} VrkFsBodyTableCreation;

VRKFS_ASSERT_SIZE(VrkFsBodyTableCreation, 12);

/* IOCTL_VRKFS_ADD_VIDEO_NODES_... and IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE, input; out: the section's name. */
typedef struct VrkFsBodyTableNodes {
    uint32_t Handle;
    uint32_t BodyTableLba;
    uint32_t BodyTableBlocks;
    uint32_t Scratch;
} VrkFsBodyTableNodes;

VRKFS_ASSERT_SIZE(VrkFsBodyTableNodes, 16);

/* ---- Moving a file's segments -------------------------------------------------------------------------------- */

#define VRKFS_SEGMENT_FILE_ENTRY 0u
#define VRKFS_SEGMENT_DATA 1u
#define VRKFS_SEGMENT_BODY_TABLE 2u
#define VRKFS_SEGMENT_ALPHA_DATA 3u
#define VRKFS_SEGMENT_ALPHA_BODY_TABLE 4u
#define VRKFS_SEGMENT_COUNT 5u

/* IOCTL_VRKFS_MOVE_FILE_SEGMENTS, in and out. A result is written only for a segment that was asked to move. */
typedef struct VrkFsSegmentMove {
    uint32_t Handle;                      /* of the file, opened without any sharing */
    uint32_t NewLba[VRKFS_SEGMENT_COUNT]; /* by VRKFS_SEGMENT_..., 0 leaves the segment */
    uint32_t ProgressAddress;             /* of a uint32_t in the caller's memory: blocks moved so far */
    int32_t Results[VRKFS_SEGMENT_COUNT]; /* out: VRKFS_RESULT_DONE or VRKFS_MOVE_... */
    uint32_t ScratchFile;
    uint32_t ScratchProgress;
} VrkFsSegmentMove;

VRKFS_ASSERT_SIZE(VrkFsSegmentMove, 56);
VRKFS_ASSERT_OFFSET(VrkFsSegmentMove, NewLba, 4);
VRKFS_ASSERT_OFFSET(VrkFsSegmentMove, ProgressAddress, 24);
VRKFS_ASSERT_OFFSET(VrkFsSegmentMove, Results, 28);
VRKFS_ASSERT_OFFSET(VrkFsSegmentMove, ScratchFile, 48);
VRKFS_ASSERT_OFFSET(VrkFsSegmentMove, ScratchProgress, 52);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VRKFS_CONTROL_H */
