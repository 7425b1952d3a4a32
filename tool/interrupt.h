// Ctrl-C, SIGTERM and the end of the terminal: the first asks the command to stop after the request in hand, to clean
// up and to say what it left; the second ends the program at once.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>

namespace tool {

// The end of the terminal counts unless whoever started the program has it ignored (nohup). To be done again after a
// fork whose child has closed what it inherited.
void InstallInterrupt();

// Occupies those of standard input, output and error that the caller left closed, so that no image takes their place
// and is written over with a report. Using them fails. Before anything is opened.
void OccupyStandardStreams();

[[nodiscard]] bool Interrupted();

// Waits until a descriptor can be read without waiting. False when the user asked to stop meanwhile.
[[nodiscard]] bool WaitReadable(int descriptor);
// Of several, which one; none when the user asked to stop.
[[nodiscard]] std::optional<std::size_t> WaitReadable(std::span<const int> descriptors);
// False when the user asked to stop meanwhile.
[[nodiscard]] bool Pause(std::chrono::milliseconds time);

}  // namespace tool
