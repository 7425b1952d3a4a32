// A station's lives with each allocation failing in turn, each board request, and the power cut at each write; once,
// and from there on for ever. VRKFS_SWEEP=full runs every point, VRKFS_SWEEP_POINT=N that one alone; otherwise a spread
// of points.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "board/board.h"
#include "nt/kernel.h"
#include "tests/faults/scenario.h"
#include "tests/support/machine_fixture.h"

namespace faults {
namespace {

constexpr std::uint64_t kQuickPoints = 40;

// What a point is about.
struct Kind {
    Life life;
    bool forEver;
};

std::string NameOf(const testing::TestParamInfo<Kind>& info) {
    constexpr const char* kLives[] = {"Recording", "Changes", "Service"};
    return std::string(kLives[static_cast<int>(info.param.life)]) + (info.param.forEver ? "ForEver" : "Once");
}

// Thousands of small stations are made and thrown away: in memory, where there is such a place.
class StationsInMemory : public testing::Environment {
  public:
    void SetUp() override {
        if (std::filesystem::is_directory("/dev/shm")) {
            ::setenv("TMPDIR", "/dev/shm", 0);
        }
    }
};
[[maybe_unused]] const testing::Environment* const kInMemory = testing::AddGlobalTestEnvironment(new StationsInMemory);

std::vector<std::uint64_t> PointsOf(std::uint64_t possible) {
    std::vector<std::uint64_t> points;
    if (const char* one = std::getenv("VRKFS_SWEEP_POINT")) {
        points.push_back(std::strtoull(one, nullptr, 10));
        return points;
    }
    const char* extent = std::getenv("VRKFS_SWEEP");
    const bool full = extent != nullptr && std::string(extent) == "full";
    const std::uint64_t step = full ? 1 : std::max<std::uint64_t>(1, possible / kQuickPoints);
    for (std::uint64_t point = 1; point <= possible; point += step) {
        points.push_back(point);
    }
    return points;
}

class Sweep : public testing::TestWithParam<Kind> {
  protected:
    // Which of the outcome's promises hold when the point has passed.
    struct Promises {
        bool closing = true;  // what happens when a handle is closed, which has nobody to tell of a failure
        bool slide = true;
        bool torn = false;
        bool everything = false;  // no step fails
    };

    static constexpr Promises kHealthy = {true, true, false, true};

    // Runs one life on a fresh copy of the template and looks at the station afterwards.
    void RunPoint(const std::string& name, const Hooks& hooks, const Promises& promises,
                  const std::optional<nt::FaultPlan>& plan = {}) {
        SCOPED_TRACE(name);
        const std::filesystem::path station = directory_.Path() / "station";
        CopyTemplate(station);
        if (plan) {
            nt::ArmFaults(*plan);
        }
        Outcome outcome = Live(GetParam().life, station, hooks);
        kernelCalls_ = plan ? nt::DisarmFaults() : 0;
        outcome.recorded = outcome.recorded && promises.closing;
        outcome.gone = outcome.gone && promises.closing;
        outcome.deleted = outcome.deleted && promises.closing;
        outcome.slid = !promises.slide;
        outcome.torn = promises.torn;
        if (promises.everything) {
            EXPECT_EQ(outcome.failed, std::vector<std::string>{});
        }
        for (const std::string& line : outcome.wrong) {
            ADD_FAILURE() << line;
        }
        for (const std::string& line : Inspect(GetParam().life, station, outcome)) {
            ADD_FAILURE() << line;
        }
    }

    // What a healthy life asks of the board once the machine runs.
    board::Counters CountBoard() {
        board::Counters counters;
        RunPoint("counting",
                 {.started = [](host::Machine& machine) { machine.BoardOf(0)->ResetCounters(); },
                  .ending = [&](host::Machine& machine) { counters = machine.BoardOf(0)->Count(); }},
                 kHealthy);
        return counters;
    }

    static void Report(const char* what, std::size_t run, std::uint64_t possible) {
        std::printf("[   SWEEP  ] %s: %zu points run of %llu possible\n", what, run,
                    static_cast<unsigned long long>(possible));
    }

    tests::TemporaryDirectory directory_;
    std::uint64_t kernelCalls_ = 0;  // of the last life, if there was a plan for them
};

constexpr Kind kKinds[] = {{Life::kRecording, false}, {Life::kRecording, true}, {Life::kChanges, false},
                           {Life::kChanges, true},    {Life::kService, false},  {Life::kService, true}};

std::string PointName(std::uint64_t point, std::uint64_t possible, bool forEver) {
    return "point " + std::to_string(point) + " of " + std::to_string(possible) + (forEver ? ", for ever" : ", once") +
           " (VRKFS_SWEEP_POINT=" + std::to_string(point) + ")";
}

// Kernel calls that fail: allocations of every kind, registry, files, mappings.
class KernelCalls : public Sweep {};

TEST_P(KernelCalls, FailInTurn) {
    const bool forEver = GetParam().forEver;
    const auto plan = [&](std::uint64_t failAt) {
        return nt::FaultPlan{.kinds = nt::kAllFaults, .failAt = failAt, .forEver = forEver};
    };
    RunPoint("counting", {}, kHealthy, plan(0));
    const std::uint64_t possible = kernelCalls_;
    ASSERT_GT(possible, 100u);

    const auto points = PointsOf(possible);
    for (const std::uint64_t point : points) {
        // To take an interrupted slide back, the card's path has to be claimed, which takes a request.
        RunPoint(PointName(point, possible, forEver), {}, {true, !forEver, false}, plan(point));
    }
    Report("kernel calls", points.size(), possible);
}

INSTANTIATE_TEST_SUITE_P(Faults, KernelCalls, testing::ValuesIn(kKinds), NameOf);

// Board requests that fail, once the machine runs.
class BoardRequests : public Sweep {};

TEST_P(BoardRequests, FailInTurn) {
    const bool forEver = GetParam().forEver;
    const std::uint64_t possible = CountBoard().Total();
    ASSERT_GT(possible, 50u);

    const auto points = PointsOf(possible);
    for (const std::uint64_t point : points) {
        Hooks hooks;
        hooks.started = [&](host::Machine& machine) {
            board::Misbehaviour rule;
            rule.skip = point - 1;
            rule.count = forEver ? rule.count : 1;
            machine.BoardOf(0)->Misbehave().Add(rule);
        };
        hooks.ending = [](host::Machine& machine) { machine.BoardOf(0)->Misbehave().Clear(); };
        // A disk that fails for ever takes the record of a clip with it at the last close, which has nobody to tell.
        RunPoint(PointName(point, possible, forEver), hooks, {false, !forEver, false});
    }
    Report("board requests", points.size(), possible);
}

INSTANTIATE_TEST_SUITE_P(Faults, BoardRequests, testing::ValuesIn(kKinds, kKinds + 4), NameOf);

// The power goes at a write: half of it reaches the disk, and nothing after it.
class PowerCuts : public Sweep {};

TEST_P(PowerCuts, AtEachWrite) {
    const std::uint64_t possible = CountBoard().Of(board::Operation::kWrite);
    ASSERT_GT(possible, 20u);

    const auto points = PointsOf(possible);
    for (const std::uint64_t point : points) {
        for (const std::uint32_t blocks : {0u, 1u}) {
            Hooks hooks;
            hooks.started = [&](host::Machine& machine) {
                machine.BoardOf(0)->CutPowerAtWrite(point, blocks, board::AfterPowerLoss::kError);
            };
            RunPoint(PointName(point, possible, false) + ", " + std::to_string(blocks) + " blocks land", hooks,
                     {false, false, blocks != 0});
        }
    }
    Report("power cuts", points.size() * 2, possible * 2);
}

INSTANTIATE_TEST_SUITE_P(Faults, PowerCuts, testing::Values(Kind{Life::kRecording, true}, Kind{Life::kChanges, true}),
                         NameOf);

}  // namespace
}  // namespace faults
