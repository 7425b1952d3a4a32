#include "tool/clip/commands.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>

#include "tool/clip/files.h"
#include "tool/clip/report.h"
#include "tool/clip/writer.h"
#include "tool/output.h"

namespace clip {
namespace {

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2 };

using Clock = std::chrono::steady_clock;

int Complain(std::ostream& err, bool json, const std::string& command, const std::string& name, const std::string& text,
             ExitStatus status) {
    tool::ClearProgressBar();
    if (json) {
        err << tool::Dump({{"command", command}, {"error", text}, {"file", name}, {"exit", static_cast<int>(status)}})
            << '\n';
    } else {
        err << "vrkfs " << command << ": " << text << '\n';
    }
    return status;
}

// Thrown through the writer when the progress function asks to stop.
struct Stopped {};

uint64_t WriteClip(const ClipImageWriter& writer, const std::string& name, const ClipProgress& progress) {
    ClipOutput output(name);
    uint64_t done = 0;
    const bool whole = writer.Write([&](std::span<const std::byte> bytes) {
        output.Write(bytes);
        done += bytes.size();
        return !progress || progress(done, writer.Layout().TotalBytes());
    });
    if (!whole) {
        throw Stopped{};
    }
    output.Commit();
    return done;
}

void ReportMade(std::ostream& report, const ClipMakeOptions& options, uint64_t bytes, double seconds) {
    const double rate = seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0;
    if (options.json) {
        Json line{{"command", "clip make"}, {"file", options.name}, {"bytes", bytes}};
        line["clip"] = RecipeJson(options.recipe);
        line["seconds"] = seconds;
        report << tool::Dump(line) << '\n';
        return;
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%.2f s, %.0f MB/s", seconds, rate);
    report << options.name << ": " << DescribeRecipe(options.recipe) << ": " << bytes << " bytes, " << text << '\n';
}

// "A..B", both decimal.
bool ParseFields(const std::string& text, ClipRecipe& recipe) {
    const size_t dots = text.find("..");
    if (dots == std::string::npos) {
        return false;
    }
    const auto parse = [](std::string_view part, uint32_t& value) {
        const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), value);
        return error == std::errc{} && end == part.data() + part.size();
    };
    recipe.kind = ClipKind::Tagged;
    return parse(std::string_view(text).substr(0, dots), recipe.minSectors) &&
           parse(std::string_view(text).substr(dots + 2), recipe.maxSectors);
}

void Finish(int status) {
    if (status != kDone) {
        throw CLI::RuntimeError(status);
    }
}

// Whether --json was given before the command, where the whole program takes it.
bool AsksForJson(const CLI::App& command) {
    for (const CLI::App* level = command.get_parent(); level != nullptr; level = level->get_parent()) {
        const CLI::Option* option = level->get_option_no_throw("--json");
        if (option != nullptr && option->count() > 0) {
            return true;
        }
    }
    return false;
}

void AddMake(CLI::App& group, const ClipProgress& progress) {
    auto options = std::make_shared<ClipMakeOptions>();
    auto fields = std::make_shared<std::string>();
    CLI::App* command = group.add_subcommand("make", "Make a clip whose every sector can be checked later");
    command->add_option("OUT", options->name, "the file to make; - for standard output")->required();
    command->add_option("--standard", options->recipe.standard, "line standard: 525 or 625")->capture_default_str();
    command->add_option("--frames", options->recipe.frames, "number of frames")->capture_default_str();
    command->add_flag("--alpha", options->recipe.alpha, "add an alpha stream (a key)");
    command->add_flag("--interleave", options->recipe.interleave,
                      "write video and alpha fields in turn; needs --alpha");
    command
        ->add_option("--fields", *fields,
                     "instead of pictures, fields of A to B sectors (0 to 65535) that each say where they belong")
        ->type_name("A..B");
    command->add_option("--seed", options->recipe.seed, "other pictures or sectors for another seed")
        ->capture_default_str();
    command->add_flag("--json", options->json, "report as JSON, one object a line");
    command->callback([options, fields, progress, command] {
        options->json = options->json || AsksForJson(*command);
        if (!fields->empty() && !ParseFields(*fields, options->recipe)) {
            Finish(Complain(std::cerr, options->json, "clip make", options->name,
                            "--fields wants A..B in sectors, for example 0..20, not \"" + *fields + "\"", kUsage));
        }
        Finish(ClipMake(*options, std::cout, std::cerr, progress));
    });
}

template <class Run>
void AddFileCommand(CLI::App& group, const char* name, const char* help, Run run) {
    auto options = std::make_shared<ClipFileOptions>();
    CLI::App* command = group.add_subcommand(name, help);
    command->add_option("FILE", options->name, "the clip; - for standard input")->required();
    command->add_flag("--json", options->json, "report as JSON, one object a line");
    command->callback([options, run, command] {
        options->json = options->json || AsksForJson(*command);
        Finish(run(*options));
    });
}

}  // namespace

int ClipMake(const ClipMakeOptions& options, std::ostream& out, std::ostream& err, const ClipProgress& progress) {
    const auto complain = [&](const std::string& text, ExitStatus status) {
        return Complain(err, options.json, "clip make", options.name, text, status);
    };
    const bool toStandardOutput = options.name == "-";
    if (const std::string fault = CheckRecipe(options.recipe); !fault.empty()) {
        return complain(fault, kUsage);
    }
    if (toStandardOutput && ::isatty(STDOUT_FILENO) != 0) {
        return complain("a clip does not go to a terminal; redirect standard output or name a file", kUsage);
    }
    try {
        const Clock::time_point start = Clock::now();
        const uint64_t bytes = WriteClip(ClipImageWriter(options.recipe), options.name, progress);
        const std::chrono::duration<double> taken = Clock::now() - start;
        ReportMade(toStandardOutput ? err : out, options, bytes, taken.count());
        return kDone;
    } catch (const Stopped&) {
        return complain(toStandardOutput ? "stopped; what went to standard output is not a whole clip"
                                         : "stopped; " + options.name + " is as it was before",
                        kFailed);
    } catch (const std::system_error& error) {
        return complain(error.what(), kFailed);
    } catch (const std::bad_alloc&) {
        return complain("not enough memory for a clip of that size", kFailed);
    }
}

int ClipInfo(const ClipFileOptions& options, std::ostream& out, std::ostream& err) {
    const auto complain = [&](const std::string& text) {
        return Complain(err, options.json, "clip info", options.name, text, kFailed);
    };
    try {
        ClipInput input(options.name);
        ClipImageReader reader(input.Source());
        if (const auto problem = reader.ReadHeader()) {
            return complain(options.name + ": " + problem->Line());
        }
        out << (options.json ? tool::Dump(InfoJson(options.name, reader)) + "\n" : InfoText(options.name, reader));
        return kDone;
    } catch (const std::system_error& error) {
        return complain(error.what());
    } catch (const std::bad_alloc&) {
        return complain(options.name + ": not enough memory for its body tables");
    }
}

int ClipVerify(const ClipFileOptions& options, std::ostream& out, std::ostream& err, const ClipProgress& progress) {
    const auto complain = [&](const std::string& text) {
        return Complain(err, options.json, "clip verify", options.name, text, kFailed);
    };
    try {
        ClipInput input(options.name);
        const ClipVerdict verdict = ClipVerifier(input.Source(), progress).Run();
        out << (options.json ? tool::Dump(VerdictJson(options.name, verdict)) + "\n"
                             : VerdictText(options.name, verdict));
        return verdict.Right() ? kDone : kFailed;
    } catch (const std::system_error& error) {
        return complain(error.what());
    } catch (const std::bad_alloc&) {
        return complain(options.name + ": not enough memory for its body tables");
    }
}

void AddClipCommands(CLI::App& app, const ClipProgress& progress) {
    CLI::App* group = app.add_subcommand("clip", "Make, describe and check clips in ordinary files");
    group->require_subcommand(1);
    AddMake(*group, progress);
    AddFileCommand(*group, "info", "Say what a clip is",
                   [](const ClipFileOptions& options) { return ClipInfo(options, std::cout, std::cerr); });
    AddFileCommand(
        *group, "verify", "Check a clip and say the first frame, field and sector that is wrong",
        [progress](const ClipFileOptions& options) { return ClipVerify(options, std::cout, std::cerr, progress); });
}

}  // namespace clip
