#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/clip/files.h"
#include "tool/drive_file.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr const char* kStandardStream = "-";

struct GetOptions {
    std::string path;
    std::string local;
};

// Moves one file off the drive, front to back. Requests for frame data begin and end with whole sectors, so that the
// driver moves them without a copy: each region of a clip is read by itself, whatever its length.
class Fetch {
  public:
    Fetch(DriveFile& file, std::uint64_t size, clip::ClipOutput& out, Progress& progress)
        : file_(file), size_(size), out_(out), progress_(progress) {}

    // False when the user asked to stop. Throws DriveError, std::system_error.
    bool Run() {
        MediaFileHeader header{};
        if (!MoveRecord(header)) {
            return false;
        }
        if (header.Magic == VRKFS_MEDIA_MAGIC && header.HeaderSize >= sizeof(header)) {
            if (!Move(header.HeaderSize - sizeof(header)) || !MoveChunk() || !MoveChunk()) {
                return false;
            }
        }
        return Move(size_ - offset_);
    }

    [[nodiscard]] std::uint64_t Bytes() const { return offset_; }

  private:
    // Moves the next bytes of the file, as many of them as there are; keeps what fits into `kept`.
    bool Move(std::uint64_t bytes, std::span<std::byte> kept = {}) {
        bytes = std::min(bytes, size_ - offset_);
        while (bytes > 0) {
            const auto piece = buffer_.First(static_cast<std::size_t>(std::min<std::uint64_t>(bytes, kRequestBytes)));
            if (file_.Read(offset_, piece) != piece.size()) {
                throw DriveError("the drive gave less than the file's size", host::status::kEndOfFile);
            }
            out_.Write(piece);
            std::copy_n(piece.begin(), std::min(piece.size(), kept.size()), kept.begin());
            offset_ += piece.size();
            bytes -= piece.size();
            if (!progress_.Update(offset_, size_)) {
                return false;
            }
        }
        return true;
    }

    template <class Record>
    bool MoveRecord(Record& record) {
        return Move(sizeof(record), std::as_writable_bytes(std::span(&record, 1)));
    }

    bool MoveChunk() {
        ChunkHeader chunk{};
        return MoveRecord(chunk) && Move(std::max<std::uint64_t>(chunk.Size, sizeof(chunk)) - sizeof(chunk));
    }

    DriveFile& file_;
    std::uint64_t size_;
    clip::ClipOutput& out_;
    Progress& progress_;
    RequestBuffer buffer_;
    std::uint64_t offset_ = 0;
};

bool IsDirectory(const std::string& name) {
    struct stat status {};
    return ::stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The local file's name: the clip's own where only a directory is given.
std::string LocalName(const std::string& given, const DrivePath& path) {
    if (given == kStandardStream) {
        return given;
    }
    std::string own = path.names.empty() ? "" : DisplayName(path.names.back());
    if (given.empty()) {
        return own == kStandardStream ? "./" + own : own;
    }
    return IsDirectory(given) ? given + (given.ends_with('/') ? "" : "/") + own : given;
}

bool IsImageOf(const host::Station* station, const std::string& local) {
    std::error_code error;
    return station != nullptr && std::ranges::any_of(station->Cards(), [&](const host::CardPlace& card) {
               return std::ranges::any_of(card.disks, [&](const host::DiskPlace& disk) {
                   return std::filesystem::equivalent(disk.path, local, error);
               });
           });
}

void ReportGot(const Output& output, const DrivePath& path, const std::string& local, std::uint64_t bytes,
               double seconds) {
    const Json fields{{"path", path.Display()}, {"file", local}, {"bytes", bytes}, {"seconds", seconds}};
    if (local == kStandardStream) {
        output.Object(fields);
        return;
    }
    char taken[32];
    std::snprintf(taken, sizeof(taken), "%.2f s, ", seconds);
    output.Report(
        local + ": " + FormatBytes(bytes) + " from " + path.Display() + ", " + taken + FormatRate(bytes, seconds),
        fields);
}

Result FetchTo(DriveFile& file, std::uint64_t size, const Output& output, const DrivePath& path,
               const std::string& local) {
    const std::string state =
        local == kStandardStream ? "standard output has only part of the clip" : local + " is as it was before";
    Result failure;
    try {
        clip::ClipOutput out(local);
        Progress progress(output);
        Fetch fetch(file, size, out, progress);
        if (!fetch.Run()) {
            return StoppedFailure(state);
        }
        out.Commit();
        ReportGot(output, path, local, fetch.Bytes(), progress.Seconds());
    } catch (const DriveError& error) {
        failure = DriverFailure(Operation::kRead, error.what(), error.Status());
        failure->state = state;
    } catch (const std::system_error& error) {
        failure = Failure{.what = error.what(), .advice = "check the place and its free space", .state = state};
    }
    return failure;
}

Result Get(Session& session, const Output& output, const GetOptions& options, const DrivePath& path) {
    const std::string what = "cannot read " + path.Display();
    std::unique_ptr<DriveFile> file;
    host::FileFacts facts;
    host::Status status = OpenForReading(session.Process(), path, file, facts);
    if (status.Ok() && facts.isDirectory) {
        status = host::status::kFileIsADirectory;
    } else if (status.Ok() && facts.size == 0) {
        status = host::status::kEndOfFile;
    }
    if (!status.Ok()) {
        return DriverFailure(Operation::kRead, what, status);
    }
    const std::string local = LocalName(options.local, path);
    if (IsImageOf(session.Station(), local)) {
        return Failure{
            .what = local + " is a disk of the station", .advice = "name another file", .state = "nothing was changed"};
    }
    return FetchTo(*file, facts.size, output, path, local);
}

int RunGet(const CommonOptions& common, const char* command, const GetOptions& options) {
    const bool toStandardOutput = options.local == kStandardStream;
    const Output output(command, common.json, toStandardOutput);
    if (toStandardOutput && ::isatty(STDOUT_FILENO) != 0) {
        return output.Fail(UsageFailure("a clip does not go to a terminal", "redirect standard output"));
    }
    return RunOnPath(common, output, options.path,
                     [&](Session& session, const DrivePath& path) { return Get(session, output, options, path); });
}

}  // namespace

void AddGetAndCat(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<GetOptions>();
    CLI::App* get = AddCommand(
        app, "get", "Read a clip from a drive into a file",
        R"(The bytes go to LOCAL.part, which takes the name LOCAL when it is whole: a file of that name stays until then. LOCAL can
be a directory, and - is standard output.

  vrkfs get P:/RZV/NEWS/MONDAY/bars.rzv back.rzv
  vrkfs get P:/RZV/NEWS/MONDAY/bars.rzv - | vrkfs clip verify -)");
    get->add_option("PATH", options->path, "P:/RZV/VOLUME/FOLDER/CLIP")->required();
    get->add_option("LOCAL", options->local, "the file to make; left out: the clip's name in this directory");
    get->callback([options, &common] { Finish(RunGet(common, "get", *options)); });

    auto path = std::make_shared<std::string>();
    CLI::App* cat = AddCommand(app, "cat", "Read a clip from a drive to standard output",
                               "  vrkfs cat P:/RZV/NEWS/MONDAY/bars.rzv | vrkfs clip info -");
    cat->add_option("PATH", *path, "P:/RZV/VOLUME/FOLDER/CLIP")->required();
    cat->callback([path, &common] { Finish(RunGet(common, "cat", {*path, kStandardStream})); });
}

}  // namespace tool
