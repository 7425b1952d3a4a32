// The entry cache: which record is found, and which one goes when it is full.
#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <random>
#include <utility>

#include "nt/kernel.h"
#include "volume/entry_cache.h"

namespace {

class VolumeCache : public testing::Test {
  protected:
    void SetUp() override {
        nt::Boot();
        ASSERT_EQ(VrkFsVolCacheInitialize(&cache_), STATUS_SUCCESS);
    }
    void TearDown() override {
        VrkFsVolCacheFree(&cache_);
        VrkFsVolCacheFree(&cache_);
        EXPECT_EQ(nt::ToString(nt::Shutdown()), "");
    }

    void Store(ULONG lba, ULONG mark) {
        FileEntry entry{};
        entry.FrameCount = mark;
        entry.Name[255] = static_cast<WCHAR>(mark);
        VrkFsVolCacheFileEntryCache(&cache_, &entry, lba);
    }
    // The mark of the record at lba, or -1.
    LONG Search(ULONG lba) {
        FileEntry entry{};
        if (!VrkFsVolCacheFileEntrySearch(&cache_, lba, &entry)) {
            return -1;
        }
        EXPECT_EQ(entry.Name[255], static_cast<WCHAR>(entry.FrameCount));
        return static_cast<LONG>(entry.FrameCount);
    }

    VolCache cache_{};
};

// Against a plain list in order of use, with records that share buckets.
TEST_F(VolumeCache, AgreesWithAPlainList) {
    std::mt19937 random(3);
    std::list<std::pair<ULONG, ULONG>> model;
    ULONG reused = 0;
    const auto find = [&](ULONG lba) {
        for (auto at = model.begin(); at != model.end(); ++at) {
            if (at->first == lba) {
                model.splice(model.begin(), model, at);
                return true;
            }
        }
        return false;
    };
    for (ULONG step = 0; step < 30000; ++step) {
        const ULONG lba = random() % 6000 * (random() % 2 == 0 ? 2 : 4096);
        const ULONG kind = random() % 8;
        if (kind < 4) {
            Store(lba, step);
            if (!find(lba)) {
                if (model.size() == kMaxCachedFiles) {
                    model.pop_back();
                    ++reused;
                }
                model.emplace_front(lba, 0);
            }
            model.front().second = step;
        } else if (kind < 7) {
            const LONG expected = find(lba) ? static_cast<LONG>(model.front().second) : -1;
            ASSERT_EQ(Search(lba), expected) << "step " << step;
        } else {
            if (find(lba)) {
                model.pop_front();
            }
            VrkFsVolCacheFileEntryRemove(&cache_, lba);
        }
        ASSERT_EQ(cache_.FileCount, model.size());
    }
    EXPECT_GT(reused, 1000u) << "the list was hardly ever full";
}

}  // namespace
