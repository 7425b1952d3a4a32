#include "tool/cli/volume_choice.h"

#include <vrkfs/records.h>

#include "tool/advice.h"
#include "tool/text.h"

namespace tool {
namespace {

Result FindOnlyVolume(Session& session, DrivePath& path) {
    std::string all;
    std::size_t count = 0;
    Result failure = ForEachVolume(session, [&](const DrivePath& found, const Volume& volume) -> Result {
        if ((volume.flags & VRKFS_VOLUME_HIDDEN) == 0) {
            path = found;
            all += (count++ == 0 ? "" : ", ") + path.Display();
        }
        return std::nullopt;
    });
    if (failure) {
        return failure;
    }
    if (count == 0) {
        return Failure{.what = "the station has no volume that can be opened", .advice = "see vrkfs volumes"};
    }
    return count == 1 ? std::nullopt : Result(UsageFailure("which volume?", "give one of " + all));
}

}  // namespace

Result ForEachVolume(Session& session, const std::function<Result(const DrivePath& path, const Volume& volume)>& work) {
    for (const host::CardFacts& card : session.Cards()) {
        std::vector<Volume> volumes;
        const host::Status status = ListVolumes(session.Process(), card.index, volumes);
        if (!status.Ok()) {
            return DriverFailure(Operation::kListVolumes,
                                 "cannot list the volumes of card " + std::to_string(card.index), status);
        }
        for (const Volume& volume : volumes) {
            if (Result failure = work({card.driveLetter, card.index, {u"RZV", volume.name}}, volume)) {
                return failure;
            }
        }
    }
    return std::nullopt;
}

int RunOnVolume(const CommonOptions& options, const Output& output, const std::string& path,
                const std::function<Result(Session&, const DrivePath&)>& work) {
    if (path.empty()) {
        return RunOnStation(options, output, [&](Session& session) -> Result {
            DrivePath only;
            Result failure = FindOnlyVolume(session, only);
            return failure ? failure : work(session, only);
        });
    }
    return RunOnPath(options, output, path, [&](Session& session, const DrivePath& chosen) -> Result {
        if (chosen.Depth() != kVolumeLevel) {
            return UsageFailure(chosen.Display() + " is no volume", "give P:/RZV/VOLUME");
        }
        return work(session, chosen);
    });
}

}  // namespace tool
