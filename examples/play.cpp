// A player as a program of its own: plays a clip that record made, or is still making, through the daemon of a station,
// and checks every field.
//
//   play SOCKET P:/RZV/VOLUME/FOLDER/CLIP [patience=N]
//
// Waits up to `patience` milliseconds for the clip and for each next field. Exit status 0: the whole clip was right.
#include "examples/player.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "examples/arguments.h"
#include "examples/session.h"

namespace {

constexpr std::uint32_t kLongest = 3'600'000;  // milliseconds

bool Play(const examples::Arguments& arguments) {
    examples::PlayOrder order;
    order.path = arguments.Path();
    order.patience = std::chrono::milliseconds(arguments.Small("patience", kLongest));
    VrkFsClient* connected = nullptr;
    examples::Need(VrkFsClientConnect(arguments.Socket(), &connected), "connect");
    const examples::ConnectedClient client(connected);
    const examples::PlayReport report = examples::Play(client.get(), order);
    std::printf("played %u fields, %u of them while they were being recorded; %u fields were wrong%s\n", report.fields,
                report.liveFields, report.wrongFields, report.ended ? "" : "; the rest did not come");
    return report.ended && report.wrongFields == 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Play({argc, argv, {{"patience", 10'000}}}) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "play: %s\n", problem.what());
        return EXIT_FAILURE;
    }
}
