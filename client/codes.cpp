// The control codes, each with its record.
#include <atomic>
#include <cstring>
#include <vector>

#include "client/calls.h"

using client::BytesOf;
using client::Control;
using client::Guarded;
using client::WritableBytesOf;

namespace {

VrkFsStatus Command(VrkFsClient* client, VrkFsHandle control, std::uint32_t code) {
    return Control(client, control, code, {}, {});
}

template <typename Record>
VrkFsStatus Send(VrkFsClient* client, VrkFsHandle control, std::uint32_t code, const Record& record) {
    return Control(client, control, code, BytesOf(record), {});
}

template <typename Record>
VrkFsStatus Receive(VrkFsClient* client, VrkFsHandle control, std::uint32_t code, Record* record) {
    return Control(client, control, code, {}, WritableBytesOf(*record));
}

// A record about a file, there and back.
template <typename Record>
VrkFsStatus Exchange(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, std::uint32_t code, Record* record) {
    record->Handle = file;
    return Control(client, control, code, BytesOf(*record), WritableBytesOf(*record));
}

VrkFsStatus AddNodes(VrkFsClient* client, VrkFsHandle control, std::uint32_t code, const VrkFsBodyTableNodes& nodes,
                     VrkFsSectionName* name) {
    name->Text[0] = VrkFsChar{};
    return Control(client, control, code, BytesOf(nodes), WritableBytesOf(*name));
}

}  // namespace

// ---- Volumes ----

VrkFsStatus VrkFsClientDismountVolume(VrkFsClient* client, VrkFsHandle control, int force) {
    const VrkFsDismountRequest request{static_cast<std::uint8_t>(force != 0), {}};
    return Send(client, control, IOCTL_VRKFS_DISMOUNT_VOLUME, request);
}

VrkFsStatus VrkFsClientFormatVolume(VrkFsClient* client, VrkFsHandle control, const VrkFsVolumeInfoRecord* volume,
                                    int32_t* result) {
    return Control(client, control, IOCTL_VRKFS_FORMAT_VOLUME, BytesOf(*volume), WritableBytesOf(*result));
}

VrkFsStatus VrkFsClientQueryVolumes(VrkFsClient* client, VrkFsHandle control, VrkFsVolumeInfoRecord* volumes,
                                    uint32_t capacity, uint32_t* count) {
    return Guarded([&]() -> VrkFsStatus {
        const std::uint32_t ignored = 0;
        std::vector<std::byte> answer(sizeof(*count) + std::size_t{capacity} * sizeof(*volumes));
        const VrkFsStatus status = Control(client, control, IOCTL_VRKFS_QUERY_VOLUME_INFO, BytesOf(ignored), answer);
        if (VRKFS_SUCCEEDED(status)) {
            std::memcpy(count, answer.data(), sizeof(*count));
            const std::size_t filled = *count < capacity ? *count : capacity;
            if (filled != 0) {
                std::memcpy(volumes, answer.data() + sizeof(*count), filled * sizeof(*volumes));
            }
        }
        return status;
    });
}

VrkFsStatus VrkFsClientGetVolumeSpace(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                      VrkFsVolumeSpaceInfo* space) {
    return Exchange(client, control, file, IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, space);
}

VrkFsStatus VrkFsClientLock(VrkFsClient* client, VrkFsHandle control, int drop) {
    return Send(client, control, IOCTL_VRKFS_LOCK_FILE_SYSTEM, VrkFsLockRequest{drop != 0 ? 1u : 0u});
}

VrkFsStatus VrkFsClientUnlock(VrkFsClient* client, VrkFsHandle control) {
    return Command(client, control, IOCTL_VRKFS_UNLOCK_FILE_SYSTEM);
}

// ---- Settings ----

VrkFsStatus VrkFsClientGetPreferences(VrkFsClient* client, VrkFsHandle control, VrkFsPreferences* preferences) {
    return Receive(client, control, IOCTL_VRKFS_GET_PREFERENCES, preferences);
}

VrkFsStatus VrkFsClientSetPreferences(VrkFsClient* client, VrkFsHandle control, const VrkFsPreferences* preferences) {
    return Send(client, control, IOCTL_VRKFS_SET_PREFERENCES, *preferences);
}

VrkFsStatus VrkFsClientGetScsiPrefs(VrkFsClient* client, VrkFsHandle control, VrkFsScsiPrefs* prefs) {
    return Receive(client, control, IOCTL_VRKFS_GET_SCSI_PREFS, prefs);
}

VrkFsStatus VrkFsClientSetScsiPrefs(VrkFsClient* client, VrkFsHandle control, const VrkFsScsiPrefs* prefs) {
    return Send(client, control, IOCTL_VRKFS_SET_SCSI_PREFS, *prefs);
}

VrkFsStatus VrkFsClientRegisterFileTypes(VrkFsClient* client, VrkFsHandle control, const VrkFsFileType* types,
                                         uint32_t count) {
    return Guarded([&]() -> VrkFsStatus {
        const std::size_t rows = count != 0 ? count : 1;  // the driver wants room for one even when there is none
        std::vector<std::byte> list(sizeof(count) + rows * sizeof(*types));
        std::memcpy(list.data(), &count, sizeof(count));
        if (count != 0) {
            std::memcpy(list.data() + sizeof(count), types, count * sizeof(*types));
        }
        return Control(client, control, IOCTL_VRKFS_REGISTER_FILE_TYPES, list, {});
    });
}

VrkFsStatus VrkFsClientUnregisterFileTypes(VrkFsClient* client, VrkFsHandle control) {
    return Command(client, control, IOCTL_VRKFS_UNREGISTER_FILE_TYPES);
}

VrkFsStatus VrkFsClientRegisterSdtiFlags(VrkFsClient* client, VrkFsHandle control, uint32_t flags) {
    return Send(client, control, IOCTL_VRKFS_REGISTER_SDTI_FLAGS, VrkFsSdtiFlagsRequest{flags});
}

// ---- Media files ----

VrkFsStatus VrkFsClientAllocateVideoSpace(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                          VrkFsVideoSpace* space) {
    return Exchange(client, control, file, IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, space);
}

VrkFsStatus VrkFsClientUpdateVideoFile(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                       VrkFsVideoFileUpdate* update) {
    return Exchange(client, control, file, IOCTL_VRKFS_UPDATE_VIDEO_FILE, update);
}

VrkFsStatus VrkFsClientGetFileInfo(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, VrkFsFileInfo* info) {
    return Exchange(client, control, file, IOCTL_VRKFS_GET_FILE_INFO, info);
}

VrkFsStatus VrkFsClientGetFileLocation(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                       VrkFsFileLocation* location) {
    return Exchange(client, control, file, IOCTL_VRKFS_GET_FILE_LOCATION_INFO, location);
}

VrkFsStatus VrkFsClientGetFileEntry(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, void* entry) {
    const VrkFsHandleRequest request{file};
    return Control(client, control, IOCTL_VRKFS_GET_FILE_ENTRY, BytesOf(request),
                   {static_cast<std::byte*>(entry), VRKFS_FILE_ENTRY_SIZE});
}

VrkFsStatus VrkFsClientSetApplicationInfo(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                          const void* info) {
    VrkFsApplicationInfoRequest request{};
    request.Handle = file;
    std::memcpy(request.ApplicationInfo, info, sizeof(request.ApplicationInfo));
    return Send(client, control, IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, request);
}

VrkFsStatus VrkFsClientSetSdtiType(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t videoType,
                                   uint32_t alphaType) {
    return Send(client, control, IOCTL_VRKFS_SET_SDTI_TYPE, VrkFsSdtiTypeRequest{file, videoType, alphaType});
}

// ---- Body tables ----

VrkFsStatus VrkFsClientReferenceBodyTable(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t stream,
                                          VrkFsSectionName* name) {
    VrkFsBodyTableReference request{};
    request.Handle = file;
    request.Alpha = stream == VRKFS_STREAM_ALPHA;
    return Control(client, control, IOCTL_VRKFS_REFERENCE_BODY_TABLE, BytesOf(request), WritableBytesOf(*name));
}

VrkFsStatus VrkFsClientDereferenceBodyTable(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file) {
    return Send(client, control, IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, VrkFsBodyTableDereference{file, 0});
}

VrkFsStatus VrkFsClientCreateNewBodyTable(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t frames) {
    return Send(client, control, IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, VrkFsBodyTableCreation{file, frames, 0});
}

VrkFsStatus VrkFsClientAddVideoNodes(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t tableLba,
                                     uint32_t tableBlocks, VrkFsSectionName* name) {
    return AddNodes(client, control, IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE, {file, tableLba, tableBlocks, 0}, name);
}

VrkFsStatus VrkFsClientAddAlphaNodes(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file, uint32_t tableLba,
                                     uint32_t tableBlocks, VrkFsSectionName* name) {
    return AddNodes(client, control, IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE, {file, tableLba, tableBlocks, 0}, name);
}

VrkFsStatus VrkFsClientSuspendBodyTableFlush(VrkFsClient* client, VrkFsHandle control) {
    return Command(client, control, IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND);
}

VrkFsStatus VrkFsClientResumeBodyTableFlush(VrkFsClient* client, VrkFsHandle control) {
    return Command(client, control, IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_RESUME);
}

// ---- Moves ----

VrkFsStatus VrkFsClientMoveFileSegments(VrkFsClient* client, VrkFsHandle control, VrkFsHandle file,
                                        VrkFsSegmentMove* move, const VrkFsBuffer* progress) {
    VrkFsBuffer own{};  // the driver counts whether anybody looks or not
    if (progress == nullptr) {
        const VrkFsStatus status = VrkFsClientAllocateBuffer(client, sizeof(std::uint32_t), &own);
        if (!VRKFS_SUCCEEDED(status)) {
            return status;
        }
        progress = &own;
    }
    move->ProgressAddress = progress->Name;
    const VrkFsStatus status = Exchange(client, control, file, IOCTL_VRKFS_MOVE_FILE_SEGMENTS, move);
    if (progress == &own) {
        VrkFsClientFreeBuffer(client, &own);
    }
    return status;
}

uint32_t VrkFsClientReadProgress(const VrkFsBuffer* progress) {
    return std::atomic_ref(*static_cast<std::uint32_t*>(progress->Bytes)).load(std::memory_order_relaxed);
}

// ---- The service ----

VrkFsStatus VrkFsClientFetchServiceRequest(VrkFsClient* client, VrkFsHandle control, VrkFsServiceRequest* request) {
    return Receive(client, control, IOCTL_VRKFS_SEND_SERVICE_REQUEST, request);
}

VrkFsStatus VrkFsClientSendServiceResponse(VrkFsClient* client, VrkFsHandle control,
                                           const VrkFsServiceResponse* response, size_t size, const VrkFsBuffer* data,
                                           size_t dataBytes) {
    if (dataBytes > (data != nullptr ? data->Size : 0)) {
        return VRKFS_STATUS_INVALID_PARAMETER;
    }
    return Control(client, control, IOCTL_VRKFS_SEND_SERVICE_RESPONSE,
                   {reinterpret_cast<const std::byte*>(response), size},
                   {dataBytes != 0 ? static_cast<std::byte*>(data->Bytes) : nullptr, dataBytes});
}
