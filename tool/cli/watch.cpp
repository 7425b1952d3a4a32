#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <memory>
#include <utility>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/interrupt.h"
#include "tool/text.h"
#include "tool/tree_watch.h"

namespace tool {
namespace {

constexpr std::uint32_t kEveryChange = 0xFFF;
// Listings keep at least this distance, so that a burst of changes is one.
constexpr std::chrono::milliseconds kDistance{50};
// The driver has a handle's first request carried out by a thread of its own, so for a moment behind its "pending" it
// does not note changes yet. From the second on it keeps for the next request what comes in between.
constexpr std::chrono::seconds kUntilItListens{1};

// One pending notification of a drive, which a descriptor tells the end of. Its record outlives the process whose
// request points to it.
class Bell {
  public:
    Bell() : state_(std::make_shared<State>()) {}

    [[nodiscard]] int Descriptor() const { return state_->rung; }

    // Asks to be told of the next change, or of one since the last time.
    [[nodiscard]] host::Status Arm(host::Process& process, host::Handle handle) {
        std::uint64_t count = 0;
        while (::read(state_->rung, &count, sizeof(count)) < 0 && errno == EINTR) {
        }
        const auto done = [state = state_](host::IoResult result) { state->Ring(result.status); };
        host::RequestId id = 0;
        const host::Status status = process.NotifyChangeDirectory(handle, kEveryChange, true, {}, done, &id);
        if (!status.Ok()) {
            return status;
        }
        if (!status.Pending()) {
            state_->Ring(status);
        }
        return host::status::kSuccess;
    }
    // How it ended, when it has.
    [[nodiscard]] host::Status Ended() const { return host::Status{state_->status}; }

  private:
    struct State {
        const int rung = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        std::atomic<std::uint32_t> status{0};

        void Ring(host::Status ended) {
            status = ended.code;
            const std::uint64_t one = 1;
            if (::write(rung, &one, sizeof(one)) < 0) {
                // It cannot be full: it is emptied before each request.
            }
        }
        ~State() { ::close(rung); }
    };

    std::shared_ptr<State> state_;
};

// Rings once; there is none in a process that is out of descriptors.
class Alarm {
  public:
    explicit Alarm(std::chrono::seconds time) : descriptor_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
        itimerspec when{};
        when.it_value.tv_sec = time.count();
        ::timerfd_settime(descriptor_, 0, &when, nullptr);
    }
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;
    ~Alarm() { Silence(); }

    // Below 0 when it is over, which a wait passes over.
    [[nodiscard]] int Descriptor() const { return descriptor_; }
    void Silence() { ::close(std::exchange(descriptor_, -1)); }

  private:
    int descriptor_;
};

const char* NameOf(TreeChange::Kind kind) {
    switch (kind) {
        case TreeChange::Kind::kCreated:
            return "created";
        case TreeChange::Kind::kRemoved:
            return "removed";
        case TreeChange::Kind::kRenamed:
            return "renamed";
        default:
            return "changed";
    }
}

void Report(const Output& output, const TreeChange& change) {
    const std::int64_t now = ParseTime("now").value_or(0);
    const std::string size = change.node.folder ? "-" : std::to_string(change.node.size);
    const bool renamed = change.kind == TreeChange::Kind::kRenamed;
    Json fields{{"time", FormatTime(now, true)}, {"event", NameOf(change.kind)}, {"path", change.path.Display()}};
    if (renamed) {
        fields["from"] = change.from.Display();
    }
    fields["kind"] = change.node.folder ? "folder" : "file";
    fields["bytes"] = change.node.folder ? Json(nullptr) : Json(change.node.size);
    output.Report(FormatTime(now) + "  " + NameOf(change.kind) + PadLeft(size, 14) + "  " +
                      (renamed ? change.from.Display() + " -> " : std::string()) + change.path.Display(),
                  fields);
}

class Watch {
  public:
    Watch(Session& session, const Output& output, const DrivePath& path)
        : process_(session.Process()), output_(output), path_(path) {}

    Result Run() {
        if (Result failure = Begin()) {
            return failure;
        }
        Alarm unheard(kUntilItListens);
        while (Told()) {
            const int descriptors[] = {bell_.Descriptor(), unheard.Descriptor()};
            const auto rung = WaitReadable(descriptors);
            if (!rung || !Pause(kDistance)) {
                break;
            }
            host::Status status = host::status::kSuccess;
            if (*rung == 0) {
                status = AskAgain();
            } else {
                unheard.Silence();
            }
            if (status.Ok()) {
                status = Look();
            }
            if (!status.Ok()) {
                return CannotWatch(status);
            }
        }
        return std::nullopt;
    }

  private:
    // The drive's root is watched, whatever the path: a handle on a folder would keep it from being deleted or moved.
    Result Begin() {
        host::OpenRequest request;
        request.path = DrivePath{path_.drive, path_.card, {}}.Open();
        request.options = host::option::kDirectoryFile;
        request.overlapped = true;
        const host::OpenResult root = process_.Create(request);
        host::Status status = root.status;
        if (status.Ok()) {
            root_ = host::ScopedHandle(process_, root.handle);
            status = bell_.Arm(process_, root_.Get());
        }
        if (status.Ok()) {
            status = ReadTree(process_, path_, seen_);
        }
        if (!status.Ok()) {
            return CannotWatch(status);
        }
        output_.Report(FormatTime(ParseTime("now").value_or(0)) + "  watching               " + path_.Display(),
                       {{"time", FormatTime(ParseTime("now").value_or(0), true)},
                        {"event", "watching"},
                        {"path", path_.Display()}});
        return std::nullopt;
    }

    // The next notification is asked for before the listing, so that what changes behind the listing is told by it.
    host::Status AskAgain() {
        const host::Status ended = bell_.Ended();
        return ended.Ok() ? bell_.Arm(process_, root_.Get()) : ended;
    }

    // Tells what differs from the listing before.
    host::Status Look() {
        TreeNode now;
        const host::Status status = ReadTree(process_, path_, now);
        const bool gone =
            !now.folder && (status == host::status::kObjectNameNotFound ||
                            status == host::status::kObjectPathNotFound || status == host::status::kNotADirectory);
        if (!status.Ok() && !gone) {
            return status;
        }
        Compare(now);
        seen_ = std::move(now);
        return host::status::kSuccess;
    }

    [[nodiscard]] Failure CannotWatch(host::Status status) const {
        return DriverFailure(Operation::kList, "cannot watch " + path_.Display(), status);
    }

    // The folder itself comes and goes like what is in it.
    void Compare(const TreeNode& now) {
        if (path_.names.empty()) {
            Tell(CompareTrees(path_, seen_, now));
            return;
        }
        DrivePath parent = path_;
        const std::u16string name = parent.names.back();
        parent.names.pop_back();
        Tell(CompareTrees(parent, Holding(name, seen_), Holding(name, now)));
    }

    static TreeNode Holding(const std::u16string& name, const TreeNode& node) {
        TreeNode parent;
        parent.folder = true;
        if (node.folder) {
            parent.below[name] = node;
        }
        return parent;
    }

    void Tell(const std::vector<TreeChange>& changes) const {
        for (const TreeChange& change : changes) {
            Report(output_, change);
        }
    }

    // False when nobody can read what is told any more.
    static bool Told() { return static_cast<bool>(std::cout.flush()); }

    host::Process& process_;
    const Output& output_;
    const DrivePath& path_;
    Bell bell_;
    host::ScopedHandle root_;
    TreeNode seen_;
};

}  // namespace

void AddWatch(CLI::App& app, CommonOptions& common) {
    auto typed = std::make_shared<std::string>("/");
    CLI::App* command = AddCommand(
        app, "watch", "Tell what changes below a folder of a drive, as it happens",
        R"(A line for each thing created, removed, renamed or changed: time (UTC), event, bytes, path. The first line says that it
has begun; Ctrl-C ends it. It needs a daemon: without one nobody else can change anything.

The driver reports names that come, go and change. That a clip grows, is written over in place, or has its time set, is
seen with the next such report below the drive, not by itself. Several changes of one thing in quick succession are told
as one.

  vrkfs watch P:/RZV/NEWS
  vrkfs watch --json | jq -r 'select(.event == "created").path')");
    command->add_option("PATH", *typed, "a folder on a drive")->capture_default_str();
    command->callback([typed, &common] {
        const Output output("watch", common.json);
        Finish(RunOnPath(
            common, output, *typed,
            [&](Session& session, const DrivePath& path) { return Watch(session, output, path).Run(); },
            Session::Means::kDaemonOnly));
    });
}

}  // namespace tool
