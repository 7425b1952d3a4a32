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
    kAside
};

// Requests as recorders, players and movers make them: their words as they should be. What is sent is mostly that.
constexpr std::uint32_t kFile = 0x81000000;   // the file's handle
constexpr std::uint32_t kByte = 0x82000000;   // any byte
constexpr std::uint32_t kPlace = 0x83000000;  // the address of a block, or 0
constexpr std::uint32_t kName = 0x84000000;   // of memory
constexpr std::uint32_t kJust = 0x85000000;   // and a value that is never another
constexpr std::uint32_t kInfo = 0x86000000;   // and the offset of a word in what is told of the file
constexpr std::uint32_t kHalf = 0x01000000;   // of such a word
constexpr std::uint32_t kKind = 0xFF000000;

constexpr std::uint32_t kData = kInfo + offsetof(VrkFsFileInfo, DataBlocks);
constexpr std::uint32_t kTable = kInfo + offsetof(VrkFsFileInfo, BodyTableBlocks);
constexpr std::uint32_t kTableLba = kInfo + offsetof(VrkFsFileInfo, BodyTableLba);
constexpr std::uint32_t kAlphaData = kInfo + offsetof(VrkFsFileInfo, AlphaDataBlocks);
constexpr std::uint32_t kAlphaTable = kInfo + offsetof(VrkFsFileInfo, AlphaBodyTableBlocks);
constexpr std::uint32_t kAlphaTableLba = kInfo + offsetof(VrkFsFileInfo, AlphaBodyTableLba);

const struct MediaRequest {
    std::uint32_t code;
    std::vector<std::uint32_t> words;
} kRequests[] = {
    {IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, {kFile, 1, 40, kByte}},
    {IOCTL_VRKFS_UPDATE_VIDEO_FILE,
     {kFile, 3, kTable, kData, kTable, kData + kHalf, kData, kJust, kAlphaTable, kAlphaData, kAlphaTable,
      kAlphaData + kHalf, kAlphaData, kJust, kByte}},
    {IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, {kFile, 16}},
    {IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE, {kFile, kTableLba, kTable, 0}},
    {IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE, {kFile, kAlphaTableLba, kAlphaTable, 0}},
    {IOCTL_VRKFS_REFERENCE_BODY_TABLE, {kFile, kByte, 0}},
    {IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, {kFile, 0}},
    {IOCTL_VRKFS_MOVE_FILE_SEGMENTS,
     {kFile, kPlace, kPlace, kPlace, kPlace, kPlace, kName, kJust, kJust, kJust, kJust, kJust, 0, 0}},
    {IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND, {}},
    {IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_RESUME, {}},
    {IOCTL_VRKFS_LOCK_FILE_SYSTEM, {0}},
    {IOCTL_VRKFS_UNLOCK_FILE_SYSTEM, {}},
    {IOCTL_VRKFS_SET_PREFERENCES, {4, 0, 0, 0, 2097152, 10, kJust + 'P', kJust, 0, 0}},
    {IOCTL_VRKFS_SET_SCSI_PREFS, {1, 0}},
    {IOCTL_VRKFS_SET_SDTI_TYPE, {kFile, 12, 1}},
    {IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, {kFile, 0x030201}},
    {IOCTL_VRKFS_GET_FILE_LOCATION_INFO, {kFile}},
    {IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, {kFile, 1, 1}},
    {IOCTL_VRKFS_GET_FILE_ENTRY, {kFile}},
};
// What a media step does with the file that it is about: one of those requests, the first of them by name, or a call.
enum Request : std::uint8_t { kAllocate, kUpdate, kCreateTable, kAddVideo, kAddAlpha, kReference, kDereference, kMove };
enum Call : std::uint8_t { kRename = std::size(kRequests), kWrite, kUseTable, kMediaSteps };

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
        service_ = Opened(user_, {.path = u"VrkFsDevice0", .access = kReadWrite, .overlapped = true});
        VrkFsFileTypeList types{1, {{}}};
        VrkFsFileType& type = types.Rows[0];
        type.TypeCode = 1;
        type.FrameSize = type.FrameSizeWithAlpha = type.FrameSizeSdti1 = type.FrameSizeSdti1WithAlpha = 1000;
        type.FrameSizeSdti12 = type.FrameSizeSdti12WithAlpha = 1500;
        std::copy_n(u"XYZ", 3, type.Extension);
        Tell(IOCTL_VRKFS_REGISTER_FILE_TYPES, types);
        type.AccessMode = VRKFS_FILE_TYPE_FRAME_FOLDERS;
        std::copy_n(u"FRM", 3, type.Extension);
        Tell(IOCTL_VRKFS_REGISTER_FILE_TYPES, types);
        OpenAll();
    }

    void Run() {
        constexpr void (Caller::*kSteps[])() = {&Caller::SendKnown, &Caller::SendOdd,  &Caller::CloseAll,
                                                &Caller::OpenAll,   &Caller::Use,      &Caller::UsePort,
                                                &Caller::UseMedia,  &Caller::UseMedia, &Caller::OpenMedia};
        for (int i = 0; i < 40 && !input_.Empty(); ++i) {
            (this->*kSteps[input_.Take<std::uint8_t>() % std::size(kSteps)])();
        }
    }
    // No volume was made anew, so the clip that nobody touched is there.
    bool KeepsVolume() const { return !formatted_; }

  private:
    host::ScopedHandle Open(const char16_t* path) { return Opened(user_, {.path = path, .access = kReadWrite}); }
    void CloseAll() {
        others_.clear();
        media_.clear();
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

    void SendOdd() { Send(control_.Get(), 0x00222000 + input_.Take<std::uint16_t>() % 0x200, Any(), Any(), false); }
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
        const host::Handle handle = Media();
        std::vector<std::byte> buffer(600);
        std::vector<host::DirectoryEntry> entries;
        host::FileFacts facts;
        const auto what = input_.Take<std::uint8_t>() % 11;
        const std::uint32_t kind = what < 5 || what > 9 ? 0 : input_.Take<std::uint8_t>() % 48;  // of information
        switch (what) {
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
            case 5:
                (void)user_.QueryInformation(handle, kind, buffer);
                break;
            case 6:
                (void)user_.QueryVolumeInformation(handle, kind, buffer);
                break;
            case 7:
                (void)user_.SetInformation(handle, kind, input_.TakeBytes(input_.Take<std::uint8_t>()));
                break;
            case 8:
                (void)user_.SetVolumeInformation(handle, kind, input_.TakeBytes(input_.Take<std::uint8_t>()));
                break;
            case 9:
                (void)user_.QueryDirectory(handle, {.informationClass = kind, .pattern = u"*.R?V"}, buffer);
                break;
            default:
                (void)host::SetDeleteOnCleanup(user_, handle, (input_.Take<std::uint8_t>() & 1) != 0);
        }
    }
    // What may end at any time, or not before its handle closes.
    void SendAside() {
        const auto how = input_.Take<std::uint8_t>();
        const auto offset = input_.Take<std::uint16_t>();
        const auto buffer = std::make_shared<std::vector<std::byte>>((how & 8) != 0 ? 2000 : 0);
        const auto done = [buffer](host::IoResult) {};
        if (aside_.size() < 4) {
            constexpr const char16_t* kPaths[] = {u"P:\\", u"P:\\RZV\\V\\A", u"P:\\RZV\\V\\A\\ONE.RZV",
                                                  u"P:\\FRM\\V\\A\\ONE.RZV\\ONE0001.FRM"};
            aside_.push_back(Opened(user_, {.path = kPaths[aside_.size()], .access = kReadWrite, .overlapped = true}));
        }
        const host::Handle handle = aside_[(how >> 4) % aside_.size()].Get();
        if ((how & 3) == 0) {
            (void)user_.WriteOverlapped(handle, *buffer, offset, done, nullptr);
        } else if ((how & 3) == 1) {
            (void)user_.ReadOverlapped(handle, *buffer, offset, done, nullptr);
        } else if ((how & 3) == 2) {
            (void)user_.NotifyChangeDirectory(handle, how, (how & 4) != 0, *buffer, done, nullptr);
        } else {
            user_.CancelAll(handle);
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
        constexpr const char16_t* kPaths[] = {u"RZV\\V\\A\\ONE.RZV",
                                              u"RZV\\V\\B\\ONE.RZV",
                                              u"RZV\\V\\A\\NEW.RZV",
                                              u"RZV\\V\\B\\NEW.RZV",
                                              u"RZV\\V\\A\\RENAMED.RZV",
                                              u"RZV\\V\\B\\RENAMED.RZV",
                                              u"FRM\\V\\A\\ONE.RZV\\note",
                                              u"FRM\\V\\A\\ONE.RZV\\note2",
                                              u"FRM\\V\\A\\ONE.RZV\\ONE0001.FRM",
                                              u"XYZ\\V\\A\\ONE.RZV",
                                              u"RZV\\V\\A",
                                              u"RZV\\V"};
        constexpr std::uint32_t kRights[] = {kReadWrite | host::access::kDelete, host::access::kReadData,
                                             host::access::kWriteData, host::access::kDelete};
        const auto how = input_.Take<std::uint8_t>();
        const host::OpenRequest request = {
            .path = u"P:\\" + std::u16string(kPaths[input_.Take<std::uint8_t>() % std::size(kPaths)]),
            .access = kRights[how % 4],
            .shareAccess = (how & 0x10) != 0 ? host::share::kAll : host::share::kNone,
            .disposition = (how & 0x20) != 0 ? host::Disposition::kOpen : host::Disposition::kOpenIf};
        if (media_.size() < 6) {
            media_.emplace_back();
        }
        auto& place = media_[input_.Take<std::uint8_t>() % media_.size()];
        place.Reset();
        place = Opened(user_, request);
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
    template <typename In>
    void Tell(std::uint32_t code, const In& in) {
        (void)user_.DeviceControl(control_.Get(), code, std::as_bytes(std::span(&in, 1)), {});
    }

    void UseMedia() {
        const auto what = input_.Take<std::uint8_t>() % kMediaSteps;
        const host::Handle file = Media();
        if (what == kRename) {
            Rename(file);
        } else if (what == kWrite) {
            WriteAnything(file);
        } else if (what == kUseTable) {
            UseTable();
        } else {
            SendNear(kRequests[what], file);
        }
    }
    void SendNear(const MediaRequest& request, host::Handle file) {
        std::array<std::uint32_t, sizeof(VrkFsFileInfo) / 4> info{static_cast<std::uint32_t>(file)};
        const auto infoBytes = std::as_writable_bytes(std::span(info));
        (void)user_.DeviceControl(control_.Get(), IOCTL_VRKFS_GET_FILE_INFO, infoBytes, infoBytes);
        std::vector<std::uint32_t> in;
        for (const std::uint32_t word : request.words) {
            in.push_back(WordNear(word, file, info));
        }
        const ControlCodeRule& rule = *VrkFsIoctlFindRule(request.code);
        in.resize(std::max<std::size_t>(in.size(), (rule.InLength + 3) / 4));
        // What has no answer of a fixed length answers with a section's name, or not at all.
        std::array<char16_t, 800> out{};
        const std::size_t room = rule.OutLength != 0 ? rule.OutLength : std::min<std::size_t>(Near(1600), 1600);
        const host::IoResult done = user_.DeviceControl(control_.Get(), request.code, std::as_bytes(std::span(in)),
                                                        std::as_writable_bytes(std::span(out)).first(room));
        if (done.status.Ok() && rule.OutLength == 0 && out[0] != 0) {
            section_.assign(out.data(), std::find(out.begin(), out.end(), u'\0'));
        }
    }
    std::uint32_t WordNear(std::uint32_t word, host::Handle file, std::span<const std::uint32_t> info) {
        const std::uint32_t rest = word & ~kKind;
        switch (word & kKind) {
            case kFile:
                return static_cast<std::uint32_t>(file);
            case kByte:
                return input_.Take<std::uint8_t>();
            case kPlace:
                return (input_.Take<std::uint8_t>() & 1) != 0 ? input_.Take<std::uint16_t>() % (kDiskBytes / 512 + 64)
                                                              : Near(0);
            case kName:
                return MemoryName();
            case kJust:
                return rest;
            case kInfo:
                return Near(info[rest / 4]);
            case kInfo + kHalf:
                return Near(info[rest / 4] / 2);
            default:
                return Near(word);
        }
    }
    // Of memory that may have been given back already.
    std::uint32_t MemoryName() {
        host::Process::NamedMemory counter;
        (void)user_.AllocateMemory(4, counter);
        if (input_.Take<std::uint8_t>() > 0xE0) {
            user_.FreeMemory(counter);
        }
        return Near(counter.name);
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
    void Rename(host::Handle file) {
        constexpr const char16_t* kNames[] = {u"P:\\RZV\\V\\B\\RENAMED.RZV", u"RENAMED.RZV", u"ONE.RZV", u"KEPT.RZV",
                                              u"P:\\RZV\\V\\C\\KEPT.RZV",    u"ONE0002.FRM", u"note2",   u""};
        const bool renamed = host::Rename(user_, file, kNames[input_.Take<std::uint8_t>() % std::size(kNames)]).Ok();
        std::vector<host::DirectoryEntry> volumes;
        (void)host::ListDirectory(user_, Open(u"P:\\RZV").Get(), volumes, u"V");
        formatted_ = formatted_ || (renamed && volumes.empty());
    }
    void WriteAnything(host::Handle file) {
        const auto how = input_.Take<std::uint8_t>();
        std::vector<std::byte> back(2000);
        if ((how & 1) != 0) {
            (void)user_.Write(file, ClipImage(), (how & 2) != 0 ? input_.Take<std::uint32_t>() : 0);
        }
        (void)user_.Read(file, back, input_.Take<std::uint16_t>());
        if ((how & 4) != 0) {
            (void)user_.Flush(file);
        }
    }

    host::Process& user_;
    Input& input_;
    host::ScopedHandle control_;
    std::vector<host::ScopedHandle> media_;
    std::u16string section_;  // the last name that the driver gave
    bool formatted_ = false;
    host::ScopedHandle service_;
    std::vector<host::ScopedHandle> others_;
    std::vector<host::ScopedHandle> aside_;
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
    for (std::uint8_t use = 0; use < 11; ++use) {
        seeds.Add({kUse, 4, use, 0, 0, kUse, 3, use, 0, 0, kUse, 2, use, 0, 0});
        seeds.Add({kUse, 1, use, 1, 0, kUse, 2, use, 3, 0, kUse, 4, use, 34, 0});
    }
    for (const std::uint8_t size : {19, 20}) {
        seeds.Add({kOpenMedia, 0, 6, 0, kMedia, kWrite, 0, 1, 0, 0, kUse, 0, 7, size, 8, 16, 0, 0, 0, 0, 0, 0, 0});
    }
    seeds.Add({kUse, 1, 8, 2, 8, 4, 0, 0, 0, 'W', 0, 'W', 0});  // a label
    for (const std::uint8_t folder : {10, 11}) {
        seeds.Add({kCloseAll, kOpenMedia, 0, folder, 0, kMedia, kRename, 0, 1, kAside, 0x0E, 0, 0, kAside, 0x1E, 0, 0});
    }
    seeds.Add({kAside, 0x0E, 0, 0, kAside, 0x1F, 0, 0, kAside, 0x29, 0, 0, kAside, 0x39, 0, 0, kAside, 0x38, 0, 0});
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
        then(kCreateTable, {file, 0, 0});
        then(kAddVideo, {file, 0, 0, 0, 0});
        then(kAddAlpha, {file, 0, 0, 0, 0});
        then(kUseTable, {file, 1, 24, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0});
        then(kUpdate, {file, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3});
        then(kDereference, {file, 0, 0});
        then(kMove, {file, 1, 0x00, 0x0A, 1, 0x00, 0x09, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        then(kRename, {file, alpha});
        then(kReference, {file, alpha, 0, 0});
        seeds.Add(life);
    }
    for (std::uint8_t segment = 0; segment < VRKFS_SEGMENT_COUNT; ++segment) {
        for (const std::uint8_t off : {0, 1}) {
            std::vector<std::uint8_t> move{kCloseAll, kOpenMedia, 0, 0, 0, kMedia, kMove, file};
            for (std::uint8_t other = 0; other < VRKFS_SEGMENT_COUNT; ++other) {
                move.push_back(other == segment ? 1 : 0);
                move.push_back(static_cast<std::uint8_t>(other == segment ? 0x40 + off : 0));
                if (other == segment) {
                    move.push_back(0x08);
                }
            }
            seeds.Add(move);
        }
    }
    for (std::uint8_t what = 0; what < kMediaSteps; ++what) {
        for (const std::uint8_t path : {0, 3, 6, 8}) {
            seeds.Add(
                {kOpenMedia, 0x10, path, 0, kMedia, what, file, 7, 0, 0, 0, kMedia, what, file, 0xB3, 0xC5, 0xD1});
        }
    }
    // A RAM file takes a frame's name, and is a frame then.
    seeds.Add(
        {kOpenMedia, 0, 6, 0, kMedia, kWrite, file, 1, 0, 0, kMedia, kRename, file, 5, kMedia, kWrite, file, 1, 0, 0});
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
        fuzz::Demand(fuzz::HoldsTheClip(*user, fuzz::kKept), "the clip that nobody touched does not read back");
        fuzz::Walk(*user).Everything();
        fuzz::Demand(fuzz::HoldsTheClip(*user, fuzz::kKept), "a clip was put over the one that nobody touched");
    }
    fuzz::FuzzStation::Stop(*machine);
    return 0;
}
