// What comes out of a client's socket: frames that are right, nearly right or none, for a process that opens, reads,
// writes, watches and cancels, and goes in the middle of it. Afterwards another client is served as before, and nothing
// is left over.
#include <sys/socket.h>
#include <vrkfs/board.h>

#include "fuzz/fuzz_station.h"
#include "link/address.h"
#include "link/connection.h"
#include "link/frame.h"
#include "link/server.h"

namespace fuzz {
namespace {

using vlink::Op;

// How the next bytes are made.
constexpr std::uint8_t kRaw = 0xF0;       // these bits all set: they are the input's own
constexpr std::uint8_t kDamaged = 0xE0;   // these: a frame with a field of its header or record changed
constexpr std::uint8_t kOtherEnd = 0x01;  // of the last byte: it closes its writing end only

constexpr Op kOps[] = {Op::kCreate,
                       Op::kRead,
                       Op::kWrite,
                       Op::kQueryInformation,
                       Op::kSetInformation,
                       Op::kQueryVolumeInformation,
                       Op::kQueryDirectory,
                       Op::kDeviceControl,
                       Op::kNotify,
                       Op::kClose,
                       Op::kCancel,
                       Op::kCancelAll,
                       Op::kAllocateMemory,
                       Op::kFreeMemory,
                       Op::kMapSection,
                       Op::kFlush,
                       Op::kFileSystemControl,
                       Op::kSetVolumeInformation,
                       Op::kGoodbye,
                       Op::kHello,
                       Op::kTakeDisks};
constexpr const char16_t* kPaths[] = {
    u"P:\\RZV\\V\\A\\ONE.RZV", u"P:\\RZV\\V\\A", u"VrkFsDevice0", u"\\Device\\Vrk0", u"P:", u"P:\\RZV\\V\\A\\NEW.RZV"};

class Talker {
  public:
    explicit Talker(Input& input) : input_(input) {}

    std::vector<std::byte> Speak(std::uint64_t session) {
        if (input_.Take<std::uint8_t>() != 0xFF) {
            const vlink::HelloRecord hello{vlink::kMagic, vlink::kVersion, vlink::Kind::kProcess, session};
            Add(Op::kHello, vlink::BytesOf(hello), {});
        }
        for (int i = 0; i < 60 && !input_.Empty(); ++i) {
            const auto how = input_.Take<std::uint8_t>();
            if ((how & kRaw) == kRaw) {
                const auto bytes = input_.TakeBytes(input_.Take<std::uint8_t>());
                stream_.insert(stream_.end(), bytes.begin(), bytes.end());
                continue;
            }
            const std::size_t begin = stream_.size();
            AddRequest(kOps[how % std::size(kOps)]);
            if ((how & kDamaged) == kDamaged) {
                const std::uint32_t value = Edge();
                const std::size_t place = begin + input_.Take<std::uint8_t>() % (stream_.size() - begin) / 4 * 4;
                std::memcpy(stream_.data() + place, &value, sizeof(value));
            }
        }
        return std::move(stream_);
    }

  private:
    std::uint32_t Edge() { return kEdges[input_.Take<std::uint8_t>() % std::size(kEdges)]; }
    // Names and handles are given out in the same order each time, so some of these are there.
    std::uint32_t Handle() { return 4u * (input_.Take<std::uint8_t>() % 8); }
    vlink::Place PlaceOf(bool inFrame) {
        if (inFrame) {
            return {0, Edge() % 70'000, 0};
        }
        return {0x10 * (input_.Take<std::uint8_t>() % 64u) + 0x10000, Edge(), Edge()};
    }

    void AddRequest(Op op) {
        if (op == Op::kCreate) {
            const auto how = input_.Take<std::uint8_t>();
            const vlink::CreateRecord record{kReadWrite | (how & 1 ? host::access::kDelete : 0),
                                             how & 7u,
                                             how >> 5 & 3u,
                                             how & 8u ? 0x1u : 0u,
                                             how >> 4 & 1u,
                                             0};
            const std::u16string_view path = kPaths[input_.Take<std::uint8_t>() % std::size(kPaths)];
            Add(op, vlink::BytesOf(record), std::as_bytes(std::span(path)));
            return;
        }
        const auto how = input_.Take<std::uint8_t>();
        vlink::IoRecord record{};
        record.handle = Handle();
        record.code = CodeOf(op);
        record.options = input_.Take<std::uint8_t>();
        record.offset = Edge();
        const auto data = input_.TakeBytes((how & 4) != 0 ? input_.Take<std::uint8_t>() : 0);
        record.in = {0, static_cast<std::uint32_t>(data.size()), 0};
        if ((how & 8) != 0) {
            record.in = PlaceOf(false);
        }
        record.out = PlaceOf((how & 1) != 0);
        Add(op, vlink::BytesOf(record), data);
    }
    std::uint32_t CodeOf(Op op) {
        const auto which = input_.Take<std::uint8_t>();
        switch (op) {
            case Op::kDeviceControl:
                return which % 4 == 0 ? IOCTL_VRK_SCSI_COMMAND : 0x222000u + 4u * (which % VRKFS_CONTROL_CODE_COUNT);
            case Op::kFileSystemControl:
                return 0x90018u + 4u * (which % 8);
            case Op::kFreeMemory:
                return 0x10000u + 0x10u * (which % 64);
            default:
                return which % 50;
        }
    }
    void Add(Op op, std::span<const std::byte> record, std::span<const std::byte> data) {
        const vlink::FrameHeader header{static_cast<std::uint32_t>(sizeof(header) + record.size() + data.size()), op, 0,
                                        ++id_};
        for (const std::span<const std::byte> part : {vlink::BytesOf(header), record, data}) {
            stream_.insert(stream_.end(), part.begin(), part.end());
        }
    }

    Input& input_;
    std::vector<std::byte> stream_;
    std::uint64_t id_ = 0;
};

vlink::Descriptor Connected(const std::filesystem::path& path) {
    vlink::Address address;
    if (address.Set(path) != 0) {
        Fail("no place for a socket");
    }
    return vlink::Descriptor(vlink::ConnectTo(address));
}

void Send(const vlink::Descriptor& socket, std::span<const std::byte> bytes) {
    (void)vlink::SendWhole(socket.Get(), std::span(&bytes, 1));
}

// An administration connection's hello, and the session that it is given.
std::uint64_t Introduce(const vlink::Descriptor& socket) {
    const vlink::HelloRecord hello{vlink::kMagic, vlink::kVersion, vlink::Kind::kAdministration, 0};
    const vlink::FrameHeader header{sizeof(header) + sizeof(hello), Op::kHello, 0, 1};
    Send(socket, vlink::BytesOf(header));
    Send(socket, vlink::BytesOf(hello));
    vlink::FrameReader reader(socket.Get(), false);
    vlink::Frame frame;
    vlink::HelloAnswer answer{};
    if (reader.Next(frame) != vlink::FrameReader::Result::kFrame || !vlink::TakeRecord(frame.body, answer)) {
        Fail("the daemon does not answer a hello");
    }
    return answer.session;
}

void TalkTo(const std::filesystem::path& path, const std::uint8_t* data, std::size_t size) {
    const vlink::Descriptor administration = Connected(path);
    Input input(data, size);
    const std::vector<std::byte> stream = Talker(input).Speak(Introduce(administration));
    const vlink::Descriptor socket = Connected(path);
    Send(socket, stream);
    if (size > 0 && (data[size - 1] & kOtherEnd) != 0) {
        shutdown(socket.Get(), SHUT_WR);
        std::byte ignored[4096];
        while (recv(socket.Get(), ignored, sizeof(ignored), 0) > 0) {
        }
    }
}

}  // namespace

// Each operation, on each handle that is there, right and with each of its words changed.
void WriteSeeds(Seeds& seeds) {
    for (std::uint8_t op = 0; op < std::size(kOps); ++op) {
        for (std::uint8_t handle = 1; handle < 5; ++handle) {
            std::vector<std::uint8_t> bytes{0};
            for (std::uint8_t path = 0; path < 4; ++path) {
                bytes.insert(bytes.end(), {0, 0x3F, path});
            }
            bytes.insert(bytes.end(), {12, 0, 0, 0, 0, 13, 0});
            bytes.insert(bytes.end(), {op, 5, handle, 5, 0xFF, 0, 8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 9});
            seeds.Add(bytes);
            bytes.insert(bytes.end(), {static_cast<std::uint8_t>(0xE0 + op % 16), 1, handle, 1, 0, 0, 3, handle, 3});
            seeds.Add(bytes);
        }
    }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    station.Restore();
    auto machine = station.Start();
    const auto path = std::filesystem::temp_directory_path() / ("vrkfs-fuzz-" + std::to_string(::getpid()) + ".socket");
    host::Problem problem;
    auto server = vlink::Server::Start(
        *machine, path, [](const std::string&) {}, problem);
    if (!server) {
        fuzz::Fail(problem.what);
    }
    auto door = vlink::Connect(path, problem);
    if (!door) {
        fuzz::Fail(problem.what);
    }
    {
        auto user = door->NewProcess(problem);
        fuzz::TalkTo(path, data, size);
        host::OpenRequest request;
        request.path = u"VrkFsDevice0";
        if (!user || !user->Create(request).status.Ok()) {
            fuzz::Fail("another client is not served");
        }
    }
    door.reset();
    server.reset();
    fuzz::FuzzStation::Stop(*machine);
    return 0;
}
