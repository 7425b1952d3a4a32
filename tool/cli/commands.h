// The sub-commands of `vrkfs`, one family to a file. Each Add puts its commands into the program; they run from within
// the parse, and a status other than 0 leaves it as CLI::RuntimeError.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "tool/session.h"

namespace tool {

void AddCreateStation(CLI::App& app, CommonOptions& common);
void AddFormat(CLI::App& app, CommonOptions& common);
void AddVolumes(CLI::App& app, CommonOptions& common);
void AddList(CLI::App& app, CommonOptions& common);
void AddMakeAndRemove(CLI::App& app, CommonOptions& common);
void AddPut(CLI::App& app, CommonOptions& common);
void AddGetAndCat(CLI::App& app, CommonOptions& common);
void AddInfo(CLI::App& app, CommonOptions& common);
void AddMoveAndTouch(CLI::App& app, CommonOptions& common);
void AddLabel(CLI::App& app, CommonOptions& common);
void AddSpace(CLI::App& app, CommonOptions& common);  // df, space
void AddSettings(CLI::App& app, CommonOptions& common);
void AddEntry(CLI::App& app, CommonOptions& common);  // entry, app-info
void AddOwner(CLI::App& app, CommonOptions& common);
void AddExclusive(CLI::App& app, CommonOptions& common);
void AddEvents(CLI::App& app, CommonOptions& common);
void AddServe(CLI::App& app, CommonOptions& common);
void AddMount(CLI::App& app, CommonOptions& common);
void AddService(CLI::App& app, CommonOptions& common);
void AddWatch(CLI::App& app, CommonOptions& common);
void AddMap(CLI::App& app, CommonOptions& common);
void AddDefrag(CLI::App& app, CommonOptions& common);

// Leaves the parse with an exit status, unless it is 0.
inline void Finish(int status) {
    if (status != kDone) {
        throw CLI::RuntimeError(status);
    }
}

// Adds a command with examples below its help, and what every command takes.
CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& help, const std::string& more);

// The whole program: parse, run, exit status.
int RunProgram(int count, char** arguments);

}  // namespace tool
