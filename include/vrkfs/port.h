/*
 * The command port: a file of the name VRKFS_PORT_NAME that exists in every folder of a drive. A client writes a
 * command at offset 0, in one piece or several, and reads the reply at offset 0.
 */
#ifndef VRKFS_PORT_H
#define VRKFS_PORT_H

#include <vrkfs/layout.h>
#include <vrkfs/results.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VRKFS_PORT_NAME_CHARS 11u /* of "___Port0___" */
#define VRKFS_PORT_COMMAND_SIZE 2048u
#define VRKFS_PORT_REPLY_SIZE 256u
#define VRKFS_PORT_PATH_CHARS 512u /* of an absolute path, the terminating zero included */

/* VrkFsPortCommand.Code */
#define VRKFS_PORT_CREATE_MEDIA_FILE 1u
#define VRKFS_PORT_NOTHING_2 2u /* accepted without any action */
#define VRKFS_PORT_NOTHING_3 3u /* accepted without any action */
#define VRKFS_PORT_AVAILABLE_SPACE 4u

typedef struct VrkFsPortCommand {
    uint32_t Length; /* bytes, this header included; the command runs when its last byte has been written */
    uint32_t Code;
} VrkFsPortCommand;

VRKFS_ASSERT_SIZE(VrkFsPortCommand, 8);

/* Payload of VRKFS_PORT_CREATE_MEDIA_FILE; what a shorter payload leaves out is zero. */
typedef struct VrkFsPortCreation {
    VrkFsChar Path[VRKFS_PORT_PATH_CHARS]; /* zero-terminated, relative to the port's folder */
    uint8_t Parameters[24];                /* for the service: a VrkFsPortCreationParameters */
} VrkFsPortCreation;

VRKFS_ASSERT_SIZE(VrkFsPortCreation, 1048);
VRKFS_ASSERT_OFFSET(VrkFsPortCreation, Parameters, 1024);

#define VRKFS_PORT_CREATION_VERSION 1u
#define VRKFS_PORT_ALPHA 0x1u /* Flags: with an alpha stream */

/* What the service makes: a clip of black frames in uncompressed 8-bit 4:2:2, wholly transparent where it has alpha. */
typedef struct VrkFsPortCreationParameters {
    uint32_t Version;      /* VRKFS_PORT_CREATION_VERSION */
    uint32_t LineStandard; /* 525 or 625 */
    uint32_t FrameCount;   /* 1 and up, as many as can be written before the driver stops waiting */
    uint32_t Flags;        /* VRKFS_PORT_ALPHA */
    uint32_t Reserved[2];  /* 0 */
} VrkFsPortCreationParameters;

VRKFS_ASSERT_SIZE(VrkFsPortCreationParameters, 24);
VRKFS_ASSERT_OFFSET(VrkFsPortCreationParameters, Flags, 12);

/* Payload of VRKFS_PORT_AVAILABLE_SPACE. */
typedef struct VrkFsPortSpaceQuery {
    VrkFsChar Path[VRKFS_PORT_PATH_CHARS]; /* zero-terminated; used only when the port is not inside a volume */
    uint8_t Parameters[8];                 /* for the service: a VrkFsPortSpaceParameters */
} VrkFsPortSpaceQuery;

VRKFS_ASSERT_SIZE(VrkFsPortSpaceQuery, 1032);
VRKFS_ASSERT_OFFSET(VrkFsPortSpaceQuery, Parameters, 1024);

/* All zero, as a shorter payload leaves them, asks for the blocks alone. */
typedef struct VrkFsPortSpaceParameters {
    uint32_t LineStandard; /* 525 or 625: for how many frames of it there is room; or 0 */
    uint32_t Flags;        /* VRKFS_PORT_ALPHA */
} VrkFsPortSpaceParameters;

VRKFS_ASSERT_SIZE(VrkFsPortSpaceParameters, 8);

#define VRKFS_PORT_SPACE_INFO_SIZE 24u /* as the service gave it: a VrkFsPortSpaceInfo */

typedef struct VrkFsPortSpaceInfo {
    uint64_t FreeBlocks;   /* 512 bytes each, over all disks */
    uint64_t TotalBlocks;  /* likewise */
    uint32_t FrameCount;   /* uncompressed frames that a new clip can have; 0 if no standard was given */
    uint32_t FieldSectors; /* what a field of the standard takes; 0 if none was given */
} VrkFsPortSpaceInfo;

VRKFS_ASSERT_SIZE(VrkFsPortSpaceInfo, VRKFS_PORT_SPACE_INFO_SIZE);
VRKFS_ASSERT_OFFSET(VrkFsPortSpaceInfo, FrameCount, 16);

typedef struct VrkFsPortReply {
    uint32_t Length; /* of the reply, this header included */
    int32_t Result;  /* VRKFS_RESULT_DONE or VRKFS_PORT_... */
    uint8_t SpaceInfo[VRKFS_PORT_SPACE_INFO_SIZE];
} VrkFsPortReply;

VRKFS_ASSERT_SIZE(VrkFsPortReply, 32);
VRKFS_ASSERT_OFFSET(VrkFsPortReply, SpaceInfo, 8);

#define VRKFS_PORT_REPLY_HEADER_SIZE 8u

/* What a port says until it is first written to. */
typedef struct VrkFsPortGreeting {
    uint32_t Length;  /* 16 */
    uint8_t Magic[4]; /* "RZVF" */
    uint32_t Version; /* 1 */
    uint32_t SdtiFlags;
} VrkFsPortGreeting;

VRKFS_ASSERT_SIZE(VrkFsPortGreeting, 16);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VRKFS_PORT_H */
