// The client's end of one connection: frames out, answers in, matched by id. Any number of threads.
//
// Whoever waits for an answer reads the socket itself, one at a time, and deals out what it finds for others: so a lone
// caller has its answer without a thread in between. While overlapped requests are under way a thread of the channel's
// own looks at the socket too, and reads when nobody else does.
//
// The daemon is trusted as little as a client is by it: what makes no sense ends the connection. From then on, as when
// the daemon goes away, every request ends with STATUS_PORT_DISCONNECTED.
#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/types.h"
#include "link/frame.h"

namespace vlink {

// What came back.
struct Reply {
    AnswerRecord record{};
    std::size_t bytes = 0;  // of data, put where the request wanted it
    Descriptor descriptor;

    host::Status Status() const { return host::Status{record.status}; }
};

class Channel {
  public:
    // On a socket behind the hello.
    explicit Channel(Descriptor socket);
    ~Channel() { Close(); }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    using Pieces = std::span<const std::span<const std::byte>>;  // a record and data

    // A request that has been sent and not been waited for. Each one must be waited for.
    class Call {
      public:
        Call() = default;
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

      private:
        friend class Channel;
        Op op_{};
        std::span<std::byte> out_;
        Reply reply_;
        bool answered_ = false;
        std::condition_variable wake_;
        std::function<void(Reply&)> ended_;  // of an overlapped one
        bool started_ = false;               // and `reply_` says so
    };
    void Post(Call& call, Op op, Pieces pieces, std::span<std::byte> out);
    Reply Await(Call& call);
    // Both in one.
    Reply Ask(Op op, Pieces pieces, std::span<std::byte> out = {});

    // An overlapped request. If the reply's status is STATUS_PENDING, `ended` is called once, from a thread that may be
    // in a call of its own or be the channel's; else never. `out` until then. `id`, if any, is written before it is
    // sent.
    using Ended = std::function<void(Reply&)>;
    Reply Begin(Op op, Pieces pieces, std::span<std::byte> out, Ended ended, std::uint64_t* id);

    // Says goodbye and ends the connection. Nothing is under way any more when it returns, and no `ended` is being
    // called.
    void Close();

    // What has no answer. May be called from `ended`.
    void Tell(Op op, Pieces pieces);

  private:
    struct Unanswered {
        Call* call = nullptr;
        std::shared_ptr<Call> own;  // of an overlapped one, which may outlast the call that made it
    };

    void Transmit(Op op, Pieces pieces, const Unanswered& whose, std::uint64_t* id);
    void ReadOn();
    bool Deal(Frame& frame);
    void Break();
    void PassOn();
    bool EnsureHelper();
    void Help();

    const Descriptor socket_;
    bool closed_ = false;
    FrameReader reader_;  // whoever has set `reading_`

    std::mutex sendLock_;       // the order of the stream; guards the next. Before `lock_`.
    std::uint64_t lastId_ = 1;  // the hello's

    std::mutex lock_;  // guards the following
    bool reading_ = false;
    bool broken_ = false;
    bool stop_ = false;
    std::unordered_map<std::uint64_t, Unanswered> calls_;
    std::list<Call*> waiting_;  // in their own threads, while another reads
    std::size_t started_ = 0;   // overlapped ones that are under way
    bool helperWaits_ = false;
    std::condition_variable helperWake_;
    std::thread helper_;
};

}  // namespace vlink
