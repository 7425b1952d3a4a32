// What both examples hold while they work: a client's handles and memory, given back in the end.
#pragma once

#include <vrkfs/client.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace examples {

inline void Need(VrkFsStatus status, const char* step) {
    if (!VRKFS_SUCCEEDED(status)) {
        char name[64];
        VrkFsClientStatusName(status, name, sizeof(name));
        throw std::runtime_error(std::string(step) + ": " + name);
    }
}

struct Session {
    VrkFsClient* client;
    VrkFsHandle control = 0;
    VrkFsHandle disks = 0;
    VrkFsHandle file = 0;
    VrkFsNodeView nodes[2] = {};  // by stream
    VrkFsBuffer buffer = {};      // holds the longest field

    explicit Session(VrkFsClient* ofClient) : client(ofClient) {}
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() { Close(); }

    void OpenCard(std::uint32_t card) {
        Need(VrkFsClientOpenControl(client, card, &control), "open the card's control device");
        Need(VrkFsClientOpenDisks(client, card, &disks), "open the card");
    }

    // The driver has written the file's record when this has succeeded; that a disk refused it is in the event log.
    void CloseFile() { Need(VrkFsClientClose(client, std::exchange(file, 0)), "close the file"); }

    void Close() {
        for (VrkFsNodeView& view : nodes) {
            if (view.Nodes != nullptr) {
                VrkFsClientUnmapNodes(client, &view);
            }
        }
        if (buffer.Bytes != nullptr) {
            VrkFsClientFreeBuffer(client, &buffer);
        }
        for (VrkFsHandle* handle : {&file, &disks, &control}) {
            if (*handle != 0) {
                (void)VrkFsClientClose(client, *handle);
                *handle = 0;
            }
        }
    }

    // Leaves everything to whoever ends the process.
    void Abandon() {
        nodes[0] = nodes[1] = {};
        buffer = {};
        file = disks = control = 0;
    }
};

}  // namespace examples
