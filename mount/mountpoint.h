// The place that a drive is mounted at.
#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <filesystem>

#include "host/station.h"

namespace mount {

// Says what is wrong with the place, if anything is: not there, no directory, something mounted on it, not empty. What
// a mount that died left there is cleared away.
[[nodiscard]] host::Problem CheckMountpoint(const std::filesystem::path& place);

// Takes a mount away; false while something on it is open, unless it is to go out of sight all the same.
bool Unmount(const std::filesystem::path& place, bool lazily);

// None of what follows makes a request to the mount from within this program: if it was killed while it waited for its
// own answer, it could not end.

// The kernel reads ahead in larger pieces than it does by itself, where it lets us say so.
void RaiseReadAhead(const std::filesystem::path& place);

// Has another program make a request to the mount; it ends when it is answered. Its process, for AwaitProgram.
[[nodiscard]] pid_t KnockAt(const std::filesystem::path& place);
void AwaitProgram(pid_t process);

// Clears the place when this program dies without having unmounted: a small program of its own waits for that. Without
// it a dead mount would stay, and everything on it would fail.
class DeathWatch {
  public:
    DeathWatch() = default;
    ~DeathWatch();
    DeathWatch(const DeathWatch&) = delete;
    DeathWatch& operator=(const DeathWatch&) = delete;

    void Start(const std::filesystem::path& place);

  private:
    int line_ = -1;  // its end says that we are gone
    pid_t process_ = -1;
};

}  // namespace mount
