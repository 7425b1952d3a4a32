// A card as the service reaches it.
#pragma once

#include <vrkfs/client.h>

#include <cstdint>
#include <memory>
#include <string>

#include "client/client.h"

namespace service {

// Longer fields are no picture: the longest that is has 810 sectors.
inline constexpr std::uint32_t kMaxFieldSectors = 4096;
inline constexpr std::size_t kBufferBytes = std::size_t{kMaxFieldSectors} * VRKFS_SECTOR_SIZE;

// Used by one thread at a time, VrkFsClientCancel aside.
class Card {
  public:
    // Null when the client cannot open the card; `problem` is filled.
    static std::unique_ptr<Card> Open(client::ClientPointer& client, std::uint32_t index, std::string& problem);

    std::uint32_t Index() const { return index_; }
    VrkFsClient* Client() const { return client_.get(); }
    VrkFsHandle Control() const { return control_; }

    // Memory that the driver reaches, too.
    std::uint8_t* Buffer() const { return static_cast<std::uint8_t*>(buffer_.Bytes); }
    const VrkFsBuffer& Memory() const { return buffer_; }

    // Between a disk and the start of the buffer.
    VrkFsStatus Read(std::uint32_t scsiId, std::uint32_t lba, std::uint32_t blocks) {
        return VrkFsClientReadBlocks(client_.get(), disks_, scsiId, lba, blocks, &buffer_);
    }
    VrkFsStatus Write(std::uint32_t scsiId, std::uint32_t lba, std::uint32_t blocks) {
        return VrkFsClientWriteBlocks(client_.get(), disks_, scsiId, lba, blocks, &buffer_);
    }

  private:
    Card() = default;

    std::uint32_t index_ = 0;
    client::ClientPointer client_;  // its end closes the handles and frees the buffer
    VrkFsHandle control_ = 0;
    VrkFsHandle disks_ = 0;
    VrkFsBuffer buffer_ = {};
};

// Closes when it goes out of scope.
class OpenFile {
  public:
    OpenFile() = default;
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { Close(); }

    VrkFsStatus Open(VrkFsClient* client, const std::u16string& path, std::uint32_t flags) {
        client_ = client;
        return VrkFsClientOpenFile(client, path.c_str(), flags, &handle_);
    }
    VrkFsHandle Get() const { return handle_; }
    void Close() {
        if (handle_ != 0) {
            (void)VrkFsClientClose(client_, handle_);
            handle_ = 0;
        }
    }

  private:
    VrkFsClient* client_ = nullptr;
    VrkFsHandle handle_ = 0;
};

// "cannot open it: STATUS_SHARING_VIOLATION"
std::string Failed(const char* what, VrkFsStatus status);
// For a person.
std::string ToText(const std::u16string& path);

}  // namespace service
