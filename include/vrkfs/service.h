/*
 * What the driver and its user-mode service tell each other: the service keeps an IOCTL_VRKFS_SEND_SERVICE_REQUEST
 * posted, which comes back with a VrkFsServiceRequest, and answers with IOCTL_VRKFS_SEND_SERVICE_RESPONSE.
 */
#ifndef VRKFS_SERVICE_H
#define VRKFS_SERVICE_H

#include <vrkfs/layout.h>
#include <vrkfs/port.h>
#include <vrkfs/records.h>

#ifdef __cplusplus
extern "C" {
#endif

/* VrkFsServiceRequest.Type and VrkFsServiceResponse.Type */
#define VRKFS_SERVICE_NOTHING 0u /* only in an answer, which ends what is waited for, whoever sends it */
#define VRKFS_SERVICE_OPEN 1u
#define VRKFS_SERVICE_CLEAN 2u
#define VRKFS_SERVICE_CLOSE 3u
#define VRKFS_SERVICE_READ 4u
#define VRKFS_SERVICE_WRITE 5u
#define VRKFS_SERVICE_UPDATE_PREFS 6u
#define VRKFS_SERVICE_AVAILABLE_SPACE 7u
#define VRKFS_SERVICE_CREATE_MEDIA_FILE 8u

/* How long the driver waits for the service's next step: to fetch a request, to answer it, to bring or take the next
 * piece of its data. Besides, all the answers to one request together have ten minutes from when it was fetched. A
 * service that lets either pass is disconnected, as if it had said nothing, and the operation fails. */
#define VRKFS_SERVICE_TIMEOUT_SECONDS 60u

#define VRKFS_SERVICE_PAYLOAD_SIZE 1560u
#define VRKFS_SERVICE_PATH_CHARS 778u /* behind the drive letter and the colon, the terminating zero included */

typedef struct VrkFsServiceOpen {
    VrkFsChar DriveLetter;
    VrkFsChar Colon;
    VrkFsChar Path[VRKFS_SERVICE_PATH_CHARS]; /* from the root, through the built-in type's folder */
} VrkFsServiceOpen;

VRKFS_ASSERT_SIZE(VrkFsServiceOpen, VRKFS_SERVICE_PAYLOAD_SIZE);
VRKFS_ASSERT_OFFSET(VrkFsServiceOpen, Path, 4);

typedef struct VrkFsServiceClean {
    uint32_t ServiceHandle;
    uint32_t TypeCode;
    uint32_t FrameIndex;
} VrkFsServiceClean;

typedef struct VrkFsServiceClose {
    uint32_t ServiceHandle;
} VrkFsServiceClose;

/* Read and write. */
typedef struct VrkFsServiceTransfer {
    uint32_t ServiceHandle;
    uint32_t TypeCode;
    uint32_t OffsetLow; /* bytes */
    uint32_t OffsetHigh;
    uint32_t ByteCount;
    uint32_t FrameIndex;
} VrkFsServiceTransfer;

VRKFS_ASSERT_SIZE(VrkFsServiceTransfer, 24);
VRKFS_ASSERT_OFFSET(VrkFsServiceTransfer, OffsetLow, 8);
VRKFS_ASSERT_OFFSET(VrkFsServiceTransfer, FrameIndex, 20);

typedef struct VrkFsServiceRequest {
    uint32_t Type;   /* VRKFS_SERVICE_... */
    uint32_t Unused; /* not written */
    union {
        VrkFsServiceOpen Open;
        VrkFsServiceClean Clean;
        VrkFsServiceClose Close;
        VrkFsServiceTransfer Transfer;
        VrkFsPreferences Prefs;
        VrkFsPortSpaceQuery SpaceQuery;
        VrkFsPortCreation Creation;
        uint8_t Bytes[VRKFS_SERVICE_PAYLOAD_SIZE];
    } Payload;
} VrkFsServiceRequest;

VRKFS_ASSERT_SIZE(VrkFsServiceRequest, 1568);
VRKFS_ASSERT_OFFSET(VrkFsServiceRequest, Payload, 8);

#define VRKFS_SERVICE_RESPONSE_MIN_SIZE 56u

/* Comes from the client that fetched the request, or is taken for a late answer to an earlier one. */
typedef struct VrkFsServiceResponse {
    uint32_t Type;   /* of the request that is answered */
    uint32_t Result; /* 0 success; the payload counts only then */
    union {
        uint32_t ServiceHandle;                        /* VRKFS_SERVICE_OPEN */
        uint32_t ByteCount;                            /* READ: bytes in the output buffer; WRITE: bytes wanted there */
        uint8_t SpaceInfo[VRKFS_PORT_SPACE_INFO_SIZE]; /* VRKFS_SERVICE_AVAILABLE_SPACE */
        struct {
            uint32_t Count;
            VrkFsFileType Rows[1]; /* Count of them */
        } FileTypes;               /* VRKFS_SERVICE_UPDATE_PREFS: replace rows 1 and up */
    } Payload;
} VrkFsServiceResponse;

VRKFS_ASSERT_SIZE(VrkFsServiceResponse, VRKFS_SERVICE_RESPONSE_MIN_SIZE);
VRKFS_ASSERT_OFFSET(VrkFsServiceResponse, Payload, 8);
VRKFS_ASSERT_OFFSET(VrkFsServiceResponse, Payload.FileTypes.Rows, 12);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VRKFS_SERVICE_H */
