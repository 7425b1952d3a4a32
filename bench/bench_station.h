// What the benchmarks share: a station on memory-backed files, so that the driver is measured and not a disk.
#pragma once

#include <unistd.h>
#include <vrkfs/control.h>
#include <vrkfs/records.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/machine.h"
#include "host/process.h"

namespace bench {

inline void Need(host::Status status, const char* step) {
    if (!status.Ok()) {
        throw std::runtime_error(std::string(step) + ": " + host::StatusName(status));
    }
}

class BenchStation {
  public:
    explicit BenchStation(std::uint32_t disks, std::uint64_t diskBytes = 1ull << 30) {
        const auto base = std::filesystem::exists("/dev/shm") ? std::filesystem::path("/dev/shm")
                                                              : std::filesystem::temp_directory_path();
        path_ = base / ("vrkfs-bench-" + std::to_string(::getpid()) + "-" + std::to_string(disks));
        std::filesystem::remove_all(path_);
        host::StationLayout layout;
        layout.disks = disks;
        layout.diskBytes = diskBytes;
        if (const host::Problem problem = host::CreateStation(path_, layout)) {
            throw std::runtime_error(problem.what);
        }
        Start();
    }
    ~BenchStation() {
        Stop();
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    void Start() {
        host::Problem problem;
        machine_ = host::Machine::Start(path_, {}, problem);
        if (!machine_) {
            throw std::runtime_error(problem.what);
        }
        user_ = machine_->NewProcess();
    }
    void Stop() {
        user_.reset();
        machine_.reset();
    }

    host::Process& User() { return *user_; }
    host::Machine& Machine() { return *machine_; }
    std::filesystem::path Image(std::uint32_t disk) const {
        return path_ / "card0" / ("scsi" + std::to_string(disk) + ".img");
    }

    void Format(std::uint32_t disks) {
        const host::ScopedHandle control = OpenControl();
        VrkFsVolumeInfoRecord record{};
        record.Name[0] = u'V';
        record.DeviceCount = disks;
        for (std::uint32_t i = 0; i < 16; ++i) {
            record.Devices[i] = i < disks ? i : 0xFFFFFFFF;
        }
        std::int32_t result = -1;
        const auto in = std::as_bytes(std::span(&record, 1));
        const auto out = std::as_writable_bytes(std::span(&result, 1));
        Need(user_->DeviceControl(control.Get(), IOCTL_VRKFS_FORMAT_VOLUME, in, out).status, "format");
        if (result != 0) {
            throw std::runtime_error("format refused: " + std::to_string(result));
        }
    }

    host::ScopedHandle OpenControl() {
        host::OpenRequest request;
        request.path = u"VrkFsDevice0";
        request.access = host::access::kReadData | host::access::kWriteData;
        const host::OpenResult opened = user_->Create(request);
        Need(opened.status, "open control device");
        return host::ScopedHandle(*user_, opened.handle);
    }

    host::ScopedHandle Open(const std::u16string& path, host::Disposition disposition, std::uint32_t access,
                            std::uint32_t options = 0) {
        host::OpenRequest request;
        request.path = u"P:" + path;
        request.disposition = disposition;
        request.access = access;
        request.options = options;
        const host::OpenResult opened = user_->Create(request);
        Need(opened.status, "open");
        return host::ScopedHandle(*user_, opened.handle);
    }

    void MakeFolder(const std::u16string& path) {
        (void)Open(path, host::Disposition::kCreate, host::access::kReadData, host::option::kDirectoryFile);
    }

  private:
    std::filesystem::path path_;
    std::unique_ptr<host::Machine> machine_;
    std::unique_ptr<host::Process> user_;
};

}  // namespace bench
