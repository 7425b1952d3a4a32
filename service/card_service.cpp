#include "service/card_service.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "service/creation.h"

namespace service {
namespace {

constexpr std::size_t kMaxOpen = 4096;
constexpr std::size_t kMaxRendered = 8;
constexpr std::size_t kMaxEdits = 32;
constexpr std::chrono::seconds kFresh{2};      // how long a file that was made serves reads
constexpr std::chrono::seconds kSameLine{10};  // in which a line is not said again
constexpr double kLinesASecond = 2;
constexpr std::size_t kPieceBytes = 1 << 20;
static_assert(kPieceBytes <= kBufferBytes);
constexpr std::chrono::seconds kCreationTime{45};  // of the driver's 60
constexpr std::size_t kTypeAt = 3;                 // in "P:\TGA\..."
constexpr std::u16string_view kBuiltIn = u"RZV";

VrkFsServiceResponse Response(std::uint32_t type, std::uint32_t result) {
    VrkFsServiceResponse response{};
    response.Type = type;
    response.Result = result;
    return response;
}

bool Send(const Respond& respond, const VrkFsServiceResponse& response, std::size_t dataBytes = 0) {
    return respond(response, sizeof(response), dataBytes);
}

template <typename Record>
Record Copy(const std::uint8_t* bytes) {
    Record record;
    std::memcpy(&record, bytes, sizeof(record));
    return record;
}

// Nothing when it has no end.
std::optional<std::u16string> Terminated(std::span<const VrkFsChar> text) {
    const auto end = std::ranges::find(text, VrkFsChar{});
    return end == text.end() ? std::nullopt : std::optional(std::u16string(text.begin(), end));
}

// The port may lie in any type's folder, but files are made in the built-in one's.
bool IntoBuiltIn(std::u16string& path) {
    if (path.size() <= kTypeAt + kBuiltIn.size() || path[1] != u':' || path[2] != u'\\' ||
        path.find(u'\\', kTypeAt) != kTypeAt + kBuiltIn.size()) {
        return false;
    }
    path.replace(kTypeAt, kBuiltIn.size(), kBuiltIn);
    return true;
}

std::uint64_t OffsetOf(const VrkFsServiceTransfer& transfer) {
    return std::uint64_t{transfer.OffsetHigh} << 32 | transfer.OffsetLow;
}

}  // namespace

CardService::~CardService() {
    for (const auto& [key, edit] : edits_) {
        if (edit.IsPending()) {
            SayOfFrame(key, "is not changed: the service let go of it before it was closed");
        }
    }
}

void CardService::Answer(const VrkFsServiceRequest& request, const Respond& respond) {
    switch (request.Type) {
        case VRKFS_SERVICE_OPEN:
            return AnswerOpen(request.Payload.Open, respond);
        case VRKFS_SERVICE_CLEAN:
            return AnswerClean(request.Payload.Clean, respond);
        case VRKFS_SERVICE_CLOSE:
            return AnswerClose(request.Payload.Close, respond);
        case VRKFS_SERVICE_READ:
            return AnswerRead(request.Payload.Transfer, respond);
        case VRKFS_SERVICE_WRITE:
            return AnswerWrite(request.Payload.Transfer, respond);
        case VRKFS_SERVICE_UPDATE_PREFS:
            return AnswerPrefs(respond);
        case VRKFS_SERVICE_AVAILABLE_SPACE:
            return AnswerSpace(request.Payload.SpaceQuery, respond);
        case VRKFS_SERVICE_CREATE_MEDIA_FILE:
            return AnswerCreation(request.Payload.Creation, respond);
        default:
            Say("the driver asks for something unknown (" + std::to_string(request.Type) + ")");
            (void)Refuse(request.Type, respond);
    }
}

// ---- Handles ----

void CardService::AnswerOpen(const VrkFsServiceOpen& open, const Respond& respond) {
    const std::optional<std::u16string> path = Terminated(open.Path);
    std::string problem = open_.size() < kMaxOpen ? "its name has no end" : "too many clips are being looked into";
    LookedInto made;
    if (path && open_.size() < kMaxOpen) {
        made.path = std::u16string{open.DriveLetter, open.Colon} + *path;
        made.clip = Clip::Open(card_, made.path, Clip::Use::kLook, problem);
    }
    if (!made.clip) {
        Say(ToText(made.path) + ": " + problem);
        (void)Refuse(VRKFS_SERVICE_OPEN, respond);
        return;
    }
    while (nextHandle_ == 0 || open_.contains(nextHandle_)) {
        ++nextHandle_;
    }
    VrkFsServiceResponse response = Response(VRKFS_SERVICE_OPEN, 0);
    const std::uint32_t handle = response.Payload.ServiceHandle = nextHandle_++;
    open_[handle] = std::move(made);
    if (!Send(respond, response)) {
        Forget(handle);
    }
}

void CardService::AnswerClean(const VrkFsServiceClean& clean, const Respond& respond) {
    const FrameKey key{clean.ServiceHandle, clean.FrameIndex, FileKind{clean.TypeCode}};
    if (const auto edit = edits_.find(key); edit != edits_.end()) {
        EndEdit(edit);
    }
    refused_.erase(key);
    std::erase_if(rendered_, [&](const Rendered& each) { return each.key == key; });
    (void)Send(respond, Response(VRKFS_SERVICE_CLEAN, open_.contains(clean.ServiceHandle) ? 0 : 1));
}

void CardService::AnswerClose(const VrkFsServiceClose& close, const Respond& respond) {
    const bool known = open_.contains(close.ServiceHandle);
    Forget(close.ServiceHandle);
    (void)Send(respond, Response(VRKFS_SERVICE_CLOSE, known ? 0 : 1));
}

void CardService::Forget(std::uint32_t handle) {
    for (auto edit = edits_.begin(); edit != edits_.end();) {
        const auto next = std::next(edit);
        if (edit->first.handle == handle) {
            EndEdit(edit);
        }
        edit = next;
    }
    std::erase_if(refused_, [&](const FrameKey& each) { return each.handle == handle; });
    std::erase_if(rendered_, [&](const Rendered& each) { return each.key.handle == handle; });
    open_.erase(handle);
}

bool CardService::FindFrame(const VrkFsServiceTransfer& transfer, FrameKey& key) {
    key = {transfer.ServiceHandle, transfer.FrameIndex, FileKind{transfer.TypeCode}};
    return open_.contains(key.handle) && transfer.TypeCode >= 1 && transfer.TypeCode <= kFileKinds;
}

// ---- Reading ----

// Null when there is no picture, which has been said then. Good until the next call.
const Bytes* CardService::Render(const FrameKey& key) {
    if (const auto edit = edits_.find(key); edit != edits_.end() && edit->second.IsPending()) {
        return &edit->second.File();  // whoever writes sees what was written
    }
    const auto now = Clock::now();
    std::erase_if(rendered_, [&](const Rendered& each) { return now - each.made > kFresh; });
    const auto found = std::ranges::find(rendered_, key, &Rendered::key);
    if (found != rendered_.end()) {
        return &found->file;
    }
    Frame frame;
    Rendered made{key, {}, now};
    std::string problem;
    std::string note;
    if (!open_[key.handle].clip->ReadFrame(key.frame, frame, problem) ||
        !FrameToFile(key.kind, frame, made.file, problem, note)) {
        SayOfFrame(key, problem);
        return nullptr;
    }
    if (!note.empty()) {
        SayOfFrame(key, note);
    }
    if (rendered_.size() >= kMaxRendered) {
        rendered_.pop_back();
    }
    rendered_.push_front(std::move(made));
    return &rendered_.front().file;
}

void CardService::AnswerRead(const VrkFsServiceTransfer& read, const Respond& respond) {
    FrameKey key;
    const Bytes* const file = FindFrame(read, key) ? Render(key) : nullptr;
    if (file == nullptr) {
        (void)Refuse(VRKFS_SERVICE_READ, respond);
        return;
    }
    std::uint64_t at = OffsetOf(read);
    std::uint32_t left = read.ByteCount;
    do {  // the driver waits for an answer even to a request for nothing
        const std::size_t count = std::min<std::size_t>(left, kPieceBytes);
        const std::size_t there = at < file->size() ? std::min<std::size_t>(count, file->size() - at) : 0;
        if (there != 0) {
            std::memcpy(card_.Buffer(), file->data() + at, there);
        }
        std::memset(card_.Buffer() + there, 0, count - there);
        VrkFsServiceResponse response = Response(VRKFS_SERVICE_READ, 0);
        response.Payload.ByteCount = static_cast<std::uint32_t>(count);
        if (!Send(respond, response, count)) {
            return;
        }
        at += count;
        left -= static_cast<std::uint32_t>(count);
    } while (left != 0);
}

// ---- Writing ----

FrameEdit* CardService::Edit(const FrameKey& key) {
    if (const auto found = edits_.find(key); found != edits_.end()) {
        return &found->second;
    }
    if (edits_.size() >= kMaxEdits) {
        std::erase_if(edits_, [](const auto& each) { return each.second.IsSpent(); });
    }
    Frame frame;
    Bytes file;
    std::string problem;
    std::string note;
    if (edits_.size() >= kMaxEdits) {
        problem = "too many frames are being written";
    } else if (open_[key.handle].clip->ReadFrame(key.frame, frame, problem) &&
               FrameToFile(key.kind, frame, file, problem, note)) {
        return &edits_.try_emplace(key, key.kind, std::move(frame), std::move(file)).first->second;
    }
    SayOfFrame(key, "cannot be written: " + problem);
    return nullptr;
}

void CardService::AnswerWrite(const VrkFsServiceTransfer& write, const Respond& respond) {
    FrameKey key;
    if (!FindFrame(write, key)) {
        (void)Refuse(VRKFS_SERVICE_WRITE, respond);
        return;
    }
    if (OffsetOf(write) == 0) {
        refused_.erase(key);  // begun anew
    }
    if (!Pull(write, key, respond)) {
        Reject(key);
        (void)Refuse(VRKFS_SERVICE_WRITE, respond);
    }
}

void CardService::Reject(const FrameKey& key) {
    edits_.erase(key);
    refused_.insert(key);
}

// Null when there is none to put the bytes into, which has been said then.
FrameEdit* CardService::EditFor(const VrkFsServiceTransfer& write, const FrameKey& key) {
    if (write.ByteCount == 0) {  // that is how an empty file comes that has been renamed to the frame's name
        SayOfFrame(key, "is not changed: the file is empty");
        return nullptr;
    }
    // Programs go on after a refusal, and some bring their pieces in any order: those that are left make no picture.
    if (refused_.contains(key)) {
        SayOfFrame(key, "is not changed: an earlier piece was refused");
        return nullptr;
    }
    FrameEdit* const edit = Edit(key);
    std::string problem;
    if (edit != nullptr && !edit->CanTake(OffsetOf(write), write.ByteCount, problem)) {
        SayOfFrame(key, "is not changed: " + problem);
        return nullptr;
    }
    return edit;
}

// The driver takes a write for done when it has given the last byte. So that one stays with it until everything before
// has been stored, as if the byte were what it was before: then there is still somebody to tell that it failed. False
// when the write is to be refused, which has been said then.
bool CardService::Pull(const VrkFsServiceTransfer& write, const FrameKey& key, const Respond& respond) {
    FrameEdit* const edit = EditFor(write, key);
    if (edit == nullptr) {
        return false;
    }
    edit->BeginWrite();
    auto at = static_cast<std::size_t>(OffsetOf(write));
    for (std::uint32_t left = write.ByteCount; left != 0;) {
        if (left == 1) {
            edit->Cover(at, 1);
            if (!StoreIfWhole(*edit, key)) {
                return false;
            }
        }
        const std::size_t count = std::min<std::size_t>(left == 1 ? 1 : left - 1, kPieceBytes);
        VrkFsServiceResponse response = Response(VRKFS_SERVICE_WRITE, 0);
        response.Payload.ByteCount = static_cast<std::uint32_t>(count);
        if (!Send(respond, response, count)) {
            return true;  // what came counts; its last user's end decides
        }
        edit->Put(at, {card_.Buffer(), count});
        at += count;
        left -= static_cast<std::uint32_t>(count);
    }
    if (!StoreIfWhole(*edit, key)) {
        Reject(key);  // the driver has its answers
    }
    return true;
}

// False when it never will be whole or cannot be stored, which has been said then.
bool CardService::StoreIfWhole(FrameEdit& edit, const FrameKey& key) {
    std::string problem;
    const Outcome outcome = edit.Check(false, problem);
    if (outcome == Outcome::kRefused) {
        SayOfFrame(key, "is not changed: " + problem);
        return false;
    }
    return outcome == Outcome::kMore || Store(edit, key);
}

// False when it cannot be stored, which has been said then.
bool CardService::Store(FrameEdit& edit, const FrameKey& key) {
    std::string problem;
    Frame before;
    Frame after;
    const std::unique_ptr<Clip> clip = OpenToChange(key, problem);
    if (!clip || !clip->ReadFrame(key.frame, before, problem) || !edit.Apply(before, after, problem)) {
        SayOfFrame(key, "is not changed: " + problem);
        return false;
    }
    const bool written = clip->WriteFrame(before, after, problem);
    rendered_.clear();  // other types and handles may show the frame, too
    if (!written) {
        SayOfFrame(key, "may be half changed: " + problem);
        return false;
    }
    edit.SetApplied();
    return true;
}

// The clip is opened once more for this, so that nobody begins to record over it meanwhile.
std::unique_ptr<Clip> CardService::OpenToChange(const FrameKey& key, std::string& problem) {
    const LookedInto& looked = open_[key.handle];
    std::unique_ptr<Clip> clip = Clip::Open(card_, looked.path, Clip::Use::kChange, problem);
    if (clip && !clip->Is(*looked.clip)) {
        problem = "another clip has the name now";
        clip.reset();
    }
    return clip;
}

// Nobody can be told any more but the log.
void CardService::EndEdit(std::map<FrameKey, FrameEdit>::iterator edit) {
    const auto& [key, file] = *edit;
    std::string problem;
    std::size_t there = 0;
    std::size_t wanted = 0;
    if (file.IsPending() && file.Check(true, problem) != Outcome::kDone) {
        SayOfFrame(key, "is not changed: " + problem);
    } else if (file.IsPending()) {
        const bool cut = file.IsCutShort(there, wanted);
        if (Store(edit->second, key) && cut) {
            SayOfFrame(key, "only the first " + std::to_string(there) + " of " + std::to_string(wanted) +
                                " bytes were written; the rest stays as it was");
        }
    }
    edits_.erase(edit);
}

// ---- Settings and the command port ----

void CardService::AnswerPrefs(const Respond& respond) {
    const auto rows = FileTypes();
    std::vector<std::byte> room(offsetof(VrkFsServiceResponse, Payload.FileTypes.Rows) + sizeof(rows));
    VrkFsServiceResponse response = Response(VRKFS_SERVICE_UPDATE_PREFS, 0);
    response.Payload.FileTypes.Count = static_cast<std::uint32_t>(rows.size());
    std::memcpy(room.data(), &response, offsetof(VrkFsServiceResponse, Payload.FileTypes.Rows));
    std::memcpy(room.data() + offsetof(VrkFsServiceResponse, Payload.FileTypes.Rows), rows.data(), sizeof(rows));
    (void)respond(*reinterpret_cast<const VrkFsServiceResponse*>(room.data()), room.size(), 0);
}

void CardService::AnswerSpace(const VrkFsPortSpaceQuery& query, const Respond& respond) {
    const std::optional<std::u16string> path = Terminated(query.Path);
    VrkFsPortSpaceInfo space{};
    std::string problem = "its name has no end";
    if (!path || !MeasureSpace(card_, *path, Copy<VrkFsPortSpaceParameters>(query.Parameters), space, problem)) {
        Say("space of " + ToText(path.value_or(u"")) + ": " + problem);
        (void)Refuse(VRKFS_SERVICE_AVAILABLE_SPACE, respond);
        return;
    }
    VrkFsServiceResponse response = Response(VRKFS_SERVICE_AVAILABLE_SPACE, 0);
    std::memcpy(response.Payload.SpaceInfo, &space, sizeof(space));
    (void)Send(respond, response);
}

void CardService::AnswerCreation(const VrkFsPortCreation& creation, const Respond& respond) {
    std::u16string path = Terminated(creation.Path).value_or(u"");
    std::string problem = "that is no place for a clip";
    if (!IntoBuiltIn(path) || !CreateClip(card_, path, Copy<VrkFsPortCreationParameters>(creation.Parameters),
                                          Clock::now() + kCreationTime, problem)) {
        Say("no clip " + ToText(path) + " was made: " + problem);
        (void)Refuse(VRKFS_SERVICE_CREATE_MEDIA_FILE, respond);
        return;
    }
    (void)Send(respond, Response(VRKFS_SERVICE_CREATE_MEDIA_FILE, 0));
}

// ---- Words ----

bool CardService::Refuse(std::uint32_t type, const Respond& respond) const {
    (void)Send(respond, Response(type, 1));
    return false;
}

// A program that tries again and again says one thing once; a person who does hears it again. One that goes through a
// thousand frames without pictures fills no disk with lines.
void CardService::Say(const std::string& line) {
    const auto now = Clock::now();
    if (line == lastLine_ && now - lastSaid_ < kSameLine) {
        return;
    }
    const double seconds = std::chrono::duration<double>(now - lastTried_).count();
    lastTried_ = now;
    credit_ = std::min(kMostLines, credit_ + seconds * kLinesASecond);
    if (credit_ < 1) {
        ++unsaid_;
        return;
    }
    credit_ -= 1;
    const std::string card = "card " + std::to_string(card_.Index()) + ": ";
    if (unsaid_ != 0) {
        log_(card + "(" + std::to_string(unsaid_) + " lines were left out)");
        unsaid_ = 0;
    }
    lastLine_ = line;
    lastSaid_ = now;
    log_(card + line);
}

void CardService::SayOfFrame(const FrameKey& key, const std::string& what) {
    Say(ToText(open_[key.handle].path) + ", frame " + std::to_string(key.frame) + ": " + what);
}

}  // namespace service
