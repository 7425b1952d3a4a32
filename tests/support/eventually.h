// Waits for what another thread or program does soon, but not at once.
#pragma once

#include <chrono>
#include <thread>

namespace tests {

template <typename Condition>
bool Eventually(Condition holds) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);  // nothing is decided by it
    while (!holds()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace tests
