// Clips in files and pipes; the name "-" is standard input or output.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "tool/clip/reader.h"

namespace clip {

// A clip being written. What stood under the name stays whole until Commit: the bytes go to NAME.part first.
// Everything throws std::system_error that names the file.
class ClipOutput {
  public:
    explicit ClipOutput(const std::string& name);
    ~ClipOutput();  // without Commit it removes what it wrote
    ClipOutput(const ClipOutput&) = delete;
    ClipOutput& operator=(const ClipOutput&) = delete;

    void Write(std::span<const std::byte> bytes);
    void Commit();

  private:
    std::string name_;
    std::string partName_;  // empty when the bytes go where they belong at once: pipes and devices
    int file_ = -1;
    bool owned_ = false;
};

// A clip being read. The source that it gives must not outlive it.
class ClipInput {
  public:
    explicit ClipInput(const std::string& name);
    ~ClipInput();
    ClipInput(const ClipInput&) = delete;
    ClipInput& operator=(const ClipInput&) = delete;

    [[nodiscard]] ClipSource Source();

  private:
    [[nodiscard]] size_t Read(uint64_t offset, std::span<std::byte> buffer);

    std::string name_;
    int file_ = -1;
    bool owned_ = false;
    bool positioned_ = false;  // else a pipe: read front to back
};

}  // namespace clip
