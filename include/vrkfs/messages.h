/*
 * The driver's events: an id VRKFS_EVENT(...) per row of <vrkfs/messages.def>, and the texts for whoever renders a log.
 */
#ifndef VRKFS_MESSAGES_H
#define VRKFS_MESSAGES_H

#include <stddef.h>
#include <stdint.h>

/* An id is shaped as an NT status: severity in the top two bits, facility, message number. */
#define VRKFS_MESSAGE_FACILITY 5u
#define VRKFS_SEVERITY_Informational 1u
#define VRKFS_SEVERITY_Warning 2u
#define VRKFS_SEVERITY_Error 3u
#define VRKFS_MESSAGE_ID(Number, Severity) ((Severity) << 30 | VRKFS_MESSAGE_FACILITY << 16 | (Number))

#ifdef __cplusplus

#define VRKFS_MESSAGE(Symbol, Number, Severity, Text) \
    inline constexpr uint32_t kVrkFsEvent##Symbol = VRKFS_MESSAGE_ID(Number, VRKFS_SEVERITY_##Severity);
#include <vrkfs/messages.def>
#undef VRKFS_MESSAGE

static_assert(kVrkFsEventInitialization == 0xC0050001u && kVrkFsEventBodyTableRecovered == 0x4005000Bu);

#endif

/* The text of an event with its inserts %1, %2, ..., without a line end; null for an unknown id. */
static inline const char* VrkFsMessageText(uint32_t Id) {
    switch (Id) {
#define VRKFS_MESSAGE(Symbol, Number, Severity, Text)         \
    case VRKFS_MESSAGE_ID(Number, VRKFS_SEVERITY_##Severity): \
        return Text;
#include <vrkfs/messages.def>
#undef VRKFS_MESSAGE
        default:
            return NULL;
    }
}

/* "error", "warning", "information"; an id of a severity without a name is a "success". */
static inline const char* VrkFsMessageSeverity(uint32_t Id) {
    switch (Id >> 30) {
        case VRKFS_SEVERITY_Error:
            return "error";
        case VRKFS_SEVERITY_Warning:
            return "warning";
        case VRKFS_SEVERITY_Informational:
            return "information";
        default:
            return "success";
    }
}

#endif /* VRKFS_MESSAGES_H */
