#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "nt/internal.h"

namespace nt {

namespace {

std::atomic<ViolationHandler> g_handler{nullptr};

}  // namespace

ViolationHandler SetViolationHandler(ViolationHandler handler) {
    return g_handler.exchange(handler);
}

void Violation(const char* format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);

    const std::string driver = DriverNameOf(CurrentDriver());
    const std::string message = "nt: " + std::string(text) + (driver.empty() ? "" : " [in driver " + driver + "]");
    if (const ViolationHandler handler = g_handler.load(); handler != nullptr) {
        handler(message.c_str());
        return;
    }
    std::fprintf(stderr, "%s\n", message.c_str());
    std::fflush(stderr);
    std::abort();
}

void RefuseAtDispatch(const char* operation) {
    const PETHREAD self = Self();
    if (self->holdsCancelLock) {
        Violation("%s with the cancel lock held", operation);
    } else if (self->irql >= DISPATCH_LEVEL) {
        Violation("%s at IRQL %u (%u spin locks held)", operation, self->irql, self->spinLockCount);
    }
}

std::string ToString(const LeakList& leaks) {
    std::string text;
    for (const Leak& leak : leaks) {
        text += leak.what + " " + leak.name;
        if (leak.count != 1) {
            text += " x" + std::to_string(leak.count);
        }
        if (leak.bytes != 0) {
            text += ", " + std::to_string(leak.bytes) + " bytes";
        }
        text += '\n';
    }
    return text;
}

std::string TagText(ULONG tag) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const auto c = static_cast<char>(tag >> shift & 0xFF);
        text += c >= 0x20 && c < 0x7F ? c : '.';
    }
    return text;
}

std::string QuotedTag(ULONG tag) {
    std::string text(1, '\'');
    text += TagText(tag);
    text += '\'';
    return text;
}

}  // namespace nt
