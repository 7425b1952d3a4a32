#include "nt/io.h"

// Share access: who has a file open for reading, writing or deleting, and who lets others do so. An open that wants
// none of the three is neither counted nor in anybody's way.

namespace nt {

namespace {

constexpr ACCESS_MASK kReads = FILE_READ_DATA | FILE_EXECUTE;
constexpr ACCESS_MASK kWrites = FILE_WRITE_DATA | FILE_APPEND_DATA;

// Notes on the file object what it wants and, if that counts, what it shares. True if it counts.
bool Note(ACCESS_MASK access, ULONG share, PFILE_OBJECT file) {
    file->ReadAccess = (access & kReads) != 0;
    file->WriteAccess = (access & kWrites) != 0;
    file->DeleteAccess = (access & DELETE) != 0;
    if (file->ReadAccess == FALSE && file->WriteAccess == FALSE && file->DeleteAccess == FALSE) {
        return false;
    }
    file->SharedRead = (share & FILE_SHARE_READ) != 0;
    file->SharedWrite = (share & FILE_SHARE_WRITE) != 0;
    file->SharedDelete = (share & FILE_SHARE_DELETE) != 0;
    return true;
}

bool Counts(const FILE_OBJECT* file) {
    return file->ReadAccess != FALSE || file->WriteAccess != FALSE || file->DeleteAccess != FALSE;
}

bool Conflicts(const FILE_OBJECT* file, const SHARE_ACCESS* share) {
    return (file->ReadAccess != FALSE && share->SharedRead < share->OpenCount) ||
           (file->WriteAccess != FALSE && share->SharedWrite < share->OpenCount) ||
           (file->DeleteAccess != FALSE && share->SharedDelete < share->OpenCount) ||
           (share->Readers != 0 && file->SharedRead == FALSE) || (share->Writers != 0 && file->SharedWrite == FALSE) ||
           (share->Deleters != 0 && file->SharedDelete == FALSE);
}

void Count(const FILE_OBJECT* file, SHARE_ACCESS* share) {
    share->OpenCount++;
    share->Readers += file->ReadAccess;
    share->Writers += file->WriteAccess;
    share->Deleters += file->DeleteAccess;
    share->SharedRead += file->SharedRead;
    share->SharedWrite += file->SharedWrite;
    share->SharedDelete += file->SharedDelete;
}

}  // namespace

}  // namespace nt

NTKERNELAPI VOID NTAPI IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                                        PSHARE_ACCESS ShareAccess) {
    *ShareAccess = {};
    if (nt::Note(DesiredAccess, DesiredShareAccess, FileObject)) {
        nt::Count(FileObject, ShareAccess);
    }
}

NTKERNELAPI NTSTATUS NTAPI IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess,
                                              PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess, BOOLEAN Update) {
    if (!nt::Note(DesiredAccess, DesiredShareAccess, FileObject)) {
        return STATUS_SUCCESS;
    }
    if (nt::Conflicts(FileObject, ShareAccess)) {
        return STATUS_SHARING_VIOLATION;
    }
    if (Update != FALSE) {
        nt::Count(FileObject, ShareAccess);
    }
    return STATUS_SUCCESS;
}

NTKERNELAPI VOID NTAPI IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess) {
    if (!nt::Counts(FileObject)) {
        return;
    }
    ShareAccess->OpenCount--;
    ShareAccess->Readers -= FileObject->ReadAccess;
    ShareAccess->Writers -= FileObject->WriteAccess;
    ShareAccess->Deleters -= FileObject->DeleteAccess;
    ShareAccess->SharedRead -= FileObject->SharedRead;
    ShareAccess->SharedWrite -= FileObject->SharedWrite;
    ShareAccess->SharedDelete -= FileObject->SharedDelete;
}
