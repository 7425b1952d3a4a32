#include "tests/faults/scenario.h"

#include <vrkfs/control.h>
#include <vrkfs/records.h>

#include <algorithm>
#include <cstring>

#include "tests/support/machine_fixture.h"
#include "tool/clip/writer.h"

namespace faults {
namespace {

namespace fs = std::filesystem;
using host::Disposition;
using host::Handle;
using host::Process;
using host::ScopedHandle;

constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;
constexpr std::size_t kChunk = 100'000;  // no multiple of a sector: partial sectors are part of the life

// A failed kernel call, thrown so that the making of the template reads like a list of steps.
void Need(host::Status status, const char* step) {
    if (!status.Ok()) {
        throw std::runtime_error(std::string(step) + ": " + host::StatusName(status));
    }
}

host::OpenResult OpenPath(Process& user, const std::u16string& path, Disposition disposition, std::uint32_t access,
                          std::uint32_t options = 0) {
    host::OpenRequest request;
    request.path = u"P:" + path;
    request.disposition = disposition;
    request.access = access;
    request.options = options;
    return user.Create(request);
}

host::Status MakeFolder(Process& user, const std::u16string& path) {
    const auto opened =
        OpenPath(user, path, Disposition::kCreate, host::access::kReadData, host::option::kDirectoryFile);
    const ScopedHandle folder(user, opened.handle);
    return opened.status;
}

host::Status Format(Process& user, const std::u16string& name, std::uint32_t first, std::uint32_t count) {
    host::OpenRequest request;
    request.path = u"VrkFsDevice0";
    request.access = kReadWrite;
    const auto opened = user.Create(request);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const ScopedHandle control(user, opened.handle);
    VrkFsVolumeInfoRecord record{};
    std::memcpy(record.Name, name.data(), name.size() * sizeof(char16_t));
    record.DeviceCount = count;
    std::fill(std::begin(record.Devices), std::end(record.Devices), 0xFFFFFFFF);
    for (std::uint32_t i = 0; i < count; ++i) {
        record.Devices[i] = first + i;
    }
    std::int32_t result = -1;
    const auto answer = user.DeviceControl(control.Get(), IOCTL_VRKFS_FORMAT_VOLUME, tests::BytesOf(record),
                                           tests::WritableBytesOf(result));
    return answer.status.Ok() && result != 0 ? host::status::kUnsuccessful : answer.status;
}

host::Status PutClip(Process& user, const std::u16string& path, const Bytes& image) {
    const auto opened = OpenPath(user, path, Disposition::kCreate, kReadWrite);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const ScopedHandle file(user, opened.handle);
    for (std::size_t done = 0; done < image.size();) {
        const auto piece = std::span(image).subspan(done, std::min(kChunk, image.size() - done));
        const auto written = user.Write(file.Get(), piece, done);
        if (!written.status.Ok()) {
            return written.status;
        }
        done += written.information;
    }
    return host::status::kSuccess;
}

host::Status GetClip(Process& user, const std::u16string& path, Bytes& image) {
    const auto opened =
        OpenPath(user, path, Disposition::kOpen, host::access::kReadData | host::access::kReadAttributes);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const ScopedHandle file(user, opened.handle);
    host::FileFacts facts;
    if (const host::Status status = host::QueryFacts(user, file.Get(), facts); !status.Ok()) {
        return status;
    }
    if (facts.size > (64 << 20)) {
        return host::status::kFileInvalid;
    }
    image.resize(facts.size);
    for (std::size_t done = 0; done < image.size();) {
        const auto piece = std::span(image).subspan(done, std::min(kChunk, image.size() - done));
        const auto read = user.Read(file.Get(), piece, done);
        if (!read.status.Ok()) {
            return read.status;
        }
        done += read.information;
    }
    return host::status::kSuccess;
}

host::Status DeleteFile(Process& user, const std::u16string& path) {
    const auto opened = OpenPath(user, path, Disposition::kOpen, host::access::kDelete);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    ScopedHandle file(user, opened.handle);
    return host::SetDeleteOnCleanup(user, file.Get(), true);
}

bool Listed(Process& user, const std::u16string& folder, const std::u16string& name, host::Status& status) {
    const auto opened =
        OpenPath(user, folder, Disposition::kOpen, host::access::kListDirectory, host::option::kDirectoryFile);
    status = opened.status;
    if (!status.Ok()) {
        return false;
    }
    const ScopedHandle directory(user, opened.handle);
    std::vector<host::DirectoryEntry> entries;
    status = host::ListDirectory(user, directory.Get(), entries);
    return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) { return entry.name == name; });
}

// Free blocks of a volume, by one of its folders.
std::uint64_t FreeBlocks(Process& user, const std::u16string& folder) {
    host::OpenRequest request;
    request.path = u"VrkFsDevice0";
    request.access = kReadWrite;
    const ScopedHandle control(user, user.Create(request).handle);
    const ScopedHandle directory(
        user,
        OpenPath(user, folder, Disposition::kOpen, host::access::kListDirectory, host::option::kDirectoryFile).handle);
    VrkFsVolumeSpaceInfo info{};
    info.Handle = directory.Get();
    const auto answer = user.DeviceControl(control.Get(), IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, tests::BytesOf(info),
                                           tests::WritableBytesOf(info));
    return answer.status.Ok() ? info.FreeBlocks : ~std::uint64_t{0};
}

clip::ClipRecipe Recipe(std::uint64_t seed) {
    clip::ClipRecipe recipe;
    recipe.kind = clip::ClipKind::Tagged;
    recipe.frames = 6;
    recipe.alpha = seed == 2;
    recipe.minSectors = 0;
    recipe.maxSectors = 24;
    recipe.seed = seed;
    return recipe;
}

// The template station lives as long as the test program.
struct TemplateStation {
    tests::TemporaryDirectory directory;
    fs::path path = directory.Path() / "template";

    TemplateStation() {
        host::StationLayout layout;
        layout.disks = 4;
        layout.diskBytes = 8 << 20;
        host::Problem problem = host::CreateStation(path, layout);
        auto machine = problem ? nullptr : host::Machine::Start(path, {}, problem);
        if (!machine) {
            throw std::runtime_error(problem.what);
        }
        auto user = machine->NewProcess();
        Need(Format(*user, u"KEEP", 0, 2), "format");
        Need(MakeFolder(*user, u"\\RZV\\KEEP\\CLIPS"), "mkdir");
        Need(PutClip(*user, u"\\RZV\\KEEP\\CLIPS\\KEEP.RZV", KeptClip()), "put KEEP");
        Need(PutClip(*user, u"\\RZV\\KEEP\\CLIPS\\OLD.RZV", NewClip()), "put OLD");
        Need(MakeFolder(*user, u"\\RZV\\KEEP\\SAFE"), "mkdir");
        Need(PutClip(*user, u"\\RZV\\KEEP\\SAFE\\KEEP.RZV", KeptClip()), "put SAFE");
        user.reset();
    }
};

// Steps on the volume that stands.
void WorkOnKeep(Process& user, Outcome& outcome) {
    Bytes image;
    if (GetClip(user, u"\\RZV\\KEEP\\CLIPS\\KEEP.RZV", image).Ok() && image != KeptClip()) {
        outcome.wrong.push_back("the kept clip was read with wrong bytes");
    }
    (void)MakeFolder(user, u"\\RZV\\KEEP\\MORE");
    outcome.recorded = PutClip(user, u"\\RZV\\KEEP\\CLIPS\\NEW.RZV", NewClip()).Ok();
    // An empty file is a recording whose record could not be written at its close, which has nobody to tell.
    if (outcome.recorded && GetClip(user, u"\\RZV\\KEEP\\CLIPS\\NEW.RZV", image).Ok() && !image.empty() &&
        image != NewClip()) {
        outcome.wrong.push_back("the new clip was read with wrong bytes");
    }
    host::Status status;
    outcome.deleted = DeleteFile(user, u"\\RZV\\KEEP\\CLIPS\\OLD.RZV").Ok();
    (void)Listed(user, u"\\RZV\\KEEP\\CLIPS", u"KEEP.RZV", status);
    (void)Listed(user, u"\\", u"RZV", status);
}

// Steps that make a volume from nothing.
void WorkOnFresh(Process& user) {
    if (Format(user, u"FRESH", 2, 2).Ok() && MakeFolder(user, u"\\RZV\\FRESH\\A").Ok()) {
        (void)PutClip(user, u"\\RZV\\FRESH\\A\\X.RZV", NewClip());
        (void)DeleteFile(user, u"\\RZV\\FRESH\\A\\X.RZV");
    }
}

void InspectClip(Process& user, const std::u16string& name, const Bytes& wanted, std::vector<std::string>& wrong) {
    Bytes image;
    const host::Status status = GetClip(user, u"\\RZV\\KEEP\\" + name, image);
    const std::string shown(name.begin(), name.end());
    if (!status.Ok()) {
        wrong.push_back(shown + " cannot be read afterwards: " + host::StatusName(status));
    } else if (image != wanted) {
        wrong.push_back(shown + " reads back with other bytes afterwards");
    }
}

}  // namespace

const Bytes& KeptClip() {
    static const Bytes image = clip::MakeClipImage(Recipe(1));
    return image;
}

const Bytes& NewClip() {
    static const Bytes image = clip::MakeClipImage(Recipe(2));
    return image;
}

const fs::path& Template() {
    static const TemplateStation station;
    return station.path;
}

void CopyTemplate(const fs::path& to) {
    fs::remove_all(to);
    // cp keeps the images sparse.
    const std::string command = "cp -r --sparse=always '" + Template().string() + "' '" + to.string() + "'";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("cannot copy the template station");
    }
}

Outcome Live(const fs::path& station, const Hooks& hooks) {
    Outcome outcome;
    host::Problem problem;
    auto machine = host::Machine::Start(station, {}, problem);
    if (!machine) {
        return outcome;
    }
    outcome.started = true;
    if (hooks.started) {
        hooks.started(*machine);
    }
    {
        auto user = machine->NewProcess();
        WorkOnKeep(*user, outcome);
        WorkOnFresh(*user);
    }
    if (hooks.ending) {
        hooks.ending(*machine);
    }
    for (const std::string& line : machine->Stop()) {
        outcome.wrong.push_back("left over: " + line);
    }
    return outcome;
}

std::vector<std::string> Inspect(const fs::path& station, const Outcome& before) {
    std::vector<std::string> wrong;
    host::Problem problem;
    auto machine = host::Machine::Start(station, {}, problem);
    if (!machine) {
        return {"the station does not start afterwards: " + problem.what};
    }
    {
        auto user = machine->NewProcess();
        InspectClip(*user, u"SAFE\\KEEP.RZV", KeptClip(), wrong);
        if (!before.torn) {
            InspectClip(*user, u"CLIPS\\KEEP.RZV", KeptClip(), wrong);
        }
        if (before.recorded) {
            InspectClip(*user, u"CLIPS\\NEW.RZV", NewClip(), wrong);
        }
        // The volume can still be worked in, and what is deleted gives all its blocks back.
        const std::uint64_t free = FreeBlocks(*user, u"\\RZV\\KEEP\\SAFE");
        if (!PutClip(*user, u"\\RZV\\KEEP\\SAFE\\AGAIN.RZV", NewClip()).Ok()) {
            wrong.push_back("nothing can be recorded afterwards");
        } else {
            InspectClip(*user, u"SAFE\\AGAIN.RZV", NewClip(), wrong);
            InspectClip(*user, u"SAFE\\KEEP.RZV", KeptClip(), wrong);
        }
        if (!DeleteFile(*user, u"\\RZV\\KEEP\\SAFE\\AGAIN.RZV").Ok() ||
            FreeBlocks(*user, u"\\RZV\\KEEP\\SAFE") != free) {
            wrong.push_back("a recording made and deleted afterwards does not give its blocks back");
        }
    }
    for (const std::string& line : machine->Stop()) {
        wrong.push_back("left over afterwards: " + line);
    }
    return wrong;
}

}  // namespace faults
