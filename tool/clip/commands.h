// The `vrkfs clip` commands: make a clip, say what a clip is, check a clip.
//
// Each returns the program's exit status: 0 done (verify: right), 1 failed (verify: wrong), 2 wrong usage. Reports go
// to `out`, failures as one line to `err`; with json every line of either is one JSON object.
#pragma once

#include <iosfwd>
#include <string>

#include "tool/clip/recipe.h"
#include "tool/clip/verifier.h"

namespace CLI {
class App;
}

namespace clip {

struct ClipMakeOptions {
    std::string name;  // "-": the clip goes to standard output, the report to err
    ClipRecipe recipe;
    bool json = false;
};

struct ClipFileOptions {
    std::string name;  // "-": standard input
    bool json = false;
};

int ClipMake(const ClipMakeOptions& options, std::ostream& out, std::ostream& err, const ClipProgress& progress = {});
int ClipInfo(const ClipFileOptions& options, std::ostream& out, std::ostream& err);
int ClipVerify(const ClipFileOptions& options, std::ostream& out, std::ostream& err, const ClipProgress& progress = {});

// Adds `clip` with its sub-commands. They run from within the parse and report on std::cout and std::cerr; a status
// other than 0 leaves the parse as CLI::RuntimeError with that status as its exit code.
void AddClipCommands(CLI::App& app, const ClipProgress& progress = {});

}  // namespace clip
