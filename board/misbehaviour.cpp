#include "board/misbehaviour.h"

namespace board {
namespace {

bool Fits(const Misbehaviour& rule, const RequestKind& request) {
    if (rule.operation && *rule.operation != request.operation) {
        return false;
    }
    if (rule.scsiId && *rule.scsiId != request.scsiId) {
        return false;
    }
    if (rule.firstLba == 0 && rule.lastLba == 0xFFFFFFFF) {
        return true;
    }
    const std::uint64_t end = std::uint64_t{request.lba} + request.count;
    return request.count != 0 && request.lba <= rule.lastLba && end > rule.firstLba;
}

}  // namespace

void Rules::Add(const Misbehaviour& rule) {
    const std::lock_guard hold(lock_);
    rules_.push_back(rule);
    __atomic_store_n(&any_, true, __ATOMIC_RELEASE);
}

void Rules::Clear() {
    const std::lock_guard hold(lock_);
    rules_.clear();
    __atomic_store_n(&any_, false, __ATOMIC_RELEASE);
}

std::optional<Misbehaviour> Rules::Match(const RequestKind& request) {
    if (!__atomic_load_n(&any_, __ATOMIC_ACQUIRE)) {
        return std::nullopt;
    }
    const std::lock_guard hold(lock_);
    std::optional<Misbehaviour> decided;
    for (Misbehaviour& rule : rules_) {
        if (!Fits(rule, request)) {
            continue;
        }
        if (rule.skip > 0) {
            rule.skip -= 1;
        } else if (rule.count > 0) {
            rule.count -= 1;
            if (!decided) {
                decided = rule;
            }
        }
    }
    return decided;
}

}  // namespace board
