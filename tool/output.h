// How commands speak: reports on standard output, failures as one line on standard error, progress on a terminal. With
// --json every line of each is one JSON object.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace tool {

using Json = nlohmann::ordered_json;

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kInUse = 3 };

// Why a command did not do what was asked, as one line for a person.
struct Failure {
    std::string what;         // what failed, on what: "cannot make P:/RZV/NEWS/MONDAY"
    std::string status = {};  // by its name, when the driver said so
    std::string advice = {};  // what to do about it
    std::string state = {};   // what was left behind, when that is not plain
    ExitStatus exit = kFailed;
    bool refusedToWrite = false;  // something was to be written, and it was refused as it is where nothing can be

    [[nodiscard]] std::string Line() const;
};

using Result = std::optional<Failure>;  // nothing: done

[[nodiscard]] Failure UsageFailure(const std::string& what, const std::string& advice = {});

// Ctrl-C: "stopped", and what was left behind.
[[nodiscard]] Failure StoppedFailure(const std::string& state = {});

class Output {
  public:
    // With dataOnStdout standard output carries a clip, and reports go to standard error.
    Output(std::string command, bool json, bool dataOnStdout = false)
        : command_(std::move(command)), json_(json), dataOnStdout_(dataOnStdout) {}

    [[nodiscard]] const std::string& Command() const { return command_; }
    [[nodiscard]] bool IsJson() const { return json_; }

    // One report: the text for a person (no line end), or the fields for a program with "command" put before them.
    void Report(const std::string& text, const Json& fields) const;
    // Only for a person: headings and the like; or only for a program.
    void Text(const std::string& text) const;
    void Object(const Json& fields) const;
    // Tells what is going on, on standard error.
    void Notice(const std::string& text) const;
    // Returns the failure's exit status.
    int Fail(const Failure& failure) const;
    // A progress object, on standard error.
    void ReportProgress(const Json& fields) const;

  private:
    std::string command_;
    bool json_;
    bool dataOnStdout_;
};

// JSON on one line; bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string Dump(const Json& json);

// Takes the progress bar off the terminal, if one stands there. Whoever writes to standard error beside Output calls
// it.
void ClearProgressBar();

// Tells how far something is that takes over a second: a bar on a terminal, an object a second with --json.
class Progress {
  public:
    explicit Progress(const Output& output) : output_(output) {}
    ~Progress() { ClearProgressBar(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // False when the user asked to stop. Cheap enough to call for each request.
    [[nodiscard]] bool Update(std::uint64_t done, std::uint64_t total);
    // Starts again at nothing done, for the next step of a command; `step` names it.
    void Begin(const std::string& step);

    [[nodiscard]] double Seconds() const;

  private:
    using Clock = std::chrono::steady_clock;

    void Draw(std::uint64_t done, std::uint64_t total, double seconds) const;
    void Tell(std::uint64_t done, std::uint64_t total, double seconds) const;

    const Output& output_;
    std::string step_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_ + std::chrono::seconds(1);
};

}  // namespace tool
