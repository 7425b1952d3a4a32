// Control codes with any buffers and lengths, on handles of every kind, while files are opened, read and closed.
#include <vrkfs/service.h>

#include "control/ioctl.h"
#include "fuzz/fuzz_station.h"

namespace fuzz {
namespace {

// What the next byte asks for.
enum Step : std::uint8_t { kKnownCode, kOddCode, kCloseAll, kOpenAll, kUse, kPort, kSteps };

// How a known code is sent.
constexpr std::uint8_t kOtherLengths = 0x01;  // any lengths, else the ones that the code wants, give or take
constexpr std::uint8_t kToOther = 0x02;       // to another handle than the control device's
constexpr std::uint8_t kHandleFirst = 0x04;   // the input begins with a handle
constexpr std::uint8_t kWrongMethod = 0x08;

constexpr std::size_t kMaxBuffer = 4096;

class Caller {
  public:
    Caller(host::Process& user, Input& input) : user_(user), input_(input) {
        control_ = Open(u"VrkFsDevice0");
        host::OpenRequest request;
        request.path = u"VrkFsDevice0";
        request.access = kReadWrite;
        request.overlapped = true;
        service_ = host::ScopedHandle(user_, user_.Create(request).handle);
        OpenAll();
    }

    void Run() {
        for (int i = 0; i < 40 && !input_.Empty(); ++i) {
            switch (input_.Take<std::uint8_t>() % kSteps) {
                case kKnownCode:
                    SendKnown();
                    break;
                case kOddCode:
                    Send(control_.Get(), 0x00222000 + input_.Take<std::uint16_t>() % 0x200, Any(), Any(), false);
                    break;
                case kCloseAll:
                    others_.clear();
                    break;
                case kOpenAll:
                    OpenAll();
                    break;
                case kUse:
                    Use();
                    break;
                default:
                    UsePort();
            }
        }
    }

  private:
    host::ScopedHandle Open(const char16_t* path) {
        return {user_, OpenPath(user_, path, host::Disposition::kOpen, kReadWrite).handle};
    }
    void OpenAll() {
        others_.clear();
        for (const char16_t* path : {u"P:", u"P:\\", u"P:\\RZV\\V", u"P:\\RZV\\V\\A", u"P:\\RZV\\V\\A\\ONE.RZV",
                                     u"P:\\RZV\\V\\A\\___Port0___", u"\\Device\\Vrk0"}) {
            others_.push_back(Open(path));
        }
    }
    host::Handle Other() {
        const auto which = input_.Take<std::uint8_t>();
        return others_.empty() ? which : others_[which % others_.size()].Get();
    }
    std::size_t Any() { return input_.Take<std::uint16_t>() % kMaxBuffer; }
    std::size_t About(std::size_t wanted) {
        const auto off = input_.Take<std::uint8_t>();
        return off < 0xC0 ? wanted : wanted + off % 3 - std::min<std::size_t>(wanted, 1);
    }

    void SendKnown() {
        const std::uint32_t code =
            IOCTL_VRKFS_DISMOUNT_VOLUME + 4 * (input_.Take<std::uint8_t>() % VRKFS_CONTROL_CODE_COUNT);
        const auto how = input_.Take<std::uint8_t>();
        const ControlCodeRule* rule = nullptr;
        std::uint32_t sent = code;
        for (std::uint32_t method = 0; method < 4; ++method) {
            if (const auto* found = VrkFsIoctlFindRule(code + method)) {
                rule = found;
                sent = code + method;
            }
        }
        if ((how & kWrongMethod) != 0) {
            sent ^= 1 + input_.Take<std::uint8_t>() % 3;
        }
        const bool anyLength = (how & kOtherLengths) != 0 || rule == nullptr;
        const std::size_t in = anyLength ? Any() : About(rule->InLength);
        const std::size_t out = anyLength ? Any() : About(rule->OutLength);
        Send((how & kToOther) != 0 ? Other() : control_.Get(), sent, in, out, (how & kHandleFirst) != 0);
    }

    void Send(host::Handle to, std::uint32_t code, std::size_t in, std::size_t out, bool handleFirst) {
        std::vector<std::byte> given(in);
        std::vector<std::byte> back(out);
        std::size_t place = 0;
        if (handleFirst && in >= sizeof(host::Handle)) {
            const auto handle = static_cast<std::uint32_t>(Other());
            std::memcpy(given.data(), &handle, sizeof(handle));
            place = sizeof(handle);
        }
        // Pieces of bytes with zeros between them.
        while (place < in && !input_.Empty()) {
            const auto bytes = input_.TakeBytes(std::min<std::size_t>(input_.Take<std::uint8_t>() % 32, in - place));
            std::copy(bytes.begin(), bytes.end(), given.begin() + static_cast<std::ptrdiff_t>(place));
            place += bytes.size();
            const std::size_t skip = input_.Take<std::uint8_t>();
            if (skip == 0) {
                break;
            }
            place += skip * 2;
        }
        if (code == IOCTL_VRKFS_SEND_SERVICE_REQUEST || code == IOCTL_VRKFS_SEND_SERVICE_RESPONSE) {
            SendForService(code, std::move(given), std::move(back));
        } else {
            (void)user_.DeviceControl(to, code, given, back);
        }
    }
    // The two codes of a service may wait for work as long as the process lives.
    void SendForService(std::uint32_t code, std::vector<std::byte> in, std::vector<std::byte> out) {
        auto buffers =
            std::make_shared<std::pair<std::vector<std::byte>, std::vector<std::byte>>>(std::move(in), std::move(out));
        (void)user_.DeviceControlOverlapped(
            service_.Get(), code, buffers->first, buffers->second, [buffers](host::IoResult) {}, nullptr);
    }

    void Use() {
        const host::Handle handle = Other();
        std::vector<std::byte> buffer(600);
        std::vector<host::DirectoryEntry> entries;
        host::FileFacts facts;
        switch (input_.Take<std::uint8_t>() % 5) {
            case 0:
                (void)user_.Read(handle, buffer, input_.Take<std::uint16_t>());
                break;
            case 1:
                (void)host::ListDirectory(user_, handle, entries);
                break;
            case 2:
                (void)host::QueryFacts(user_, handle, facts);
                break;
            case 3:
                (void)user_.FileSystemControl(handle, input_.Take<std::uint32_t>(), buffer, buffer);
                break;
            default:
                (void)host::SetDeleteOnCleanup(user_, handle, (input_.Take<std::uint8_t>() & 1) != 0);
        }
    }

    // A command in pieces through the command port, and its reply.
    void UsePort() {
        const host::ScopedHandle port = Open(u"P:\\RZV\\V\\A\\___Port0___");
        const std::size_t offset = (input_.Take<std::uint8_t>() & 7) != 0 ? 0 : Any();
        const std::size_t count = input_.Take<std::uint8_t>();
        const auto bytes = input_.TakeBytes(count);
        (void)user_.Write(port.Get(), bytes, offset);
        std::vector<std::byte> reply(Any());
        (void)user_.Read(port.Get(), reply, input_.Take<std::uint8_t>());
    }

    host::Process& user_;
    Input& input_;
    host::ScopedHandle control_;
    host::ScopedHandle service_;
    std::vector<host::ScopedHandle> others_;
};

// Every code with the lengths it wants and with one byte less, to the control device and elsewhere; a format that is
// right but for open files, then without them.
void WriteSeeds(Seeds& seeds) {
    for (std::uint8_t code = 0; code < VRKFS_CONTROL_CODE_COUNT; ++code) {
        for (const std::uint8_t how : {0, int{kHandleFirst}, int{kToOther}, int{kWrongMethod}}) {
            seeds.Add({kKnownCode, code, how, 0, 0, 4, 1, 2, 3, 4, 0});
            seeds.Add({kKnownCode, code, how, 0xC0, 0, 4, 1, 2, 3, 4, 0});
            seeds.Add({kKnownCode, code, how, 0, 0xC0, 4, 1, 2, 3, 4, 0});
        }
    }
    VrkFsVolumeInfoRecord record{};
    record.Name[0] = u'N';
    record.DeviceCount = kDisks;
    record.Devices[1] = 1;
    std::vector<std::uint8_t> format{kKnownCode, 1, 0, 0, 0};
    const auto* at = reinterpret_cast<const std::uint8_t*>(&record);
    for (std::size_t place = 0; place < sizeof(record);) {
        const std::size_t piece = std::min<std::size_t>(26, sizeof(record) - place);
        format.push_back(static_cast<std::uint8_t>(piece));
        format.insert(format.end(), at + place, at + place + piece);
        format.push_back(piece == 26 ? 1 : 0);  // two bytes stay zero
        place += piece + 2;
    }
    seeds.Add(format);
    format.insert(format.begin(), kCloseAll);
    format.insert(format.end(), {kOpenAll, kUse, 3, 1});
    seeds.Add(format);
    for (std::uint8_t use = 0; use < 5; ++use) {
        seeds.Add({kUse, 4, use, 0, 0, kUse, 3, use, 0, 0, kUse, 2, use, 0, 0});
    }
    for (std::uint8_t command = 0; command < 16; ++command) {
        seeds.Add({kPort, 1, 16, 16, 0, 0, 0, command, 0, 0, 0, 'A', 0, 0, 0, 0, 0, 0, 0, 100, 0, 0});
    }
}

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (fuzz::Seeds seeds; seeds.Wanted()) {
        fuzz::WriteSeeds(seeds);
        std::exit(0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    fuzz::Input input(data, size);
    station.Restore();
    auto machine = station.Start();
    {
        auto user = machine->NewProcess();
        fuzz::Caller(*user, input).Run();
    }
    fuzz::FuzzStation::Stop(*machine);
    return 0;
}
