// What most cases start from: a fresh station in a temporary directory, a machine running on it, a user process; and at
// the end the check that nothing was left over.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <vrkfs/control.h>
#include <vrkfs/records.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "board/board.h"
#include "host/machine.h"
#include "host/process.h"
#include "host/station.h"
#include "nt/station.h"

namespace tests {

// A directory that goes when the case ends.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "vrkfs-test-XXXXXX").string();
        const char* made = ::mkdtemp(pattern.data());
        EXPECT_NE(made, nullptr);
        path_ = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::filesystem::path& Path() const { return path_; }

  private:
    std::filesystem::path path_;
};

template <typename Record>
std::span<const std::byte> BytesOf(const Record& record) {
    return std::as_bytes(std::span(&record, 1));
}
template <typename Record>
std::span<std::byte> WritableBytesOf(Record& record) {
    return std::as_writable_bytes(std::span(&record, 1));
}

class MachineTest : public testing::Test {
  protected:
    // Before Start: what the station has.
    void MakeStation(std::uint32_t disks = 4, std::uint64_t diskBytes = 16 << 20, std::uint32_t cards = 1) {
        host::StationLayout layout;
        layout.cards = cards;
        layout.disks = disks;
        layout.diskBytes = diskBytes;
        const host::Problem problem = host::CreateStation(StationPath(), layout);
        ASSERT_FALSE(problem) << problem.what;
    }
    void Start(const host::MachineOptions& options = {}) {
        host::Problem problem;
        machine_ = host::Machine::Start(StationPath(), options, problem);
        ASSERT_TRUE(machine_) << problem.what;
        process_ = machine_->NewProcess();
    }
    // Stops the machine and demands that nothing was left over.
    void Stop() {
        process_.reset();
        if (machine_) {
            ExpectNothing(machine_->Stop());
            machine_.reset();
        }
    }
    void Restart(const host::MachineOptions& options = {}) {
        Stop();
        Start(options);
    }
    void TearDown() override { Stop(); }

    std::filesystem::path StationPath() const { return directory_.Path() / "station"; }
    host::Machine& Machine() { return *machine_; }
    host::Process& User() { return *process_; }
    board::Board& Board(std::uint32_t card = 0) { return *machine_->BoardOf(card); }

    host::OpenResult OpenControl(std::uint32_t card = 0) {
        host::OpenRequest request;
        request.path = u"VrkFsDevice" + std::u16string(1, static_cast<char16_t>(u'0' + card));
        request.access = host::access::kReadData | host::access::kWriteData;
        return User().Create(request);
    }

    // Formats the given disks; the driver's result code (0: done).
    int Format(const std::u16string& name, const std::vector<std::uint32_t>& disks, std::uint32_t card = 0) {
        VrkFsVolumeInfoRecord record{};
        std::memcpy(record.Name, name.data(), std::min<std::size_t>(name.size(), 255) * sizeof(char16_t));
        record.DeviceCount = static_cast<std::uint32_t>(disks.size());
        std::fill(std::begin(record.Devices), std::end(record.Devices), 0xFFFFFFFF);
        std::copy(disks.begin(), disks.begin() + std::min<std::ptrdiff_t>(16, std::ssize(disks)), record.Devices);
        const host::OpenResult control = OpenControl(card);
        EXPECT_TRUE(control.status.Ok());
        const host::ScopedHandle handle(User(), control.handle);
        std::int32_t result = 0x7FFFFFFF;
        const host::IoResult answer =
            User().DeviceControl(handle.Get(), IOCTL_VRKFS_FORMAT_VOLUME, BytesOf(record), WritableBytesOf(result));
        EXPECT_EQ(host::StatusName(answer.status), "STATUS_SUCCESS");
        return result;
    }

    // Opens P:\<path>; by default an existing object for reading.
    host::OpenResult Open(const std::u16string& path, host::Disposition disposition = host::Disposition::kOpen,
                          std::uint32_t access = host::access::kReadData | host::access::kReadAttributes,
                          std::uint32_t options = 0) {
        host::OpenRequest request;
        request.path = u"P:" + path;
        request.access = access;
        request.disposition = disposition;
        request.options = options;
        return User().Create(request);
    }

    // The same, open for as long as the result lives; the case fails where it cannot be opened.
    host::ScopedHandle Hold(const std::u16string& path,
                            std::uint32_t access = host::access::kReadData | host::access::kReadAttributes,
                            host::Disposition disposition = host::Disposition::kOpen, std::uint32_t options = 0) {
        const host::OpenResult opened = Open(path, disposition, access, options);
        EXPECT_EQ(host::StatusName(opened.status), "STATUS_SUCCESS") << std::string(path.begin(), path.end());
        return {User(), opened.handle};
    }

    TemporaryDirectory directory_;
    std::unique_ptr<host::Machine> machine_;
    std::unique_ptr<host::Process> process_;

  private:
    static void ExpectNothing(const std::vector<std::string>& left) {
        for (const std::string& line : left) {
            ADD_FAILURE() << "left over: " << line;
        }
    }
};

}  // namespace tests
