#include "tool/clip_put.h"

#include <algorithm>
#include <system_error>

#include "tool/advice.h"
#include "tool/interrupt.h"

namespace tool {
namespace {

constexpr std::uint32_t kFileCreated = 2;  // the action of a create that made something new
constexpr std::size_t kMaxNameCharacters = 255;
constexpr int kBesideNames = 10;  // names to try for the copy beside a clip

// "NAME.new", "NAME.new2", ... with the ending ".new": within the limit of names.
std::u16string BesideName(const std::u16string& name, const std::u16string& ending, int attempt) {
    std::u16string suffix = ending;
    if (attempt > 0) {
        suffix += static_cast<char16_t>(u'1' + attempt);
    }
    return name.substr(0, kMaxNameCharacters - suffix.size()) + suffix;
}

std::string And(const std::string& before, const std::string& more) {
    return before + (before.empty() ? "" : "; ") + more;
}

}  // namespace

Result ClipPut::Write(ClipTransfer& transfer, DriveFile& file) {
    try {
        const auto problem =
            transfer.Run([&](std::uint64_t offset, std::span<const std::byte> bytes) { file.Write(offset, bytes); },
                         [&](std::uint64_t done, std::uint64_t total) { return progress_.Update(done, total); });
        if (problem) {
            return Failure{.what = local_ + ": " + problem->Line(), .advice = "see: vrkfs clip verify"};
        }
    } catch (const DriveError& error) {
        return DriverFailure(Operation::kPut, error.what(), error.Status());
    } catch (const std::system_error& error) {
        if (!Interrupted()) {
            return Failure{.what = error.what(), .advice = "check where the clip comes from"};
        }
        return StoppedFailure();
    }
    return transfer.Stopped() ? Result(StoppedFailure()) : std::nullopt;
}

Result ClipPut::Discard(Failure failure, DriveFile& file, const DrivePath& path) {
    const host::Status marked = host::SetDeleteOnCleanup(process_, file.Handle(), true);
    const host::Status closed = file.Close();
    host::FileFacts facts;
    const bool gone = marked.Ok() && closed.Ok() && !LookAt(process_, path, facts).Ok();
    failure.state =
        gone ? path.Display() + " was not made" : "a half-made " + path.Display() + " is left: delete it with vrkfs rm";
    return failure;
}

// The record of a clip is written when it is closed, where a failure is told to nobody.
Result ClipPut::CheckSize(const DrivePath& path, std::uint64_t bytes) {
    host::FileFacts facts;
    const host::Status status = LookAt(process_, path, facts);
    if (status.Ok() && facts.size == bytes) {
        return std::nullopt;
    }
    Failure failure{.what = path.Display() + " is not whole on the drive",
                    .status = status.Ok() ? "" : host::StatusName(status),
                    .advice = "see vrkfs events, and check the disks"};
    const bool gone = Delete(process_, path, false).Ok();
    failure.state = gone ? path.Display() + " was deleted again" : "what is left of it can be deleted with vrkfs rm";
    return failure;
}

Result ClipPut::PutNew(ClipTransfer& transfer, const DrivePath& path) {
    host::OpenRequest request;
    request.path = path.Open();
    request.access =
        host::access::kReadData | host::access::kWriteData | host::access::kDelete | host::access::kReadAttributes;
    request.shareAccess = host::share::kNone;
    request.disposition = host::Disposition::kCreate;
    request.options = host::option::kNonDirectoryFile;
    const host::OpenResult made = process_.Create(request);
    if (!made.status.Ok()) {
        return DriverFailure(Operation::kPut, "cannot make " + path.Display(), made.status);
    }
    DriveFile file(process_, path, made.handle);
    if (made.action != kFileCreated) {
        return Failure{.what = "cannot make " + path.Display() + ": the name is reserved",
                       .advice = "take another name"};
    }
    if (Result failure = Write(transfer, file)) {
        return Discard(*failure, file, path);
    }
    if (const host::Status closed = file.Close(); !closed.Ok()) {
        return DriverFailure(Operation::kPut, "cannot close " + path.Display(), closed);
    }
    return CheckSize(path, transfer.Layout().TotalBytes());
}

Result ClipPut::ReadBack(const DrivePath& path, const ClipDigest& digest) {
    progress_.Begin("checking");
    std::unique_ptr<DriveFile> file;
    host::FileFacts facts;
    const host::Status status = OpenForReading(process_, path, file, facts);
    if (!status.Ok()) {
        return DriverFailure(Operation::kRead, "cannot read " + path.Display() + " back", status);
    }
    try {
        ClipTransfer back(file->Source(facts.size));
        auto problem = back.ReadHeader();
        if (!problem) {
            problem = back.Run([](std::uint64_t, std::span<const std::byte>) {},
                               [&](std::uint64_t done, std::uint64_t total) { return progress_.Update(done, total); });
        }
        if (back.Stopped()) {
            return StoppedFailure();
        }
        if (!problem && back.Digest() == digest) {
            return session_.Sync();
        }
        return Failure{.what = path.Display() + " reads back otherwise than it was written" +
                               (problem ? ": " + problem->Line() : ""),
                       .advice = "see vrkfs events, and check the disks"};
    } catch (const DriveError& error) {
        return DriverFailure(Operation::kRead, error.what(), error.Status());
    }
}

// NAME.new, NAME.new2 and so on; false leaves the last one tried.
bool ClipPut::FindFreeName(const DrivePath& path, const std::u16string& ending, DrivePath& found) {
    for (int attempt = 0; attempt < kBesideNames; ++attempt) {
        found = path.Sibling(BesideName(path.names.back(), ending, attempt));
        host::FileFacts facts;
        if (LookAt(process_, found, facts) == host::status::kObjectNameNotFound) {
            return true;
        }
    }
    return false;
}

Result ClipPut::PutBeside(ClipTransfer& transfer, const DrivePath& path, DrivePath& beside) {
    if (FindFreeName(path, u".new", beside)) {
        return PutNew(transfer, beside);
    }
    return Failure{.what = "no name is free for a copy beside " + path.Display(),
                   .advice = "delete the copies " + beside.Display() + " and such with vrkfs rm"};
}

Failure ClipPut::RemoveBeside(Failure failure, const DrivePath& beside, const DrivePath& path) {
    const bool gone = Delete(process_, beside, false).Ok();
    failure.state = And(failure.state, path.Display() + " is as it was before");
    if (!gone) {
        failure.state = And(failure.state, beside.Display() + " is left: delete it with vrkfs rm");
    }
    return failure;
}

Result ClipPut::Replace(ClipTransfer& transfer, const DrivePath& path) {
    progress_.Begin("writing");
    DrivePath beside;
    if (Result failure = PutBeside(transfer, path, beside)) {
        failure->state = And(failure->state, path.Display() + " is as it was before");
        return failure;
    }
    if (const Result failure = ReadBack(beside, transfer.Digest())) {
        return RemoveBeside(*failure, beside, path);
    }
    return Swap(beside, path);
}

// The new clip is whole and durable; the old one goes when the new one stands under its name.
Result ClipPut::Swap(const DrivePath& beside, const DrivePath& path) {
    DrivePath old;
    if (!FindFreeName(path, u".old", old)) {
        return RemoveBeside({.what = "no name is free for the old clip beside " + path.Display(),
                             .advice = "delete the copies " + old.Display() + " and such with vrkfs rm"},
                            beside, path);
    }
    if (const host::Status status = RenameOnDrive(process_, path, old.names.back()); !status.Ok()) {
        return RemoveBeside(DriverFailure(Operation::kMove, "cannot put the old " + path.Display() + " aside", status),
                            beside, path);
    }
    if (const host::Status status = RenameOnDrive(process_, beside, path.names.back()); !status.Ok()) {
        Failure failure = DriverFailure(Operation::kMove, "cannot rename " + beside.Display(), status);
        if (RenameOnDrive(process_, old, path.names.back()).Ok()) {
            return RemoveBeside(failure, beside, path);
        }
        failure.state = "the old clip is " + old.Display() + ", and the new one is whole as " + beside.Display();
        return failure;
    }
    Result unsynced = session_.Sync();
    if (unsynced) {
        unsynced->state = path.Display() + " is the new clip, and the old one is " + old.Display();
        return unsynced;
    }
    if (const host::Status status = Delete(process_, old, false); !status.Ok()) {
        Failure failure = DriverFailure(Operation::kRemoveFile, "cannot delete the old clip " + old.Display(), status);
        failure.state = path.Display() + " is the new clip";
        return failure;
    }
    return std::nullopt;
}

}  // namespace tool
