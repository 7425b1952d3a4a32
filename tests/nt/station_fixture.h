#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "nt/kernel.h"
#include "nt/nt.h"
#include "nt/station.h"
#include "nt/text.h"

namespace tests {

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void WriteFile(const std::filesystem::path& path, std::string_view text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary).write(text.data(), static_cast<std::streamsize>(text.size()));
}

// A directory of its own and a kernel booted on it. Whatever is left over at the end fails the test.
class StationTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "vrkfs-nt-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        files_.registry = (directory_ / "registry.json").string();
        files_.eventLog = (directory_ / "events.log").string();
        files_.systemRoot = (directory_ / "SystemRoot").string();
        nt::Boot();
    }

    void TearDown() override {
        EXPECT_EQ(nt::ToString(nt::Shutdown()), "");
        std::filesystem::remove_all(directory_);
    }

    // Shuts the kernel down and boots it again on the same files.
    std::string Reboot() {
        EXPECT_EQ(nt::ToString(nt::Shutdown()), "");
        nt::Boot();
        return nt::AttachStation(files_);
    }

    std::filesystem::path directory_;
    nt::StationFiles files_;
};

// Object attributes together with the string they point to.
class Attributes {
  public:
    explicit Attributes(std::u16string_view name, ULONG flags = OBJ_CASE_INSENSITIVE, HANDLE root = nullptr)
        : text_(name), name_(nt::CountedString(text_)) {
        InitializeObjectAttributes(&attributes_, &name_, flags, root, nullptr);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    operator POBJECT_ATTRIBUTES() { return &attributes_; }

  private:
    std::u16string text_;
    UNICODE_STRING name_;
    OBJECT_ATTRIBUTES attributes_;
};

}  // namespace tests
