// What the fuzzers share: a small station in memory-backed files with one volume and a few clips, put back as it was
// before each input; and a walk that does what a curious user would do with it.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vrkfs/control.h>
#include <vrkfs/records.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/machine.h"
#include "host/process.h"
#include "tool/clip/writer.h"

namespace fuzz {

constexpr std::uint32_t kDisks = 2;
constexpr std::uint64_t kDiskBytes = 4 << 20;

inline void Demand(bool holds, const std::string& otherwise) {
    if (!holds) {
        std::fprintf(stderr, "ERROR: %s\n", otherwise.c_str());
        std::abort();
    }
}

// Takes values off the front of the fuzzer's input; zeros when it is used up.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool Empty() const { return size_ == 0; }
    template <typename Value>
    Value Take() {
        Value value{};
        const std::span<const std::byte> bytes = TakeBytes(sizeof(value));
        std::memcpy(&value, bytes.data(), bytes.size());
        return value;
    }
    std::span<const std::byte> TakeBytes(std::size_t count) {
        const std::size_t part = std::min(size_, count);
        const std::span<const std::byte> taken(reinterpret_cast<const std::byte*>(data_), part);
        data_ += part;
        size_ -= part;
        return taken;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
};

// None when it is refused.
inline host::ScopedHandle Opened(host::Process& user, const host::OpenRequest& request) {
    return {user, user.Create(request).handle};
}

// What a fuzzer starts from, made by the fuzzer itself: run with VRKFS_FUZZ_SEEDS=DIR it writes its seeds and ends.
class Seeds {
  public:
    Seeds() {
        const char* directory = std::getenv("VRKFS_FUZZ_SEEDS");
        directory_ = directory != nullptr ? directory : "";
    }
    bool Wanted() const { return !directory_.empty(); }
    void Add(const std::vector<std::uint8_t>& bytes) {
        std::ofstream out(directory_ / ("seed" + std::to_string(count_++)), std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

  private:
    std::filesystem::path directory_;
    int count_ = 0;
};

// Each fuzzer's own.
void WriteSeeds(Seeds& seeds);

// Values that field checks turn on.
constexpr std::uint32_t kEdges[] = {0,    1,    2,    7,    15,   16,         17,         256,        525,   625,
                                    1023, 1024, 2048, 3583, 3584, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 65535, 65536};

constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;

// The clip that no fuzzer touches.
constexpr const char16_t* kKept = u"P:\\RZV\\V\\C\\KEPT.RZV";

// The clip that the station is filled with.
inline const std::vector<std::byte>& ClipImage() {
    static const std::vector<std::byte> image =
        clip::MakeClipImage({.kind = clip::ClipKind::Tagged, .frames = 3, .alpha = true, .maxSectors = 5});
    return image;
}

// Whether a whole read of the file gives that clip.
inline bool HoldsTheClip(host::Process& user, const std::u16string& path) {
    const host::ScopedHandle file = Opened(user, {.path = path, .access = host::access::kReadData});
    std::vector<std::byte> back(ClipImage().size());
    return file && user.Read(file.Get(), back, 0).status.Ok() && back == ClipImage();
}

// Puts that clip at a name that is free, or over what is there; false when that is refused.
inline bool PutClip(host::Process& user, const std::u16string& path,
                    host::Disposition disposition = host::Disposition::kCreate) {
    const host::ScopedHandle file = Opened(user, {.path = path, .access = kReadWrite, .disposition = disposition});
    return file && user.Write(file.Get(), ClipImage(), 0).status.Ok();
}

inline bool DeletePath(host::Process& user, const std::u16string& path) {
    const host::ScopedHandle file = Opened(user, {.path = path, .access = host::access::kDelete});
    return file && host::SetDeleteOnCleanup(user, file.Get(), true).Ok();
}

inline void MakeFolder(host::Process& user, const std::u16string& path) {
    (void)Opened(user,
                 {.path = path, .disposition = host::Disposition::kCreate, .options = host::option::kDirectoryFile});
}

class FuzzStation {
  public:
    FuzzStation() {
        const auto base = std::filesystem::exists("/dev/shm") ? std::filesystem::path("/dev/shm")
                                                              : std::filesystem::temp_directory_path();
        path_ = base / ("vrkfs-fuzz-" + std::to_string(::getpid()));
        std::filesystem::remove_all(path_);
        host::StationLayout layout;
        layout.disks = kDisks;
        layout.diskBytes = kDiskBytes;
        const host::Problem problem = host::CreateStation(path_, layout);
        Demand(!problem, problem.what);
        auto machine = Start();
        Fill(*machine);
        Stop(*machine);
        for (std::uint32_t disk = 0; disk < kDisks; ++disk) {
            disks_.push_back(Map(disk));
            images_.emplace_back(disks_.back(), disks_.back() + kDiskBytes);
        }
        std::filesystem::copy_file(path_ / "registry.json", path_ / "registry.kept");
    }
    ~FuzzStation() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::unique_ptr<host::Machine> Start() {
        host::Problem problem;
        auto machine = host::Machine::Start(path_, {}, problem);
        Demand(machine != nullptr, "the station does not start: " + problem.what);
        return machine;
    }
    static void Stop(host::Machine& machine) {
        for (const std::string& line : machine.Stop()) {
            Demand(false, "left over: " + line);
        }
    }

    // A disk as it was after the filling, and as it is.
    const std::vector<std::byte>& Image(std::uint32_t disk) const { return images_[disk]; }
    std::byte* Disk(std::uint32_t disk) const { return disks_[disk]; }
    // Puts all disks and the settings back as they were after the filling.
    void Restore() {
        std::filesystem::copy_file(path_ / "registry.kept", path_ / "registry.json",
                                   std::filesystem::copy_options::overwrite_existing);
        constexpr std::size_t kPiece = 64 << 10;
        for (std::uint32_t disk = 0; disk < kDisks; ++disk) {
            for (std::size_t at = 0; at < kDiskBytes; at += kPiece) {
                if (std::memcmp(disks_[disk] + at, images_[disk].data() + at, kPiece) != 0) {
                    std::memcpy(disks_[disk] + at, images_[disk].data() + at, kPiece);
                }
            }
        }
    }

  private:
    std::filesystem::path Path(std::uint32_t disk) const {
        return path_ / "card0" / ("scsi" + std::to_string(disk) + ".img");
    }
    std::byte* Map(std::uint32_t disk) const {
        const int fd = ::open(Path(disk).c_str(), O_RDWR | O_CLOEXEC);
        void* mapped = ::mmap(nullptr, kDiskBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        Demand(fd >= 0 && mapped != MAP_FAILED, "cannot map an image");
        ::close(fd);
        return static_cast<std::byte*>(mapped);
    }
    static void Fill(host::Machine& machine) {
        auto user = machine.NewProcess();
        {
            const host::ScopedHandle control = Opened(*user, {.path = u"VrkFsDevice0", .access = kReadWrite});
            VrkFsVolumeInfoRecord record{};
            record.Name[0] = u'V';
            record.DeviceCount = kDisks;
            for (std::uint32_t i = 0; i < 16; ++i) {
                record.Devices[i] = i < kDisks ? i : 0xFFFFFFFF;
            }
            std::int32_t result = -1;
            (void)user->DeviceControl(control.Get(), IOCTL_VRKFS_FORMAT_VOLUME, std::as_bytes(std::span(&record, 1)),
                                      std::as_writable_bytes(std::span(&result, 1)));
        }
        for (const char16_t* folder : {u"P:\\RZV\\V\\A", u"P:\\RZV\\V\\B", u"P:\\RZV\\V\\C"}) {
            MakeFolder(*user, folder);
        }
        for (const char16_t* name :
             {u"P:\\RZV\\V\\A\\ONE.RZV", u"P:\\RZV\\V\\A\\TWO.RZV", u"P:\\RZV\\V\\B\\ONE.RZV", kKept}) {
            Demand(PutClip(*user, name), "cannot fill the station");
        }
    }

    std::filesystem::path path_;
    std::vector<std::vector<std::byte>> images_;
    std::vector<std::byte*> disks_;
};

// Lists what is there, reads a piece of every file; puts, overwrites and deletes clips.
class Walk {
  public:
    explicit Walk(host::Process& user) : user_(user) {}

    void Everything() {
        Visit(u"P:\\RZV", 1);
        for (const std::u16string& folder : folders_) {
            Put(folder + u"\\NEW.RZV");
        }
        CheckPut();
        for (const std::u16string& folder : folders_) {
            Put(folder + u"\\TWO.RZV", host::Disposition::kOpen);
            (void)DeletePath(user_, folder + u"\\ONE.RZV");
            Put(folder + u"\\NEWER.RZV");
        }
        CheckPut();
        for (const std::u16string& path : put_) {
            Demand(DeletePath(user_, path), "a clip that was put cannot be deleted");
        }
        for (const std::u16string& folder : folders_) {
            (void)DeletePath(user_, folder);
        }
        MakeFolder(user_, u"P:\\RZV\\V\\NEW");
    }

  private:
    void Visit(const std::u16string& path, int level) {
        const host::ScopedHandle directory = Opened(
            user_, {.path = path, .access = host::access::kListDirectory, .options = host::option::kDirectoryFile});
        if (!directory) {
            return;
        }
        std::vector<host::DirectoryEntry> entries;
        (void)host::ListDirectory(user_, directory.Get(), entries);
        if (level == 3 && folders_.size() < 4) {
            folders_.push_back(path);
        }
        for (std::size_t i = 0; i < entries.size() && i < 40; ++i) {
            if (entries[i].IsDirectory()) {
                Visit(path + u"\\" + entries[i].name, level + 1);
            } else {
                ReadPieces(path + u"\\" + entries[i].name, entries[i].size);
            }
        }
    }
    void ReadPieces(const std::u16string& path, std::uint64_t size) {
        const host::ScopedHandle file = Opened(user_, {.path = path});
        if (!file) {
            return;
        }
        host::FileFacts facts;
        (void)host::QueryFacts(user_, file.Get(), facts);
        std::vector<std::byte> buffer(40'000);
        for (const std::uint64_t place :
             {std::uint64_t{0}, size / 2, size > 100 ? size - 100 : 0, ~std::uint64_t{0} >> 1}) {
            (void)user_.Read(file.Get(), buffer, place);
        }
    }
    void Put(const std::u16string& path, host::Disposition disposition = host::Disposition::kCreate) {
        if (PutClip(user_, path, disposition)) {
            put_.push_back(path);
        }
    }
    // Whatever the disks say, new clips lie beside each other.
    void CheckPut() {
        for (const std::u16string& path : put_) {
            Demand(HoldsTheClip(user_, path), "a clip that was put does not read back");
        }
    }

    host::Process& user_;
    std::vector<std::u16string> folders_;
    std::vector<std::u16string> put_;
};

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (fuzz::Seeds seeds; seeds.Wanted()) {
        fuzz::WriteSeeds(seeds);
        std::exit(0);
    }
    return 0;
}
