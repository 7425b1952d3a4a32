// A clip in place of another. The new one is whole under a name of its own; the old one is renamed aside, the new one
// takes its name, and when that is durable the old one goes. So at every moment one of the two stands under a name,
// whole.
//
// The names are ".NAME.new" and ".NAME.old". The mount shows neither while it is at work. What an end without warning
// leaves is seen by the next mount: an unfinished ".NAME.new" is an empty file, and ".NAME.old" is the old clip, which
// is the only one if there is no NAME. Nobody deletes either but the user.
#include <cerrno>

#include "mount/file_system.h"
#include "mount/names.h"

namespace mount {

host::Status FileSystem::PutAside(const Place& place, std::u16string_view ending, std::u16string& aside) {
    host::Status status = host::status::kObjectNameCollision;
    for (unsigned attempt = 0; attempt < kSideNames && status == host::status::kObjectNameCollision; ++attempt) {
        aside = SideName(place.name, ending, attempt);
        status = place.folder->drive->Rename(tree_->PathBelow(place.folder, place.name), aside);
    }
    if (status.Ok()) {
        tree_->Hide(place.folder, aside);
    }
    return status;
}

host::Status FileSystem::Swap(const Place& from, const Place& place, std::u16string& aside) {
    Drive& drive = *place.folder->drive;
    host::Status status = PutAside(place, u"old", aside);
    const bool isFree = status == host::status::kObjectNameNotFound;  // somebody else has removed it meanwhile
    if (!status.Ok()) {
        aside.clear();
    }
    if (!status.Ok() && !isFree) {
        return status;
    }
    const std::u16string target = from.folder == place.folder ? place.name : tree_->PathBelow(place.folder, place.name);
    status = drive.Rename(tree_->PathBelow(from.folder, from.name), target);
    if (status.Ok() || isFree) {
        return status;
    }
    const host::Status back = drive.Rename(tree_->PathBelow(place.folder, aside), place.name);
    tree_->Show(place.folder, aside);
    if (!back.Ok()) {
        journal_.Line(tree_->DisplayBelow(place.folder, place.name) + ": the clip that was here is now " +
                      tree_->DisplayBelow(place.folder, aside) +
                      ", and could not be renamed back: " + host::StatusName(back));
        (void)ListLocked(place.folder);
    }
    aside.clear();
    return status;
}

int FileSystem::RemoveOld(const NodePointer& folder, const std::u16string& aside, const std::string& display) {
    if (const int error = SyncImages(display); error != 0) {
        journal_.Line(display + ": the clip that it replaces is kept as " + tree_->DisplayBelow(folder, aside));
        tree_->Show(folder, aside);
        return error;
    }
    const std::lock_guard work(folder->listing->work);
    RemoveAside(folder, aside, display);
    return 0;
}

// It goes at once, or with the last of those who have it open; until then no listing here shows it.
void FileSystem::RemoveAside(const NodePointer& folder, const std::u16string& aside, const std::string& display) {
    const std::u16string path = tree_->PathBelow(folder, aside);
    const host::Status status = folder->drive->RemoveLater(path);
    Facts facts;
    const host::Status after = folder->drive->Look(path, facts);
    if (!status.Ok() || after.Ok()) {
        journal_.Line(display + ": " + tree_->DisplayBelow(folder, aside) +
                      " could not be deleted: " + (status.Ok() ? "see vrkfs events" : host::StatusName(status)));
    }
    if (!status.Ok() || after.Ok() || after == host::status::kObjectNameNotFound) {
        tree_->Show(folder, aside);
    }
}

}  // namespace mount
