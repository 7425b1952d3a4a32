// The place that a drive is mounted at.
#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <filesystem>
#include <string>

#include "host/station.h"

namespace mount {

// Says what is wrong with the place, if anything is: not there, no directory, something mounted on it, not empty. What
// a mount that died left there is cleared away.
[[nodiscard]] host::Problem CheckMountpoint(const std::filesystem::path& place);

// None of what follows makes a request to the mount from within this program: if it was killed while it waited for its
// own answer, it could not end.

// With every link followed, as the kernel shows it.
[[nodiscard]] std::filesystem::path RealPlace(const std::filesystem::path& place);

// A mount's device as the kernel numbers it, "0:47"; empty: there is no mount of our kind.
[[nodiscard]] std::string DeviceAt(const std::filesystem::path& place);
// Where that mount is now: it moves with the directories above it. `last`: where it was.
[[nodiscard]] std::filesystem::path PlaceOf(const std::string& device, const std::filesystem::path& last);

// Takes a mount away, unless something on it is open; `lazily`: out of sight all the same.
void Unmount(const std::filesystem::path& place, bool lazily);

// The kernel reads ahead in larger pieces than it does by itself, where it lets us say so.
void RaiseReadAhead(const std::filesystem::path& place);

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
