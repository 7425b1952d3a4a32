// How a program in this house becomes a client: what a VrkFsClient stands on, for whoever makes one.
#pragma once

#include <vrkfs/client.h>

#include <memory>

#include "host/process.h"

namespace client {

struct Destroyer {
    void operator()(VrkFsClient* client) const { VrkFsClientDestroy(client); }
};
using ClientPointer = std::unique_ptr<VrkFsClient, Destroyer>;

// The process ends when the client is destroyed.
ClientPointer MakeClient(std::unique_ptr<host::Process> process);

}  // namespace client
