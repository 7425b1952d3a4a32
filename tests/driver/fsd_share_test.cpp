// Sharing: who may be open beside whom, and that a refused open restricts nobody.
#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

namespace access = host::access;
namespace share = host::share;

class FsdShare : public FsdTest {
  protected:
    host::OpenResult OpenAs(const std::u16string& path, std::uint32_t wanted, std::uint32_t shared) {
        return User().Create({.path = u"P:" + path, .access = wanted, .shareAccess = shared});
    }
};

TEST_F(FsdShare, OpensOfOnePathRestrictEachOther) {
    const struct {
        std::uint32_t firstAccess, firstShare, secondAccess, secondShare;
        bool both;
    } cases[] = {
        {access::kReadData, share::kRead, access::kReadData, share::kRead, true},
        {access::kReadData, share::kRead, access::kWriteData, share::kAll, false},
        {access::kWriteData, share::kAll, access::kReadData, share::kRead, false},
        {access::kWriteData, share::kAll, access::kWriteData, share::kWrite, true},
        {access::kReadData, share::kNone, access::kReadData, share::kAll, false},
        {access::kReadData, share::kNone, access::kReadAttributes, share::kNone, true},
        {access::kReadAttributes, share::kNone, access::kWriteData, share::kNone, true},
        {access::kDelete, share::kRead, access::kReadData, share::kAll, true},
        {access::kDelete, share::kRead, access::kReadData, share::kRead, false},
        {access::kReadData, share::kRead | share::kWrite, access::kDelete, share::kAll, false},
    };
    for (const char16_t* path : {u"", u"\\", u"\\RZV\\VolA\\Clips", u"\\RZV\\VolA\\Clips\\Take1"}) {
        for (const auto& test : cases) {
            host::ScopedHandle first(User(), OpenAs(path, test.firstAccess, test.firstShare).handle);
            ASSERT_TRUE(first);
            const host::OpenResult second = OpenAs(path, test.secondAccess, test.secondShare);
            EXPECT_EQ(host::StatusName(second.status), test.both ? kOk : "STATUS_SHARING_VIOLATION")
                << std::hex << test.firstAccess << "/" << test.firstShare << " then " << test.secondAccess << "/"
                << test.secondShare;
            host::ScopedHandle(User(), second.handle).Reset();
            first.Reset();
            // Nothing of either is left that could refuse the most demanding open.
            const host::OpenResult alone = OpenAs(path, kReadWrite, share::kNone);
            EXPECT_EQ(host::StatusName(alone.status), kOk);
            host::ScopedHandle(User(), alone.handle).Reset();
        }
    }
    ExpectIdle("at the end");
}

}  // namespace
}  // namespace tests
