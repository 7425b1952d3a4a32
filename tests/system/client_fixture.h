// A volume on a machine, client processes of it, in this program or through the socket, and the look at a finished clip
// through the file system.
#pragma once

#include <vrkfs/client.h>

#include <numeric>
#include <string>
#include <vector>

#include "client/client.h"
#include "examples/player.h"
#include "examples/recorder.h"
#include "link/connection.h"
#include "link/server.h"
#include "tests/support/machine_fixture.h"

namespace tests {

using Bytes = std::vector<std::byte>;

#define EXPECT_OK(call) EXPECT_EQ(host::StatusName(host::Status{call}), "STATUS_SUCCESS")
#define ASSERT_OK(call) ASSERT_EQ(host::StatusName(host::Status{call}), "STATUS_SUCCESS")

class ClientTest : public MachineTest {
  protected:
    // A volume VOL of the card's first disks, with a folder CLIPS. `socket`: every process is at the end of one.
    void StartVolume(std::uint32_t disks, bool socket = false) {
        disks_ = disks;
        socket_ = socket;
        MakeStation(disks);
        Start();
        OpenDoor();
        std::vector<std::uint32_t> ids(disks);
        std::iota(ids.begin(), ids.end(), 0u);
        ASSERT_EQ(Format(u"VOL", ids), 0);
        OpenOnce(u"P:\\RZV\\VOL\\CLIPS", VRKFS_OPEN_READ | VRKFS_OPEN_CREATE | VRKFS_OPEN_FOLDER);
    }
    void RestartVolume() {
        CloseDoor();
        Restart();
        OpenDoor();
    }
    void TearDown() override {
        CloseDoor();
        MachineTest::TearDown();
    }

    void OpenDoor() {
        if (socket_) {
            host::Problem problem;
            server_ = vlink::Server::Start(Machine(), SocketPath(), log_, problem, limits_);
            ASSERT_TRUE(server_) << problem.what;
            access_ = vlink::Connect(SocketPath(), problem);
            ASSERT_TRUE(access_) << problem.what;
        }
        process_ = NewProcess();
        client_ = NewClient();
        ASSERT_OK(VrkFsClientOpenControl(client_.get(), 0, &control_));
    }
    // Everything that came through it.
    void CloseDoor() {
        client_.reset();
        process_.reset();
        access_.reset();
        server_.reset();
    }
    std::filesystem::path SocketPath() const { return vlink::SocketOf(StationPath()); }

    std::unique_ptr<host::Process> NewProcess() {
        host::Problem problem;
        auto process = (access_ ? *access_ : Machine()).NewProcess(problem);
        EXPECT_TRUE(process) << problem.what;
        return process;
    }
    client::ClientPointer NewClient() { return client::MakeClient(NewProcess()); }

    static std::u16string Path(const std::u16string& name) { return u"P:\\RZV\\VOL\\CLIPS\\" + name; }

    static examples::RecordOrder Order(const std::u16string& name, bool alpha, std::uint64_t seed) {
        return {.path = Path(name),
                .reservedFrames = 100,
                .frames = 12,
                .alpha = alpha,
                .pattern = {seed, 0, 24},
                .watch = {}};
    }

    VrkFsHandle OpenFile(const std::u16string& path, std::uint32_t flags) {
        VrkFsHandle file = 0;
        EXPECT_OK(VrkFsClientOpenFile(client_.get(), path.c_str(), flags, &file));
        return file;
    }

    void OpenOnce(const std::u16string& path, std::uint32_t flags) {
        EXPECT_OK(VrkFsClientClose(client_.get(), OpenFile(path, flags)));
    }
    void Delete(const std::u16string& path) {
        const VrkFsHandle file = OpenFile(path, VRKFS_OPEN_DELETE);
        EXPECT_OK(VrkFsClientSetDelete(client_.get(), file, 1));
        EXPECT_OK(VrkFsClientClose(client_.get(), file));
    }

    // Free blocks of one disk; all disks have the same.
    std::uint64_t FreeBlocks() {
        const VrkFsHandle folder = OpenFile(u"P:\\RZV\\VOL\\CLIPS", VRKFS_OPEN_PLAYER | VRKFS_OPEN_FOLDER);
        VrkFsVolumeSpaceInfo space{};
        EXPECT_OK(VrkFsClientGetVolumeSpace(client_.get(), control_, folder, &space));
        EXPECT_OK(VrkFsClientClose(client_.get(), folder));
        return space.FreeBlocks / disks_;
    }

    Bytes ReadWhole(const std::u16string& path) {
        const host::ScopedHandle file(User(), Open(path.substr(2)).handle);
        host::FileFacts facts;
        EXPECT_TRUE(host::QueryFacts(User(), file.Get(), facts).Ok());
        Bytes image(std::min<std::uint64_t>(facts.size, 64 << 20));
        if (!image.empty()) {
            EXPECT_EQ(User().Read(file.Get(), image, 0).information, image.size());
        }
        return image;
    }

    // Whether the file system gives back what was recorded: parameters, note, tables and fields.
    void ExpectClip(const examples::RecordOrder& order) {
        const Bytes image = ReadWhole(order.path);
        const std::uint64_t table = VrkFsBodyTableBytes(order.frames);
        std::uint64_t place = VrkFsMediaHeaderSize(table, order.alpha);
        ASSERT_GE(image.size(), place);
        VideoParameters parameters;
        std::memcpy(&parameters, &image[VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET], sizeof(parameters));
        EXPECT_EQ(parameters.FrameCount, order.frames);
        EXPECT_EQ(parameters.Height, order.is625 ? VRKFS_VIDEO_HEIGHT_625 : VRKFS_VIDEO_HEIGHT_525);
        EXPECT_EQ(parameters.SdtiType, VRKFS_SDTI_CODE_UNCOMPRESSED);
        const examples::RecordingNote note = examples::MakeNote(order.pattern);
        EXPECT_EQ(std::memcmp(&image[VRKFS_MEDIA_APPLICATION_BLOCK_OFFSET], &note, sizeof(note)), 0);

        const std::uint64_t tables[2] = {VrkFsMediaVideoBodyTableOffset(order.alpha),
                                         VrkFsMediaAlphaBodyTableOffset(table)};
        for (std::uint32_t stream = 0; stream < (order.alpha ? 2u : 1u); ++stream) {
            place += VRKFS_CHUNK_HEADER_SIZE;
            for (std::uint32_t field = 0; field < order.frames * VRKFS_FIELDS_PER_FRAME; ++field) {
                SCOPED_TRACE(std::to_string(stream) + ", " + std::to_string(field));
                BodyTableNode node;
                std::memcpy(&node, &image[tables[stream] + field * sizeof(node)], sizeof(node));
                const std::uint32_t sectors = VrkFsBodyTableNodeSectors(node);
                ASSERT_EQ(sectors, examples::FieldSectors(order.pattern, stream, field));
                const std::uint64_t bytes = sectors * VRKFS_SECTOR_SIZE;
                ASSERT_LE(place + bytes, image.size());
                ASSERT_TRUE(examples::IsField(order.pattern, stream, field, std::span(image).subspan(place, bytes)));
                place += bytes;
            }
        }
        EXPECT_EQ(place, image.size());
    }

    bool socket_ = false;
    vlink::Log log_ = [](const std::string&) {};
    vlink::Limits limits_;
    std::unique_ptr<vlink::Server> server_;
    std::unique_ptr<host::Access> access_;
    client::ClientPointer client_;
    VrkFsHandle control_ = 0;
    std::uint32_t disks_ = 0;
};

}  // namespace tests
