// An object of the file tree: the mount's top, a drive's root, a type, a volume, a folder, a clip, and what may lie
// below a clip under another type. One object for each, however its name is spelled and whoever looks.
//
// A node lives while the kernel knows it, something is open on it, or its folder's listing holds it. What is not const
// is guarded by the tree's lock, but for `work`.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "mount/clip_writer.h"
#include "mount/drive.h"

namespace mount {

using Clock = std::chrono::steady_clock;

enum class Kind { kTop, kFolder, kFile, kPort };

// What a node's place is, counted from the drive's root. Folders go down to kFolderLevel, under some types to
// kClipLevel.
enum Level : unsigned {
    kRootLevel = 0,
    kTypeLevel = 1,
    kVolumeLevel = 2,
    kFolderLevel = 3,
    kClipLevel = 4,
    kFrameLevel = 5
};

struct Node;
using NodePointer = std::shared_ptr<Node>;

// What is in a folder.
struct Listing {
    // Held over every request to the driver that lists or changes the names in the folder, so that what is known of
    // them agrees with the drive. Taken before the tree's lock; two of them with std::lock.
    std::mutex work;

    bool known = false;                              // the rest says what is there
    Clock::time_point at;                            // when it was last read
    Clock::duration took{};                          // to read it
    std::map<std::u16string, NodePointer> children;  // by upcased name
    NodePointer port;                                // once somebody has looked for it
    // Names that the kernel was told are not there, by upcased name.
    std::unordered_map<std::u16string, std::vector<std::string>> missing;
    std::size_t missingCount = 0;
    std::set<std::u16string> hidden;  // upcased names of copies under way and of clips that go with their last reader
};

struct Node {
    Node(std::uint64_t number, Kind what, Drive* on, unsigned depth)
        : inode(number), kind(what), drive(on), level(depth) {
        if (IsFolder()) {
            listing = std::make_unique<Listing>();
        }
    }

    bool IsFolder() const { return kind == Kind::kTop || kind == Kind::kFolder; }
    // A clip: written as a whole only.
    bool IsClip() const { return kind == Kind::kFile && level == kClipLevel; }
    // By the kernel or a program, itself or something below it.
    bool IsHeld() const { return lookups != 0 || opens != 0 || childrenHeld != 0; }

    const std::uint64_t inode;
    const Kind kind;
    Drive* const drive;  // null: the top
    const unsigned level;

    NodePointer parent;   // null: the top, or `gone`
    std::u16string name;  // as the drive spells it
    std::u16string key;   // upcased
    bool gone = false;    // no longer under any name
    std::uint64_t size = 0;
    std::int64_t time = 0;
    std::uint64_t lookups = 0;  // that the kernel will forget
    unsigned opens = 0;         // files open on it
    unsigned writers = 0;       // those of them that can write
    // Pages are kept for readers that keep writers away, and not across a replacement of the clip: a reader of the old
    // one would fill them with its bytes, even one whose pages are not kept, if it maps the file.
    unsigned generation = 0;
    unsigned readers = 0;                // open for reading only, of this generation
    unsigned cachedOpens = 0;            // those of them whose pages are kept
    unsigned staleReaders = 0;           // of earlier generations
    bool mayHavePages = false;           // with the kernel
    bool pagesHold = false;              // there are none of what was there before
    bool sizeMayDiffer = false;          // the kernel may know another one
    std::size_t childrenHeld = 0;        // children that are held
    std::shared_ptr<ClipWriter> writer;  // a copy under way, or about to begin
    bool truncated = false;              // the copy replaces what is there: nothing of that is seen any more
    // Whether the name stands for a copy under way.
    bool IsUnderWay() const { return AwaitsCopy() && (truncated || writer->HasFile()); }
    // Whether a copy is under way, or somebody has it open who may begin one.
    bool AwaitsCopy() const { return writer != nullptr && !writer->IsOver(); }

    // When it took another's name for who opens it to write. The program that this was done for comes back at once to
    // copy onto it, whoever reads it by then: so that the copy cuts nobody off, no pages are kept yet.
    Clock::time_point renewed{};
    bool IsAwaited() const { return Clock::now() - renewed < std::chrono::milliseconds(250); }

    std::unique_ptr<Listing> listing;  // of a folder; the pointer never changes
};

}  // namespace mount
