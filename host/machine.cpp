#include "host/machine.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <list>
#include <mutex>

#include "board/board.h"
#include "host/local_process.h"
#include "nt/kernel.h"
#include "nt/station.h"

extern "C" DRIVER_INITIALIZE DriverEntry;  // the file system driver's only door

namespace host {
namespace {

// The boards' common driver object: one request routine, which finds its board in the device.
NTSTATUS BoardDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->MajorFunction[IRP_MJ_CREATE] = &board::Board::Dispatch;
    driver->MajorFunction[IRP_MJ_CLEANUP] = &board::Board::Dispatch;
    driver->MajorFunction[IRP_MJ_CLOSE] = &board::Board::Dispatch;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = &board::Board::Dispatch;
    driver->DriverUnload = [](PDRIVER_OBJECT) {};
    return STATUS_SUCCESS;
}

// The threads that are made while one of these lives leave the program's signals to the program's own threads.
class ProgramSignalsBlocked {
  public:
    ProgramSignalsBlocked() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            sigaddset(&signals, signal);
        }
        pthread_sigmask(SIG_BLOCK, &signals, &before_);
    }
    ~ProgramSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    ProgramSignalsBlocked(const ProgramSignalsBlocked&) = delete;
    ProgramSignalsBlocked& operator=(const ProgramSignalsBlocked&) = delete;

  private:
    sigset_t before_;
};

}  // namespace

struct Machine::Parts {
    MachineOptions options;
    std::unique_ptr<Station> station;
    std::unique_ptr<StationLock> lock;
    bool booted = false;
    PDRIVER_OBJECT boardDriver = nullptr;
    PDRIVER_OBJECT driver = nullptr;
    std::vector<std::unique_ptr<board::Board>> boards;  // by card index; null where there is no card
    bool stopped = false;

    std::mutex cardsLock;                     // guards the following
    std::list<std::vector<CardFacts>> cards;  // as they were found, the latest last; callers keep references

    Problem Boot();
    Problem PlugBoards();
    Problem PlugBoard(const CardPlace& card);
    Problem AttachDisk(const CardPlace& card, const DiskPlace& place) const;
    Problem LoadDriver();
    [[nodiscard]] std::vector<CardFacts> FindCards() const;
    std::vector<std::string> TakeDown();
};

Problem Machine::Parts::Boot() {
    nt::BootOptions boot;
    boot.manualClock = options.manualClock;
    nt::Boot(boot);
    booted = true;
    const std::string wrong = nt::AttachStation(
        {station->Registry().string(), station->EventLog().string(), station->SystemRoot().string(), options.readOnly});
    if (!wrong.empty()) {
        return {wrong, "mend the file, or move it away to start with defaults"};
    }
    return {};
}

Problem Machine::Parts::PlugBoards() {
    const nt::DriverImage image{&BoardDriverEntry, u"Vrk", {}};
    if (!NT_SUCCESS(nt::LoadDriver(image, &boardDriver))) {
        boardDriver = nullptr;
        return {"the boards cannot be started", "memory may be short"};
    }
    boards.resize(10);
    for (const CardPlace& card : station->Cards()) {
        if (Problem problem = PlugBoard(card)) {
            return problem;
        }
    }
    return {};
}

Problem Machine::Parts::PlugBoard(const CardPlace& card) {
    std::string error;
    auto plugged = board::Board::Plug(boardDriver, card.index, error);
    if (!plugged) {
        return {error, "memory may be short"};
    }
    boards[card.index] = std::move(plugged);
    for (const DiskPlace& place : card.disks) {
        if (Problem problem = AttachDisk(card, place)) {
            return problem;
        }
    }
    return {};
}

Problem Machine::Parts::AttachDisk(const CardPlace& card, const DiskPlace& place) const {
    std::string error;
    const board::DiskOptions diskOptions{options.readOnly, options.writeThrough};
    auto disk = board::Disk::Open(place.path.string(), diskOptions, error);
    if (!disk) {
        return {"disk " + std::to_string(place.scsiId) + " of card " + std::to_string(card.index) +
                    " cannot be opened: " + error,
                "check the image, or move it away"};
    }
    boards[card.index]->AttachDisk(place.scsiId, std::move(*disk));
    return {};
}

Problem Machine::Parts::LoadDriver() {
    const nt::DriverImage image{&DriverEntry, u"VrkFs", {}};
    const NTSTATUS status = nt::LoadDriver(image, &driver);
    if (!NT_SUCCESS(status)) {
        driver = nullptr;
        return {"the driver did not start: " + StatusName(Status{static_cast<std::uint32_t>(status)}),
                "see the event log: vrkfs events -s " + station->Directory().string()};
    }
    return {};
}

// A card's letter is the one whose link leads to its drive.
std::vector<CardFacts> Machine::Parts::FindCards() const {
    std::vector<CardFacts> found;
    for (const CardPlace& card : station->Cards()) {
        const std::u16string device =
            u"\\Device\\VrkFsDiskDevice" + std::u16string(1, static_cast<char16_t>(u'0' + card.index));
        for (char letter = 'A'; letter <= 'Z'; ++letter) {
            const std::u16string link = u"\\DosDevices\\" + std::u16string(1, static_cast<char16_t>(letter)) + u":";
            std::u16string target;
            if (NT_SUCCESS(nt::QueryLink(link, &target)) && target == device) {
                found.push_back({card.index, letter});
                break;
            }
        }
    }
    return found;
}

std::vector<std::string> Machine::Parts::TakeDown() {
    std::vector<std::string> left;
    const auto note = [&left](const nt::LeakList& leaks) {
        for (const nt::Leak& leak : leaks) {
            left.push_back(leak.what + " " + leak.name + " (" + std::to_string(leak.count) + ")");
        }
    };
    if (driver != nullptr) {
        nt::SendShutdown();
        nt::LeakList leaks;
        if (!NT_SUCCESS(nt::UnloadDriver(driver, &leaks))) {
            left.push_back("the driver could not be unloaded: files are open on it");
        }
        note(leaks);
        driver = nullptr;
    }
    for (auto& plugged : boards) {
        if (plugged && !options.readOnly && !plugged->SyncAll()) {
            left.push_back("an image could not be synced: what was written last may be lost");
        }
        plugged.reset();
    }
    if (boardDriver != nullptr) {
        nt::LeakList leaks;
        (void)nt::UnloadDriver(boardDriver, &leaks);
        note(leaks);
        boardDriver = nullptr;
    }
    if (booted) {
        note(nt::Shutdown());
        booted = false;
    }
    return left;
}

std::unique_ptr<Machine> Machine::Start(const std::filesystem::path& directory, const MachineOptions& options,
                                        Problem& problem) {
    const ProgramSignalsBlocked signals;
    auto parts = std::make_unique<Parts>();
    parts->options = options;
    parts->station = Station::Read(directory, problem);
    if (!parts->station) {
        return nullptr;
    }
    parts->lock = StationLock::Take(*parts->station, options.program, options.readOnly, problem);
    if (!parts->lock) {
        return nullptr;
    }
    problem = parts->Boot();
    if (!problem) {
        problem = parts->PlugBoards();
    }
    if (!problem) {
        problem = parts->LoadDriver();
    }
    if (problem) {
        for (const std::string& line : parts->TakeDown()) {
            std::fprintf(stderr, "left over after a failed start: %s\n", line.c_str());
        }
        return nullptr;
    }
    return std::unique_ptr<Machine>(new Machine(std::move(parts)));
}

Machine::Machine(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

Machine::~Machine() {
    if (!parts_->stopped) {
        for (const std::string& line : Stop()) {
            std::fprintf(stderr, "left over: %s\n", line.c_str());
        }
    }
}

std::vector<std::string> Machine::Stop() {
    parts_->stopped = true;
    return parts_->TakeDown();
}

std::unique_ptr<Process> Machine::NewProcess() {
    return std::make_unique<LocalProcess>(parts_->options.program);
}

// A letter changes when a program sets another one.
const std::vector<CardFacts>& Machine::Cards() const {
    std::vector<CardFacts> now = parts_->FindCards();
    const std::lock_guard hold(parts_->cardsLock);
    const auto same = [](const CardFacts& one, const CardFacts& other) {
        return one.index == other.index && one.driveLetter == other.driveLetter;
    };
    if (parts_->cards.empty() || !std::ranges::equal(parts_->cards.back(), now, same)) {
        parts_->cards.push_back(std::move(now));
    }
    return parts_->cards.back();
}

bool Machine::ReadOnly() const {
    return parts_->options.readOnly;
}

board::Board* Machine::BoardOf(std::uint32_t card) {
    return card < parts_->boards.size() ? parts_->boards[card].get() : nullptr;
}

Problem Machine::SyncImages() {
    if (parts_->options.readOnly) {
        return {};
    }
    for (const auto& plugged : parts_->boards) {
        if (plugged && !plugged->SyncAll()) {
            return {"an image could not be synced", "check the disk that holds it"};
        }
    }
    return {};
}

Problem Machine::ReleaseDisks(std::uint32_t card) {
    board::Board* const plugged = BoardOf(card);
    if (plugged == nullptr) {
        return {"the station has no card " + std::to_string(card), "give the number of one that is there"};
    }
    const bool synced = plugged->DetachDisks();
    for (const CardPlace& place : parts_->station->Cards()) {
        if (place.index == card) {
            parts_->lock->UnlockImages(place);
        }
    }
    if (!synced && !parts_->options.readOnly) {
        return {"an image could not be synced", "check the disk that holds it"};
    }
    return {};
}

Problem Machine::TakeDisks(std::uint32_t card) {
    Problem problem;
    const auto station = Station::Read(parts_->station->Directory(), problem);
    if (!station) {
        return problem;
    }
    for (const CardPlace& place : station->Cards()) {
        if (place.index != card || BoardOf(card) == nullptr) {
            continue;
        }
        if (Problem taken = parts_->lock->LockImages(place)) {
            parts_->lock->UnlockImages(place);
            return taken;
        }
        for (const DiskPlace& disk : place.disks) {
            if (Problem failed = parts_->AttachDisk(place, disk)) {
                problem.what += (problem ? "; " : "") + failed.what;
                problem.advice = failed.advice;
            }
        }
    }
    return problem;
}

}  // namespace host
