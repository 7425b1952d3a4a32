#include "link/server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "link/address.h"
#include "link/guest.h"
#include "link/signals.h"

namespace vlink {
namespace {

using Clock = Guest::Clock;

constexpr std::uint64_t kListener = 0;  // keys of events; those of guests come after
constexpr std::uint64_t kWake = 1;
constexpr std::uint64_t kFirstGuest = 2;
constexpr std::chrono::milliseconds kAcceptPause{200};
constexpr std::chrono::milliseconds kStuckPause{5};

std::string ErrorText(int error) {
    return std::generic_category().message(error);
}

// Until the descriptor is closed. Anybody who can read the directory may hold its lock for ever: after two seconds it
// goes without, which does no harm as long as not two do.
void LockForMoment(int directory) {
    for (int i = 0; i < 100 && flock(directory, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace

std::filesystem::path SocketOf(const std::filesystem::path& station) {
    return station / "socket";
}

struct Server::Parts {
    Parts(host::Machine& machine, Log log, const Limits& limits)
        : house{machine, std::move(log), limits, Sessions(machine)} {}

    House house;
    std::filesystem::path path;
    Descriptor listener;
    struct stat file {};  // what it was bound to
    Descriptor epoll;
    Descriptor wake;
    std::thread poller;
    std::atomic<bool> stop = false;

    // The poll thread's own.
    std::map<std::uint64_t, std::unique_ptr<Guest>> guests;
    std::uint64_t nextGuest = kFirstGuest;
    bool stopping = false;
    bool listening = true;
    bool turnedAway = false;  // since the last connection, and said so
    Clock::time_point listenAgain{};

    host::Problem Listen();
    int Bind(const Address& address);
    bool Prepare();
    void RemoveFile() const;
    void Run();
    void Handle(const epoll_event& event, bool& stuck);
    void Accept();
    void Admit(Descriptor socket);
    void ListenFor(bool on);
    void BuryTheDead();
    void BeginStop();
    int Timeout(Clock::time_point now) const;
};

// ---- The socket ----

host::Problem Server::Parts::Listen() {
    const std::string name = path.string();
    Address address;
    if (const int error = address.Set(path); error != 0) {
        return {"cannot listen on " + name + ": " + ErrorText(error), "name another place with --socket"};
    }
    LockForMoment(address.Directory());  // of two that find a dead socket, one comes second
    struct stat there {};
    if (lstat(path.c_str(), &there) == 0 && !S_ISSOCK(there.st_mode)) {
        return {name + " is there and is no socket", "name another place with --socket"};
    }
    if (Descriptor(ConnectTo(address))) {
        host::Problem problem{"somebody listens on " + name + " already", "name another place with --socket"};
        problem.inUse = true;
        return problem;
    }
    if (const int error = Bind(address); error != 0) {
        return {"cannot listen on " + name + ": " + ErrorText(error), "name another place with --socket"};
    }
    return {};
}

int Server::Parts::Bind(const Address& address) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return errno;
    }
    listener = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The mode is there before the file is: there is no moment at which somebody else could connect.
    if (!listener || fchmod(listener.Get(), 0600) != 0 || bind(listener.Get(), address.Get(), Address::kSize) != 0) {
        return errno;
    }
    if (lstat(path.c_str(), &file) != 0 || listen(listener.Get(), SOMAXCONN) != 0) {
        const int error = errno;
        unlink(path.c_str());
        return error;
    }
    return 0;
}

// Unless somebody has put another in its place.
void Server::Parts::RemoveFile() const {
    struct stat now {};
    if (lstat(path.c_str(), &now) == 0 && now.st_dev == file.st_dev && now.st_ino == file.st_ino) {
        unlink(path.c_str());
    }
}

bool Server::Parts::Prepare() {
    epoll = Descriptor(epoll_create1(EPOLL_CLOEXEC));
    wake = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    house.epoll = epoll.Get();
    house.wake = wake.Get();
    epoll_event ofWake{EPOLLIN, {.u64 = kWake}};
    epoll_event ofListener{EPOLLIN, {.u64 = kListener}};
    return epoll && wake && epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, wake.Get(), &ofWake) == 0 &&
           epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, listener.Get(), &ofListener) == 0;
}

std::unique_ptr<Server> Server::Start(host::Machine& machine, const std::filesystem::path& socket, Log log,
                                      host::Problem& problem, const Limits& limits) {
    auto parts = std::make_unique<Parts>(machine, std::move(log), limits);
    parts->path = socket;
    problem = parts->Listen();
    if (problem) {
        return nullptr;
    }
    bool ready = parts->Prepare();
    if (ready) {
        const SignalsBlocked blocked;
        try {
            parts->poller = std::thread([raw = parts.get()] { raw->Run(); });
        } catch (const std::system_error&) {
            ready = false;
        }
    }
    if (!ready) {
        parts->RemoveFile();
        problem = {"cannot serve on " + socket.string(), "descriptors or threads may be short"};
        return nullptr;
    }
    return std::unique_ptr<Server>(new Server(std::move(parts)));
}

Server::Server(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

Server::~Server() {
    parts_->stop.store(true);
    (void)eventfd_write(parts_->wake.Get(), 1);
    parts_->poller.join();
}

// ---- The poll thread ----

void Server::Parts::Run() {
    while (!stopping || !guests.empty()) {
        epoll_event events[64];
        const int count = epoll_wait(epoll.Get(), events, std::size(events), Timeout(Clock::now()));
        bool stuck = false;
        for (int i = 0; i < count; ++i) {
            Handle(events[i], stuck);
        }
        if (stuck) {
            std::this_thread::sleep_for(kStuckPause);  // it would be told again and again
        }
        const Clock::time_point now = Clock::now();
        for (const auto& [number, guest] : guests) {
            if (guest->NextCheck() <= now) {
                guest->CheckPatience(now);
            }
        }
        BuryTheDead();
        if (!listening && !stopping && now >= listenAgain) {
            ListenFor(true);
        }
        if (stop.load() && !stopping) {
            BeginStop();
        }
    }
}

void Server::Parts::Handle(const epoll_event& event, bool& stuck) {
    const std::uint64_t key = event.data.u64;  // a copy: the record is packed
    if (key == kListener) {
        Accept();
        return;
    }
    if (key == kWake) {
        eventfd_t ignored = 0;
        (void)eventfd_read(wake.Get(), &ignored);
        return;
    }
    const auto found = guests.find(key);
    if (found == guests.end()) {
        return;
    }
    if ((event.events & EPOLLOUT) != 0) {
        stuck |= !found->second->Writable();
    }
    if ((event.events & EPOLLIN) != 0) {
        found->second->Readable();
    }
    if ((event.events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
        found->second->HungUp();
    }
}

void Server::Parts::Accept() {
    for (;;) {
        Descriptor socket(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                // Whoever wants in waits; asking on and on would help nobody.
                if (!turnedAway) {
                    house.log("cannot take connections for now: " + ErrorText(errno));
                }
                turnedAway = true;
                ListenFor(false);
            }
            return;
        }
        turnedAway = false;
        Admit(std::move(socket));
    }
}

void Server::Parts::Admit(Descriptor socket) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    const uid_t owner = geteuid();
    Welcome welcome = Welcome::kYes;
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || (peer.uid != owner && peer.uid != 0)) {
        welcome = Welcome::kNotAllowed;
        house.log("refused process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid) +
                  ": the station is user " + std::to_string(owner) + "'s");
    } else if (guests.size() >= house.limits.connections) {
        welcome = Welcome::kTooMany;
        house.log("refused process " + std::to_string(peer.pid) + ": " + std::to_string(guests.size()) +
                  " connections are there");
    }
    if (welcome == Welcome::kYes) {
        const std::uint64_t number = nextGuest++;
        try {
            auto guest = std::make_unique<Guest>(house, std::move(socket), number, peer.pid);
            guest->Start();
            guests.emplace(number, std::move(guest));
        } catch (const std::system_error& error) {
            house.log("refused process " + std::to_string(peer.pid) + ": " + error.what());
        }
        return;
    }
    const HelloAnswer answer{kMagic, kVersion, welcome, 0, 0, 0};
    const FrameHeader header{sizeof(header) + sizeof(answer), Op::kHello, 0, 1};
    const std::span<const std::byte> pieces[] = {BytesOf(header), BytesOf(answer)};
    (void)SendNow(socket.Get(), pieces, -1);
}

void Server::Parts::ListenFor(bool on) {
    listening = on;
    listenAgain = Clock::now() + kAcceptPause;
    epoll_event event{on ? std::uint32_t{EPOLLIN} : 0, {.u64 = kListener}};
    (void)epoll_ctl(epoll.Get(), EPOLL_CTL_MOD, listener.Get(), &event);
}

void Server::Parts::BuryTheDead() {
    std::erase_if(guests, [](const auto& entry) { return entry.second->Over(); });
}

void Server::Parts::BeginStop() {
    stopping = true;
    RemoveFile();
    listener.Reset();
    for (const auto& [number, guest] : guests) {
        guest->LetGo("was let go: the daemon stops");
    }
}

int Server::Parts::Timeout(Clock::time_point now) const {
    Clock::time_point next = listening || stopping ? Clock::time_point::max() : listenAgain;
    for (const auto& [number, guest] : guests) {
        next = std::min(next, guest->NextCheck());
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
}

}  // namespace vlink
