// Clip images that lie: an image with a damaged header is written in pieces of any length, in any order, and read back;
// then the same file takes a proper clip.
#include "fuzz/fuzz_station.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    static std::unique_ptr<host::Machine> machine = station.Start();
    static const std::vector<std::byte> good = clip::MakeClipImage(fuzz::FuzzStation::Recipe());
    fuzz::Input input(data, size);
    std::vector<std::byte> image = good;
    const auto damages = input.Take<std::uint8_t>() % 8;
    for (int i = 0; i < damages; ++i) {
        const std::size_t place = input.Take<std::uint16_t>() % 700;
        const auto bytes = input.TakeBytes(1 + input.Take<std::uint8_t>() % 8);
        std::memcpy(image.data() + place, bytes.data(), std::min(bytes.size(), image.size() - place));
    }
    auto user = machine->NewProcess();
    const std::u16string path = u"P:\\RZV\\V\\B\\FUZZ.RZV";
    {
        const host::ScopedHandle file(*user,
                                      fuzz::OpenPath(*user, path, host::Disposition::kCreate, fuzz::kReadWrite).handle);
        std::vector<std::byte> buffer(4096);
        std::uint64_t place = 0;
        for (int i = 0; i < 40 && !input.Empty(); ++i) {
            const auto how = input.Take<std::uint8_t>();
            if ((how & 7) == 7) {
                place = input.Take<std::uint32_t>() % (image.size() + 2000);
            }
            const std::size_t count = 1 + input.Take<std::uint16_t>() % 8000;
            if ((how & 8) != 0) {
                (void)user->Read(file.Get(), std::span(buffer).first(std::min(count, buffer.size())), place);
                continue;
            }
            const std::size_t begin = std::min<std::size_t>(place, image.size());
            const auto written =
                user->Write(file.Get(), std::span(image).subspan(begin, std::min(count, image.size() - begin)), place);
            place += written.status.Ok() ? written.information : 0;
        }
    }
    {
        const host::ScopedHandle file(*user,
                                      fuzz::OpenPath(*user, path, host::Disposition::kOpen, fuzz::kReadWrite).handle);
        std::vector<std::byte> back(good.size());
        if (!user->Write(file.Get(), good, 0).status.Ok()) {
            fuzz::Fail("a file that took a bad image does not take a good one");
        }
    }
    {
        const host::ScopedHandle file(*user, fuzz::OpenPath(*user, path, host::Disposition::kOpen,
                                                            host::access::kReadData | host::access::kDelete)
                                                 .handle);
        std::vector<std::byte> back(good.size());
        if (!user->Read(file.Get(), back, 0).status.Ok() || back != good) {
            fuzz::Fail("a good image does not read back");
        }
        (void)host::SetDeleteOnCleanup(*user, file.Get(), true);
    }
    return 0;
}
