#pragma once

#include <unistd.h>

#include <string_view>
#include <utility>

namespace nt {

// A file descriptor that is closed when its owner goes.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~Descriptor() { Reset(); }

    explicit operator bool() const { return descriptor_ >= 0; }
    int Get() const { return descriptor_; }
    int Release() { return std::exchange(descriptor_, -1); }
    void Reset() {
        if (descriptor_ >= 0) {
            close(Release());
        }
    }

  private:
    int descriptor_ = -1;
};

// Writes all of the text; false on an error.
bool WriteWhole(int file, std::string_view text);

}  // namespace nt
