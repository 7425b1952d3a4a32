#include <algorithm>
#include <vector>

#include "nt/fsrtl.h"

namespace {
constexpr WCHAR kDosStar = u'<';
constexpr WCHAR kDosQuestionMark = u'>';
constexpr WCHAR kDosDot = u'"';

// The expression is run as an automaton whose states are the positions in it: all positions that the name read so far
// can have reached are carried along, so that no pattern costs more than its length times that of the name.
class Matcher {
  public:
    Matcher(PCUNICODE_STRING expression, PCUNICODE_STRING name)
        : pattern_(expression->Buffer),
          patternLength_(expression->Length / sizeof(WCHAR)),
          reached_(patternLength_ + 1),
          next_(patternLength_ + 1) {
        for (SIZE_T i = 0; i < name->Length / sizeof(WCHAR); ++i) {
            if (name->Buffer[i] == u'.') {
                lastDot_ = i;
            }
        }
        reached_[0] = 1;
    }

    // Reads one character of the name; false when no position is left.
    bool Read(SIZE_T index, WCHAR character) {
        SIZE_T nextLow = patternLength_ + 1;
        SIZE_T nextHigh = 0;
        for (SIZE_T at = low_; at <= high_; ++at) {
            if (!reached_[at]) {
                continue;
            }
            reached_[at] = 0;
            if (at == patternLength_) {
                continue;
            }
            SkipWithoutReading(at, character == u'.');
            const SIZE_T target = PositionAfter(at, index, character);
            if (target != kNone) {
                next_[target] = 1;
                nextLow = std::min(nextLow, target);
                nextHigh = std::max(nextHigh, target);
            }
        }
        reached_.swap(next_);
        low_ = nextLow;
        high_ = nextHigh;
        return low_ <= high_;
    }

    // Whether the rest of the expression matches the end of the name.
    bool Ends() {
        for (SIZE_T at = low_; at <= high_ && at < patternLength_; ++at) {
            if (!reached_[at]) {
                continue;
            }
            if (pattern_[at] == kDosDot) {
                Reach(at + 1);
            } else {
                SkipWithoutReading(at, true);
            }
        }
        return high_ == patternLength_ && reached_[patternLength_];
    }

  private:
    static constexpr SIZE_T kNone = ~SIZE_T{0};

    void Reach(SIZE_T position) {
        reached_[position] = 1;
        high_ = std::max(high_, position);
    }

    // What a position leads to without reading a character. At a dot or at the end, DOS question marks match nothing.
    void SkipWithoutReading(SIZE_T at, bool atDotOrEnd) {
        if (pattern_[at] == u'*' || pattern_[at] == kDosStar || (pattern_[at] == kDosQuestionMark && atDotOrEnd)) {
            Reach(at + 1);
        }
    }

    SIZE_T PositionAfter(SIZE_T at, SIZE_T index, WCHAR character) const {
        switch (pattern_[at]) {
            case u'*':
                return at;
            case u'?':
                return at + 1;
            case kDosStar:
                return index == lastDot_ ? at + 1 : at;
            case kDosQuestionMark:
                return character == u'.' ? kNone : at + 1;
            case kDosDot:
                return character == u'.' ? at + 1 : kNone;
            default:
                return character == pattern_[at] ? at + 1 : kNone;
        }
    }

    const WCHAR* pattern_;
    SIZE_T patternLength_;
    SIZE_T lastDot_ = kNone;
    std::vector<UCHAR> reached_;
    std::vector<UCHAR> next_;
    SIZE_T low_ = 0;  // The range in which positions are reached.
    SIZE_T high_ = 0;
};

WCHAR Upcase(WCHAR character, BOOLEAN ignoreCase, PCWCH upcaseTable) {
    if (!ignoreCase) {
        return character;
    }
    return upcaseTable != nullptr ? upcaseTable[character] : RtlUpcaseUnicodeChar(character);
}

UNICODE_STRING Part(const UNICODE_STRING& name, SIZE_T first, SIZE_T end) {
    UNICODE_STRING part;
    part.Length = part.MaximumLength = static_cast<USHORT>((end - first) * sizeof(WCHAR));
    part.Buffer = name.Buffer + first;
    return part;
}
}  // namespace

void FsRtlDissectName(UNICODE_STRING name, PUNICODE_STRING firstPart, PUNICODE_STRING remainingPart) {
    *firstPart = {};
    *remainingPart = {};
    const SIZE_T count = name.Length / sizeof(WCHAR);
    if (count == 0) {
        return;
    }
    const SIZE_T first = name.Buffer[0] == u'\\' ? 1 : 0;
    SIZE_T end = first;
    while (end < count && name.Buffer[end] != u'\\') {
        ++end;
    }
    *firstPart = Part(name, first, end);
    if (end < count) {
        *remainingPart = Part(name, end + 1, count);
    }
}

BOOLEAN FsRtlDoesNameContainWildCards(PUNICODE_STRING name) {
    for (SIZE_T i = 0; i < name->Length / sizeof(WCHAR); ++i) {
        switch (name->Buffer[i]) {
            case u'*':
            case u'?':
            case kDosStar:
            case kDosQuestionMark:
            case kDosDot:
                return TRUE;
            default:
                break;
        }
    }
    return FALSE;
}

BOOLEAN FsRtlIsNameInExpression(PUNICODE_STRING expression, PUNICODE_STRING name, BOOLEAN ignoreCase,
                                PWCHAR upcaseTable) {
    if (expression->Length == 0 || name->Length == 0) {
        return expression->Length == name->Length ? TRUE : FALSE;
    }
    Matcher matcher(expression, name);
    for (SIZE_T i = 0; i < name->Length / sizeof(WCHAR); ++i) {
        if (!matcher.Read(i, Upcase(name->Buffer[i], ignoreCase, upcaseTable))) {
            return FALSE;
        }
    }
    return matcher.Ends() ? TRUE : FALSE;
}

BOOLEAN FsRtlAreNamesEqual(PCUNICODE_STRING left, PCUNICODE_STRING right, BOOLEAN ignoreCase, PCWCH upcaseTable) {
    if (left->Length != right->Length) {
        return FALSE;
    }
    for (SIZE_T i = 0; i < left->Length / sizeof(WCHAR); ++i) {
        if (Upcase(left->Buffer[i], ignoreCase, upcaseTable) != Upcase(right->Buffer[i], ignoreCase, upcaseTable)) {
            return FALSE;
        }
    }
    return TRUE;
}
