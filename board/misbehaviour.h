// What a board can be told to do wrong, and how the rules are matched. Rules are looked at in the order they were
// given; the first that fits a request decides. One rule fits by operation, SCSI ID, block range, and its place in the
// sequence of requests that fit it ("skip 3, then fail 2").
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>

#include "nt/nt.h"

namespace board {

enum class Operation : std::uint8_t { kInitFlex, kInitBoard, kScan, kDeviceQuery, kRead, kWrite, kAcquire, kRelease };
constexpr std::size_t kOperationCount = 8;

enum class Wrong : std::uint8_t {
    kFail,      // complete with `status`, nothing moved
    kLate,      // return STATUS_PENDING; the board's own thread completes it properly soon after
    kHold,      // return STATUS_PENDING; complete properly when ReleaseHeld() is called or the board is unplugged
    kHoldDeaf,  // likewise, and a cancel changes nothing: as a board whose firmware hangs
    kFlipBits,  // succeed, but flip one bit in every block read or written
    kTear,      // a write: only the first `blocks` blocks reach the disk, yet it reports success
    kTearFail,  // likewise, and it reports `status`
};

struct Misbehaviour {
    Wrong what = Wrong::kFail;
    std::optional<Operation> operation = {};   // none: every operation
    std::optional<std::uint32_t> scsiId = {};  // none: every ID
    std::uint32_t firstLba = 0;                // block range that a transfer must touch
    std::uint32_t lastLba = 0xFFFFFFFF;
    std::uint64_t skip = 0;                   // let so many fitting requests pass first
    std::uint64_t count = ~std::uint64_t{0};  // then misbehave for so many; all that follow without limit by default
    NTSTATUS status = STATUS_IO_DEVICE_ERROR;
    std::uint32_t blocks = 0;
};

// What a request is, for matching.
struct RequestKind {
    Operation operation;
    std::uint32_t scsiId = 0;
    std::uint32_t lba = 0;
    std::uint32_t count = 0;
};

class Rules {
  public:
    void Add(const Misbehaviour& rule);
    void Clear();
    // The rule that decides over this request, if one does. Counts the request against every rule that it fits.
    std::optional<Misbehaviour> Match(const RequestKind& request);

  private:
    std::mutex lock_;
    std::list<Misbehaviour> rules_;
    bool any_ = false;  // read without the lock: the data path pays nothing while there are no rules
};

}  // namespace board
