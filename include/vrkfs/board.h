/*
 * The control requests of the main board's driver: what the file system, and any program that opens the card's own
 * device, sends to "\Device\Vrk" followed by the card digit. The main board's driver is a closed interface; these six
 * requests are all of it that is used here. Needs no run-time library; compiles as C11 and C++20.
 *
 * All six are ordinary device control requests with buffered transfer. All integers are little-endian. A block has 512
 * bytes, block addresses are 32-bit and count per SCSI device, SCSI IDs run from 0 to 15.
 */
#ifndef VRKFS_BOARD_H
#define VRKFS_BOARD_H

#include <vrkfs/layout.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Requests ------------------------------------------------------------------------------------------------ */

#define IOCTL_VRK_INIT_FLEX 0x0022202Cu         /* in and out: 16 bytes, all zero */
#define IOCTL_VRK_SCSI_COMMAND 0x0022204Cu      /* in and out: VrkScsiRequest */
#define IOCTL_VRK_SCSI_DEVICE_QUERY 0x00222050u /* in and out: VrkScsiDeviceInfo */
#define IOCTL_VRK_INIT_BOARD 0x002220C4u        /* no buffers */
#define IOCTL_VRK_SCSI_ACQUIRE 0x00222170u      /* no buffers: claims the card's SCSI path ... */
#define IOCTL_VRK_SCSI_RELEASE 0x00222174u      /* ... and gives it back */

#define VRK_FLEX_BUFFER_SIZE 16u
#define VRK_BLOCK_SIZE 512u
#define VRK_SCSI_ID_COUNT 16u
#define VRK_SCSI_ID_RESERVED 7u           /* the bus adapter's own ID: never a disk of a volume */
#define VRK_CARD_MEMORY_BLOCKS 256u       /* what the main board's memory holds between a read and the next write */
#define VRK_MAX_TRANSFER_BLOCKS 0x7FFFFFu /* the buffer length field counts bytes in 32 bits */

/* ---- SCSI command -------------------------------------------------------------------------------------------- */

#define VRK_SCSI_SCAN 0x0502u  /* scan the bus; every other field is zero */
#define VRK_SCSI_READ 0x2002u  /* disk to host buffer or card memory */
#define VRK_SCSI_WRITE 0x2101u /* host buffer or card memory to disk */

#define VRK_TRANSFER_HOST 0u        /* data moves to or from the host buffer */
#define VRK_TRANSFER_CARD_MEMORY 1u /* no host buffer: a read leaves the blocks in card memory for the next write */

typedef struct VrkScsiRequest {
    uint32_t Command;          /* VRK_SCSI_... */
    uint32_t ScsiId;           /* target device */
    uint32_t Lba;              /* first block */
    uint32_t BlockCount;       /* number of blocks */
    uint32_t Zero1;            /* zero */
    uint32_t CardMemory;       /* VRK_TRANSFER_... */
    uint32_t Zero2[14];        /* zero */
    uint32_t HostBuffer;       /* system address of the host buffer, or 0; where addresses are wider, a token for it */
    uint32_t HostBufferLength; /* BlockCount * 512, or 0 without a buffer */
    uint32_t Zero3[4];         /* zero */
} VrkScsiRequest;

VRKFS_ASSERT_SIZE(VrkScsiRequest, 104);
VRKFS_ASSERT_OFFSET(VrkScsiRequest, ScsiId, 0x04);
VRKFS_ASSERT_OFFSET(VrkScsiRequest, Lba, 0x08);
VRKFS_ASSERT_OFFSET(VrkScsiRequest, BlockCount, 0x0C);
VRKFS_ASSERT_OFFSET(VrkScsiRequest, CardMemory, 0x14);
VRKFS_ASSERT_OFFSET(VrkScsiRequest, HostBuffer, 0x50);
VRKFS_ASSERT_OFFSET(VrkScsiRequest, HostBufferLength, 0x54);

/* ---- Device query -------------------------------------------------------------------------------------------- */

#define VRK_DEVICE_STATE_DISK 0xFFu /* a disk that the file system may use; any other state: nothing usable here */

typedef struct VrkScsiDeviceInfo {
    uint32_t ScsiId;         /* set by the caller, the rest is zero on input */
    uint32_t State;          /* VRK_DEVICE_STATE_DISK or anything else */
    uint8_t BoardData1[156]; /* the main board's own */
    uint32_t LastLba;        /* the highest addressable block number, not the block count */
    uint8_t BoardData2[28];  /* the main board's own */
} VrkScsiDeviceInfo;

VRKFS_ASSERT_SIZE(VrkScsiDeviceInfo, 196);
VRKFS_ASSERT_OFFSET(VrkScsiDeviceInfo, State, 0x04);
VRKFS_ASSERT_OFFSET(VrkScsiDeviceInfo, BoardData1, 0x08);
VRKFS_ASSERT_OFFSET(VrkScsiDeviceInfo, LastLba, 0xA4);
VRKFS_ASSERT_OFFSET(VrkScsiDeviceInfo, BoardData2, 0xA8);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VRKFS_BOARD_H */
