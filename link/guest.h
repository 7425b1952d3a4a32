// One client, as the server has it: its process in the machine, and the threads that make its calls.
//
// One thread at a time reads. It keeps that role while it carries out what it has read, and the server's poll thread
// looks out meanwhile: only when another frame comes is the role given to another thread, made if need be. A client
// that asks one thing at a time so has one thread that never hands anything over. Answers go out from whichever thread
// has them, without waiting for the client (outbox.h); so no thread ever waits for the client, but to read.
//
// The end: whoever finds a reason drops the guest, which only notes it. The owner, a thread of its own that sleeps all
// the while, then takes back the disks that the client had released, ends the process while others may still be in its
// calls, waits for them, and tells the server.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/local_process.h"
#include "link/frame.h"
#include "link/outbox.h"
#include "link/server.h"
#include "link/sessions.h"
#include "link/watch.h"

namespace vlink {

// What the guests of a server share.
struct House {
    host::Machine& machine;
    Log log;
    Limits limits;
    Sessions sessions;
    int epoll = -1;
    int wake = -1;  // an event descriptor that the poll thread looks at
};

class Guest {
  public:
    using Clock = std::chrono::steady_clock;

    Guest(House& house, Descriptor socket, std::uint64_t number, pid_t program);
    ~Guest();  // when it is over
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;

    // Throws std::system_error when there can be no thread.
    void Start();
    // From any thread, with driver locks held. The first of either counts. What a client did wrong goes on the log
    // behind its name; of a program that just goes, or is let go, one connection is enough there.
    void Drop(const std::string& fault);
    void LetGo(const std::string& reason);

    // For the poll thread.
    void Readable();
    bool Writable();  // false: it is not, whatever the socket says
    void HungUp();
    void CheckPatience(Clock::time_point now);
    Clock::time_point NextCheck() const;
    bool Over() const { return over_.load(std::memory_order_acquire); }

  private:
    enum class Role : std::uint8_t {
        kReading,  // a thread reads
        kWatched,  // `watcher_` does what it has read, and reads on unless something comes before
        kWanted,   // something has come and every thread is busy
        kOver,     // nothing is read any more
    };
    struct UnderWay;
    // What one thread has on its desk: the request that it read, and room for what comes out of it.
    struct Desk {
        FrameHeader header{};
        std::vector<std::byte> body;
        std::unique_ptr<std::byte[]> out;
    };
    struct Answer {
        bool silent = false;      // there is none (yet)
        bool bare = false;        // `data` only, no record
        std::string breach = {};  // not empty: what was sent is no request; the client is dropped
        std::string last = {};    // not empty: the answer is the last one; why
        std::uint16_t flags = 0;
        AnswerRecord record{};
        std::span<const std::byte> data = {};
        std::vector<std::byte> text = {};         // what `data` may be of
        std::shared_ptr<UnderWay> underWay = {};  // what `data` and `order` may be of
        Descriptor descriptor = {};
        Outbox::Order order = {};
    };

    // guest.cpp: threads
    void Live();
    void EndProcess(bool leaving);
    void SayGoodbye();
    void Work(std::list<std::thread>::iterator self, bool reading);
    void JoinRetired();
    bool Spawn(bool reading);
    bool AwaitRole();
    void LookOut();
    bool TakeBack();
    void GiveRole();
    bool ReadOne(Desk& desk);
    void Serve(Desk& desk, bool& reading);
    void Send(Op op, std::uint64_t id, Answer answer);
    void SetOver();
    void End(bool atFault, const std::string& reason);
    void Note(bool leaving);
    std::string Name() const;

    // guest_requests.cpp: what is asked
    static bool IsQuick(Op op);
    static bool IsForStation(Op op) { return op >= Op::kSyncImages; }
    Answer Carry(Desk& desk);
    Answer CarryHello(std::span<const std::byte> body);
    Welcome Settle(const HelloRecord& hello);
    Answer CarryGoodbye(std::uint64_t id);
    Answer CarryForStation(Op op, const IoRecord& record);
    Answer CarryCreate(std::span<const std::byte> body);
    Answer CarryCall(Desk& desk, const IoRecord& record, std::span<const std::byte> data);
    Answer CarryInformation(Desk& desk, const IoRecord& record, std::span<const std::byte> data);
    Answer CarryAllocate(std::uint64_t size);
    Answer CarrySection(const IoRecord& record, std::span<const std::byte> data);
    void Cancel(std::uint64_t id);
    void FreeMemory(std::uint32_t name);

    // guest_transfers.cpp: requests that may take long
    Answer CarryRequest(const FrameHeader& header, const IoRecord& record, std::span<const std::byte> data);
    Answer Begin(const std::shared_ptr<UnderWay>& way, const IoRecord& record);
    host::Status Admit(const std::shared_ptr<UnderWay>& request, const IoRecord& record,
                       std::span<const std::byte> data);
    bool Count(const std::shared_ptr<UnderWay>& way);
    void Dismiss(const UnderWay& way);
    void Ended(const std::shared_ptr<UnderWay>& way, const host::IoResult& result);
    static Answer Conclude(const std::shared_ptr<UnderWay>& way, const host::IoResult& result);
    std::span<std::byte> MemoryAt(const Place& place);

    House& house_;
    const Descriptor socket_;
    const std::uint64_t number_;
    const pid_t program_;
    const Clock::time_point born_ = Clock::now();
    Watch watch_;
    Outbox outbox_;
    FrameReader reader_;  // whoever has the role
    std::uint64_t lastId_ = 0;
    std::atomic<bool> welcome_ = false;
    std::atomic<bool> over_ = false;
    std::thread owner_;

    mutable std::mutex lock_;  // guards the following, up to the next lock
    std::condition_variable ownerWake_;
    std::condition_variable workerWake_;
    Role role_ = Role::kReading;
    std::thread::id watcher_;
    std::uint32_t idle_ = 0;    // threads that wait for the role
    std::uint32_t grants_ = 0;  // of those, given it and not awake yet
    std::list<std::thread> workers_;
    std::vector<std::thread> retired_;
    bool hungUp_ = false;
    bool closing_ = false;  // workers that have nothing to do go
    bool dropped_ = false;  // or let go
    bool atFault_ = false;
    std::string reason_;
    bool leaving_ = false;  // it has said goodbye
    std::uint64_t goodbye_ = 0;

    // Set with the hello, and not changed afterwards.
    Kind kind_ = Kind::kProcess;
    std::shared_ptr<Session> session_;
    std::unique_ptr<host::LocalProcess> process_;

    std::mutex waysLock_;  // guards the following two
    std::unordered_map<std::uint64_t, std::shared_ptr<UnderWay>> ways_;
    std::size_t held_ = 0;

    std::mutex memoryLock_;                                 // guards the following two
    std::map<std::uint32_t, std::span<std::byte>> memory_;  // by name
    std::size_t shared_ = 0;                                // bytes of all that was ever made
};

}  // namespace vlink
