/*
 * What applications call: recorders, players, maintenance programs. A C interface; the library behind it is
 * vrkfs_client. Compiles as C11 and C++20.
 *
 * Clients. A VrkFsClient is one user process: it has its own handles, memory and views, and whatever it leaves behind
 * is taken back when it is destroyed, as if the process had ended. Handles, buffers and views are good in their own
 * client only. When a client's daemon goes away, every call under way and every later one fails with
 * STATUS_PORT_DISCONNECTED; buffers and views stay mapped until the client is destroyed.
 *
 * Threads. Every call may be made from several threads of one client at once, and waits until it is done. What is
 * passed in belongs to the caller and must stay until the call returns. Only VrkFsClientDestroy wants to be alone.
 *
 * Units. A block has 512 bytes. Block numbers (Lba) count on one disk, disks go by their SCSI ID. Names are UTF-16,
 * zero-terminated, with "\" between the parts: "P:\RZV\VOLUME\FOLDER\CLIP.RZV".
 *
 * Statuses. Every call that can fail returns an NTSTATUS; VRKFS_SUCCEEDED tells. A code that was understood and refused
 * succeeds with a negative result (<vrkfs/results.h>) in its record or its `result`. Records and results are filled
 * only on success. Of its own the library adds STATUS_INSUFFICIENT_RESOURCES (no memory, or whatever else is
 * short) and STATUS_INVALID_PARAMETER (a size or a number that no request can carry).
 */
#ifndef VRKFS_CLIENT_H
#define VRKFS_CLIENT_H

#include <vrkfs/board.h>
#include <vrkfs/control.h>
#include <vrkfs/media.h>
#include <vrkfs/service.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct VrkFsClient VrkFsClient;
typedef uint32_t VrkFsStatus; /* an NTSTATUS */
typedef uint32_t VrkFsHandle; /* never 0 when open */

#define VRKFS_SUCCEEDED(Status) ((int32_t)(Status) >= 0)

#define VRKFS_STATUS_SUCCESS 0x00000000u
#define VRKFS_STATUS_INVALID_PARAMETER 0xC000000Du
#define VRKFS_STATUS_DEVICE_BUSY 0x80000011u
#define VRKFS_STATUS_ACCESS_DENIED 0xC0000022u
#define VRKFS_STATUS_BUFFER_TOO_SMALL 0xC0000023u /* also: the stream has no section (yet) */
#define VRKFS_STATUS_OBJECT_NAME_NOT_FOUND 0xC0000034u
#define VRKFS_STATUS_OBJECT_NAME_COLLISION 0xC0000035u
#define VRKFS_STATUS_PORT_DISCONNECTED 0xC0000037u /* the daemon has gone */
#define VRKFS_STATUS_SHARING_VIOLATION 0xC0000043u
#define VRKFS_STATUS_INSUFFICIENT_RESOURCES 0xC000009Au
#define VRKFS_STATUS_IO_DEVICE_ERROR 0xC0000185u
#define VRKFS_STATUS_CANCELLED 0xC0000120u
#define VRKFS_STATUS_CONNECTION_REFUSED 0xC0000236u

/* "STATUS_DISK_FULL", or the number of a status without a name; cut to `size` bytes with its terminating zero. */
void VrkFsClientStatusName(VrkFsStatus status, char* text, size_t size);

/* A client of the station that a daemon (vrkfs serve) has. socket: the path it listens at, DIR/socket unless told
 * otherwise. STATUS_OBJECT_NAME_NOT_FOUND: nobody listens there. STATUS_CONNECTION_REFUSED: somebody does, and it is no
 * such daemon, of another version, or another user's. */
VrkFsStatus VrkFsClientConnect(const char* socket, VrkFsClient** client);

/* Ends the process: its requests are cancelled and awaited, its handles closed, its buffers and views unmapped. Null is
 * ignored. */
void VrkFsClientDestroy(VrkFsClient* client);

/* ---- Handles ------------------------------------------------------------------------------------------------- */

/* VrkFsClientOpenFile. What is not shared nobody else may open the file for while the handle is open. */
#define VRKFS_OPEN_READ 0x01u
#define VRKFS_OPEN_WRITE 0x02u  /* with it, body tables that the handle references are written back to disk */
#define VRKFS_OPEN_DELETE 0x04u /* for VrkFsClientSetDelete */
#define VRKFS_OPEN_SHARE_READ 0x10u
#define VRKFS_OPEN_SHARE_WRITE 0x20u
#define VRKFS_OPEN_SHARE_DELETE 0x40u
#define VRKFS_OPEN_CREATE 0x100u   /* make it; STATUS_OBJECT_NAME_COLLISION if there is one */
#define VRKFS_OPEN_IF_THERE 0x200u /* with CREATE: open the one that is there */
#define VRKFS_OPEN_FOLDER 0x400u   /* a folder, else a file */

/* What a recorder opens a new clip with: players may follow it. */
#define VRKFS_OPEN_RECORDER (VRKFS_OPEN_READ | VRKFS_OPEN_WRITE | VRKFS_OPEN_SHARE_READ | VRKFS_OPEN_CREATE)
#define VRKFS_OPEN_PLAYER (VRKFS_OPEN_READ | VRKFS_OPEN_SHARE_READ | VRKFS_OPEN_SHARE_WRITE | VRKFS_OPEN_SHARE_DELETE)
/* What a program that moves a clip's segments opens it with: nobody else. */
#define VRKFS_OPEN_MOVER (VRKFS_OPEN_READ | VRKFS_OPEN_WRITE)

/* The control device of a card (0 to 9), which takes the control codes. */
VrkFsStatus VrkFsClientOpenControl(VrkFsClient* client, uint32_t card, VrkFsHandle* control);
/* The card's own device, which moves blocks. */
VrkFsStatus VrkFsClientOpenDisks(VrkFsClient* client, uint32_t card, VrkFsHandle* disks);
VrkFsStatus VrkFsClientOpenFile(VrkFsClient* client, const VrkFsChar* path, uint32_t flags, VrkFsHandle* file);
/* Whether the file or empty folder is deleted when the handle closes or its process ends. Until then nobody else can
 * open it. STATUS_CANNOT_DELETE for what cannot go. */
VrkFsStatus VrkFsClientSetDelete(VrkFsClient* client, VrkFsHandle file, int deleteIt);
VrkFsStatus VrkFsClientClose(VrkFsClient* client, VrkFsHandle handle);
/* Asks for an early end of whatever other threads wait for on the handle; they get STATUS_CANCELLED unless they got
 * what they wanted first. A call that comes later is not touched. */
void VrkFsClientCancel(VrkFsClient* client, VrkFsHandle handle);

/* ---- Control codes ------------------------------------------------------------------------------------------- */
/* One function for each code; those by which a service works come last. `control` is the card's control device; a file
 * or folder is an open handle on the same card's drive. The records are described in <vrkfs/control.h>; those that
 * carry a handle have it filled in from `file`. */

VrkFsStatus VrkFsClientDismountVolume(VrkFsClient* client, VrkFsHandle control, int force);
/* result: VRKFS_RESULT_DONE or VRKFS_FORMAT_... */
VrkFsStatus VrkFsClientFormatVolume(VrkFsClient* client, VrkFsHandle control, const VrkFsVolumeInfoRecord* volume,
                                    int32_t* result);
/* count: all volumes of the card; the first `capacity` of them are filled in. */
VrkFsStatus VrkFsClientQueryVolumes(VrkFsClient* client, VrkFsHandle control, VrkFsVolumeInfoRecord* volumes,
                                    uint32_t capacity, uint32_t* count);
VrkFsStatus VrkFsClientGetVolumeSpace(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                      VrkFsVolumeSpaceInfo* space);
/* The lock is the control handle's; closing that handle gives it back. */
VrkFsStatus VrkFsClientLock(VrkFsClient* client, VrkFsHandle control, int drop);
VrkFsStatus VrkFsClientUnlock(VrkFsClient* client, VrkFsHandle control);

VrkFsStatus VrkFsClientGetPreferences(VrkFsClient* client, VrkFsHandle control, VrkFsPreferences* preferences);
VrkFsStatus VrkFsClientSetPreferences(VrkFsClient* client, VrkFsHandle control, const VrkFsPreferences* preferences);
VrkFsStatus VrkFsClientGetScsiPrefs(VrkFsClient* client, VrkFsHandle control, VrkFsScsiPrefs* prefs);
VrkFsStatus VrkFsClientSetScsiPrefs(VrkFsClient* client, VrkFsHandle control, const VrkFsScsiPrefs* prefs);
VrkFsStatus VrkFsClientRegisterFileTypes(VrkFsClient* client, VrkFsHandle control, const VrkFsFileType* types,
                                         uint32_t count);
VrkFsStatus VrkFsClientUnregisterFileTypes(VrkFsClient* client, VrkFsHandle control);
VrkFsStatus VrkFsClientRegisterSdtiFlags(VrkFsClient* client, VrkFsHandle control, uint32_t flags);

/* space->Result: VRKFS_RESULT_DONE or VRKFS_ALLOCATE_NO_SPACE. Space that has not been settled with
 * VrkFsClientUpdateVideoFile is given back when the file's last handle closes, if that is one with VRKFS_OPEN_WRITE; a
 * reader that stays longer leaves it to the next writer. */
VrkFsStatus VrkFsClientAllocateVideoSpace(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                          VrkFsVideoSpace* space);
VrkFsStatus VrkFsClientUpdateVideoFile(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                       VrkFsVideoFileUpdate* update);
/* Fields that do not apply to the file stay as they are. */
VrkFsStatus VrkFsClientGetFileInfo(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, VrkFsFileInfo* info);
VrkFsStatus VrkFsClientGetFileLocation(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                       VrkFsFileLocation* location);
/* entry: VRKFS_FILE_ENTRY_SIZE bytes. */
VrkFsStatus VrkFsClientGetFileEntry(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, void* entry);
/* info: VRKFS_APPLICATION_INFO_SIZE bytes. Other programs see them at once in the file's entry. */
VrkFsStatus VrkFsClientSetApplicationInfo(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, const void* info);
VrkFsStatus VrkFsClientSetSdtiType(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t videoType,
                                   uint32_t alphaType);

/* ---- Body tables in shared memory ---------------------------------------------------------------------------- */

#define VRKFS_SECTION_NAME_CHARS 800u /* the longest name, its zero included, fits */

typedef struct VrkFsSectionName {
    VrkFsChar Text[VRKFS_SECTION_NAME_CHARS];
} VrkFsSectionName;

/* stream: VRKFS_STREAM_... Attaches the file's tables, if none are yet, from what the disk has. It fails for a file
 * that is being recorded until its tables have been made. A handle with VRKFS_OPEN_WRITE keeps them written back until
 * it has dereferenced them as often as it referenced or made them. */
VrkFsStatus VrkFsClientReferenceBodyTable(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t stream,
                                          VrkFsSectionName* name);
VrkFsStatus VrkFsClientDereferenceBodyTable(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file);
/* New tables for a clip of up to `frames` frames; nothing is done if the file has some attached. Then a section per
 * stream, by the range that VrkFsClientAllocateVideoSpace gave; an empty name comes back if nothing is attached. */
VrkFsStatus VrkFsClientCreateNewBodyTable(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t frames);
VrkFsStatus VrkFsClientAddVideoNodes(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t tableLba,
                                     uint32_t tableBlocks, VrkFsSectionName* name);
VrkFsStatus VrkFsClientAddAlphaNodes(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t tableLba,
                                     uint32_t tableBlocks, VrkFsSectionName* name);
/* Holds the card's writing back off while tables are rewritten. Resume ends one suspension of the card, so a program
 * resumes only what it suspended; what its control handle still counts is given back when that closes. */
VrkFsStatus VrkFsClientSuspendBodyTableFlush(VrkFsClient* client, VrkFsHandle control);
VrkFsStatus VrkFsClientResumeBodyTableFlush(VrkFsClient* client, VrkFsHandle control);

typedef struct VrkFsNodeView {
    VrkFsPlacedNode* Nodes; /* node 2f and 2f + 1 belong to frame f; not to be written to unless mapped so */
    uint32_t Count;         /* at least two per frame that the table was made for */
    VrkFsHandle Handle;     /* of the section */
    size_t Bytes;           /* mapped */
} VrkFsNodeView;

/* The view stays good, and shows the table live, until it is unmapped or the client destroyed, whatever happens to the
 * file meanwhile. STATUS_OBJECT_NAME_NOT_FOUND: the driver no longer has the table. */
VrkFsStatus VrkFsClientMapNodes(VrkFsClient* client, const VrkFsSectionName* name, int writable, VrkFsNodeView* view);
void VrkFsClientUnmapNodes(VrkFsClient* client, VrkFsNodeView* view);

/* A node is seen by other programs only when it is whole, and then what its writer put on the disks before is seen too:
 * Lba is stored last and looked at first. `node->Lba` is not 0. */
void VrkFsClientPublishNode(VrkFsPlacedNode* place, const VrkFsPlacedNode* node);
/* 0 while nothing has been published there. */
int VrkFsClientReadNode(const VrkFsPlacedNode* place, VrkFsPlacedNode* node);
/* Has the tables of a clip that was just settled (to `frames` frames, and no more table than they need) written, and
 * looks whether the disks have them as `video` and `alpha` do; alpha is null for a clip without. The file is open with
 * VRKFS_OPEN_READ. A recorder calls it before it closes the file: the close writes the clip's record, but tables that a
 * player has open are written by themselves only seconds later, and a driver that ends between leaves a record of
 * frames that nobody finds. STATUS_IO_DEVICE_ERROR: a disk did not take them, or they were changed after they had been
 * settled and read. */
VrkFsStatus VrkFsClientStoreBodyTable(VrkFsClient* client, VrkFsHandle file, uint32_t frames,
                                      const VrkFsNodeView* video, const VrkFsNodeView* alpha);

/* ---- Blocks of the disks ------------------------------------------------------------------------------------- */

/* Memory that the card can move blocks to and from: requests name it by 32 bits. */
typedef struct VrkFsBuffer {
    void* Bytes; /* whole pages, zeroed */
    size_t Size; /* as asked for */
    uint32_t Name;
} VrkFsBuffer;

/* size: 1 byte to 1 GiB. A buffer may be freed, or its client destroyed, while transfers use it. */
VrkFsStatus VrkFsClientAllocateBuffer(VrkFsClient* client, size_t size, VrkFsBuffer* buffer);
void VrkFsClientFreeBuffer(VrkFsClient* client, VrkFsBuffer* buffer);

/* Moves `blocks` blocks between one disk and the start of the buffer, which must hold them. The card moves them past
 * the file system: nothing is checked against files. One request each, so disks are kept busy by a thread each. */
VrkFsStatus VrkFsClientReadBlocks(VrkFsClient* client, VrkFsHandle disks, uint32_t scsiId, uint32_t lba,
                                  uint32_t blocks, const VrkFsBuffer* buffer);
VrkFsStatus VrkFsClientWriteBlocks(VrkFsClient* client, VrkFsHandle disks, uint32_t scsiId, uint32_t lba,
                                   uint32_t blocks, const VrkFsBuffer* buffer);
/* info->State is VRK_DEVICE_STATE_DISK for a disk that can be used. */
VrkFsStatus VrkFsClientQueryDisk(VrkFsClient* client, VrkFsHandle disks, uint32_t scsiId, VrkScsiDeviceInfo* info);

/* ---- Moving a clip's segments -------------------------------------------------------------------------------- */

/* The file is open with VRKFS_OPEN_MOVER and nowhere else (STATUS_ACCESS_DENIED). move->NewLba says what goes where,
 * move->Results how each segment fared. `progress` is a buffer of at least 4 bytes, in which another thread can watch
 * the blocks moved so far, a data block counting once for all disks; or null. */
VrkFsStatus VrkFsClientMoveFileSegments(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                        VrkFsSegmentMove* move, const VrkFsBuffer* progress);
uint32_t VrkFsClientReadProgress(const VrkFsBuffer* progress);

/* ---- Being the service ---------------------------------------------------------------------------------------- */

/* After VrkFsClientRegisterFileTypes or VrkFsClientRegisterSdtiFlags. Waits until the driver has something to do, for
 * as long as that takes: VrkFsClientCancel ends the wait. One thread at a time. */
VrkFsStatus VrkFsClientFetchServiceRequest(VrkFsClient* client, VrkFsHandle control, VrkFsServiceRequest* request);
/* response: `size` bytes, at least VRKFS_SERVICE_RESPONSE_MIN_SIZE, more with several rows. data: the first `dataBytes`
 * of it are what a read delivers, or where a write's next bytes come; null for the others. Returns when the driver has
 * taken or filled them; STATUS_CANCELLED when it does not wait for the answer (any more), since a request is answered
 * within VRKFS_SERVICE_TIMEOUT_SECONDS, and so is every piece of a read or write. */
VrkFsStatus VrkFsClientSendServiceResponse(VrkFsClient* client, VrkFsHandle control,
                                           const VrkFsServiceResponse* response, size_t size, const VrkFsBuffer* data,
                                           size_t dataBytes);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VRKFS_CLIENT_H */
