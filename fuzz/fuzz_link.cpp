// What comes out of a client's socket: frames that are right, nearly right or none, for a process that opens, reads,
// writes, watches and cancels, and goes in the middle of it. Afterwards another client is served as before, and nothing
// is left over.
#include <sys/socket.h>
#include <vrkfs/board.h>

#include <array>

#include "fuzz/fuzz_station.h"
#include "link/connection.h"
#include "link/server.h"
#include "tests/system/stranger.h"

namespace fuzz {
namespace {

using tests::Bytes;
using vlink::Op;

// A step is two bytes and what they call for. Of the first: from here on, the input's own bytes are sent, as many as
// the second says; else it is an operation, counted from a process's first.
constexpr std::uint8_t kRaw = 0xF0;
constexpr std::uint8_t kOps = 20;  // a process's, and two that are none
constexpr std::uint8_t kAllocate = static_cast<unsigned>(Op::kAllocateMemory) - static_cast<unsigned>(Op::kCreate);
// Of the second: a word of the frame is changed. The rest: bytes of data, or how a create opens.
constexpr std::uint8_t kDamaged = 0x80;
// Of the input's last byte: the talker goes at once; else it closes its writing end only, and reads what it is told.
constexpr std::uint8_t kGoes = 0x01;

constexpr const char16_t* kPaths[] = {
    u"P:\\RZV\\V\\A\\ONE.RZV", u"P:\\RZV\\V\\A", u"VrkFsDevice0", u"\\Device\\Vrk0", u"P:", u"P:\\RZV\\V\\A\\NEW.RZV"};

std::uint32_t CodeOf(std::uint32_t number) {
    const std::uint32_t codes[] = {number / 4 % 64, IOCTL_VRK_SCSI_COMMAND,
                                   0x222000 + number / 4 % VRKFS_CONTROL_CODE_COUNT * 4, 0x90018 + number / 4 % 8 * 4};
    return codes[number % 4];
}

// Handles and names of memory are given out in the same order each time, names from `name` on, which is somebody
// else's: some of these are there.
Bytes Request(Input& input, Op op, std::uint8_t how, std::uint64_t id, std::uint32_t name) {
    if (op == Op::kCreate) {
        const std::uint32_t access = kReadWrite | (how & 1 ? host::access::kDelete : 0);
        const vlink::CreateRecord record{access, how & 7u, how >> 5 & 3u, how >> 3 & 1u, how >> 4 & 1u, 0};
        const std::u16string_view path = kPaths[input.Take<std::uint8_t>() % std::size(kPaths)];
        return tests::FrameOf(op, id, 0, record, path);
    }
    auto record = input.Take<vlink::IoRecord>();
    const auto data = input.TakeBytes(how % kDamaged);
    record.handle = record.handle % 8 * 4;
    record.code = op == Op::kFreeMemory ? name + record.code % 16 * 0x10 : CodeOf(record.code);
    record.in = record.in.memory != 0 ? record.in : vlink::Place{0, static_cast<std::uint32_t>(data.size()), 0};
    record.out = record.out.memory != 0 ? record.out : vlink::Place{0, record.out.length % 70'000, 0};
    for (vlink::Place* place : {&record.in, &record.out}) {
        place->memory = place->memory != 0 ? name + place->memory % 16 * 0x10 : 0;
    }
    return tests::FrameOf(op, id, 0, record, data);
}

Bytes Speech(Input input, std::uint64_t session, std::uint32_t name) {
    const vlink::HelloRecord hello{vlink::kMagic, vlink::kVersion, vlink::Kind::kProcess, session};
    Bytes speech = input.Take<std::uint8_t>() != 0xFF ? tests::FrameOf(Op::kHello, 1, 0, hello) : Bytes();
    for (std::uint64_t id = 2; id < 60 && !input.Empty(); ++id) {
        const auto what = input.Take<std::uint8_t>();
        const auto how = input.Take<std::uint8_t>();
        if (what >= kRaw) {
            speech = tests::Joined(speech, input.TakeBytes(how));
            continue;
        }
        Bytes frame = Request(input, Op(static_cast<unsigned>(Op::kCreate) + what % kOps), how, id, name);
        if ((how & kDamaged) != 0) {
            const auto word = input.Take<std::uint32_t>();
            std::memcpy(&frame[input.Take<std::uint8_t>() % frame.size() / 4 * 4], &word, sizeof(word));
        }
        speech = tests::Joined(speech, frame);
    }
    return speech;
}

}  // namespace

// Each operation, on each handle that is there: with data in its frame, with a word changed, and with data in memory.
void WriteSeeds(Seeds& seeds) {
    using Two = std::array<std::uint8_t, 2>;
    const auto add = [&](const auto&... parts) {
        const Bytes bytes = tests::Joined(parts...);
        const auto* at = reinterpret_cast<const std::uint8_t*>(bytes.data());
        seeds.Add({at, at + bytes.size()});
    };
    Bytes begin(1);
    for (std::uint8_t path = 0; path < 4; ++path) {
        begin = tests::Joined(begin, Two{0, 0x37}, path);
    }
    begin = tests::Joined(begin, Two{kAllocate, 0}, tests::OfSize(8192));
    for (std::uint8_t op = 0; op < kOps; ++op) {
        for (std::uint32_t handle = 1; handle < 5; ++handle) {
            const vlink::IoRecord inFrame = tests::Io(handle, 5 * 4 + handle, 625, 0xFF);
            const vlink::IoRecord inMemory{handle, 2, vlink::kHasOffset, 0, 0, {1, 2048, 0}, {1, 2048, 0}};
            add(begin, Two{op, 4}, inFrame, handle);
            add(begin, Two{op, 4 | kDamaged}, inFrame, handle, Two{17, 0}, Two{0, 0}, Two{20, op});
            add(begin, Two{op, 0}, inMemory);
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
    auto door = vlink::Connect(path, problem);
    auto user = door ? door->NewProcess(problem) : nullptr;
    host::Process::NamedMemory memory;
    fuzz::Demand(server && user && user->AllocateMemory(4096, memory).Ok(), "nobody is served: " + problem.what);
    {
        const tests::Stranger administration(path, vlink::Kind::kAdministration);
        tests::Stranger talker(path);
        talker.Send(fuzz::Speech(fuzz::Input(data, size), administration.Session(), memory.name));
        if (size > 0 && (data[size - 1] & fuzz::kGoes) == 0) {
            shutdown(talker.Socket(), SHUT_WR);
            fuzz::Demand(administration.Session() != 0 && talker.IsLetGo(), "what the daemon says makes no sense");
        }
    }
    fuzz::Demand(bool(fuzz::Opened(*user, {.path = u"VrkFsDevice0"})), "another client is not served");
    fuzz::Demand(std::ranges::count(memory.bytes, std::byte{0}) == std::ssize(memory.bytes),
                 "another's memory changed");
    user.reset();
    door.reset();
    server.reset();
    fuzz::FuzzStation::Stop(*machine);
    return 0;
}
