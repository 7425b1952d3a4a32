// Control codes with any buffers and lengths, on handles of every kind.
#include "fuzz/fuzz_station.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    fuzz::Input input(data, size);
    station.Restore();
    auto machine = station.Start();
    {
        auto user = machine->NewProcess();
        const auto open = [&](const char16_t* path) {
            return host::ScopedHandle(*user,
                                      fuzz::OpenPath(*user, path, host::Disposition::kOpen, fuzz::kReadWrite).handle);
        };
        const host::ScopedHandle control = open(u"VrkFsDevice0");
        const host::ScopedHandle others[] = {open(u"P:"),
                                             open(u"P:\\"),
                                             open(u"P:\\RZV\\V"),
                                             open(u"P:\\RZV\\V\\A"),
                                             open(u"P:\\RZV\\V\\A\\ONE.RZV"),
                                             open(u"\\Device\\Vrk0")};
        std::vector<std::byte> in(2048);
        std::vector<std::byte> out(2048);
        for (int i = 0; i < 16 && !input.Empty(); ++i) {
            const auto how = input.Take<std::uint8_t>();
            const std::uint32_t code =
                (how & 1) != 0 ? 0x00222000 + (input.Take<std::uint8_t>() & 0x7F)
                               : 0x00222000 + 4 * (input.Take<std::uint8_t>() % 30) + ((how & 2) != 0 ? 2 : 0);
            const std::size_t inBytes = input.Take<std::uint16_t>() % 1100;
            const std::size_t outBytes = input.Take<std::uint16_t>() % 1100;
            std::fill(in.begin(), in.end(), std::byte{0});
            const auto bytes = input.TakeBytes(input.Take<std::uint8_t>() % 64);
            std::memcpy(in.data(), bytes.data(), bytes.size());
            if ((how & 4) != 0) {
                const std::uint32_t handle = others[how >> 5 < 6 ? how >> 5 : 0].Get();
                std::memcpy(in.data(), &handle, sizeof(handle));
            }
            // The two codes of a service stay pending for it; they end with the process.
            const bool pends = code == IOCTL_VRKFS_SEND_SERVICE_REQUEST || code == IOCTL_VRKFS_SEND_SERVICE_RESPONSE;
            if (pends) {
                continue;
            }
            const host::ScopedHandle& to = (how & 0x18) == 0x18 ? others[(how >> 5) % 6] : control;
            (void)user->DeviceControl(to.Get(), code, std::span(in).first(inBytes), std::span(out).first(outBytes));
        }
    }
    fuzz::FuzzStation::Stop(*machine);
    return 0;
}
