#include "mount/mount.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <list>
#include <thread>
#include <utility>
#include <vector>

#include "mount/change_watch.h"
#include "mount/mountpoint.h"
#include "mount/requests.h"

namespace mount {
namespace {

constexpr int kWake = SIGURG;  // which nobody minds

// The kernel lets nobody in but who mounted, unless others are allowed; where that one owns everything and may do
// everything with it, permissions have nothing to decide. The kernel's check of them costs a request for the folder's
// attributes after each change of a name in it.
bool HasPermissionsToCheck(const Options& options) {
    const bool ownerMayAll =
        (options.folderMode & S_IRWXU) == S_IRWXU && (options.fileMode & (S_IRUSR | S_IWUSR)) == (S_IRUSR | S_IWUSR);
    return options.allowOther || options.owner != ::geteuid() || !ownerMayAll;
}

std::string SessionOptions(const Options& options, bool readOnly) {
    std::string text = "fsname=vrkfs,subtype=vrkfs";
    text += HasPermissionsToCheck(options) ? ",default_permissions" : "";
    text += readOnly ? ",ro" : "";
    text += options.allowOther ? ",allow_other" : "";
    return text;
}

// libfuse tells its troubles on standard error only.
void LogLibrary(fuse_log_level level, const char* format, va_list values) {
    // What it says when a mount ends under it is no news.
    if (level <= FUSE_LOG_ERR) {
        ::vfprintf(stderr, format, values);
    }
}

}  // namespace

struct Mount::Parts {
    Parts(host::Access& access, const Options& given, Log log)
        : options(given), files(access, given, std::move(log)), context{files, options} {}
    ~Parts();

    host::Problem MakeSession();
    host::Problem Watch(host::Access& access);
    void Serve();
    void TellEnded() const;
    void EndLoop();

    const Options options;
    FileSystem files;
    RequestContext context;  // holds nodes, which end before the files
    std::list<ChangeWatch> watches;
    fuse_session* session = nullptr;
    bool mounted = false;
    std::string device;  // of the mount
    DeathWatch deathWatch;
    std::thread loop;
    std::atomic<bool> loopEnded = false;
    int ended = -1;  // an event
};

// The kernel's answer to a mount that fails is an errno, which libfuse keeps to itself but for a line.
host::Problem Mount::Parts::MakeSession() {
    std::string text = SessionOptions(options, files.IsReadOnly());
    std::string program = "vrkfs";
    std::string flag = "-o";
    std::vector<char*> words{program.data(), flag.data(), text.data(), nullptr};
    fuse_args arguments = FUSE_ARGS_INIT(3, words.data());
    fuse_set_log_func(&LogLibrary);
    session = fuse_session_new(&arguments, &Requests(), sizeof(fuse_lowlevel_ops), &context);
    fuse_opt_free_args(&arguments);
    if (session == nullptr) {
        return {"the mount's options are not taken", "see: vrkfs mount --help"};
    }
    if (::access("/dev/fuse", F_OK) != 0) {
        return {"/dev/fuse is not there, so nothing can be mounted", "load the kernel's module: modprobe fuse"};
    }
    if (fuse_session_mount(session, options.mountpoint.c_str()) != 0) {
        return {"'" + options.mountpoint.string() + "' cannot be mounted on",
                "check /dev/fuse, your rights, and for allow_other /etc/fuse.conf"};
    }
    mounted = true;
    device = DeviceAt(options.mountpoint);
    return {};
}

host::Problem Mount::Parts::Watch(host::Access& access) {
    for (const std::unique_ptr<Drive>& drive : files.Drives()) {
        host::Problem problem;
        std::unique_ptr<host::Process> process = access.NewProcess(problem);
        if (!process) {
            return problem;
        }
        watches.emplace_back(files, *drive, std::move(process), [this] { TellEnded(); });
    }
    return {};
}

void Mount::Parts::Serve() {
    fuse_loop_config* const config = fuse_loop_cfg_create();
    fuse_loop_cfg_set_clone_fd(config, 1);
    fuse_loop_cfg_set_max_threads(config, options.threads);
    fuse_loop_cfg_set_idle_threads(config, options.threads);
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, kWake);
    ::pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
    (void)fuse_session_loop_mt(session, config);
    fuse_loop_cfg_destroy(config);
    loopEnded = true;
    TellEnded();
}

void Mount::Parts::TellEnded() const {
    const std::uint64_t one = 1;
    if (::write(ended, &one, sizeof(one)) < 0) {
        // It has been told already, more often than can be counted.
    }
}

// The kernel ends a mount only when nothing on it is open any more, under whatever name and in whatever namespace. The
// loop sleeps meanwhile and looks whether it is to end when a signal has woken it.
void Mount::Parts::EndLoop() {
    fuse_session_exit(session);
    struct sigaction nothing {};
    nothing.sa_handler = [](int) {};
    ::sigaction(kWake, &nothing, nullptr);
    while (!loopEnded) {
        (void)::pthread_kill(loop.native_handle(), kWake);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    loop.join();
}

Mount::Parts::~Parts() {
    watches.clear();
    files.Caches().Stop();
    const std::filesystem::path place = loopEnded ? options.mountpoint : PlaceOf(device, options.mountpoint);
    if (loop.joinable()) {
        if (DeviceAt(place) == device) {
            Unmount(place, place != options.mountpoint);  // libfuse takes one away that is in use, but where it was
        }
        EndLoop();
    }
    if (session != nullptr) {
        if (mounted) {
            fuse_session_unmount(session);
        }
        fuse_session_destroy(session);
    }
    files.CloseAll();
    if (ended >= 0) {
        ::close(ended);
    }
}

std::unique_ptr<Mount> Mount::Start(host::Access& access, const Options& given, Log log, host::Problem& problem) {
    Options options = given;
    options.mountpoint = RealPlace(given.mountpoint);
    auto parts = std::make_unique<Parts>(access, options, std::move(log));
    problem = CheckMountpoint(options.mountpoint);
    if (!problem) {
        problem = parts->files.Start();
    }
    if (!problem) {
        parts->ended = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        problem = parts->Watch(access);
    }
    if (!problem) {
        problem = parts->MakeSession();
    }
    if (problem) {
        return nullptr;
    }
    parts->files.Caches().Start(parts->session);
    parts->deathWatch.Start(options.mountpoint);
    Parts* const raw = parts.get();
    parts->loop = std::thread([raw] { raw->Serve(); });
    return std::unique_ptr<Mount>(new Mount(std::move(parts)));
}

Mount::Mount(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

Mount::~Mount() = default;

int Mount::EndedDescriptor() const {
    return parts_->ended;
}

}  // namespace mount
