#include "link/sessions.h"

#include <sys/random.h>

namespace vlink {

host::Problem Session::ReleaseDisks(std::uint32_t card) {
    const std::lock_guard hold(disks_.lock);
    if (gone_) {
        return {"the program that asks for the disks has gone", "run it again"};
    }
    const auto found = disks_.holders.find(card);
    if (found != disks_.holders.end() && found->second != number_) {
        return {"another program has the disks of card " + std::to_string(card), "wait until it is done", true};
    }
    host::Problem problem = machine_.ReleaseDisks(card);
    for (const host::CardFacts& facts : machine_.Cards()) {
        if (facts.index == card) {
            disks_.holders[card] = number_;  // whatever the problem: they are closed
        }
    }
    return problem;
}

host::Problem Session::TakeDisks(std::uint32_t card) {
    const std::lock_guard hold(disks_.lock);
    const auto found = disks_.holders.find(card);
    if (found == disks_.holders.end() || found->second != number_) {
        return {};
    }
    host::Problem problem = machine_.TakeDisks(card);
    if (!problem) {
        disks_.holders.erase(found);
    }
    return problem;
}

std::size_t Session::TakeBack(bool forGood, host::Problem& problem) {
    const std::lock_guard hold(disks_.lock);
    gone_ = gone_ || forGood;
    return std::erase_if(disks_.holders, [&](const auto& holder) {
        if (holder.second != number_) {
            return false;
        }
        if (const host::Problem failed = machine_.TakeDisks(holder.first)) {
            problem = failed;
        }
        return true;
    });
}

std::shared_ptr<Session> Sessions::New() {
    const std::lock_guard hold(lock_);
    std::uint64_t number = 0;
    do {
        if (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
            ++number;
        }
    } while (number == 0 || sessions_.contains(number));
    return sessions_[number] = std::make_shared<Session>(machine_, disks_, number);
}

std::shared_ptr<Session> Sessions::Find(std::uint64_t number) {
    const std::lock_guard hold(lock_);
    const auto found = sessions_.find(number);
    return found == sessions_.end() ? nullptr : found->second;
}

void Sessions::End(std::uint64_t number) {
    const std::lock_guard hold(lock_);
    sessions_.erase(number);
}

}  // namespace vlink
