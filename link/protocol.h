// What goes over the socket, byte for byte. Little-endian, as the machine has it: both ends run on one machine.
//
// A stream of frames each way. A frame is a FrameHeader, the record that its operation calls for, and data. The client
// asks, with ids that only grow; the server answers with a frame of the same operation and id. What was asked with
// kOverlapped and is not over at once has two answers: first one with kStarted and no data, later the one that ends it.
//
// The first frame is a hello, which says what the connection is:
//   - an administration connection stands for a client program: it carries what is about the station as a whole;
//   - a process connection is one user process of the machine, and belongs to the administration connection whose
//     session it names.
// A process connection ends with a goodbye; its answer comes when the process has ended. A connection that goes
// without one has died, and its process with it.
//
// Data of up to kMaxInline bytes goes in the frames; more goes through memory that both ends have mapped, which the
// server makes (kAllocateMemory), and frames name places in it. Data of a transfer can lie there anyway: nothing is
// copied then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace vlink {

constexpr std::uint32_t kMagic = 0x4C4B5256;  // "VRKL"
constexpr std::uint16_t kVersion = 1;
constexpr std::uint32_t kMaxInline = 64 << 10;  // bytes of data in a frame

enum class Op : std::uint16_t {
    kHello = 1,    // HelloRecord                     HelloAnswer, CardRecord...
    kGoodbye = 2,  // nothing                         AnswerRecord, when the process has ended

    // Of a process. Answered by an AnswerRecord and the data that came out.
    kCreate = 0x10,                  // CreateRecord, path     value: handle, information: action
    kClose = 0x11,                   // IoRecord from here on, and the data that goes in
    kRead = 0x12,                    //
    kWrite = 0x13,                   //
    kQueryInformation = 0x14,        // code: the class
    kSetInformation = 0x15,          //
    kQueryVolumeInformation = 0x16,  //
    kSetVolumeInformation = 0x17,    //
    kQueryDirectory = 0x18,          // code: the class; in: the pattern; offset: the index to start after
    kDeviceControl = 0x19,           //
    kFileSystemControl = 0x1A,       //
    kFlush = 0x1B,                   //
    kNotify = 0x1C,                  // code: the changes that are watched
    kCancel = 0x1D,                  // offset: the id of the request; no answer
    kCancelAll = 0x1E,               // no answer
    kAllocateMemory = 0x1F,  // offset: bytes      value: name, information: bytes of the whole, extra: its number
    kFreeMemory = 0x20,      // code: the name; no answer
    kMapSection = 0x21,      // in: the name       value: handle, information: bytes

    // Of an administration connection: IoRecord, code: the card. Answered by an AnswerRecord, extra: bytes of what went
    // wrong; data: what went wrong, then the advice, both in UTF-8.
    kSyncImages = 0x30,
    kReleaseDisks = 0x31,
    kTakeDisks = 0x32,
};

struct FrameHeader {
    std::uint32_t length;  // bytes of the frame, header included
    Op op;
    std::uint16_t flags;  // of an answer: kStarted, kDescriptor
    std::uint64_t id;
};
static_assert(sizeof(FrameHeader) == 16 && offsetof(FrameHeader, op) == 4 && offsetof(FrameHeader, id) == 8);

constexpr std::uint16_t kStarted = 0x0001;     // the request is under way
constexpr std::uint16_t kDescriptor = 0x0002;  // the next descriptor of the stream belongs to this frame

enum class Kind : std::uint16_t { kProcess = 1, kAdministration = 2 };

struct HelloRecord {
    std::uint32_t magic;
    std::uint16_t version;
    Kind kind;
    std::uint64_t session;  // kProcess: of its administration connection
};
static_assert(sizeof(HelloRecord) == 16 && offsetof(HelloRecord, session) == 8);

enum class Welcome : std::uint16_t { kYes = 0, kOtherVersion = 1, kNotAllowed = 2, kTooMany = 3, kNoSession = 4 };

struct HelloAnswer {
    std::uint32_t magic;
    std::uint16_t version;
    Welcome welcome;  // anything but kYes: the connection ends here
    std::uint64_t session;
    std::uint32_t readOnly;
    std::uint32_t cards;  // CardRecords that follow
};
static_assert(sizeof(HelloAnswer) == 24 && offsetof(HelloAnswer, session) == 8 && offsetof(HelloAnswer, cards) == 20);

struct CardRecord {
    std::uint32_t index;
    std::uint32_t driveLetter;
};
static_assert(sizeof(CardRecord) == 8);

struct CreateRecord {
    std::uint32_t access;
    std::uint32_t shareAccess;
    std::uint32_t disposition;
    std::uint32_t options;
    std::uint32_t overlapped;
    std::uint32_t root;
};
static_assert(sizeof(CreateRecord) == 24);

// Where data lies: in the frame itself (memory 0, offset 0) or in memory of the process, by name.
struct Place {
    std::uint32_t memory;
    std::uint32_t length;
    std::uint64_t offset;
};
static_assert(sizeof(Place) == 16 && offsetof(Place, offset) == 8);

struct IoRecord {
    std::uint32_t handle;
    std::uint32_t code;
    std::uint32_t options;  // below
    std::uint32_t reserved;
    std::uint64_t offset;
    Place in;   // what the client gives
    Place out;  // where it wants what comes
};
static_assert(sizeof(IoRecord) == 56 && offsetof(IoRecord, offset) == 16 && offsetof(IoRecord, in) == 24 &&
              offsetof(IoRecord, out) == 40);

constexpr std::uint32_t kHasOffset = 0x0001;    // transfers: at `offset`, not the handle's position
constexpr std::uint32_t kOverlapped = 0x0002;   // transfers, controls, notify
constexpr std::uint32_t kTree = 0x0004;         // notify: below the directory too
constexpr std::uint32_t kRestart = 0x0008;      // directory
constexpr std::uint32_t kSingleEntry = 0x0010;  // directory
constexpr std::uint32_t kHasPattern = 0x0020;   // directory
constexpr std::uint32_t kHasIndex = 0x0040;     // directory
constexpr std::uint32_t kWritable = 0x0080;     // sections

struct AnswerRecord {
    std::uint32_t status;
    std::uint32_t value;
    std::uint64_t information;
    std::uint64_t extra;
};
static_assert(sizeof(AnswerRecord) == 24 && offsetof(AnswerRecord, information) == 8);

constexpr std::size_t kMaxFrame = sizeof(FrameHeader) + sizeof(IoRecord) + kMaxInline;

}  // namespace vlink
