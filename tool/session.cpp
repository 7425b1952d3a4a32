#include "tool/session.h"

#include <cstdlib>

namespace tool {
namespace {

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

std::unique_ptr<Session> Session::Open(const CommonOptions& options, const std::string& command, Failure& failure) {
    std::string directory;
    if (Result none = FindStation(options, directory)) {
        failure = *none;
        return nullptr;
    }
    std::unique_ptr<Session> session(new Session);
    host::Problem problem;
    session->station_ = host::Station::Read(directory, problem);
    if (session->station_) {
        const host::MachineOptions machine{.program = "vrkfs " + command, .readOnly = options.readOnly};
        session->machine_ = host::Machine::Start(directory, machine, problem);
    }
    if (!session->machine_) {
        failure = ProblemFailure(problem);
        return nullptr;
    }
    session->process_ = session->machine_->NewProcess();
    return session;
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
    const host::Problem problem = machine_->SyncImages();
    return problem ? Result(ProblemFailure(problem)) : std::nullopt;
}

Result Session::Close() {
    process_.reset();
    const std::vector<std::string> left = machine_->Stop();
    machine_.reset();
    if (left.empty()) {
        return std::nullopt;
    }
    std::string all;
    for (const std::string& line : left) {
        all += (all.empty() ? "" : "; ") + line;
    }
    return Failure{.what = "the station did not stop cleanly: " + all, .advice = "check the disks, and report this"};
}

int RunOnStation(const CommonOptions& options, const Output& output, const std::function<Result(Session&)>& work) {
    Failure failure;
    const std::unique_ptr<Session> session = Session::Open(options, output.Command(), failure);
    if (!session) {
        return output.Fail(failure);
    }
    Result result = work(*session);
    Result unclean = session->Close();
    if (!result) {
        result = std::move(unclean);
    } else if (unclean) {
        result->state += (result->state.empty() ? "" : "; ") + unclean->what;
    }
    return result ? output.Fail(*result) : kDone;
}

int RunOnPath(const CommonOptions& options, const Output& output, const std::string& path,
              const std::function<Result(Session&, const DrivePath&)>& work) {
    std::string error;
    const std::optional<TypedPath> typed = ParsePath(path, error);
    if (!typed) {
        return output.Fail(UsageFailure(error));
    }
    return RunOnStation(options, output, [&](Session& session) -> Result {
        DrivePath resolved;
        Result failure = session.Resolve(*typed, resolved);
        return failure ? failure : work(session, resolved);
    });
}

}  // namespace tool
