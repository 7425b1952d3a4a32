// Clients of a daemon.
#include <utility>

#include "client/calls.h"
#include "link/connection.h"

VrkFsStatus VrkFsClientConnect(const char* socket, VrkFsClient** client) {
    return client::Guarded([&]() -> VrkFsStatus {
        host::Problem problem;
        std::shared_ptr<host::Access> access = vlink::Connect(socket, problem);
        if (!access) {
            return problem ? VRKFS_STATUS_CONNECTION_REFUSED : VRKFS_STATUS_OBJECT_NAME_NOT_FOUND;
        }
        auto process = access->NewProcess(problem);
        if (!process) {
            return VRKFS_STATUS_CONNECTION_REFUSED;
        }
        *client = new VrkFsClient{std::move(access), std::move(process)};
        return VRKFS_STATUS_SUCCESS;
    });
}
