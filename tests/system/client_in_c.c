/* A program in C that uses the client's header: that it is one, and that what it declares can be called. */
#include <string.h>
#include <vrkfs/client.h>

/* The volumes of card 0, or a negative number after the step that failed. */
int CountVolumesInC(VrkFsClient* client, char* firstName, size_t size) {
    VrkFsHandle control = 0;
    VrkFsVolumeInfoRecord volume;
    uint32_t count = 0;
    size_t at;
    if (!VRKFS_SUCCEEDED(VrkFsClientOpenControl(client, 0, &control))) {
        return -1;
    }
    memset(&volume, 0, sizeof(volume));
    if (!VRKFS_SUCCEEDED(VrkFsClientQueryVolumes(client, control, &volume, 1, &count))) {
        return -2;
    }
    for (at = 0; at + 1 < size && at < VRKFS_VOLUME_NAME_CHARS && volume.Name[at] != 0; ++at) {
        firstName[at] = (char)volume.Name[at];
    }
    firstName[at] = '\0';
    return VRKFS_SUCCEEDED(VrkFsClientClose(client, control)) ? (int)count : -3;
}
