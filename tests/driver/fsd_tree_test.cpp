// The tree of open names and its lists: walks.
#include <set>

#include "fsd/irp_context.h"
#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

std::u16string Text(const UNICODE_STRING& name) {
    return {name.Buffer, name.Length / sizeof(WCHAR)};
}

class FsdTree : public FsdTest {};

TEST_F(FsdTree, AWalkVisitsEverythingBelowAFolderOnceAndNothingElse) {
    Make(u"\\RZV\\VolA\\Other", host::option::kDirectoryFile);
    std::vector<host::ScopedHandle> handles;
    for (const char16_t* path : {u"\\RZV\\VolA\\Clips\\Take1", u"\\RZV\\VolA\\Clips\\___Port0___",
                                 u"\\RZV\\VolA\\Other\\___Port0___", u"\\RZV\\VolB\\___Port0___", u"\\XYZ\\VolA"}) {
        handles.push_back(Hold(path));
    }
    FCB* volume = Find({u"RZV", u"VolA"});
    std::vector<std::u16string> seen;
    FCB* at = volume;
    while (VrkFsFCBGetNextChild(volume, at, &at)) {
        seen.push_back(Text(at->Name));
    }
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_EQ(std::multiset<std::u16string>(seen.begin(), seen.end()),
              (std::multiset<std::u16string>{u"Clips", u"Take1", u"___Port0___", u"Other", u"___Port0___"}));
    FCB* leaf = Find({u"RZV", u"VolB", u"___Port0___"});
    EXPECT_FALSE(VrkFsFCBGetNextChild(leaf, leaf, &at));
}

TEST_F(FsdTree, AListCanBeFreedWhileItIsWalked) {
    LIST_ENTRY head;
    InitializeListHead(&head);
    LIST_ENTRY entries[3];
    for (LIST_ENTRY& entry : entries) {
        InsertTailList(&head, &entry);
    }
    ListIterator iterator;
    VrkFsInitializeListIterator(&iterator, &head);
    PLIST_ENTRY entry = nullptr;
    int visited = 0;
    while (VrkFsIterateList(&iterator, &entry)) {
        EXPECT_EQ(entry, &entries[visited++]);
        RemoveEntryList(entry);
        std::memset(static_cast<void*>(entry), 0xDD, sizeof(*entry));
    }
    EXPECT_EQ(visited, 3);
}

}  // namespace
}  // namespace tests
