#include "tool/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "tool/interrupt.h"
#include "tool/text.h"

namespace tool {
namespace {

std::atomic<bool> barIsUp{false};

std::string OneLine(std::string text) {
    for (char& character : text) {
        if (static_cast<unsigned char>(character) < 0x20 || character == 0x7F) {
            character = ' ';
        }
    }
    return text;
}

unsigned TerminalColumns() {
    struct winsize size {};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string MinutesAndSeconds(double seconds) {
    const auto whole = static_cast<unsigned long long>(std::lround(std::min(seconds, 359999.0)));
    char text[32];
    if (whole >= 3600) {
        std::snprintf(text, sizeof(text), "%llu:%02llu:%02llu", whole / 3600, whole / 60 % 60, whole % 60);
    } else {
        std::snprintf(text, sizeof(text), "%llu:%02llu", whole / 60, whole % 60);
    }
    return text;
}

}  // namespace

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Failure::Line() const {
    std::string line = what;
    if (!status.empty()) {
        line += ": " + status;
    }
    for (const std::string& part : {state, advice}) {
        if (!part.empty()) {
            line += "; " + part;
        }
    }
    return OneLine(line);
}

Failure UsageFailure(const std::string& what, const std::string& advice) {
    return {.what = what, .advice = advice, .exit = kUsage};
}

Failure StoppedFailure(const std::string& state) {
    return {.what = "stopped", .state = state};
}

void ClearProgressBar() {
    if (barIsUp.exchange(false)) {
        std::fputs("\r\x1b[K", stderr);
        std::fflush(stderr);
    }
}

void Output::Report(const std::string& text, const Json& fields) const {
    ClearProgressBar();
    std::ostream& out = dataOnStdout_ ? std::cerr : std::cout;
    if (!json_) {
        out << text << '\n';
        return;
    }
    Json line{{"command", command_}};
    line.update(fields);
    out << Dump(line) << '\n';
}

void Output::Text(const std::string& text) const {
    if (!json_) {
        Report(text, {});
    }
}

void Output::Object(const Json& fields) const {
    if (json_) {
        Report({}, fields);
    }
}

void Output::Notice(const std::string& text) const {
    ClearProgressBar();
    std::cerr << (json_ ? Dump({{"command", command_}, {"notice", text}}) : "vrkfs " + command_ + ": " + OneLine(text))
              << '\n';
}

int Output::Fail(const Failure& failure) const {
    ClearProgressBar();
    if (!json_) {
        std::cerr << "vrkfs" << (command_.empty() ? "" : " ") << command_ << ": " << failure.Line() << '\n';
        return failure.exit;
    }
    Json line{{"command", command_}, {"error", failure.what}};
    const std::pair<const char*, const std::string&> parts[] = {
        {"status", failure.status}, {"state", failure.state}, {"advice", failure.advice}};
    for (const auto& [name, value] : parts) {
        if (!value.empty()) {
            line[name] = value;
        }
    }
    line["exit"] = static_cast<int>(failure.exit);
    std::cerr << Dump(line) << '\n';
    return failure.exit;
}

void Output::ReportProgress(const Json& fields) const {
    Json line{{"command", command_}, {"progress", fields}};
    std::cerr << Dump(line) << '\n';
}

void Progress::Begin(const std::string& step) {
    ClearProgressBar();
    step_ = step;
    start_ = Clock::now();
    next_ = start_ + std::chrono::seconds(1);
}

double Progress::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

bool Progress::Update(std::uint64_t done, std::uint64_t total) {
    const Clock::time_point now = Clock::now();
    if (now >= next_) {
        const double seconds = std::chrono::duration<double>(now - start_).count();
        if (output_.IsJson()) {
            Tell(done, total, seconds);
            next_ = now + std::chrono::seconds(1);
        } else if (::isatty(STDERR_FILENO) != 0) {
            Draw(done, total, seconds);
            next_ = now + std::chrono::milliseconds(100);
        }
    }
    if (done >= total) {
        ClearProgressBar();
    }
    return !Interrupted();
}

void Progress::Tell(std::uint64_t done, std::uint64_t total, double seconds) const {
    const double rate = static_cast<double>(done) / seconds;
    Json fields{{"done_bytes", done}, {"total_bytes", total}, {"bytes_per_second", std::llround(rate)}};
    if (!step_.empty()) {
        fields["step"] = step_;
    }
    if (done > 0) {
        fields["seconds_left"] = std::llround(static_cast<double>(total - std::min(done, total)) / rate);
    }
    output_.ReportProgress(fields);
}

// "  43 % [########            ] 1.2 of 2.8 GiB, 812 MB/s, 0:02 left"
void Progress::Draw(std::uint64_t done, std::uint64_t total, double seconds) const {
    const double share = total == 0 ? 1.0 : static_cast<double>(std::min(done, total)) / static_cast<double>(total);
    const double rate = static_cast<double>(done) / seconds;
    const double left = rate > 0 ? static_cast<double>(total - std::min(done, total)) / rate : 0;
    char percent[16];
    std::snprintf(percent, sizeof(percent), "%3.0f %% ", share * 100);
    char tail[128];
    std::snprintf(tail, sizeof(tail), " %s of %s, %.0f MB/s, %s left", FormatBytes(done).c_str(),
                  FormatBytes(total).c_str(), rate / 1e6, MinutesAndSeconds(left).c_str());
    const std::string head = (step_.empty() ? output_.Command() : step_) + " " + percent;

    const std::size_t used = head.size() + std::char_traits<char>::length(tail) + 3;
    const std::size_t columns = TerminalColumns();
    std::string bar;
    if (columns > used + 8) {
        const std::size_t width = std::min<std::size_t>(columns - used, 40);
        const auto full = static_cast<std::size_t>(share * static_cast<double>(width));
        bar = "[" + std::string(full, '#') + std::string(width - full, ' ') + "]";
    }
    const std::string line = (head + bar + tail).substr(0, columns - 1);
    std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
    std::fflush(stderr);
    barIsUp = true;
}

}  // namespace tool
