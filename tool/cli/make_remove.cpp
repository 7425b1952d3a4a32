#include <memory>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/drive_file.h"

namespace tool {
namespace {

Result MakeFolder(Session& session, const Output& output, const DrivePath& path) {
    if (path.IsReserved()) {
        return ReservedName("cannot make folder " + path.Display());
    }
    host::OpenRequest request;
    request.path = path.Open();
    request.access = host::access::kListDirectory | host::access::kReadAttributes;
    request.disposition = host::Disposition::kCreate;
    request.options = host::option::kDirectoryFile;
    const host::OpenResult made = session.Process().Create(request);
    if (!made.status.Ok()) {
        return DriverFailure(Operation::kMakeFolder, "cannot make folder " + path.Display(), made.status);
    }
    const host::ScopedHandle handle(session.Process(), made.handle);
    output.Object({{"path", path.Display()}, {"made", true}});
    return std::nullopt;
}

Result Remove(Session& session, const Output& output, const DrivePath& path, bool folder) {
    const host::Status status = Delete(session.Process(), path, folder);
    if (!status.Ok()) {
        return DriverFailure(folder ? Operation::kRemoveFolder : Operation::kRemoveFile,
                             "cannot delete " + path.Display(), status);
    }
    output.Object({{"path", path.Display()}, {"deleted", true}});
    return std::nullopt;
}

using Work = Result (*)(Session&, const Output&, const DrivePath&);

void AddPathCommand(CLI::App& app, CommonOptions& common, const char* name, const char* help, const char* more,
                    Work work) {
    auto typed = std::make_shared<std::string>();
    CLI::App* command = AddCommand(app, name, help, more);
    command->add_option("PATH", *typed, "P:/RZV/VOLUME/...")->required();
    command->callback([typed, &common, work, name] {
        const Output output(name, common.json);
        Finish(RunOnPath(common, output, *typed,
                         [&](Session& session, const DrivePath& path) { return work(session, output, path); }));
    });
}

}  // namespace

void AddMakeAndRemove(CLI::App& app, CommonOptions& common) {
    AddPathCommand(app, common, "mkdir", "Make a folder in a volume",
                   R"(Folders stand in volumes only, at most 256 in each; there are no folders in folders.

  vrkfs mkdir P:/RZV/NEWS/MONDAY)",
                   &MakeFolder);
    AddPathCommand(app, common, "rmdir", "Delete an empty folder", R"(  vrkfs rmdir P:/RZV/NEWS/MONDAY)",
                   [](Session& session, const Output& output, const DrivePath& path) {
                       return Remove(session, output, path, true);
                   });
    AddPathCommand(app, common, "rm", "Delete a clip",
                   R"(The clip is gone at once, without a question, and its space is free.

  vrkfs rm P:/RZV/NEWS/MONDAY/bars.rzv)",
                   [](Session& session, const Output& output, const DrivePath& path) {
                       return Remove(session, output, path, false);
                   });
}

}  // namespace tool
