#include "link/connection.h"

#include <sys/time.h>

#include <cerrno>
#include <system_error>

#include "link/address.h"
#include "link/remote_process.h"

namespace vlink {
namespace {

constexpr timeval kPatience{30, 0};  // with a daemon that does not answer a hello

constexpr const char* kGone = "start it again: vrkfs serve";

host::Problem Refusal(Welcome welcome, const std::string& name) {
    switch (welcome) {
        case Welcome::kOtherVersion:
            return {"the daemon on " + name + " is of another version", "use the vrkfs that it was started with"};
        case Welcome::kNotAllowed:
            return {"the daemon on " + name + " serves its own user only", "run this as the user that runs the daemon"};
        case Welcome::kTooMany:
            return {"the daemon on " + name + " has too many clients", "end some of them"};
        default:
            return {"the daemon on " + name + " was started anew", "run this again"};
    }
}

void SetPatience(const Descriptor& socket, const timeval& patience) {
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

// A connection behind its hello.
struct Introduction {
    Descriptor socket;
    HelloAnswer answer{};
    std::vector<host::CardFacts> cards;
};

bool ReadAnswer(const Frame& frame, Introduction& made) {
    std::span<const std::byte> body = frame.body;
    if (frame.header.op != Op::kHello || !TakeRecord(body, made.answer) || made.answer.magic != kMagic) {
        return false;
    }
    CardRecord card;
    while (made.cards.size() < made.answer.cards && TakeRecord(body, card)) {
        if (card.index > 9 || card.driveLetter < 'A' || card.driveLetter > 'Z') {
            return false;
        }
        made.cards.push_back({card.index, static_cast<char>(card.driveLetter)});
    }
    return made.cards.size() == made.answer.cards && body.empty();
}

host::Problem SayHello(Kind kind, std::uint64_t session, const std::string& name, Introduction& made) {
    host::Problem odd{"what listens on " + name + " is no vrkfs daemon", "check the socket's place"};
    SetPatience(made.socket, kPatience);
    const HelloRecord hello{kMagic, kVersion, kind, session};
    const FrameHeader header{sizeof(header) + sizeof(hello), Op::kHello, 0, 1};
    const std::span<const std::byte> pieces[] = {BytesOf(header), BytesOf(hello)};
    (void)SendWhole(made.socket.Get(), pieces);  // whoever refused has sent a word and closed
    FrameReader reader(made.socket.Get(), true);
    Frame frame;
    switch (reader.Next(frame)) {
        case FrameReader::Result::kFrame:
            break;
        case FrameReader::Result::kTimeout:
            return {"the daemon on " + name + " does not answer", "see what it does, or stop it"};
        case FrameReader::Result::kEnd:
            return {"the daemon on " + name + " went away", kGone};
        default:
            return odd;
    }
    if (!ReadAnswer(frame, made) || reader.HasBytes()) {
        return odd;
    }
    if (made.answer.welcome != Welcome::kYes) {
        return Refusal(made.answer.welcome, name);
    }
    SetPatience(made.socket, {});
    return {};
}

// `nobody`: there is no daemon, which may be no problem.
host::Problem Introduce(const std::filesystem::path& socket, Kind kind, std::uint64_t session, Introduction& made,
                        bool& nobody) {
    const std::string name = socket.string();
    Address address;
    int error = address.Set(socket);
    if (error == 0) {
        made.socket = Descriptor(ConnectTo(address));
        error = made.socket ? 0 : errno;
    }
    nobody = error == ENOENT || error == ENOTDIR || error == ECONNREFUSED;
    if (error != 0) {
        return {"cannot reach the daemon on " + name + ": " + std::generic_category().message(error),
                error == EACCES ? "run this as the user that runs the daemon" : "check that it runs"};
    }
    return SayHello(kind, session, name, made);
}

class RemoteAccess final : public host::Access {
  public:
    RemoteAccess(std::filesystem::path path, Introduction made)
        : path_(std::move(path)),
          session_(made.answer.session),
          readOnly_(made.answer.readOnly != 0),
          cards_(std::move(made.cards)),
          channel_(std::move(made.socket)) {}

    std::unique_ptr<host::Process> NewProcess(host::Problem& problem) override {
        Introduction made;
        bool nobody = false;
        problem = Introduce(path_, Kind::kProcess, session_, made, nobody);
        if (problem) {
            return nullptr;
        }
        return std::make_unique<RemoteProcess>(std::move(made.socket));
    }
    const std::vector<host::CardFacts>& Cards() const override { return cards_; }
    bool ReadOnly() const override { return readOnly_; }
    host::Problem SyncImages() override { return Ask(Op::kSyncImages, 0); }
    host::Problem ReleaseDisks(std::uint32_t card) override { return Ask(Op::kReleaseDisks, card); }
    host::Problem TakeDisks(std::uint32_t card) override { return Ask(Op::kTakeDisks, card); }

  private:
    host::Problem Ask(Op op, std::uint32_t card) {
        IoRecord record{};
        record.code = card;
        const std::span<const std::byte> pieces[] = {BytesOf(record)};
        std::vector<std::byte> text(kMaxInline);
        const Reply reply = channel_.Ask(op, pieces, text);
        if (reply.Status() == host::status::kPortDisconnected) {
            return {"the daemon on " + path_.string() + " went away", kGone};
        }
        if (!reply.Status().Ok()) {
            return {"the daemon cannot do that: " + host::StatusName(reply.Status()), "try again later"};
        }
        const std::string all(reinterpret_cast<const char*>(text.data()), reply.bytes);
        const std::size_t what = std::min<std::uint64_t>(reply.record.extra, all.size());
        return {all.substr(0, what), all.substr(what), reply.record.value != 0};
    }

    const std::filesystem::path path_;
    const std::uint64_t session_;
    const bool readOnly_;
    const std::vector<host::CardFacts> cards_;
    Channel channel_;
};

}  // namespace

std::unique_ptr<host::Access> Connect(const std::filesystem::path& socket, host::Problem& problem) {
    Introduction made;
    bool nobody = false;
    problem = Introduce(socket, Kind::kAdministration, 0, made, nobody);
    if (problem) {
        if (nobody) {
            problem = {};
        }
        return nullptr;
    }
    return std::make_unique<RemoteAccess>(socket, std::move(made));
}

}  // namespace vlink
