// A real mount of a station's drives, with a machine in this program behind it, and real programs that use it. Nothing
// in this program itself makes a request to the mount: if it was ended while it waited for its own answer, it could not
// end.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "mount/mount.h"
#include "tests/support/eventually.h"
#include "tests/support/machine_fixture.h"
#include "tool/clip/writer.h"

extern char** environ;

namespace tests {

struct Outcome {
    int status = -1;  // below 0: ended by that signal
    std::string out;  // and what it said on standard error
};

inline std::string Contents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Starts a program in `directory`, as any program starts, whatever signals this one has blocked or ignored.
inline pid_t StartShell(const std::filesystem::path& directory, const std::string& script,
                        const std::filesystem::path& out) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
    sigset_t signals;
    sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::string words[] = {"sh", "-c", "export LC_ALL=C TZ=UTC; " + script};
    char* pointers[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    pid_t process = -1;
    EXPECT_EQ(::posix_spawnp(&process, "sh", &actions, &attributes, pointers, environ), 0);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    return process;
}

inline int Await(pid_t process) {
    int status = 0;
    while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class MountTest : public MachineTest {
  protected:
    // Volumes ONE (disk 0) and TWO (disks 1, 2), a folder A in each; a mount of all at place; the clips @/small and
    // @/large, and @/part, which is the beginning of small.
    void SetUp() override {
        ASSERT_EQ(::access("/dev/fuse", R_OK | W_OK), 0) << "these cases need /dev/fuse: load the kernel's module fuse";
        MakeStation(3, 24 << 20);
        Start();
        ASSERT_EQ(Format(u"ONE", {0}), 0);
        ASSERT_EQ(Format(u"TWO", {1, 2}), 0);
        MakeFolder(u"\\RZV\\ONE\\A");
        MakeFolder(u"\\RZV\\TWO\\A");
        MakeClip("small", {.kind = clip::ClipKind::Tagged, .frames = 9, .alpha = true, .maxSectors = 40, .seed = 5});
        MakeClip("large", {.standard = 625, .frames = 6, .seed = 2});
        std::filesystem::create_directory(Place());
        ASSERT_EQ(Sh("head -c 70000 small > part").status, 0);
        MountDrives();
    }
    void TearDown() override {
        mount_.reset();
        MachineTest::TearDown();
    }

    [[nodiscard]] std::filesystem::path Place() const { return directory_.Path() / "m"; }
    [[nodiscard]] std::filesystem::path At(const std::string& path) const { return directory_.Path() / path; }

    void MountDrives(const std::function<void(mount::Options&)>& change = {}) {
        mount::Options options;
        options.mountpoint = Place();
        if (change) {
            change(options);
        }
        host::Problem problem;
        mount_ = mount::Mount::Start(
            Machine(), options, [this](const std::string& line) { Note(line); }, problem);
        ASSERT_TRUE(mount_) << problem.what;
    }
    // Another time, on the same disks, by another machine.
    void Remount(const host::MachineOptions& machine = {}) {
        mount_.reset();
        Restart(machine);
        MountDrives();
    }

    // In the test's directory, where m is the mount, with T for the folder A of volume TWO and O for that of ONE.
    Outcome Sh(const std::string& script) const {
        const std::string number = std::to_string(++scripts_);
        const auto out = At("out" + number);
        const pid_t process = StartShell(directory_.Path(), "T=m/P/RZV/TWO/A; O=m/P/RZV/ONE/A; " + script, out);
        Outcome outcome;
        outcome.status = Await(process);
        outcome.out = Contents(out);
        std::filesystem::remove(out);
        return outcome;
    }
    // It is to end well and say nothing.
    void Do(const std::string& script) const {
        const Outcome outcome = Sh(script);
        EXPECT_EQ(outcome.status, 0) << script << "\n" << outcome.out;
        EXPECT_EQ(outcome.out, "") << script;
    }
    void ExpectOut(const std::string& script, const std::string& out) const {
        EXPECT_EQ(Sh(script).out, out) << script;
    }

    // A clip from another program of the machine's.
    void PutOnDrive(const std::u16string& path, const std::string& local) {
        const std::string bytes = Contents(At(local));
        const host::ScopedHandle file =
            Hold(path, host::access::kReadData | host::access::kWriteData, host::Disposition::kCreate);
        EXPECT_EQ(User().Write(file.Get(), std::as_bytes(std::span(bytes)), 0).information, bytes.size());
    }
    void MakeFolder(const std::u16string& path) {
        Hold(path, host::access::kListDirectory, host::Disposition::kCreate, host::option::kDirectoryFile);
    }
    void RenameOnDrive(const std::u16string& path, const std::u16string& name) {
        EXPECT_TRUE(host::Rename(User(), Hold(path, host::access::kDelete).Get(), name).Ok());
    }

    void MakeClip(const std::string& name, const clip::ClipRecipe& recipe) const {
        const auto image = clip::MakeClipImage(recipe);
        std::ofstream(At(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    }

    bool HasNoted(const std::string& text) {
        const std::lock_guard hold(notesLock_);
        return std::ranges::any_of(notes_, [&](const std::string& line) { return line.find(text) != line.npos; });
    }

    std::unique_ptr<mount::Mount> mount_;

  private:
    void Note(const std::string& line) {
        const std::lock_guard hold(notesLock_);
        notes_.push_back(line);
    }

    mutable int scripts_ = 0;
    std::mutex notesLock_;
    std::vector<std::string> notes_;
};

}  // namespace tests
