#include "tests/faults/scenario.h"

#include <stdexcept>

#include "tests/faults/steps.h"
#include "tests/support/machine_fixture.h"
#include "tests/support/scripted_service.h"
#include "tool/clip/writer.h"

namespace faults {
namespace {

namespace fs = std::filesystem;
using host::Process;

// A failed kernel call, thrown so that the making of the template reads like a list of steps.
void Need(host::Status status, const char* step) {
    if (!status.Ok()) {
        throw std::runtime_error(std::string(step) + ": " + host::StatusName(status));
    }
}

clip::ClipRecipe Recipe(std::uint64_t seed) {
    return {.kind = clip::ClipKind::Tagged, .frames = 6, .alpha = seed == 2, .maxSectors = 24, .seed = seed};
}

// The template station lives as long as the test program.
struct TemplateStation {
    tests::TemporaryDirectory directory;
    fs::path path = directory.Path() / "template";

    TemplateStation() {
        host::Problem problem = host::CreateStation(path, {.disks = 5, .diskBytes = 8 << 20});
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
        for (const char16_t* folder : {u"CHANGES", u"OTHER", u"FOLDER"}) {
            Need(MakeFolder(*user, std::u16string(u"\\RZV\\KEEP\\") + folder), "mkdir");
        }
        for (const char16_t* name : {u"CHANGES\\NAME.RZV", u"CHANGES\\WALK.RZV", u"CHANGES\\GONE.RZV",
                                     u"CHANGES\\MOVE.RZV", u"CHANGES\\SLIDE.RZV", u"FOLDER\\IN.RZV"}) {
            Need(PutClip(*user, std::u16string(u"\\RZV\\KEEP\\") + name, NewClip()), "put");
        }
        Need(Format(*user, u"LONE", 4, 1), "format");
        Need(MakeFolder(*user, u"\\RZV\\LONE\\F"), "mkdir");
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
    outcome.deleted = DeleteFile(user, u"\\RZV\\KEEP\\CLIPS\\OLD.RZV").Ok();
    (void)Listed(user, u"\\RZV\\KEEP\\CLIPS", u"KEEP.RZV");
    (void)Listed(user, u"\\", u"RZV");
}

// Steps that make a volume from nothing.
void WorkOnFresh(Process& user) {
    if (Format(user, u"FRESH", 2, 2).Ok() && MakeFolder(user, u"\\RZV\\FRESH\\A").Ok()) {
        (void)PutClip(user, u"\\RZV\\FRESH\\A\\X.RZV", NewClip());
        (void)DeleteFile(user, u"\\RZV\\FRESH\\A\\X.RZV");
    }
}

// Steps that change what is there. MOVE is moved to places apart, SLIDE onto its own blocks.
void WorkOnChanges(host::Machine& machine, Process& user, Outcome& outcome) {
    const std::u16string changes = u"\\RZV\\KEEP\\CHANGES\\";
    outcome.renamed = RenameTo(user, changes + u"NAME.RZV", u"NAMED.RZV").Ok();
    outcome.walked = RenameTo(user, changes + u"WALK.RZV", u"P:\\RZV\\KEEP\\OTHER\\WALKED.RZV").Ok();
    const auto step = [&](const char* name, bool done) {
        if (!done) {
            outcome.failed.emplace_back(name);
        }
    };
    step("rename the folder", RenameTo(user, u"\\RZV\\KEEP\\FOLDER", u"FOLDED").Ok());
    step("rename the volume", RenameTo(user, u"\\RZV\\LONE", u"ALONE").Ok());
    outcome.gone = DeleteFile(user, changes + u"GONE.RZV").Ok();
    step("look at a table", LookAtTable(user, changes + u"MOVE.RZV"));
    step("record in place", RecordInPlace(machine, changes + u"TAKE.RZV"));
    for (std::uint32_t segment = 0; segment < VRKFS_SEGMENT_COUNT; ++segment) {
        const bool data = segment == VRKFS_SEGMENT_DATA || segment == VRKFS_SEGMENT_ALPHA_DATA;
        step("move", MoveSegment(user, changes + u"MOVE.RZV", segment, data ? 1500 : -50));
    }
    step("move apart", MoveSegment(user, changes + u"SLIDE.RZV", VRKFS_SEGMENT_FILE_ENTRY, -300));
    step("slide up", MoveSegment(user, changes + u"SLIDE.RZV", VRKFS_SEGMENT_FILE_ENTRY, 1));
    step("move apart", MoveSegment(user, changes + u"SLIDE.RZV", VRKFS_SEGMENT_DATA, 3000));
    step("slide down", MoveSegment(user, changes + u"SLIDE.RZV", VRKFS_SEGMENT_DATA, -3));
}

// A frame read, written and closed.
void WorkOnFrame(Process& user, const std::u16string& path, std::uint32_t frame, bool overlapped, Outcome& outcome) {
    const host::OpenResult opened = user.Create(
        {.path = u"P:" + path, .access = host::access::kReadData | host::access::kWriteData, .overlapped = overlapped});
    const host::ScopedHandle file(user, opened.handle);
    Bytes bytes(3000);
    const host::Status read = opened.status.Ok() ? user.Read(file.Get(), bytes, 1).status : opened.status;
    if (read.Ok() && bytes != tests::ScriptedService::Content(frame, 1, 3000)) {
        outcome.wrong.push_back("a frame was read with wrong bytes");
    }
    if (!read.Ok() || !user.Write(file.Get(), bytes, 0).status.Ok()) {
        outcome.failed.push_back("use a frame");
    }
}

// A RAM file is made beside the frames and takes the name of one.
void ImportFrame(Process& user, const std::u16string& clip, const std::u16string& frame, Outcome& outcome) {
    const host::ScopedHandle file(user, OpenPath(user, clip + u"\\new", host::Disposition::kCreate,
                                                 host::access::kWriteData | host::access::kDelete)
                                            .handle);
    if (!user.Write(file.Get(), Bytes(500), 0).status.Ok() || !host::Rename(user, file.Get(), frame).Ok()) {
        outcome.failed.push_back("import a frame");
    }
}

void WorkThroughService(host::Machine& machine, Process& user, Outcome& outcome) {
    tests::ScriptedService service(machine);
    if (!service.Announce()) {
        outcome.failed.push_back("announce the service");
        return;
    }
    service.Serve();
    const std::u16string clip = u"\\TGA\\KEEP\\CLIPS\\KEEP.RZV";
    std::vector<host::DirectoryEntry> frames;
    {
        const host::ScopedHandle folder(user,
                                        OpenPath(user, clip, host::Disposition::kOpen, host::access::kReadData).handle);
        (void)host::ListDirectory(user, folder.Get(), frames, u"*.TGA");
    }
    for (std::uint32_t frame = 0; frame < frames.size() && frame < 2; ++frame) {
        WorkOnFrame(user, clip + u"\\" + frames[frame].name, frame, frame == 1, outcome);
        ImportFrame(user, clip, frames[frame].name, outcome);
    }
    for (const std::uint32_t code : {VRKFS_PORT_CREATE_MEDIA_FILE, VRKFS_PORT_AVAILABLE_SPACE}) {
        const host::ScopedHandle port(user, OpenPath(user, u"\\RZV\\KEEP\\___Port0___", host::Disposition::kOpen,
                                                     host::access::kReadData | host::access::kWriteData)
                                                .handle);
        Bytes reply(40);
        if (!user.Write(port.Get(), tests::Record(16, {{0, 16}, {4, code}}, u"N", 8), 0).status.Ok() ||
            !user.Read(port.Get(), reply, 0).status.Ok() || tests::WordAt(reply, 4) != 0) {
            outcome.failed.push_back("use the port");
        }
    }
    if (frames.empty()) {
        outcome.failed.push_back("list the frames");
    }
    service.Stop();
    service.Leave();
}

// Why a clip does not read back as wanted; empty: it does.
std::string Wrong(Process& user, const std::u16string& name, const Bytes& wanted) {
    Bytes image;
    const host::Status status = GetClip(user, u"\\RZV\\KEEP\\" + name, image);
    if (status.Ok() && image == wanted) {
        return {};
    }
    return std::string(name.begin(), name.end()) + (status.Ok()
                                                        ? " reads back with other bytes afterwards"
                                                        : " cannot be read afterwards: " + host::StatusName(status));
}

void InspectClip(Process& user, const std::u16string& name, const Bytes& wanted, std::vector<std::string>& wrong) {
    if (const std::string why = Wrong(user, name, wanted); !why.empty()) {
        wrong.push_back(why);
    }
}

// What was changed is as before or as after; done, it is as after.
void InspectChange(Process& user, const std::vector<std::u16string>& before, const std::u16string& after, bool done,
                   std::vector<std::string>& wrong) {
    const std::string why = Wrong(user, after, NewClip());
    bool found = why.empty();
    for (const std::u16string& name : before) {
        const bool there = Wrong(user, name, NewClip()).empty();
        if (done && there) {
            wrong.push_back(std::string(name.begin(), name.end()) + " is still there");
        }
        found = found || (there && !done);
    }
    if (!found) {
        wrong.push_back(why + ", nor is it where it was");
    }
}

// Gone when it was deleted, else whole.
void InspectDeleted(Process& user, const std::u16string& name, bool deleted, std::vector<std::string>& wrong) {
    Bytes image;
    if (GetClip(user, u"\\RZV\\KEEP\\" + name, image).Ok() && (deleted || image != NewClip())) {
        wrong.push_back(std::string(name.begin(), name.end()) + (deleted ? " is still there" : " has other bytes"));
    }
}

void InspectChanges(Process& user, const Outcome& before, std::vector<std::string>& wrong) {
    InspectChange(user, {u"CHANGES\\NAME.RZV"}, u"CHANGES\\NAMED.RZV", before.renamed, wrong);
    InspectChange(user, {u"CHANGES\\WALK.RZV", u"CHANGES\\WALKED.RZV"}, u"OTHER\\WALKED.RZV", before.walked, wrong);
    InspectChange(user, {u"FOLDER\\IN.RZV"}, u"FOLDED\\IN.RZV", false, wrong);
    InspectClip(user, u"CHANGES\\MOVE.RZV", NewClip(), wrong);
    if (!before.slid) {
        InspectClip(user, u"CHANGES\\SLIDE.RZV", NewClip(), wrong);
    }
    if (!Listed(user, u"\\RZV\\LONE", u"F") && !Listed(user, u"\\RZV\\ALONE", u"F")) {
        wrong.push_back("the renamed volume is lost");
    }
    InspectDeleted(user, u"CHANGES\\GONE.RZV", before.gone, wrong);
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

Outcome Live(Life life, const fs::path& station, const Hooks& hooks) {
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
        switch (life) {
            case Life::kRecording:
                WorkOnKeep(*user, outcome);
                WorkOnFresh(*user);
                break;
            case Life::kChanges:
                WorkOnChanges(*machine, *user, outcome);
                break;
            case Life::kService:
                WorkThroughService(*machine, *user, outcome);
        }
    }
    if (hooks.ending) {
        hooks.ending(*machine);
    }
    for (const std::string& line : machine->Stop()) {
        outcome.wrong.push_back("left over: " + line);
    }
    return outcome;
}

std::vector<std::string> Inspect(Life life, const fs::path& station, const Outcome& before) {
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
            InspectDeleted(*user, u"CLIPS\\OLD.RZV", before.deleted, wrong);
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
        if (life == Life::kChanges && !before.torn) {
            InspectChanges(*user, before, wrong);  // after the recording: no block that they name was given away
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
