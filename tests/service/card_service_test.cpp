// The service's answers without the driver's channel: what it is asked comes from the case, and may be anything.
#include <gtest/gtest.h>

#include <cstring>

#include "examples/recorder.h"
#include "service/card_service.h"
#include "tests/service/frames.h"
#include "tests/system/client_fixture.h"

namespace tests {
namespace {

class CardServiceTest : public ClientTest {
  protected:
    void SetUp() override {
        StartVolume(2);
        client::ClientPointer own = NewClient();
        std::string problem;
        card_ = service::Card::Open(own, 0, problem);
        ASSERT_TRUE(card_) << problem;
        service_ = std::make_unique<service::CardService>(
            *card_, [this](const std::string& line) { log_ = line; }, 0xFFFFFFFF);
    }
    void TearDown() override {
        service_.reset();
        card_.reset();
        ClientTest::TearDown();
    }

    // The result of the last answer; data of reads goes to `data`.
    std::uint32_t Ask(const VrkFsServiceRequest& request) {
        std::uint32_t result = 0xFF;
        data_.clear();
        service_->Answer(request, [&](const VrkFsServiceResponse& response, std::size_t size, std::size_t dataBytes) {
            EXPECT_EQ(response.Type, request.Type);
            EXPECT_GE(size, std::size_t{VRKFS_SERVICE_RESPONSE_MIN_SIZE});
            EXPECT_LE(dataBytes, card_->Memory().Size);
            result = response.Result;
            handle_ = request.Type == VRKFS_SERVICE_OPEN && result == 0 ? response.Payload.ServiceHandle : handle_;
            if (request.Type == VRKFS_SERVICE_READ && result == 0) {
                EXPECT_EQ(response.Payload.ByteCount, dataBytes);
                data_.insert(data_.end(), card_->Buffer(), card_->Buffer() + dataBytes);
            }
            return true;
        });
        return result;
    }
    std::uint32_t OpenClip(const std::u16string& path) {
        VrkFsServiceRequest request{};
        request.Type = VRKFS_SERVICE_OPEN;
        path.copy(&request.Payload.Open.DriveLetter, path.size());
        return Ask(request);
    }
    std::uint32_t Transfer(std::uint32_t type, std::uint32_t handle, service::FileKind kind, std::uint32_t frame,
                           std::uint64_t offset, std::uint32_t count) {
        VrkFsServiceRequest request{};
        request.Type = type;
        const auto low = static_cast<std::uint32_t>(offset);
        const auto high = static_cast<std::uint32_t>(offset >> 32);
        request.Payload.Transfer = {handle, static_cast<std::uint32_t>(kind), low, high, count, frame};
        return Ask(request);
    }
    std::uint32_t ReadRaw(std::uint32_t frame, std::uint32_t count) {
        return Transfer(VRKFS_SERVICE_READ, handle_, service::FileKind::kRaw, frame, 0, count);
    }

    std::unique_ptr<service::Card> card_;
    std::unique_ptr<service::CardService> service_;
    std::uint32_t handle_ = 0;
    service::Bytes data_;
    std::string log_;
};

TEST_F(CardServiceTest, LooksIntoAClipThatIsBeingRecorded) {
    examples::RecordOrder order = Order(u"LIVE.RZV", true, 9);
    order.pattern = {9, 4, 24};
    int seen = 0;
    order.watch = [&](examples::RecordStep step, std::uint32_t fields) {
        if (step == examples::RecordStep::kField && fields % 2 == 0) {
            EXPECT_EQ(OpenClip(order.path), 0u) << log_;
            const std::uint32_t frame = fields / 2 - 1;
            EXPECT_EQ(ReadRaw(frame, 1 << 20), 0u) << log_;
            std::size_t at = 0;
            for (std::uint32_t each = 0; each < 4; ++each) {
                const std::uint32_t stream = each / 2;
                const std::uint32_t field = 2 * frame + each % 2;
                const std::size_t bytes = examples::FieldSectors(order.pattern, stream, field) * 512;
                EXPECT_TRUE(examples::IsField(order.pattern, stream, field,
                                              std::as_bytes(std::span(data_)).subspan(at, bytes)));
                at += bytes;
            }
            EXPECT_TRUE(std::all_of(data_.begin() + static_cast<std::ptrdiff_t>(at), data_.end(),
                                    [](auto b) { return b == 0; }));
            EXPECT_EQ(ReadRaw(frame + 1, 100), 1u);
            EXPECT_NE(log_.find("it is not recorded yet"), std::string::npos) << log_;
            // No picture is in those fields, and nothing is to be put there while the recorder is at work.
            EXPECT_EQ(Transfer(VRKFS_SERVICE_READ, handle_, service::FileKind::kTga, frame, 0, 100), 1u);
            EXPECT_NE(log_.find("is neither lines of 4:2:2 nor a JPEG image"), std::string::npos) << log_;
            EXPECT_EQ(Transfer(VRKFS_SERVICE_WRITE, handle_, service::FileKind::kRaw, frame, 0,
                               static_cast<std::uint32_t>(at)),
                      1u);
            EXPECT_NE(log_.find("somebody has it open for writing"), std::string::npos) << log_;
            VrkFsServiceRequest close{};
            close.Type = VRKFS_SERVICE_CLOSE;
            close.Payload.Close.ServiceHandle = handle_;
            EXPECT_EQ(Ask(close), 0u);
            EXPECT_EQ(Ask(close), 1u);
            ++seen;
        }
        return true;
    };
    ASSERT_TRUE(examples::Record(NewClient().get(), order));
    EXPECT_EQ(seen, 12);
    ExpectClip(order);
}

TEST_F(CardServiceTest, TakesNothingForGranted) {
    ASSERT_TRUE(examples::Record(NewClient().get(), Order(u"CLIP.RZV", false, 3)));
    EXPECT_EQ(OpenClip(u"P:\\RZV\\VOL\\CLIPS\\NONE.RZV"), 1u);
    EXPECT_EQ(OpenClip(u"P:\\RZV\\VOL\\CLIPS"), 1u);
    EXPECT_EQ(OpenClip(u""), 1u);
    VrkFsServiceRequest endless{};
    std::memset(&endless, 0x41, sizeof(endless));
    for (const std::uint32_t type :
         {VRKFS_SERVICE_OPEN, VRKFS_SERVICE_CLEAN, VRKFS_SERVICE_CLOSE, VRKFS_SERVICE_READ, VRKFS_SERVICE_WRITE,
          VRKFS_SERVICE_AVAILABLE_SPACE, VRKFS_SERVICE_CREATE_MEDIA_FILE, 0u, 9u, 0xFFFFFFFFu}) {
        endless.Type = type;
        EXPECT_EQ(Ask(endless), 1u) << type;
    }
    endless.Type = VRKFS_SERVICE_UPDATE_PREFS;
    EXPECT_EQ(Ask(endless), 0u);

    ASSERT_EQ(OpenClip(Path(u"CLIP.RZV")), 0u);
    EXPECT_EQ(handle_, 0xFFFFFFFFu);
    const std::uint32_t first = handle_;
    ASSERT_EQ(OpenClip(Path(u"CLIP.RZV")), 0u);
    EXPECT_NE(handle_, 0u);
    EXPECT_NE(handle_, first);
    EXPECT_EQ(Transfer(VRKFS_SERVICE_READ, handle_ + 1, service::FileKind::kRaw, 0, 0, 10), 1u);
    for (const int kind : {0, 5}) {
        EXPECT_EQ(Transfer(VRKFS_SERVICE_READ, handle_, static_cast<service::FileKind>(kind), 0, 0, 10), 1u) << kind;
    }
    EXPECT_EQ(ReadRaw(0x7FFFFFFF, 10), 1u);
    EXPECT_EQ(ReadRaw(0xFFFFFFFF, 10), 1u);
    // Behind the file there are zeros, as far as anybody asks.
    EXPECT_EQ(Transfer(VRKFS_SERVICE_READ, handle_, service::FileKind::kRaw, 0, 0xFFFFFFFFFFFFFF00, 3 << 20), 0u);
    EXPECT_TRUE(data_ == service::Bytes(3 << 20));
    EXPECT_EQ(Transfer(VRKFS_SERVICE_READ, handle_, service::FileKind::kRaw, 0, 0, 0), 0u);
    EXPECT_EQ(Transfer(VRKFS_SERVICE_WRITE, handle_, service::FileKind::kRaw, 0, 0, 0), 1u);
    EXPECT_NE(log_.find("the file is empty"), std::string::npos) << log_;
    for (const std::uint64_t offset : {0xFFFFFFFFFFFFFF00u, 0xFFFFFFFFFFFFFFFFu, 829'400ul}) {
        EXPECT_EQ(Transfer(VRKFS_SERVICE_WRITE, handle_, service::FileKind::kRaw, 0, offset, 0x100), 1u);
    }
    ExpectClip(Order(u"CLIP.RZV", false, 3));
}

// A table that leads out of the clip's own space, as a program that has it in memory can make it.
TEST_F(CardServiceTest, WritesNothingOutsideTheClip) {
    const examples::RecordOrder order = Order(u"CLIP.RZV", false, 3);
    const examples::RecordOrder next = Order(u"NEXT.RZV", false, 4);
    ASSERT_TRUE(examples::Record(NewClient().get(), order));
    ASSERT_TRUE(examples::Record(NewClient().get(), next));
    ASSERT_EQ(OpenClip(order.path), 0u);
    const VrkFsHandle file = OpenFile(order.path, VRKFS_OPEN_PLAYER);
    VrkFsSectionName name;
    ASSERT_OK(VrkFsClientReferenceBodyTable(client_.get(), control_, file, VRKFS_STREAM_VIDEO, &name));
    VrkFsNodeView view{};
    ASSERT_OK(VrkFsClientMapNodes(client_.get(), &name, 1, &view));
    const VrkFsPlacedNode good = view.Nodes[3];
    VrkFsFileInfo info{};
    ASSERT_OK(VrkFsClientGetFileInfo(client_.get(), control_, file, &info));
    const VrkFsPlacedNode wrong[] = {{good.ScsiId, info.DataLba - 1, {1, 0}},
                                     {good.ScsiId, info.DataLba + info.DataBlocks, {1, 0}},
                                     {good.ScsiId, info.DataLba + info.DataBlocks - 1, {1, 1}},
                                     {good.ScsiId, 0xFFFFFFFF, {1, 1}},
                                     {2, good.Lba, good.Node},
                                     {0xFFFFFFFF, good.Lba, good.Node},
                                     {good.ScsiId, good.Lba, {0xFFFF, 0xFFFF}}};
    for (const VrkFsPlacedNode& each : wrong) {
        view.Nodes[3] = each;
        EXPECT_EQ(ReadRaw(1, 100), 1u);
        EXPECT_EQ(Transfer(VRKFS_SERVICE_WRITE, handle_, service::FileKind::kRaw, 1, 0, 1 << 20), 1u);
    }
    view.Nodes[3] = good;
    EXPECT_EQ(ReadRaw(1, 100), 0u) << log_;
    VrkFsClientUnmapNodes(client_.get(), &view);
    EXPECT_OK(VrkFsClientClose(client_.get(), file));
    ExpectClip(order);
    ExpectClip(next);
}

}  // namespace
}  // namespace tests
