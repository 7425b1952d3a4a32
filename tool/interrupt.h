// Ctrl-C and SIGTERM: the first asks the command to stop after the request in hand, to clean up and to say what it
// left; the second ends the program at once.
#pragma once

namespace tool {

void InstallInterrupt();

// Occupies those of standard input, output and error that the caller left closed, so that no image takes their place
// and is written over with a report. Using them fails. Before anything is opened.
void OccupyStandardStreams();

[[nodiscard]] bool Interrupted();

// Waits until a descriptor can be read without waiting. False when the user asked to stop meanwhile.
[[nodiscard]] bool WaitReadable(int descriptor);

}  // namespace tool
