#include "mount/change_watch.h"

#include <algorithm>

namespace mount {
namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t kNamesAndMore = 0xFFF;  // every kind of change
constexpr host::Status kPortDisconnected{0xC0000037};
constexpr host::Status kEnumerate{0x0000010C};  // something changed: list again
constexpr Clock::duration kGather = milliseconds(20);
constexpr Clock::duration kRetry = milliseconds(500);
// Reading again takes at most one part in so many of the time.
constexpr int kReadingShare = 20;

}  // namespace

ChangeWatch::ChangeWatch(FileSystem& files, Drive& drive, std::unique_ptr<host::Process> process,
                         std::function<void()> lost)
    : files_(files), drive_(drive), process_(std::move(process)), lost_(std::move(lost)) {
    drive_.watched = Listen();
    thread_ = std::thread([this] { Run(); });
}

ChangeWatch::~ChangeWatch() {
    {
        const std::lock_guard hold(lock_);
        stop_ = true;
    }
    woken_.notify_all();
    thread_.join();
    drive_.watched = false;
    root_.Reset();     // ends the request
    process_.reset();  // and waits for it
}

bool ChangeWatch::Listen() {
    host::OpenRequest request;
    request.path = drive_.Prefix() + u"\\";
    request.access = host::access::kListDirectory;
    request.options = host::option::kDirectoryFile;
    request.overlapped = true;
    const host::OpenResult opened = process_->Create(request);
    if (opened.status == kPortDisconnected) {
        lost_();
    }
    if (!opened.status.Ok()) {
        return false;
    }
    root_ = host::ScopedHandle(*process_, opened.handle);
    if (!Ask()) {
        root_.Reset();
        return false;
    }
    return true;
}

bool ChangeWatch::Ask() {
    {
        const std::lock_guard hold(lock_);
        asked_ = true;
        reported_ = false;
    }
    const auto done = [this](host::IoResult result) {
        {
            const std::lock_guard hold(lock_);
            asked_ = false;
            reported_ = result.status == kEnumerate || result.status == host::status::kSuccess;
        }
        woken_.notify_all();
    };
    const host::Status status = process_->NotifyChangeDirectory(root_.Get(), kNamesAndMore, true, {}, done, nullptr);
    if (!status.Ok()) {
        const std::lock_guard hold(lock_);
        asked_ = false;
    }
    return status.Ok();
}

// False when it is time to stop.
bool ChangeWatch::Wait(Clock::duration time) {
    std::unique_lock hold(lock_);
    return !woken_.wait_for(hold, time, [this] { return stop_; });
}

// False: some of it could not be read.
bool ChangeWatch::ReadAgain() {
    bool all = true;
    for (const NodePointer& folder : files_.Nodes().KnownFolders()) {
        if (folder->drive == &drive_) {
            all = files_.Refresh(folder) && all;
        }
        const std::lock_guard hold(lock_);
        if (stop_) {
            break;
        }
    }
    return all;
}

// The next request goes out before anything is read, so no change falls between the two. Everything is read once more
// when something could not be read, since nobody reports that change again; and a moment after a handle's first
// request, which the driver takes to a thread of its own and notes no change before it is there.
void ChangeWatch::Run() {
    bool again = true;
    while (true) {
        bool ended = false;
        bool reported = false;
        {
            std::unique_lock hold(lock_);
            const auto isOver = [this] { return stop_ || !asked_; };
            again ? (void)woken_.wait_for(hold, kRetry, isOver) : woken_.wait(hold, isOver);
            if (stop_) {
                return;
            }
            ended = !asked_;
            reported = reported_;
        }
        if (ended) {
            drive_.watched = reported && drive_.watched;
            if (!Wait(reported ? kGather : kRetry)) {
                return;
            }
            if (!reported) {
                root_.Reset();
            }
            if (reported ? !Ask() : !Listen()) {
                continue;
            }
        }
        const Clock::time_point begin = Clock::now();
        drive_.watched = ReadAgain();
        again = !drive_.watched || (ended && !reported);
        if (!Wait((Clock::now() - begin) * kReadingShare)) {
            return;
        }
    }
}

}  // namespace mount
