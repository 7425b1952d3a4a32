// Clip images that lie: an image with a damaged header is written in pieces of any length, in any order, and read back;
// then the same file takes a proper clip, and when it is deleted no block is missing.
#include "fuzz/fuzz_station.h"

namespace fuzz {
namespace {

constexpr const char16_t* kFile = u"P:\\RZV\\V\\B\\FUZZ.RZV";
constexpr std::size_t kDamaged = 700;  // bytes: the header, its tables, and the first chunk of data

// How the next piece is moved.
constexpr std::uint8_t kAnywhere = 0x07;  // these bits all set: from another place on, else from where the last ended
constexpr std::uint8_t kRead = 0x08;
constexpr std::uint8_t kReopen = 0x70;  // these bits all set: close the file and open it again first

std::uint64_t FreeBlocks(host::Process& user) {
    const host::ScopedHandle control = Opened(user, {.path = u"VrkFsDevice0"});
    const host::ScopedHandle folder = Opened(user, {.path = u"P:\\RZV\\V\\B"});
    VrkFsVolumeSpaceInfo info{};
    info.Handle = folder.Get();
    const host::IoResult asked =
        user.DeviceControl(control.Get(), IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, std::as_bytes(std::span(&info, 1)),
                           std::as_writable_bytes(std::span(&info, 1)));
    Demand(asked.status.Ok(), "the volume's space cannot be asked for");
    return info.FreeBlocks;
}

std::vector<std::byte> DamagedImage(Input& input) {
    std::vector<std::byte> image = ClipImage();
    const auto damages = input.Take<std::uint8_t>() % 8;
    for (int i = 0; i < damages; ++i) {
        const auto how = input.Take<std::uint8_t>();
        const std::size_t place = input.Take<std::uint16_t>() % kDamaged;
        if ((how & 1) != 0) {
            const auto bytes = input.TakeBytes(1 + how / 2 % 8);
            std::memcpy(image.data() + place, bytes.data(), std::min(bytes.size(), image.size() - place));
        } else {
            const std::uint32_t value = kEdges[input.Take<std::uint8_t>() % std::size(kEdges)];
            std::memcpy(image.data() + place / 4 * 4, &value, sizeof(value));
        }
    }
    return image;
}

void Move(host::Process& user, Input& input, const std::vector<std::byte>& image) {
    const auto open = [&](host::Disposition disposition) {
        return Opened(user, {.path = kFile, .access = kReadWrite, .disposition = disposition});
    };
    host::ScopedHandle file = open(host::Disposition::kCreate);
    std::vector<std::byte> buffer(8000);
    std::uint64_t place = 0;
    for (int i = 0; i < 40 && !input.Empty(); ++i) {
        const auto how = input.Take<std::uint8_t>();
        if ((how & kReopen) == kReopen) {
            file.Reset();
            file = open(host::Disposition::kOpen);
        }
        if ((how & kAnywhere) == kAnywhere) {
            place = input.Take<std::uint32_t>() % (image.size() + 2000);
        }
        const std::size_t count = 1 + input.Take<std::uint16_t>() % buffer.size();
        if ((how & kRead) != 0) {
            (void)user.Read(file.Get(), std::span(buffer).first(count), place);
            continue;
        }
        const std::size_t begin = std::min<std::size_t>(place, image.size());
        const auto written =
            user.Write(file.Get(), std::span(image).subspan(begin, std::min(count, image.size() - begin)), place);
        place += written.status.Ok() ? written.information : 0;
    }
}

}  // namespace

// Each word of the header once with one edge: the image as a whole, a piece of it again, read, reopened, read.
void WriteSeeds(Seeds& seeds) {
    std::uint8_t value = 0;
    for (std::uint16_t place = 0; place < kDamaged; place += place < 400 ? 4 : 48) {
        for (int edge = 0; edge < 3; ++edge) {
            std::vector<std::uint8_t> seed{1, 0, static_cast<std::uint8_t>(place),
                                           static_cast<std::uint8_t>(place >> 8), value++};
            for (int piece = 0; piece < 5; ++piece) {
                seed.insert(seed.end(), {0, 0x3F, 0x1F});
            }
            seed.insert(seed.end(), {kRead | kAnywhere,           0, 0, 0, 0, 0x3F, 0x1F, kAnywhere, 0, 2, 0, 0, 0, 2,
                                     kReopen | kRead | kAnywhere, 0, 0, 0, 0, 0x3F, 0x1F});
            seeds.Add(seed);
        }
    }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    static std::unique_ptr<host::Machine> machine = station.Start();
    fuzz::Input input(data, size);
    const std::vector<std::byte> image = fuzz::DamagedImage(input);
    auto user = machine->NewProcess();
    const std::uint64_t before = fuzz::FreeBlocks(*user);
    fuzz::Move(*user, input, image);
    fuzz::Demand(fuzz::PutClip(*user, fuzz::kFile, host::Disposition::kOpen),
                 "a file that took a bad image does not take a good one");
    fuzz::Demand(fuzz::HoldsTheClip(*user, fuzz::kFile), "a good image does not read back");
    fuzz::Demand(fuzz::DeletePath(*user, fuzz::kFile), "the clip cannot be deleted");
    fuzz::Demand(fuzz::FreeBlocks(*user) == before, "blocks are missing after the clip was deleted");
    return 0;
}
