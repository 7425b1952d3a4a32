// The driver on the kernel stand-in without a station: boards are plugged and told to misbehave before the driver is
// loaded, the registry lives in memory, and the test may call into the loaded driver's rooms.
#pragma once

#include <array>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>

#include "core/card_instance.h"
#include "core/global_data.h"
#include "core/registry.h"
#include "nt/kernel.h"
#include "tests/support/machine_fixture.h"

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace tests {

inline constexpr char16_t kServiceKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\VrkFs";
inline constexpr std::uint32_t kRigDiskBlocks = 16384;

inline UNICODE_STRING Counted(const std::u16string& text) {
    UNICODE_STRING string;
    string.Buffer = const_cast<PWSTR>(text.c_str());
    string.Length = static_cast<USHORT>(text.size() * sizeof(char16_t));
    string.MaximumLength = static_cast<USHORT>(string.Length + sizeof(char16_t));
    return string;
}

// TRUE when the name is taken in the kernel's namespace, by a device or a link.
inline bool NameIsTaken(const std::u16string& name) {
    UNICODE_STRING link = Counted(name);
    const std::u16string nowhere = u"\\Device\\Nowhere";
    UNICODE_STRING target = Counted(nowhere);
    if (!NT_SUCCESS(IoCreateSymbolicLink(&link, &target))) {
        return true;
    }
    EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_SUCCESS);
    return false;
}

class DriverRig : public testing::Test {
  protected:
    // The case may boot again.
    void TearDown() override {
        PowerOff();
        std::filesystem::remove(EventLog());
        forgotten_ = 0;
    }

    void Boot(bool manualClock = false) {
        nt::Boot({.manualClock = manualClock});
        ASSERT_EQ(nt::AttachStation({{}, EventLog(), {}, false}), "");
        ASSERT_EQ(nt::CreateRegistryKey(std::u16string(kServiceKey) + u"\\Parameters"), STATUS_SUCCESS);
        const nt::DriverImage image{&BoardEntry, u"Vrk", {}};
        ASSERT_EQ(nt::LoadDriver(image, &boardDriver_), STATUS_SUCCESS);
    }

    board::Board& Plug(std::uint32_t card, const std::vector<std::uint32_t>& scsiIds = {}) {
        std::string error;
        boards_[card] = board::Board::Plug(boardDriver_, card, error);
        EXPECT_TRUE(boards_[card]) << error;
        for (const std::uint32_t id : scsiIds) {
            const auto path =
                directory_.Path() / ("card" + std::to_string(card) + "scsi" + std::to_string(id) + ".img");
            std::ofstream(path).close();
            std::filesystem::resize_file(path, std::uint64_t{kRigDiskBlocks} * board::kBlockSize);
            auto disk = board::Disk::Open(path.string(), {}, error);
            EXPECT_TRUE(disk) << error;
            boards_[card]->AttachDisk(id, std::move(*disk));
        }
        return *boards_[card];
    }
    board::Board& BoardOf(std::uint32_t card) { return *boards_[card]; }

    // A failed load must leave nothing behind.
    NTSTATUS Load() {
        nt::LeakList leaks;
        const nt::DriverImage image{&DriverEntry, u"VrkFs", {}};
        const NTSTATUS status = nt::LoadDriver(image, &driver_, &leaks);
        EXPECT_EQ(nt::ToString(leaks), "");
        if (!NT_SUCCESS(status)) {
            driver_ = nullptr;
            EXPECT_EQ(pVrkFsGlobalData, nullptr);
            EXPECT_EQ(ulInitFlags, 0u);
        }
        return status;
    }

    void Unload() {
        if (driver_ != nullptr) {
            nt::LeakList leaks;
            EXPECT_EQ(nt::UnloadDriver(driver_, &leaks), STATUS_SUCCESS);
            EXPECT_EQ(nt::ToString(leaks), "");
            driver_ = nullptr;
        }
    }

    void PowerOff() {
        if (!nt::IsBooted()) {
            return;
        }
        Unload();
        for (auto& plugged : boards_) {
            plugged.reset();
        }
        nt::LeakList leaks;
        EXPECT_EQ(nt::UnloadDriver(boardDriver_, &leaks), STATUS_SUCCESS);
        EXPECT_EQ(nt::ToString(leaks), "");
        EXPECT_EQ(nt::ToString(nt::Shutdown()), "");
    }

    static std::vector<CardInstance*> Cards() {
        std::vector<CardInstance*> cards;
        PLIST_ENTRY head = &pVrkFsGlobalData->CardInstances;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            cards.push_back(CONTAINING_RECORD(link, CardInstance, Link));
        }
        return cards;
    }

    // The events since the last ForgetEvents, as "C0050006 read 1 2048 FileEntry 4 [8]": id, strings, size of the dump
    // if there is one.
    std::vector<std::string> Events() const {
        std::vector<std::string> lines;
        const std::vector<nt::EventLogEntry> entries = nt::ReadEventLog(EventLog()).entries;
        for (std::size_t i = forgotten_; i < entries.size(); ++i) {
            const nt::EventLogEntry& entry = entries[i];
            char id[16];
            std::snprintf(id, sizeof(id), "%08X", entry.eventId);
            std::string line = id;
            for (const std::u16string& text : entry.strings) {
                line += " " + std::string(text.begin(), text.end());
            }
            if (!entry.dumpData.empty()) {
                line += " [" + std::to_string(entry.dumpData.size()) + "]";
            }
            lines.push_back(line);
        }
        return lines;
    }
    void ForgetEvents() { forgotten_ = nt::ReadEventLog(EventLog()).entries.size(); }
    std::string EventLog() const { return (directory_.Path() / "events.log").string(); }

    // Runs the routine as code of a driver, so that ordered failures meet it; it must leave nothing behind.
    static void RunInDriver(const std::function<void()>& routine) {
        running_ = &routine;
        const nt::DriverImage image{&RunningEntry, u"Routine", {}};
        PDRIVER_OBJECT none = nullptr;
        nt::LeakList leaks;
        EXPECT_EQ(nt::LoadDriver(image, &none, &leaks), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(nt::ToString(leaks), "");
    }

    PDRIVER_OBJECT driver_ = nullptr;

  private:
    static NTSTATUS NTAPI BoardEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        for (const UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_DEVICE_CONTROL}) {
            driver->MajorFunction[major] = &board::Board::Dispatch;
        }
        driver->DriverUnload = [](PDRIVER_OBJECT) {};
        return STATUS_SUCCESS;
    }

    static NTSTATUS NTAPI RunningEntry(PDRIVER_OBJECT, PUNICODE_STRING) {
        (*running_)();
        return STATUS_UNSUCCESSFUL;
    }

    static inline const std::function<void()>* running_ = nullptr;
    TemporaryDirectory directory_;
    std::size_t forgotten_ = 0;
    PDRIVER_OBJECT boardDriver_ = nullptr;
    std::array<std::unique_ptr<board::Board>, kMaxCards> boards_;
};

// A driver that has loaded, and the case is inside it.
class LoadedRig : public DriverRig {
  protected:
    void SetUp() override {
        Boot();
        Plug(0);
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        inside_ = std::make_unique<nt::DriverScope>(driver_);
    }
    void TearDown() override {
        inside_.reset();
        DriverRig::TearDown();
    }

  private:
    std::unique_ptr<nt::DriverScope> inside_;
};

}  // namespace tests
