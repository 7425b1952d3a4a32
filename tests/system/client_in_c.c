/* A program in C that uses the client's header: that it is one, and that what it declares can be called. */
#include <vrkfs/client.h>

/* The volumes of card 0, with the first one's record, or a negative number. */
int CountVolumesInC(VrkFsClient* client, VrkFsVolumeInfoRecord* first) {
    VrkFsHandle control = 0;
    uint32_t count = 0;
    if (!VRKFS_SUCCEEDED(VrkFsClientOpenControl(client, 0, &control)) ||
        !VRKFS_SUCCEEDED(VrkFsClientQueryVolumes(client, control, first, 1, &count))) {
        return -1;
    }
    return VRKFS_SUCCEEDED(VrkFsClientClose(client, control)) ? (int)count : -1;
}
