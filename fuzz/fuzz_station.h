// What the fuzzers share: a small station in memory-backed files with one volume and one clip, put back as it was
// before each input; and a walk that does what a curious user would do with it.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vrkfs/control.h>
#include <vrkfs/records.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "host/machine.h"
#include "host/process.h"
#include "tool/clip/writer.h"

namespace fuzz {

constexpr std::uint32_t kDisks = 2;
constexpr std::uint64_t kDiskBytes = 4 << 20;

[[noreturn]] inline void Fail(const std::string& what) {
    std::fprintf(stderr, "ERROR: %s\n", what.c_str());
    std::abort();
}

// Takes values off the front of the fuzzer's input; zeros when it is used up.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool Empty() const { return size_ == 0; }
    template <typename Value>
    Value Take() {
        Value value{};
        const std::size_t part = std::min(size_, sizeof(value));
        std::memcpy(&value, data_, part);
        data_ += part;
        size_ -= part;
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

inline host::OpenResult OpenPath(host::Process& user, const std::u16string& path, host::Disposition disposition,
                                 std::uint32_t access, std::uint32_t options = 0) {
    host::OpenRequest request;
    request.path = path;
    request.disposition = disposition;
    request.access = access;
    request.options = options;
    return user.Create(request);
}

constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;

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
        if (const host::Problem problem = host::CreateStation(path_, layout)) {
            Fail(problem.what);
        }
        auto machine = Start();
        Fill(*machine);
        Stop(*machine);
        for (std::uint32_t disk = 0; disk < kDisks; ++disk) {
            images_.push_back(ReadImage(disk));
        }
    }
    ~FuzzStation() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::unique_ptr<host::Machine> Start() {
        host::Problem problem;
        auto machine = host::Machine::Start(path_, {}, problem);
        if (!machine) {
            Fail("the station does not start: " + problem.what);
        }
        return machine;
    }
    static void Stop(host::Machine& machine) {
        for (const std::string& line : machine.Stop()) {
            Fail("left over: " + line);
        }
    }

    // The disks as they were after the filling.
    const std::vector<std::vector<std::byte>>& Images() const { return images_; }
    void WriteImages(const std::vector<std::vector<std::byte>>& images) {
        for (std::uint32_t disk = 0; disk < kDisks; ++disk) {
            const int fd = ::open(Path(disk).c_str(), O_WRONLY | O_CLOEXEC);
            if (fd < 0 || ::pwrite(fd, images[disk].data(), images[disk].size(), 0) !=
                              static_cast<ssize_t>(images[disk].size())) {
                Fail("cannot restore an image");
            }
            ::close(fd);
        }
    }
    void Restore() { WriteImages(images_); }

    static clip::ClipRecipe Recipe() {
        clip::ClipRecipe recipe;
        recipe.kind = clip::ClipKind::Tagged;
        recipe.frames = 3;
        recipe.alpha = true;
        recipe.maxSectors = 5;
        return recipe;
    }

  private:
    std::filesystem::path Path(std::uint32_t disk) const {
        return path_ / "card0" / ("scsi" + std::to_string(disk) + ".img");
    }
    std::vector<std::byte> ReadImage(std::uint32_t disk) const {
        std::vector<std::byte> image(kDiskBytes);
        const int fd = ::open(Path(disk).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || ::pread(fd, image.data(), image.size(), 0) != static_cast<ssize_t>(image.size())) {
            Fail("cannot read an image");
        }
        ::close(fd);
        return image;
    }
    static void Fill(host::Machine& machine) {
        auto user = machine.NewProcess();
        {
            const host::ScopedHandle control(
                *user, OpenPath(*user, u"VrkFsDevice0", host::Disposition::kOpen, kReadWrite).handle);
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
        for (const char16_t* folder : {u"P:\\RZV\\V\\A", u"P:\\RZV\\V\\B"}) {
            const host::ScopedHandle made(*user, OpenPath(*user, folder, host::Disposition::kCreate,
                                                          host::access::kReadData, host::option::kDirectoryFile)
                                                     .handle);
        }
        const std::vector<std::byte> image = clip::MakeClipImage(Recipe());
        for (const char16_t* name : {u"P:\\RZV\\V\\A\\ONE.RZV", u"P:\\RZV\\V\\A\\TWO.RZV", u"P:\\RZV\\V\\B\\ONE.RZV"}) {
            const host::ScopedHandle file(*user, OpenPath(*user, name, host::Disposition::kCreate, kReadWrite).handle);
            if (!user->Write(file.Get(), image, 0).status.Ok()) {
                Fail("cannot fill the station");
            }
        }
    }

    std::filesystem::path path_;
    std::vector<std::vector<std::byte>> images_;
};

// Lists what is there, reads a piece of every file, makes and deletes a few things.
class Walk {
  public:
    explicit Walk(host::Process& user) : user_(user) {}

    void Everything() {
        Visit(u"P:\\RZV", 1);
        for (const std::u16string& folder : folders_) {
            Work(folder);
        }
    }

  private:
    void Visit(const std::u16string& path, int level) {
        const host::OpenResult opened =
            OpenPath(user_, path, host::Disposition::kOpen, host::access::kListDirectory, host::option::kDirectoryFile);
        if (!opened.status.Ok()) {
            return;
        }
        const host::ScopedHandle directory(user_, opened.handle);
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
        const host::ScopedHandle file(user_, OpenPath(user_, path, host::Disposition::kOpen,
                                                      host::access::kReadData | host::access::kReadAttributes)
                                                 .handle);
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
    void Work(const std::u16string& folder) {
        static const std::vector<std::byte> image = clip::MakeClipImage(FuzzStation::Recipe());
        {
            const host::ScopedHandle file(
                user_, OpenPath(user_, folder + u"\\NEW.RZV", host::Disposition::kCreate, kReadWrite).handle);
            if (file) {
                (void)user_.Write(file.Get(), image, 0);
            }
        }
        for (const char16_t* name : {u"\\NEW.RZV", u"\\ONE.RZV"}) {
            const host::ScopedHandle file(
                user_, OpenPath(user_, folder + name, host::Disposition::kOpen, host::access::kDelete).handle);
            if (file) {
                (void)host::SetDeleteOnCleanup(user_, file.Get(), true);
            }
        }
        const host::ScopedHandle made(user_, OpenPath(user_, u"P:\\RZV\\V\\NEW", host::Disposition::kCreate,
                                                      host::access::kReadData, host::option::kDirectoryFile)
                                                 .handle);
    }

    host::Process& user_;
    std::vector<std::u16string> folders_;
};

}  // namespace fuzz
