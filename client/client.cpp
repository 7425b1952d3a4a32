// Clients, their handles and memory, and the blocks of the disks.
#include "client/client.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "client/calls.h"

using client::BytesOf;
using client::Control;
using client::Guarded;
using client::WritableBytesOf;

namespace {

constexpr std::uint32_t kMaxCard = 9;
constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;

VrkFsStatus OpenPath(VrkFsClient* client, const host::OpenRequest& request, VrkFsHandle* handle) {
    const host::OpenResult opened = client->process->Create(request);
    if (opened.status.Ok()) {
        *handle = opened.handle;
    }
    return opened.status.code;
}

VrkFsStatus OpenDevice(VrkFsClient* client, const char16_t* name, std::uint32_t card, VrkFsHandle* handle) {
    return Guarded([&]() -> VrkFsStatus {
        if (card > kMaxCard) {
            return VRKFS_STATUS_INVALID_PARAMETER;
        }
        host::OpenRequest request;
        request.path = name + std::u16string(1, static_cast<char16_t>(u'0' + card));
        request.access = kReadWrite;
        request.overlapped = true;  // so that calls of several threads do not wait for each other
        return OpenPath(client, request, handle);
    });
}

std::uint32_t If(std::uint32_t flags, std::uint32_t flag, std::uint32_t value) {
    return (flags & flag) != 0 ? value : 0;
}

host::OpenRequest RequestOf(const VrkFsChar* path, std::uint32_t flags) {
    host::OpenRequest request;
    request.path = path;
    request.access = host::access::kReadAttributes | If(flags, VRKFS_OPEN_READ, host::access::kReadData) |
                     If(flags, VRKFS_OPEN_WRITE, host::access::kWriteData) |
                     If(flags, VRKFS_OPEN_DELETE, host::access::kDelete);
    request.shareAccess = If(flags, VRKFS_OPEN_SHARE_READ, host::share::kRead) |
                          If(flags, VRKFS_OPEN_SHARE_WRITE, host::share::kWrite) |
                          If(flags, VRKFS_OPEN_SHARE_DELETE, host::share::kDelete);
    request.options = (flags & VRKFS_OPEN_FOLDER) != 0 ? host::option::kDirectoryFile : host::option::kNonDirectoryFile;
    if ((flags & VRKFS_OPEN_CREATE) != 0) {
        request.disposition =
            (flags & VRKFS_OPEN_IF_THERE) != 0 ? host::Disposition::kOpenIf : host::Disposition::kCreate;
    }
    return request;
}

// The library's own records have the same content as the process's.
host::Process::NamedMemory MemoryOf(const VrkFsBuffer& buffer) {
    return {{static_cast<std::byte*>(buffer.Bytes), buffer.Size}, buffer.Name};
}

VrkFsStatus MoveBlocks(VrkFsClient* client, VrkFsHandle disks, std::uint32_t command, std::uint32_t scsiId,
                       std::uint32_t lba, std::uint32_t blocks, const VrkFsBuffer* buffer) {
    if (blocks > VRK_MAX_TRANSFER_BLOCKS || std::size_t{blocks} * VRK_BLOCK_SIZE > buffer->Size) {
        return VRKFS_STATUS_INVALID_PARAMETER;
    }
    VrkScsiRequest request{};
    request.Command = command;
    request.ScsiId = scsiId;
    request.Lba = lba;
    request.BlockCount = blocks;
    request.HostBuffer = buffer->Name;
    request.HostBufferLength = blocks * VRK_BLOCK_SIZE;
    return Control(client, disks, IOCTL_VRK_SCSI_COMMAND, BytesOf(request), WritableBytesOf(request));
}

// Whether the file's image has at `offset` the lengths that the nodes have.
VrkFsStatus CompareTable(VrkFsClient* client, VrkFsHandle file, std::uint64_t offset, std::uint32_t frames,
                         const VrkFsNodeView& nodes) {
    const std::uint64_t fields = std::uint64_t{frames} * VRKFS_FIELDS_PER_FRAME;
    if (nodes.Nodes == nullptr || fields > nodes.Count) {
        return VRKFS_STATUS_INVALID_PARAMETER;
    }
    constexpr std::size_t kPiece = 1 << 17;  // nodes: a mebibyte or less
    std::vector<BodyTableNode> stored(std::min<std::uint64_t>(fields, kPiece));
    for (std::uint64_t done = 0; done < fields; done += stored.size()) {
        stored.resize(std::min<std::uint64_t>(fields - done, kPiece));
        const std::span<std::byte> bytes = std::as_writable_bytes(std::span(stored));
        const host::IoResult read = client->process->Read(file, bytes, offset + done * sizeof(BodyTableNode));
        if (!read.status.Ok()) {
            return read.status.code;
        }
        const bool same = std::ranges::equal(
            stored, std::span(nodes.Nodes, nodes.Count).subspan(done, stored.size()),
            [](const BodyTableNode& one, const BodyTableNode& other) {
                return one.First == other.First && one.Second == other.Second;
            },
            {}, &VrkFsPlacedNode::Node);
        if (read.information != bytes.size() || !same) {
            return VRKFS_STATUS_IO_DEVICE_ERROR;
        }
    }
    return VRKFS_STATUS_SUCCESS;
}

}  // namespace

client::ClientPointer client::MakeClient(std::unique_ptr<host::Process> process) {
    return ClientPointer(new VrkFsClient{nullptr, std::move(process)});
}

void VrkFsClientDestroy(VrkFsClient* client) {
    delete client;
}

void VrkFsClientStatusName(VrkFsStatus status, char* text, size_t size) {
    if (size == 0) {
        return;
    }
    text[0] = '\0';
    (void)Guarded([&]() -> VrkFsStatus {
        const std::string name = host::StatusName(host::Status{status});
        const std::size_t count = std::min(name.size(), size - 1);
        std::memcpy(text, name.data(), count);
        text[count] = '\0';
        return VRKFS_STATUS_SUCCESS;
    });
}

// ---- Handles ----

VrkFsStatus VrkFsClientOpenControl(VrkFsClient* client, uint32_t card, VrkFsHandle* control) {
    return OpenDevice(client, u"VrkFsDevice", card, control);
}

VrkFsStatus VrkFsClientOpenDisks(VrkFsClient* client, uint32_t card, VrkFsHandle* disks) {
    return OpenDevice(client, u"\\Device\\Vrk", card, disks);
}

VrkFsStatus VrkFsClientOpenFile(VrkFsClient* client, const VrkFsChar* path, uint32_t flags, VrkFsHandle* file) {
    return Guarded([&] { return OpenPath(client, RequestOf(path, flags), file); });
}

VrkFsStatus VrkFsClientSetDelete(VrkFsClient* client, VrkFsHandle file, int deleteIt) {
    return Guarded([&] { return host::SetDeleteOnCleanup(*client->process, file, deleteIt != 0); });
}

VrkFsStatus VrkFsClientClose(VrkFsClient* client, VrkFsHandle handle) {
    return Guarded([&] { return client->process->Close(handle); });
}

void VrkFsClientCancel(VrkFsClient* client, VrkFsHandle handle) {
    (void)Guarded([&]() -> VrkFsStatus {
        client->process->CancelAll(handle);
        return VRKFS_STATUS_SUCCESS;
    });
}

// ---- Body tables and their views ----

// The driver stores the tables that programs share before the first read of a new layout, whether that succeeds or not,
// and reads them again from the disks.
VrkFsStatus VrkFsClientStoreBodyTable(VrkFsClient* client, VrkFsHandle file, uint32_t frames,
                                      const VrkFsNodeView* video, const VrkFsNodeView* alpha) {
    return Guarded([&]() -> VrkFsStatus {
        if (frames == 0) {  // a file that holds nothing
            return VRKFS_STATUS_SUCCESS;
        }
        VrkFsStatus status =
            CompareTable(client, file, VrkFsMediaVideoBodyTableOffset(alpha != nullptr), frames, *video);
        if (VRKFS_SUCCEEDED(status) && alpha != nullptr) {
            const std::uint64_t offset = VrkFsMediaAlphaBodyTableOffset(VrkFsBodyTableBytes(frames));
            status = CompareTable(client, file, offset, frames, *alpha);
        }
        return status;
    });
}

VrkFsStatus VrkFsClientMapNodes(VrkFsClient* client, const VrkFsSectionName* name, int writable, VrkFsNodeView* view) {
    return Guarded([&] {
        const VrkFsChar* const end = std::find(std::begin(name->Text), std::end(name->Text), VrkFsChar{});
        host::Process::SectionView mapped;
        const host::Status status = client->process->MapSection({name->Text, end}, writable != 0, mapped);
        if (status.Ok()) {
            view->Nodes = static_cast<VrkFsPlacedNode*>(static_cast<void*>(mapped.bytes.data()));
            view->Count = static_cast<std::uint32_t>(mapped.bytes.size() / sizeof(VrkFsPlacedNode));
            view->Handle = mapped.handle;
            view->Bytes = mapped.bytes.size();
        }
        return status;
    });
}

void VrkFsClientUnmapNodes(VrkFsClient* client, VrkFsNodeView* view) {
    (void)Guarded([&]() -> VrkFsStatus {
        client->process->UnmapSection({{reinterpret_cast<std::byte*>(view->Nodes), view->Bytes}, view->Handle});
        return VRKFS_STATUS_SUCCESS;
    });
    *view = {};
}

void VrkFsClientPublishNode(VrkFsPlacedNode* place, const VrkFsPlacedNode* node) {
    place->ScsiId = node->ScsiId;
    place->Node = node->Node;
    std::atomic_ref(place->Lba).store(node->Lba, std::memory_order_release);
}

int VrkFsClientReadNode(const VrkFsPlacedNode* place, VrkFsPlacedNode* node) {
    // The reference is only read through.
    const std::uint32_t lba = std::atomic_ref(const_cast<VrkFsPlacedNode*>(place)->Lba).load(std::memory_order_acquire);
    if (lba == 0) {
        return 0;
    }
    *node = {place->ScsiId, lba, place->Node};
    return 1;
}

// ---- Buffers and blocks ----

VrkFsStatus VrkFsClientAllocateBuffer(VrkFsClient* client, size_t size, VrkFsBuffer* buffer) {
    return Guarded([&] {
        host::Process::NamedMemory memory;
        const host::Status status = client->process->AllocateMemory(size, memory);
        if (status.Ok()) {
            *buffer = {memory.bytes.data(), memory.bytes.size(), memory.name};
        }
        return status;
    });
}

void VrkFsClientFreeBuffer(VrkFsClient* client, VrkFsBuffer* buffer) {
    (void)Guarded([&]() -> VrkFsStatus {
        client->process->FreeMemory(MemoryOf(*buffer));
        return VRKFS_STATUS_SUCCESS;
    });
    *buffer = {};
}

VrkFsStatus VrkFsClientReadBlocks(VrkFsClient* client, VrkFsHandle disks, uint32_t scsiId, uint32_t lba,
                                  uint32_t blocks, const VrkFsBuffer* buffer) {
    return MoveBlocks(client, disks, VRK_SCSI_READ, scsiId, lba, blocks, buffer);
}

VrkFsStatus VrkFsClientWriteBlocks(VrkFsClient* client, VrkFsHandle disks, uint32_t scsiId, uint32_t lba,
                                   uint32_t blocks, const VrkFsBuffer* buffer) {
    return MoveBlocks(client, disks, VRK_SCSI_WRITE, scsiId, lba, blocks, buffer);
}

VrkFsStatus VrkFsClientQueryDisk(VrkFsClient* client, VrkFsHandle disks, uint32_t scsiId, VrkScsiDeviceInfo* info) {
    VrkScsiDeviceInfo asked{};
    asked.ScsiId = scsiId;
    return Control(client, disks, IOCTL_VRK_SCSI_DEVICE_QUERY, BytesOf(asked), WritableBytesOf(*info));
}
