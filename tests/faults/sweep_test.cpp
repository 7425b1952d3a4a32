// The scenario with each allocation failing in turn, each board request, and the power cut at each write; once, and
// from there on for ever. VRKFS_SWEEP=full runs every point, VRKFS_SWEEP_POINT=N that one alone; otherwise a spread of
// points.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "board/board.h"
#include "nt/kernel.h"
#include "tests/faults/scenario.h"
#include "tests/support/machine_fixture.h"

namespace faults {
namespace {

constexpr std::uint64_t kQuickPoints = 40;

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

class Sweep : public testing::Test {
  protected:
    // Runs one life on a fresh copy of the template and looks at the station afterwards.
    void RunPoint(const std::string& name, const Hooks& hooks, const std::function<void()>& before,
                  const std::function<void()>& after, bool inspectRecording = true, bool torn = false) {
        SCOPED_TRACE(name);
        const std::filesystem::path station = directory_.Path() / "station";
        CopyTemplate(station);
        before();
        Outcome outcome = Live(station, hooks);
        after();
        outcome.recorded = outcome.recorded && inspectRecording;
        outcome.torn = torn;
        for (const std::string& line : outcome.wrong) {
            ADD_FAILURE() << line;
        }
        for (const std::string& line : Inspect(station, outcome)) {
            ADD_FAILURE() << line;
        }
    }

    static void Report(const char* what, std::size_t run, std::uint64_t possible) {
        std::printf("[   SWEEP  ] %s: %zu points run of %llu possible\n", what, run,
                    static_cast<unsigned long long>(possible));
    }

    tests::TemporaryDirectory directory_;
};

std::string PointName(std::uint64_t point, std::uint64_t possible, bool forEver) {
    return "point " + std::to_string(point) + " of " + std::to_string(possible) + (forEver ? ", for ever" : ", once") +
           " (VRKFS_SWEEP_POINT=" + std::to_string(point) + ")";
}

// Kernel calls that fail: allocations of every kind, registry, files, mappings.
class KernelCalls : public Sweep, public testing::WithParamInterface<bool> {};

TEST_P(KernelCalls, FailInTurn) {
    const bool forEver = GetParam();
    const auto arm = [&](std::uint64_t failAt) {
        nt::FaultPlan plan;
        plan.kinds = nt::kAllFaults;
        plan.failAt = failAt;
        plan.forEver = forEver;
        nt::ArmFaults(plan);
    };
    std::uint64_t possible = 0;
    RunPoint(
        "counting", {}, [&] { arm(0); }, [&] { possible = nt::DisarmFaults(); });
    ASSERT_GT(possible, 100u);

    const auto points = PointsOf(possible);
    for (const std::uint64_t point : points) {
        RunPoint(
            PointName(point, possible, forEver), {}, [&] { arm(point); }, [] { nt::DisarmFaults(); });
    }
    Report("kernel calls", points.size(), possible);
}

INSTANTIATE_TEST_SUITE_P(Faults, KernelCalls, testing::Bool(),
                         [](const auto& point) { return point.param ? "ForEver" : "Once"; });

// Board requests that fail, once the machine runs.
class BoardRequests : public Sweep, public testing::WithParamInterface<bool> {};

TEST_P(BoardRequests, FailInTurn) {
    const bool forEver = GetParam();
    std::uint64_t possible = 0;
    Hooks counting;
    counting.started = [](host::Machine& machine) { machine.BoardOf(0)->ResetCounters(); };
    counting.ending = [&](host::Machine& machine) { possible = machine.BoardOf(0)->Count().Total(); };
    RunPoint(
        "counting", counting, [] {}, [] {});
    ASSERT_GT(possible, 50u);

    const auto points = PointsOf(possible);
    for (const std::uint64_t point : points) {
        Hooks hooks;
        hooks.started = [&](host::Machine& machine) {
            board::Misbehaviour rule;
            rule.skip = point - 1;
            if (!forEver) {
                rule.count = 1;
            }
            machine.BoardOf(0)->Misbehave().Add(rule);
        };
        hooks.ending = [](host::Machine& machine) { machine.BoardOf(0)->Misbehave().Clear(); };
        // A disk that fails for ever takes the record of a clip with it at the last close, which has nobody to tell.
        RunPoint(
            PointName(point, possible, forEver), hooks, [] {}, [] {}, false);
    }
    Report("board requests", points.size(), possible);
}

INSTANTIATE_TEST_SUITE_P(Faults, BoardRequests, testing::Bool(),
                         [](const auto& point) { return point.param ? "ForEver" : "Once"; });

// The power goes at a write: half of it reaches the disk, and nothing after it.
TEST_F(Sweep, PowerIsCutAtEachWrite) {
    std::uint64_t possible = 0;
    Hooks counting;
    counting.started = [](host::Machine& machine) { machine.BoardOf(0)->ResetCounters(); };
    counting.ending = [&](host::Machine& machine) {
        possible = machine.BoardOf(0)->Count().Of(board::Operation::kWrite);
    };
    RunPoint(
        "counting", counting, [] {}, [] {});
    ASSERT_GT(possible, 20u);

    const auto points = PointsOf(possible);
    for (const std::uint64_t point : points) {
        for (const std::uint32_t blocks : {0u, 1u}) {
            Hooks hooks;
            hooks.started = [&](host::Machine& machine) {
                machine.BoardOf(0)->CutPowerAtWrite(point, blocks, board::AfterPowerLoss::kError);
            };
            RunPoint(
                PointName(point, possible, false) + ", " + std::to_string(blocks) + " blocks land", hooks, [] {}, [] {},
                false, blocks != 0);
        }
    }
    Report("power cuts", points.size() * 2, possible * 2);
}

}  // namespace
}  // namespace faults
