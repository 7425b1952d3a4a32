#include "tool/session.h"

#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "link/connection.h"
#include "tool/advice.h"
#include "tool/door.h"
#include "tool/interrupt.h"

namespace tool {
namespace {

// How long a daemon may take to start or to stop before it is taken for somebody who has the station.
constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::milliseconds kGlance{20};

std::string Letters(const std::vector<host::CardFacts>& cards) {
    std::string text;
    for (const host::CardFacts& card : cards) {
        text += (text.empty() ? "" : ", ") + std::string{card.driveLetter, ':'};
    }
    return text;
}

}  // namespace

Failure ProblemFailure(const host::Problem& problem) {
    return {.what = problem.what, .advice = problem.advice, .exit = problem.inUse ? kInUse : kFailed};
}

Result FindStation(const CommonOptions& options, std::string& directory) {
    const char* variable = std::getenv("VRKFS_STATION");
    directory = !options.station.empty() ? options.station : variable != nullptr ? variable : "";
    if (directory.empty()) {
        return UsageFailure("no station is named", "give -s DIR, or set VRKFS_STATION");
    }
    return std::nullopt;
}

std::string FindSocket(const CommonOptions& options) {
    const char* variable = options.station.empty() ? std::getenv("VRKFS_SOCKET") : nullptr;
    return !options.socket.empty() ? options.socket : variable != nullptr ? variable : "";
}

std::unique_ptr<Session> Session::Open(const CommonOptions& options, const std::string& command, Failure& failure,
                                       Means means) {
    std::unique_ptr<Session> session(new Session);
    const std::string socket = FindSocket(options);
    Result failed =
        socket.empty() ? session->OpenStation(options, command, means) : session->OpenSocket(options, socket);
    if (!failed && options.readOnly && !session->access_->ReadOnly()) {
        failed = Failure{.what = "the station is served for writing, so --read-only cannot be had",
                         .advice = "end its daemon, or leave --read-only out",
                         .exit = kInUse};
    }
    if (!failed) {
        host::Problem problem;
        session->process_ = session->access_->NewProcess(problem);
        failed = session->process_ ? std::nullopt : Result(ProblemFailure(problem));
    }
    if (failed) {
        failure = *failed;
        return nullptr;
    }
    return session;
}

// The station's directory is of use only when it is certain that the daemon serves that one.
Result Session::OpenSocket(const CommonOptions& options, const std::string& socket) {
    host::Problem problem;
    access_ = vlink::Connect(socket, problem);
    if (!access_) {
        return problem ? ProblemFailure(problem)
                       : Failure{.what = "no daemon listens at '" + socket + "'",
                                 .advice = "start one: vrkfs serve -s DIR --socket " + socket};
    }
    std::string directory;
    if (FindStation(options, directory)) {
        return std::nullopt;
    }
    station_ = host::Station::Read(directory, problem);
    if (station_ && !IsSameSocket(DoorOf(*station_, access_->ReadOnly()), socket)) {
        station_.reset();
    }
    if (!station_ && !options.station.empty()) {
        return problem ? ProblemFailure(problem)
                       : UsageFailure("the daemon at '" + socket + "' does not serve the station '" + directory + "'",
                                      "leave -s or --socket out");
    }
    return std::nullopt;
}

// A daemon that starts or stops has the station without being there to ask.
Result Session::OpenStation(const CommonOptions& options, const std::string& command, Means means) {
    std::string directory;
    if (Result none = FindStation(options, directory)) {
        return none;
    }
    host::Problem problem;
    station_ = host::Station::Read(directory, problem);
    if (!station_) {
        return ProblemFailure(problem);
    }
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (true) {
        Result failure = TryStation(options, command, means);
        if (!failure || failure->exit != kInUse || Interrupted() || std::chrono::steady_clock::now() > end ||
            !IsHeldByDaemon(*station_)) {
            return failure;
        }
        std::this_thread::sleep_for(kGlance);
    }
}

Result Session::TryStation(const CommonOptions& options, const std::string& command, Means means) {
    host::Problem problem;
    access_ = FindDaemon(*station_, problem);
    if (access_ || problem) {
        return access_ ? std::nullopt : Result(ProblemFailure(problem));
    }
    if (means == Means::kDaemonOnly) {
        const bool held = IsHeldByDaemon(*station_);
        return Failure{.what = "no daemon serves the station",
                       .advice = "start one: vrkfs serve -s " + station_->Directory().string(),
                       .exit = held ? kInUse : kFailed};
    }
    auto machine = host::Machine::Start(
        station_->Directory(), {.program = "vrkfs " + command, .readOnly = options.readOnly || options.onlyReads},
        problem);
    if (!machine) {
        return ProblemFailure(problem);
    }
    machine_ = machine.get();
    access_ = std::move(machine);
    return std::nullopt;
}

Result Session::NeedStation() const {
    if (station_) {
        return std::nullopt;
    }
    return UsageFailure("the station's directory is needed", "give -s DIR beside --socket");
}

Result Session::Resolve(const TypedPath& typed, DrivePath& path) const {
    const std::vector<host::CardFacts>& cards = Cards();
    if (!typed.drive && cards.size() != 1) {
        return UsageFailure("the path needs a drive letter", "this station has " + Letters(cards));
    }
    for (const host::CardFacts& card : cards) {
        if (typed.drive.value_or(card.driveLetter) == card.driveLetter) {
            path = {card.driveLetter, card.index, typed.names};
            return std::nullopt;
        }
    }
    return Failure{.what = std::string("there is no drive ") + *typed.drive + ":",
                   .advice = "this station has " + Letters(cards)};
}

Result Session::ChooseCard(const std::optional<std::uint32_t>& number, host::CardFacts& card) const {
    const std::vector<host::CardFacts>& cards = Cards();
    if (!number && cards.size() != 1) {
        return UsageFailure("the station has " + std::to_string(cards.size()) + " cards", "say which one: --card N");
    }
    for (const host::CardFacts& each : cards) {
        if (number.value_or(each.index) == each.index) {
            card = each;
            return std::nullopt;
        }
    }
    return Failure{.what = "the station has no card " + std::to_string(*number),
                   .advice = "give --card the number of one that is there"};
}

Result Session::Sync() {
    const host::Problem problem = access_->SyncImages();
    return problem ? Result(ProblemFailure(problem)) : std::nullopt;
}

Result Session::NeedWritable(const std::string& what) const {
    if (!access_->ReadOnly()) {
        return std::nullopt;
    }
    return DriverFailure(Operation::kSettings, what, host::Status{0xC00000A2});
}

Failure Session::Explained(Failure failure) const {
    if (access_->ReadOnly() && failure.refusedToWrite) {
        failure.state = "nothing was changed";
        failure.advice = machine_ != nullptr ? "nothing can be written: leave --read-only out"
                                             : "nothing can be written: the daemon was started with --read-only";
    }
    return failure;
}

Result Session::Close() {
    process_.reset();
    std::vector<std::string> left;
    if (machine_ != nullptr) {
        left = std::exchange(machine_, nullptr)->Stop();
    }
    access_.reset();
    if (left.empty()) {
        return std::nullopt;
    }
    std::string all;
    for (const std::string& line : left) {
        all += (all.empty() ? "" : "; ") + line;
    }
    return Failure{.what = "the station did not stop cleanly: " + all, .advice = "check the disks, and report this"};
}

int RunOnStation(const CommonOptions& options, const Output& output, const std::function<Result(Session&)>& work,
                 Session::Means means) {
    Failure failure;
    const std::unique_ptr<Session> session = Session::Open(options, output.Command(), failure, means);
    if (!session) {
        return output.Fail(failure);
    }
    Result result = work(*session);
    if (result) {
        result = session->Explained(*std::move(result));
    }
    Result unclean = session->Close();
    if (!result) {
        result = std::move(unclean);
    } else if (unclean) {
        result->state += (result->state.empty() ? "" : "; ") + unclean->what;
    }
    return result ? output.Fail(*result) : kDone;
}

int RunOnPath(const CommonOptions& options, const Output& output, const std::string& path,
              const std::function<Result(Session&, const DrivePath&)>& work, Session::Means means) {
    std::string error;
    const std::optional<TypedPath> typed = ParsePath(path, error);
    if (!typed) {
        return output.Fail(UsageFailure(error));
    }
    return RunOnStation(
        options, output,
        [&](Session& session) -> Result {
            DrivePath resolved;
            Result failure = session.Resolve(*typed, resolved);
            return failure ? failure : work(session, resolved);
        },
        means);
}

}  // namespace tool
