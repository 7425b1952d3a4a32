// Control codes with any buffers and lengths, on handles of every kind, while files are opened, read and closed; and
// requests as recorders, movers and stations make them, with fields that are right, nearly right or hostile. Whatever
// they did, one clip that they leave alone reads back afterwards, and what is put then lies beside it.
#include <vrkfs/service.h>

#include "control/ioctl.h"
#include "fuzz/answerer.h"

namespace fuzz {
namespace {

// What the next byte asks for.
enum Step : std::uint8_t {
    kKnownCode,
    kOddCode,
    kCloseAll,
    kOpenAll,
    kUse,
    kPort,
    kMedia,
    kMediaAgain,
    kOpenMedia,
    kSteps
};

// What a media step does with the file that it is about.
enum Media : std::uint8_t {
    kAllocate,
    kUpdate,
    kCreateTable,
    kAddVideo,
    kAddAlpha,
    kReference,
    kDereference,
    kMove,
    kSuspend,
    kResume,
    kLock,
    kUnlock,
    kSetPreferences,
    kSetScsiPrefs,
    kSdtiType,
    kApplicationInfo,
    kAskAll,
    kRename,
    kWrite,
    kUseTable,
    kMedias
};

// How a known code is sent.
constexpr std::uint8_t kOtherLengths = 0x01;  // any lengths, else the ones that the code wants, give or take
constexpr std::uint8_t kToOther = 0x02;       // to another handle than the control device's
constexpr std::uint8_t kHandleFirst = 0x04;   // the input begins with a handle
constexpr std::uint8_t kWrongMethod = 0x08;

constexpr std::size_t kMaxBuffer = 4096;

class Caller {
  public:
    Caller(host::Process& user, Input& input) : user_(user), input_(input) {
        control_ = Open(u"VrkFsDevice0");
        host::OpenRequest request;
        request.path = u"VrkFsDevice0";
        request.access = kReadWrite;
        request.overlapped = true;
        service_ = host::ScopedHandle(user_, user_.Create(request).handle);
        VrkFsFileTypeList types{1, {{}}};
        types.Rows[0].TypeCode = 1;
        std::copy_n(u"XYZ", 3, types.Rows[0].Extension);
        types.Rows[0].FrameSize = 1000;
        types.Rows[0].FrameSizeWithAlpha = 1500;
        (void)Tell(IOCTL_VRKFS_REGISTER_FILE_TYPES, types);
        types.Rows[0].AccessMode = VRKFS_FILE_TYPE_FRAME_FOLDERS;
        std::copy_n(u"FRM", 3, types.Rows[0].Extension);
        (void)Tell(IOCTL_VRKFS_REGISTER_FILE_TYPES, types);
        OpenAll();
    }

    void Run() {
        for (int i = 0; i < 40 && !input_.Empty(); ++i) {
            switch (input_.Take<std::uint8_t>() % kSteps) {
                case kMedia:
                case kMediaAgain:
                    UseMedia();
                    break;
                case kOpenMedia:
                    OpenMedia();
                    break;
                case kKnownCode:
                    SendKnown();
                    break;
                case kOddCode:
                    Send(control_.Get(), 0x00222000 + input_.Take<std::uint16_t>() % 0x200, Any(), Any(), false);
                    break;
                case kCloseAll:
                    others_.clear();
                    media_.clear();
                    break;
                case kOpenAll:
                    OpenAll();
                    break;
                case kUse:
                    Use();
                    break;
                default:
                    UsePort();
            }
        }
    }
    // No volume was made anew, so the clip that nobody touched is there.
    bool KeepsVolume() const { return !formatted_; }

  private:
    host::ScopedHandle Open(const char16_t* path) {
        return {user_, OpenPath(user_, path, host::Disposition::kOpen, kReadWrite).handle};
    }
    void OpenAll() {
        others_.clear();
        for (const char16_t* path :
             {u"P:", u"P:\\", u"P:\\RZV\\V", u"P:\\RZV\\V\\A", u"P:\\RZV\\V\\A\\ONE.RZV", u"P:\\RZV\\V\\A\\___Port0___",
              u"\\Device\\Vrk0", u"P:\\FRM\\V\\A\\ONE.RZV\\ONE0001.FRM"}) {
            others_.push_back(Open(path));
        }
    }
    host::Handle Other() {
        const auto which = input_.Take<std::uint8_t>();
        return others_.empty() ? which : others_[which % others_.size()].Get();
    }
    std::size_t Any() { return input_.Take<std::uint16_t>() % kMaxBuffer; }
    std::size_t About(std::size_t wanted) {
        const auto off = input_.Take<std::uint8_t>();
        return off < 0xC0 ? wanted : wanted + off % 3 - std::min<std::size_t>(wanted, 1);
    }

    void SendKnown() {
        const std::uint32_t code =
            IOCTL_VRKFS_DISMOUNT_VOLUME + 4 * (input_.Take<std::uint8_t>() % VRKFS_CONTROL_CODE_COUNT);
        const auto how = input_.Take<std::uint8_t>();
        const ControlCodeRule* rule = nullptr;
        std::uint32_t sent = code;
        for (std::uint32_t method = 0; method < 4; ++method) {
            if (const auto* found = VrkFsIoctlFindRule(code + method)) {
                rule = found;
                sent = code + method;
            }
        }
        if ((how & kWrongMethod) != 0) {
            sent ^= 1 + input_.Take<std::uint8_t>() % 3;
        }
        const bool anyLength = (how & kOtherLengths) != 0 || rule == nullptr;
        const std::size_t in = anyLength ? Any() : About(rule->InLength);
        const std::size_t out = anyLength ? Any() : About(rule->OutLength);
        Send((how & kToOther) != 0 ? Other() : control_.Get(), sent, in, out, (how & kHandleFirst) != 0);
    }

    void Send(host::Handle to, std::uint32_t code, std::size_t in, std::size_t out, bool handleFirst) {
        std::vector<std::byte> given(in);
        std::vector<std::byte> back(out);
        std::size_t place = 0;
        if (handleFirst && in >= sizeof(host::Handle)) {
            const auto handle = static_cast<std::uint32_t>(Other());
            std::memcpy(given.data(), &handle, sizeof(handle));
            place = sizeof(handle);
        }
        // Pieces of bytes with zeros between them.
        while (place < in && !input_.Empty()) {
            const auto bytes = input_.TakeBytes(std::min<std::size_t>(input_.Take<std::uint8_t>() % 32, in - place));
            std::copy(bytes.begin(), bytes.end(), given.begin() + static_cast<std::ptrdiff_t>(place));
            place += bytes.size();
            const std::size_t skip = input_.Take<std::uint8_t>();
            if (skip == 0) {
                break;
            }
            place += skip * 2;
        }
        if (code == IOCTL_VRKFS_SEND_SERVICE_REQUEST || code == IOCTL_VRKFS_SEND_SERVICE_RESPONSE) {
            SendForService(code, std::move(given), std::move(back));
        } else {
            const host::IoResult done = user_.DeviceControl(to, code, given, back);
            formatted_ = formatted_ || (code == IOCTL_VRKFS_FORMAT_VOLUME && done.status.Ok());
        }
    }
    // The two codes of a service may wait for work as long as the process lives. What fetches belongs to the answerer.
    void SendForService(std::uint32_t code, std::vector<std::byte> in, std::vector<std::byte> out) {
        if (code == IOCTL_VRKFS_SEND_SERVICE_REQUEST && out.size() >= sizeof(VrkFsServiceRequest)) {
            return;
        }
        auto buffers =
            std::make_shared<std::pair<std::vector<std::byte>, std::vector<std::byte>>>(std::move(in), std::move(out));
        (void)user_.DeviceControlOverlapped(
            service_.Get(), code, buffers->first, buffers->second, [buffers](host::IoResult) {}, nullptr);
    }

    void Use() {
        const host::Handle handle = Other();
        std::vector<std::byte> buffer(600);
        std::vector<host::DirectoryEntry> entries;
        host::FileFacts facts;
        switch (input_.Take<std::uint8_t>() % 6) {
            case 0:
                (void)user_.Read(handle, buffer, input_.Take<std::uint16_t>());
                break;
            case 1:
                (void)host::ListDirectory(user_, handle, entries);
                break;
            case 2:
                (void)host::QueryFacts(user_, handle, facts);
                break;
            case 3:
                (void)user_.FileSystemControl(handle, input_.Take<std::uint32_t>(), buffer, buffer);
                break;
            case 4:
                (void)user_.Write(handle, buffer, input_.Take<std::uint16_t>());
                break;
            default:
                (void)host::SetDeleteOnCleanup(user_, handle, (input_.Take<std::uint8_t>() & 1) != 0);
        }
    }

    // A command in pieces through the command port, and its reply.
    void UsePort() {
        const host::ScopedHandle port = Open(u"P:\\RZV\\V\\A\\___Port0___");
        const std::size_t offset = (input_.Take<std::uint8_t>() & 7) != 0 ? 0 : Any();
        const std::size_t count = input_.Take<std::uint8_t>();
        const auto bytes = input_.TakeBytes(count);
        (void)user_.Write(port.Get(), bytes, offset);
        std::vector<std::byte> reply(Any());
        (void)user_.Read(port.Get(), reply, input_.Take<std::uint8_t>());
    }

    // ---- Files as recorders, players and movers have them ----

    void OpenMedia() {
        constexpr const char16_t* kPaths[] = {u"P:\\RZV\\V\\A\\ONE.RZV",
                                              u"P:\\RZV\\V\\B\\ONE.RZV",
                                              u"P:\\RZV\\V\\A\\NEW.RZV",
                                              u"P:\\RZV\\V\\B\\NEW.RZV",
                                              u"P:\\RZV\\V\\A\\RENAMED.RZV",
                                              u"P:\\RZV\\V\\B\\RENAMED.RZV",
                                              u"P:\\XYZ\\V\\A\\ONE.RZV\\note",
                                              u"P:\\XYZ\\V\\A\\ONE.RZV\\note2",
                                              u"P:\\XYZ\\V\\A\\ONE.RZV\\ONE0001.XYZ",
                                              u"P:\\XYZ\\V\\A\\ONE.RZV",
                                              u"P:\\RZV\\V\\A",
                                              u"P:\\RZV\\V"};
        constexpr std::uint32_t kRights[] = {kReadWrite | host::access::kDelete, host::access::kReadData,
                                             host::access::kWriteData, host::access::kDelete};
        const auto how = input_.Take<std::uint8_t>();
        host::OpenRequest request;
        request.path = kPaths[input_.Take<std::uint8_t>() % std::size(kPaths)];
        request.access = kRights[how % 4];
        request.shareAccess = (how & 0x10) != 0 ? host::share::kAll : host::share::kNone;
        request.disposition = (how & 0x20) != 0 ? host::Disposition::kOpen : host::Disposition::kOpenIf;
        if (media_.size() < 6) {
            media_.emplace_back();
        }
        auto& place = media_[input_.Take<std::uint8_t>() % media_.size()];
        place = {};
        place = host::ScopedHandle(user_, user_.Create(request).handle);
    }
    host::Handle Media() {
        const auto which = input_.Take<std::uint8_t>();
        return media_.empty() || which >= 0xF0 ? Other() : media_[which % media_.size()].Get();
    }
    // Mostly what is right.
    std::uint32_t Near(std::uint32_t right) {
        const auto off = input_.Take<std::uint8_t>();
        if (off < 0xA0) {
            return right;
        }
        return off < 0xC0   ? right + off - 0xB0
               : off < 0xE0 ? kEdges[off % std::size(kEdges)]
                            : input_.Take<std::uint32_t>();
    }
    std::uint32_t Lba() { return input_.Take<std::uint16_t>() % (kDiskBytes / 512 + 64); }
    template <typename In>
    bool Tell(std::uint32_t code, const In& in) {
        return user_.DeviceControl(control_.Get(), code, std::as_bytes(std::span(&in, 1)), {}).status.Ok();
    }
    template <typename Record>
    bool Exchange(std::uint32_t code, Record& record) {
        const Record in = record;
        return user_
            .DeviceControl(control_.Get(), code, std::as_bytes(std::span(&in, 1)),
                           std::as_writable_bytes(std::span(&record, 1)))
            .status.Ok();
    }

    void UseMedia() {
        const auto what = input_.Take<std::uint8_t>() % kMedias;
        const host::Handle file = Media();
        VrkFsFileInfo info{};
        info.Handle = file;
        (void)Exchange(IOCTL_VRKFS_GET_FILE_INFO, info);
        switch (what) {
            case kAllocate:
                Allocate(file);
                break;
            case kUpdate:
                Update(file, info);
                break;
            case kCreateTable:
                (void)Tell(IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, VrkFsBodyTableCreation{file, Near(16), 0});
                break;
            case kAddVideo:
                Nodes(IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE,
                      VrkFsBodyTableNodes{file, Near(info.BodyTableLba), Near(info.BodyTableBlocks), Near(0)});
                break;
            case kAddAlpha:
                Nodes(
                    IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE,
                    VrkFsBodyTableNodes{file, Near(info.AlphaBodyTableLba), Near(info.AlphaBodyTableBlocks), Near(0)});
                break;
            case kReference:
                Nodes(IOCTL_VRKFS_REFERENCE_BODY_TABLE,
                      VrkFsBodyTableReference{file, static_cast<std::uint8_t>(Near(0)), {}, Near(0)});
                break;
            case kDereference:
                (void)Tell(IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, VrkFsBodyTableDereference{file, Near(0)});
                break;
            case kMove:
                Move(file);
                break;
            case kRename:
                Rename(file);
                break;
            case kWrite:
                WriteAnything(file);
                break;
            case kUseTable:
                UseTable();
                break;
            default:
                Set(what, file);
        }
    }

    void Allocate(host::Handle file) {
        VrkFsVideoSpace space{};
        space.Handle = file;
        space.BodyTableBlocksWanted = Near(1);
        space.DataBlocksWanted = Near(40);
        space.Flags = input_.Take<std::uint8_t>();
        (void)Exchange(IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, space);
    }
    void Update(host::Handle file, const VrkFsFileInfo& info) {
        VrkFsVideoFileUpdate update{};
        update.Handle = file;
        update.Flags = input_.Take<std::uint8_t>();
        update.FrameCount = Near(3);
        update.VideoBodyTableAllocated = Near(info.BodyTableBlocks);
        update.VideoDataAllocated = Near(info.DataBlocks);
        update.VideoBodyTableUsed = Near(info.BodyTableBlocks);
        update.VideoDataUsed = Near(info.DataBlocks / 2);
        update.VideoDataLength = Near(info.DataBlocks);
        update.AlphaBodyTableAllocated = Near(info.AlphaBodyTableBlocks);
        update.AlphaDataAllocated = Near(info.AlphaDataBlocks);
        update.AlphaBodyTableUsed = Near(info.AlphaBodyTableBlocks);
        update.AlphaDataUsed = Near(info.AlphaDataBlocks / 2);
        update.AlphaDataLength = Near(info.AlphaDataBlocks);
        (void)Exchange(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update);
    }
    template <typename In>
    void Nodes(std::uint32_t code, const In& in) {
        std::array<char16_t, 800> name{};
        const std::size_t bytes = std::min<std::size_t>(Near(sizeof(name)), sizeof(name));
        const host::IoResult done = user_.DeviceControl(control_.Get(), code, std::as_bytes(std::span(&in, 1)),
                                                        std::as_writable_bytes(std::span(name)).first(bytes));
        if (done.status.Ok() && name[0] != 0) {
            section_.assign(name.data(), std::find(name.begin(), name.end(), u'\0'));
        }
    }
    // A table that is shared is anybody's to fill with nonsense.
    void UseTable() {
        host::Process::SectionView view;
        const bool writable = (input_.Take<std::uint8_t>() & 1) != 0;
        if (section_.empty() || !user_.MapSection(section_, writable, view).Ok()) {
            return;
        }
        if (writable) {
            const auto bytes = input_.TakeBytes(input_.Take<std::uint8_t>());
            std::copy_n(bytes.begin(), std::min(bytes.size(), view.bytes.size()), view.bytes.begin());
        }
        if (input_.Take<std::uint8_t>() < 0xC0) {
            user_.UnmapSection(view);
        }
    }
    void Move(host::Handle file) {
        host::Process::NamedMemory counter;
        (void)user_.AllocateMemory(4, counter);
        VrkFsSegmentMove move{};
        move.Handle = file;
        for (std::uint32_t& lba : move.NewLba) {
            lba = (input_.Take<std::uint8_t>() & 1) != 0 ? Lba() : Near(0);
        }
        move.ProgressAddress = Near(counter.name);
        move.ScratchFile = Near(0);
        move.ScratchProgress = Near(0);
        if (input_.Take<std::uint8_t>() > 0xE0) {
            user_.FreeMemory(counter);
        }
        (void)Exchange(IOCTL_VRKFS_MOVE_FILE_SEGMENTS, move);
    }
    void Rename(host::Handle file) {
        constexpr const char16_t* kNames[] = {u"P:\\RZV\\V\\B\\RENAMED.RZV", u"RENAMED.RZV", u"ONE.RZV", u"KEPT.RZV",
                                              u"P:\\RZV\\V\\C\\KEPT.RZV",    u"ONE0002.XYZ", u"note2",   u""};
        (void)host::Rename(user_, file, kNames[input_.Take<std::uint8_t>() % std::size(kNames)]);
    }
    void WriteAnything(host::Handle file) {
        const std::vector<std::byte> image = clip::MakeClipImage(FuzzStation::Recipe());
        const auto how = input_.Take<std::uint8_t>();
        std::vector<std::byte> back(2000);
        if ((how & 1) != 0) {
            (void)user_.Write(file, image, (how & 2) != 0 ? input_.Take<std::uint32_t>() : 0);
        }
        (void)user_.Read(file, back, input_.Take<std::uint16_t>());
        if ((how & 4) != 0) {
            (void)user_.Flush(file);
        }
    }
    void Set(std::uint8_t what, host::Handle file) {
        switch (what) {
            case kSuspend:
                (void)user_.DeviceControl(control_.Get(), IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND, {}, {});
                break;
            case kResume:
                (void)user_.DeviceControl(control_.Get(), IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_RESUME, {}, {});
                break;
            case kLock:
                (void)Tell(IOCTL_VRKFS_LOCK_FILE_SYSTEM, VrkFsLockRequest{Near(0)});
                break;
            case kUnlock:
                (void)user_.DeviceControl(control_.Get(), IOCTL_VRKFS_UNLOCK_FILE_SYSTEM, {}, {});
                break;
            case kSetPreferences: {
                const VrkFsPreferences all{Near(4),  Near(0), Near(0), Near(0), Near(2097152),
                                           Near(10), 'P',     {},      Near(0), Near(0)};
                (void)Tell(IOCTL_VRKFS_SET_PREFERENCES, all);
                break;
            }
            case kSetScsiPrefs:
                (void)Tell(IOCTL_VRKFS_SET_SCSI_PREFS, VrkFsScsiPrefs{Near(1), Near(0)});
                break;
            case kSdtiType:
                (void)Tell(IOCTL_VRKFS_SET_SDTI_TYPE, VrkFsSdtiTypeRequest{file, Near(12), Near(1)});
                break;
            case kApplicationInfo:
                (void)Tell(IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, VrkFsApplicationInfoRequest{file, {1, 2, 3}});
                break;
            default:
                AskAll(file);
        }
    }
    void AskAll(host::Handle file) {
        VrkFsFileLocation place{};
        place.Handle = file;
        (void)Exchange(IOCTL_VRKFS_GET_FILE_LOCATION_INFO, place);
        VrkFsVolumeSpaceInfo space{file, Near(1), Near(1), 0, 0, 0, 0};
        (void)Exchange(IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, space);
        std::vector<std::byte> entry(VRKFS_FILE_ENTRY_SIZE);
        (void)user_.DeviceControl(control_.Get(), IOCTL_VRKFS_GET_FILE_ENTRY, std::as_bytes(std::span(&file, 1)),
                                  entry);
    }

    host::Process& user_;
    Input& input_;
    host::ScopedHandle control_;
    std::vector<host::ScopedHandle> media_;
    std::u16string section_;  // the last name that the driver gave
    bool formatted_ = false;
    host::ScopedHandle service_;
    std::vector<host::ScopedHandle> others_;
};

}  // namespace

// Every code with the lengths it wants and with one byte less, to the control device and elsewhere; a format that is
// right but for open files, then without them.
void WriteSeeds(Seeds& seeds) {
    for (std::uint8_t code = 0; code < VRKFS_CONTROL_CODE_COUNT; ++code) {
        for (const std::uint8_t how : {0, int{kHandleFirst}, int{kToOther}, int{kWrongMethod}}) {
            seeds.Add({kKnownCode, code, how, 0, 0, 4, 1, 2, 3, 4, 0});
            seeds.Add({kKnownCode, code, how, 0xC0, 0, 4, 1, 2, 3, 4, 0});
            seeds.Add({kKnownCode, code, how, 0, 0xC0, 4, 1, 2, 3, 4, 0});
        }
    }
    VrkFsVolumeInfoRecord record{};
    record.Name[0] = u'N';
    record.DeviceCount = kDisks;
    record.Devices[1] = 1;
    std::vector<std::uint8_t> format{kKnownCode, 1, 0, 0, 0};
    const auto* at = reinterpret_cast<const std::uint8_t*>(&record);
    for (std::size_t place = 0; place < sizeof(record);) {
        const std::size_t piece = std::min<std::size_t>(26, sizeof(record) - place);
        format.push_back(static_cast<std::uint8_t>(piece));
        format.insert(format.end(), at + place, at + place + piece);
        format.push_back(piece == 26 ? 1 : 0);  // two bytes stay zero
        place += piece + 2;
    }
    seeds.Add(format);
    format.insert(format.begin(), kCloseAll);
    format.insert(format.end(), {kOpenAll, kUse, 3, 1});
    seeds.Add(format);
    for (std::uint8_t use = 0; use < 5; ++use) {
        seeds.Add({kUse, 4, use, 0, 0, kUse, 3, use, 0, 0, kUse, 2, use, 0, 0});
    }
    // A clip recorded, settled, moved and renamed, and each request on files opened in each way.
    const std::uint8_t file = 0x00;
    for (const std::uint8_t alpha : {0, 1}) {
        std::vector<std::uint8_t> life{kOpenMedia, 0, 2, 0};
        const auto then = [&life](std::uint8_t what, std::initializer_list<std::uint8_t> rest) {
            life.insert(life.end(), {kMedia, what});
            life.insert(life.end(), rest);
        };
        then(kAllocate, {file, 0, 0, 4});
        then(kAllocate, {file, 0, 0, 5});
        then(kCreateTable, {file, 0});
        then(kAddVideo, {file, 0, 0, 0, 0});
        then(kAddAlpha, {file, 0, 0, 0, 0});
        then(kUseTable, {1, 24, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0});
        then(kUpdate, {file, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        then(kDereference, {file, 0});
        then(kMove, {file, 1, 0x00, 0x18, 1, 0x00, 0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        then(kRename, {file, alpha});
        then(kAskAll, {file, 0, 0});
        then(kReference, {file, alpha});
        seeds.Add(life);
    }
    for (std::uint8_t segment = 0; segment < VRKFS_SEGMENT_COUNT; ++segment) {
        for (const std::uint8_t off : {0, 1}) {
            std::vector<std::uint8_t> move{kOpenMedia, 0, 0, 0, kMedia, kMove, file};
            for (std::uint8_t other = 0; other < VRKFS_SEGMENT_COUNT; ++other) {
                move.push_back(other == segment ? 1 : 0);
                move.push_back(static_cast<std::uint8_t>(other == segment ? 0x40 + off : 0));
                if (other == segment) {
                    move.push_back(0x10);
                }
            }
            seeds.Add(move);
        }
    }
    for (std::uint8_t what = 0; what < kMedias; ++what) {
        for (std::uint8_t path = 0; path < 12; path = static_cast<std::uint8_t>(path + 3)) {
            seeds.Add(
                {kOpenMedia, 0x10, path, 0, kMedia, what, file, 7, 0, 0, 0, kMedia, what, file, 0xB3, 0xC5, 0xD1});
        }
    }
    for (std::uint8_t command = 0; command < 16; ++command) {
        seeds.Add({kPort, 1, 16, 16, 0, 0, 0, command, 0, 0, 0, 'A', 0, 0, 0, 0, 0, 0, 0, 100, 0, 0});
    }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    fuzz::Input input(data, size);
    station.Restore();
    bool keepsVolume = true;
    {
        auto machine = station.Start();
        {
            auto user = machine->NewProcess();
            const fuzz::Answerer answerer(*user, std::as_bytes(std::span(data, size)));
            fuzz::Caller caller(*user, input);
            caller.Run();
            keepsVolume = caller.KeepsVolume();
        }
        fuzz::FuzzStation::Stop(*machine);
    }
    if (!keepsVolume) {
        return 0;
    }
    // What is on the disks now, as the next driver sees it.
    auto machine = station.Start();
    {
        auto user = machine->NewProcess();
        if (!fuzz::HoldsTheClip(*user, fuzz::kKept)) {
            fuzz::Fail("the clip that nobody touched does not read back");
        }
        fuzz::Walk(*user).Everything();
        if (!fuzz::HoldsTheClip(*user, fuzz::kKept)) {
            fuzz::Fail("a clip was put over the one that nobody touched");
        }
    }
    fuzz::FuzzStation::Stop(*machine);
    return 0;
}
