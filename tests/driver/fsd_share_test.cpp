// Sharing: who may be open beside whom, and that a refused open restricts nobody.
#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

namespace access = host::access;
namespace share = host::share;

class FsdShare : public FsdTest {
  protected:
    host::OpenResult OpenAs(const std::u16string& path, std::uint32_t wanted, std::uint32_t shared) {
        host::OpenRequest request;
        request.path = u"P:" + path;
        request.access = wanted;
        request.shareAccess = shared;
        return User().Create(request);
    }
};

TEST_F(FsdShare, OpensOfOnePathRestrictEachOther) {
    const struct {
        std::uint32_t firstAccess;
        std::uint32_t firstShare;
        std::uint32_t secondAccess;
        std::uint32_t secondShare;
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
            const host::OpenResult first = OpenAs(path, test.firstAccess, test.firstShare);
            ASSERT_TRUE(first.status.Ok());
            const host::OpenResult second = OpenAs(path, test.secondAccess, test.secondShare);
            EXPECT_EQ(host::StatusName(second.status), test.both ? "STATUS_SUCCESS" : "STATUS_SHARING_VIOLATION")
                << std::hex << test.firstAccess << "/" << test.firstShare << " then " << test.secondAccess << "/"
                << test.secondShare;
            if (second.status.Ok()) {
                EXPECT_TRUE(User().Close(second.handle).Ok());
            }
            EXPECT_TRUE(User().Close(first.handle).Ok());
            // Nothing of either is left that could refuse the most demanding open.
            const host::OpenResult alone = OpenAs(path, access::kReadData | access::kWriteData, share::kNone);
            EXPECT_EQ(host::StatusName(alone.status), "STATUS_SUCCESS");
            EXPECT_TRUE(User().Close(alone.handle).Ok());
        }
    }
    ExpectIdle("at the end");
}

}  // namespace
}  // namespace tests
