#include "service/card.h"

namespace service {

std::unique_ptr<Card> Card::Open(client::ClientPointer& client, std::uint32_t index, std::string& problem) {
    std::unique_ptr<Card> card(new Card);
    VrkFsStatus status = VrkFsClientOpenControl(client.get(), index, &card->control_);
    if (VRKFS_SUCCEEDED(status)) {
        status = VrkFsClientOpenDisks(client.get(), index, &card->disks_);
    }
    if (VRKFS_SUCCEEDED(status)) {
        status = VrkFsClientAllocateBuffer(client.get(), kBufferBytes, &card->buffer_);
    }
    if (!VRKFS_SUCCEEDED(status)) {
        problem = Failed("cannot open the card", status);
        return nullptr;
    }
    card->index_ = index;
    card->client_ = std::move(client);
    return card;
}

std::string Failed(const char* what, VrkFsStatus status) {
    char name[64];
    VrkFsClientStatusName(status, name, sizeof(name));
    return std::string(what) + ": " + name;
}

std::string ToText(const std::u16string& path) {
    std::string text;
    for (const char16_t unit : path) {
        if (unit < 0x20 || (unit >= 0x7F && unit < 0xA0)) {
            text += '?';  // control characters
        } else if (unit < 0x80) {
            text += static_cast<char>(unit);
        } else if (unit < 0x800) {
            text += {static_cast<char>(0xC0 | unit >> 6), static_cast<char>(0x80 | (unit & 0x3F))};
        } else if (unit >= 0xD800 && unit < 0xE000) {
            text += '?';  // half of a character
        } else {
            text += {static_cast<char>(0xE0 | unit >> 12), static_cast<char>(0x80 | (unit >> 6 & 0x3F)),
                     static_cast<char>(0x80 | (unit & 0x3F))};
        }
    }
    return text;
}

}  // namespace service
