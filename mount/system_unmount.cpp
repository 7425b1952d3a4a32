#include "mount/system_unmount.h"

#include <sys/mount.h>

#include <cerrno>

int system_call::Unmount(const char* place, bool lazily) {
    return ::umount2(place, UMOUNT_NOFOLLOW | (lazily ? MNT_DETACH : 0)) == 0 ? 0 : errno;
}
