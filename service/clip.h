// A clip of the drive, frame by frame: opened under the built-in type for its facts and its body tables, its fields
// read and written through the card at the places that the tables give. So a clip that is being recorded can be looked
// at.
#pragma once

#include <memory>
#include <string>

#include "service/card.h"
#include "service/frame.h"

namespace service {

class Clip {
  public:
    enum class Use {
        kLook,    // beside everybody else; only what wants the clip for itself is kept out
        kChange,  // nobody else may be writing or begin to
    };

    // Null with `problem` filled when it cannot be had. The card outlives the clip.
    static std::unique_ptr<Clip> Open(Card& card, const std::u16string& path, Use use, std::string& problem);
    ~Clip();

    // Whether both are the same file of the drive, wherever they were found.
    bool Is(const Clip& other) const;

    // False with `problem` filled. Every place is checked to lie in the clip's own space before it is used.
    bool ReadFrame(std::uint32_t index, Frame& frame, std::string& problem);
    // What ReadFrame gave and what it has become: sectors that differ are written where they were read.
    bool WriteFrame(const Frame& before, const Frame& after, std::string& problem);

  private:
    struct Place {
        std::uint32_t scsiId = 0;
        std::uint32_t lba = 0;
        std::uint32_t sectors = 0;
    };

    explicit Clip(Card& card) : card_(card) {}
    bool Refresh(std::string& problem);
    bool Map(std::uint32_t stream, std::string& problem);
    void Unmap();
    bool FindField(std::uint32_t stream, std::uint64_t field, Place& place, std::string& problem);
    bool IsOurs(std::uint32_t stream, const Place& place) const;

    Card& card_;
    OpenFile file_;
    VrkFsFileInfo info_ = {};
    VrkFsNodeView nodes_[2] = {};
    Place places_[2][kFields];  // of the frame read last
};

}  // namespace service
