#include "mount/journal.h"

#include <algorithm>

namespace mount {
namespace {

constexpr double kMostLines = 50;  // at once
constexpr double kLinesASecond = 2;

}  // namespace

int Journal::Refused(Operation operation, const std::string& path, host::Status status) {
    const Meaning meaning = MeaningOf(operation, status);
    Line(path + ": " + Attempt(operation) + ": " + host::StatusName(status) + ", " + meaning.reason);
    return meaning.error;
}

int Journal::Refused(Operation operation, const std::string& path, int error, const std::string& reason) {
    Line(path + ": " + Attempt(operation) + ": " + reason);
    return error;
}

void Journal::Line(const std::string& text) {
    if (!log_) {
        return;
    }
    const std::lock_guard hold(lock_);
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - last_).count();
    last_ = now;
    credit_ = std::min(kMostLines, credit_ + seconds * kLinesASecond);
    if (credit_ < 1) {
        ++left_;
        return;
    }
    credit_ -= 1;
    if (left_ != 0) {
        log_("(" + std::to_string(left_) + " lines like these were left out)");
        left_ = 0;
    }
    log_(text);
}

}  // namespace mount
