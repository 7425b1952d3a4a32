// Volumes through the control device: the list, what can be measured, the lock on the file system.
#include <cstring>

#include "tests/support/machine_fixture.h"

namespace tests {
namespace {

class ControlVolumes : public MachineTest {
  protected:
    void SetUp() override {
        MakeStation(4, kDiskBlocks * 512);
        Start();
    }
    // The output of the volume list, in a buffer that held something else before.
    std::vector<std::byte> List(std::size_t outLength, std::uint64_t* returned) {
        const host::ScopedHandle control(User(), OpenControl().handle);
        std::vector<std::byte> input(std::max<std::size_t>(outLength, 4), std::byte{0xEE});
        std::vector<std::byte> output(outLength, std::byte{0xEE});
        const host::IoResult result = User().DeviceControl(control.Get(), IOCTL_VRKFS_QUERY_VOLUME_INFO, input, output);
        EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
        *returned = result.information;
        return output;
    }
    static std::uint32_t CountIn(const std::vector<std::byte>& list) {
        std::uint32_t count = 0;
        std::memcpy(&count, list.data(), sizeof(count));
        return count;
    }
    static VrkFsVolumeInfoRecord RecordIn(const std::vector<std::byte>& list, std::size_t index) {
        VrkFsVolumeInfoRecord record;
        std::memcpy(&record, list.data() + 4 + index * sizeof(record), sizeof(record));
        return record;
    }
    std::string Lock(host::Handle control, std::uint32_t drop) {
        const VrkFsLockRequest request = {drop};
        return host::StatusName(
            User().DeviceControl(control, IOCTL_VRKFS_LOCK_FILE_SYSTEM, BytesOf(request), {}).status);
    }
    std::string Unlock(host::Handle control) {
        return host::StatusName(User().DeviceControl(control, IOCTL_VRKFS_UNLOCK_FILE_SYSTEM, {}, {}).status);
    }
    // Names in list order.
    std::vector<std::u16string> Names() {
        std::uint64_t returned = 0;
        const std::vector<std::byte> list = List(4 + 8 * sizeof(VrkFsVolumeInfoRecord), &returned);
        std::vector<std::u16string> names;
        for (std::uint32_t index = 0; index < CountIn(list); ++index) {
            names.emplace_back(RecordIn(list, index).Name);
        }
        return names;
    }
    std::string TryOpen(const std::u16string& path) {
        const host::OpenResult opened = Open(path);
        const host::ScopedHandle handle(User(), opened.handle);
        return host::StatusName(opened.status);
    }
    static constexpr std::uint64_t kDiskBlocks = 32768;
};

TEST_F(ControlVolumes, TheListTellsTheCountAndAsManyRecordsAsFit) {
    ASSERT_EQ(Format(u"First", {0}), VRKFS_RESULT_DONE);
    ASSERT_EQ(Format(u"Second", {3, 2}), VRKFS_RESULT_DONE);
    constexpr std::size_t kRecord = sizeof(VrkFsVolumeInfoRecord);
    for (const std::size_t room : {std::size_t{0}, kRecord - 1, kRecord, 2 * kRecord - 1, 3 * kRecord + 5}) {
        std::uint64_t returned = 0;
        const std::vector<std::byte> list = List(4 + room, &returned);
        EXPECT_EQ(CountIn(list), 2u);
        ASSERT_EQ(returned, 4 + room / kRecord * kRecord);
        EXPECT_EQ(std::count(list.begin() + static_cast<std::ptrdiff_t>(returned), list.end(), std::byte{0xEE}),
                  static_cast<std::ptrdiff_t>(list.size() - returned));
        for (std::size_t index = 0; index < room / kRecord; ++index) {
            const VrkFsVolumeInfoRecord record = RecordIn(list, index);
            EXPECT_EQ(std::u16string(record.Name), index == 0 ? u"First" : index == 1 ? u"Second" : u"");
            EXPECT_EQ(record.DeviceCount, index < 2 ? index + 1 : 0);
        }
    }
}

TEST_F(ControlVolumes, OnlyAFolderOrFileOnAVolumeOfTheCardCanBeMeasured) {
    Stop();
    std::filesystem::remove_all(StationPath());
    MakeStation(2, kDiskBlocks * 512, 2);
    Start();
    ASSERT_EQ(Format(u"Vol", {0}), VRKFS_RESULT_DONE);
    struct {
        const char16_t* path;
        std::uint32_t card;
        bool measured;
    } const cases[] = {
        {u"", 0, false},          {u"\\", 0, false},         {u"\\RZV", 0, false},
        {u"\\RZV\\Vol", 0, true}, {u"\\RZV\\Vol", 1, false}, {u"\\RZV\\Vol\\___Port0___", 0, true},
    };
    for (const auto& test : cases) {
        const host::ScopedHandle handle(User(), Open(test.path).handle);
        ASSERT_TRUE(handle) << test.card;
        const host::ScopedHandle control(User(), OpenControl(test.card).handle);
        VrkFsVolumeSpaceInfo info{handle.Get(), 0, 0, 0, 0, 0, 0};
        const host::IoResult result = User().DeviceControl(control.Get(), IOCTL_VRKFS_GET_VOLUME_SPACE_INFO,
                                                           BytesOf(info), WritableBytesOf(info));
        const std::string name(test.path, test.path + std::char_traits<char16_t>::length(test.path));
        EXPECT_EQ(host::StatusName(result.status), test.measured ? "STATUS_SUCCESS" : "STATUS_UNSUCCESSFUL") << name;
        EXPECT_EQ(result.information, test.measured ? sizeof(info) : 0u) << name;
    }
}

TEST_F(ControlVolumes, TheLockKeepsEverybodyOutAndKnowsItsOwner) {
    ASSERT_EQ(Format(u"One", {0}), VRKFS_RESULT_DONE);
    ASSERT_EQ(Format(u"Two", {1, 2}), VRKFS_RESULT_DONE);
    const std::vector<std::u16string> all = {u"One", u"Two"};
    const host::ScopedHandle other(User(), OpenControl().handle);
    for (const std::uint32_t drop : {0u, 1u, 0x80000000u}) {
        SCOPED_TRACE(drop);
        host::ScopedHandle owner(User(), OpenControl().handle);
        EXPECT_EQ(Unlock(owner.Get()), "STATUS_UNSUCCESSFUL");
        for (const char16_t* path : {u"\\", u"\\RZV", u"\\RZV\\One"}) {
            const host::ScopedHandle held(User(), Open(path).handle);
            EXPECT_EQ(Lock(owner.Get(), drop), "STATUS_ACCESS_DENIED");
        }
        ASSERT_EQ(Lock(owner.Get(), drop), "STATUS_SUCCESS");
        EXPECT_EQ(Lock(owner.Get(), drop), "STATUS_ACCESS_DENIED");
        EXPECT_EQ(Lock(other.Get(), 0), "STATUS_ACCESS_DENIED");
        EXPECT_EQ(Unlock(other.Get()), "STATUS_UNSUCCESSFUL");
        EXPECT_EQ(Names(), drop == 0 ? all : std::vector<std::u16string>{});
        EXPECT_NE(TryOpen(u"\\RZV\\One"), "STATUS_SUCCESS");
        Board().ResetCounters();
        if (drop == 1) {
            owner.Reset();  // whoever goes without a word leaves no lock behind
        } else {
            EXPECT_EQ(Unlock(owner.Get()), "STATUS_SUCCESS");
        }
        EXPECT_EQ(Board().Count().Of(board::Operation::kScan) != 0, drop != 0) << "volumes that stayed are not rebuilt";
        EXPECT_EQ(Names(), all);
        EXPECT_EQ(TryOpen(u"\\RZV\\Two"), "STATUS_SUCCESS");
        EXPECT_EQ(Unlock(other.Get()), "STATUS_UNSUCCESSFUL");
    }
}

TEST_F(ControlVolumes, ARebuildFindsEveryVolumeOnce) {
    ASSERT_EQ(Format(u"One", {0}), VRKFS_RESULT_DONE);
    ASSERT_EQ(Format(u"Two", {1}), VRKFS_RESULT_DONE);
    for (const std::uint32_t drop : {0u, 1u}) {
        SCOPED_TRACE(drop);
        const host::ScopedHandle owner(User(), OpenControl().handle);
        ASSERT_EQ(Lock(owner.Get(), drop), "STATUS_SUCCESS");
        EXPECT_EQ(Format(drop == 0 ? u"Three" : u"Four", {2}), VRKFS_RESULT_DONE);
        EXPECT_EQ(Format(u"Two", {3}), drop == 0 ? VRKFS_FORMAT_NAME_TAKEN : VRKFS_RESULT_DONE);
        ASSERT_EQ(Unlock(owner.Get()), "STATUS_SUCCESS");
        std::vector<std::u16string> names = Names();
        std::sort(names.begin(), names.end());
        const std::vector<std::u16string> kept = {u"One", u"Three", u"Two"};
        EXPECT_EQ(names, drop == 0 ? kept : (std::vector<std::u16string>{u"Four", u"One", u"Two", u"Two"}));
    }
    // One that fails leaves none twice either: the next one begins from the start.
    for (std::uint64_t point = 0; point < 12; ++point) {
        SCOPED_TRACE(testing::Message() << "request " << point);
        const host::ScopedHandle owner(User(), OpenControl().handle);
        ASSERT_EQ(Lock(owner.Get(), 1), "STATUS_SUCCESS");
        Board().Misbehave().Add({.skip = point});
        const bool found = Unlock(owner.Get()) == "STATUS_SUCCESS";
        Board().Misbehave().Clear();
        // The lock is given up either way. Nothing half found is left; the next unlock tries again.
        EXPECT_EQ(Names().size(), found ? 4u : 0u);
        ASSERT_EQ(Lock(owner.Get(), point % 2), "STATUS_SUCCESS");
        ASSERT_EQ(Unlock(owner.Get()), "STATUS_SUCCESS");
        EXPECT_EQ(Names().size(), 4u);
    }
}

}  // namespace
}  // namespace tests
