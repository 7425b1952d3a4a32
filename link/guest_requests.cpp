#include <algorithm>

#include "link/under_way.h"

namespace vlink {
namespace {

std::span<const std::byte> WrittenBytes(std::span<const std::byte> out, std::uint64_t information) {
    return out.first(static_cast<std::size_t>(std::min<std::uint64_t>(information, out.size())));
}

}  // namespace

// What the reader does itself, before anything that comes behind it: it takes no time.
bool Guest::IsQuick(Op op) {
    return op == Op::kHello || op == Op::kGoodbye || op == Op::kCancel || op == Op::kCancelAll || op == Op::kFreeMemory;
}

Guest::Answer Guest::Carry(Desk& desk) {
    const Op op = desk.header.op;
    std::span<const std::byte> body = desk.body;
    if ((op == Op::kHello) == welcome_.load(std::memory_order_relaxed)) {
        return {.breach = op == Op::kHello ? "a second hello" : "a request before its hello"};
    }
    if (op == Op::kHello) {
        return CarryHello(body);
    }
    if (op == Op::kGoodbye) {
        return CarryGoodbye(desk.header.id);
    }
    if (IsForStation(op) != (kind_ == Kind::kAdministration)) {
        return {.breach = "operation " + std::to_string(static_cast<unsigned>(op)) + " on the wrong connection"};
    }
    if (op == Op::kCreate) {
        return CarryCreate(body);
    }
    IoRecord record;
    if (!TakeRecord(body, record)) {
        return {.breach = "a request that is cut short"};
    }
    if (record.in.memory == 0 && (record.in.length != body.size() || record.in.offset != 0)) {
        return {.breach = "data of another length than it says"};
    }
    if (record.in.memory != 0 && !body.empty()) {
        return {.breach = "data twice"};
    }
    if (record.out.memory == 0 && (record.out.length > kMaxInline || record.out.offset != 0)) {
        return {.breach = "a request for more than a frame holds"};
    }
    return IsForStation(op) ? CarryForStation(op, record) : CarryCall(desk, record, body);
}

// ---- Coming and going ----

Guest::Answer Guest::CarryHello(std::span<const std::byte> body) {
    HelloRecord hello;
    if (!TakeRecord(body, hello) || hello.magic != kMagic) {
        return {.breach = "no hello"};
    }
    const Welcome welcome = Settle(hello);
    const std::vector<host::CardFacts>& cards = house_.machine.Cards();
    const bool isAdministration = welcome == Welcome::kYes && hello.kind == Kind::kAdministration;
    const HelloAnswer said{kMagic,
                           kVersion,
                           welcome,
                           isAdministration ? session_->Number() : 0,
                           house_.machine.ReadOnly() ? 1u : 0u,
                           isAdministration ? static_cast<std::uint32_t>(cards.size()) : 0};
    Answer answer{.bare = true};
    const auto add = [&](std::span<const std::byte> bytes) {
        answer.text.insert(answer.text.end(), bytes.begin(), bytes.end());
    };
    add(BytesOf(said));
    for (std::uint32_t i = 0; i < said.cards; ++i) {
        add(BytesOf(CardRecord{cards[i].index, static_cast<std::uint32_t>(cards[i].driveLetter)}));
    }
    answer.data = answer.text;
    if (welcome == Welcome::kYes) {
        welcome_.store(true, std::memory_order_relaxed);
        if (isAdministration) {  // a program has one of those
            house_.log(Name() + " came");
        }
    } else {
        answer.last = welcome == Welcome::kNoSession ? "it belongs to nobody here" : "it speaks another version";
    }
    return answer;
}

Welcome Guest::Settle(const HelloRecord& hello) {
    if (hello.version != kVersion || (hello.kind != Kind::kProcess && hello.kind != Kind::kAdministration)) {
        return Welcome::kOtherVersion;
    }
    const bool isProcess = hello.kind == Kind::kProcess;
    std::shared_ptr<Session> session = isProcess ? house_.sessions.Find(hello.session) : house_.sessions.New();
    if (!session) {
        return Welcome::kNoSession;
    }
    auto process = isProcess ? std::make_unique<host::LocalProcess>(Name()) : nullptr;
    const std::lock_guard hold(lock_);
    kind_ = hello.kind;
    session_ = std::move(session);
    process_ = std::move(process);
    return Welcome::kYes;
}

Guest::Answer Guest::CarryGoodbye(std::uint64_t id) {
    const std::lock_guard hold(lock_);
    role_ = Role::kOver;
    leaving_ = true;
    goodbye_ = id;
    ownerWake_.notify_all();
    return {.silent = true};
}

// ---- For the station as a whole ----

Guest::Answer Guest::CarryForStation(Op op, const IoRecord& record) {
    host::Problem problem;
    switch (op) {
        case Op::kSyncImages:
            problem = house_.machine.SyncImages();
            break;
        case Op::kReleaseDisks:
            problem = session_->ReleaseDisks(record.code);
            break;
        case Op::kTakeDisks:
            problem = session_->TakeDisks(record.code);
            break;
        default:
            return {.breach = "an unknown operation " + std::to_string(static_cast<unsigned>(op))};
    }
    Answer answer;
    answer.record.value = problem.inUse ? 1 : 0;
    constexpr std::size_t kMaxText = kMaxInline / 2;
    for (const std::string& text : {problem.what, problem.advice}) {
        const auto bytes = std::as_bytes(std::span(text)).first(std::min(text.size(), kMaxText));
        answer.text.insert(answer.text.end(), bytes.begin(), bytes.end());
    }
    answer.record.extra = std::min(problem.what.size(), kMaxText);
    answer.data = answer.text;
    return answer;
}

// ---- Of a process ----

Guest::Answer Guest::CarryCreate(std::span<const std::byte> body) {
    CreateRecord record;
    if (!TakeRecord(body, record) || body.size() % sizeof(char16_t) != 0) {
        return {.breach = "a create that is cut short"};
    }
    host::OpenRequest request;
    request.path = TextOf(body);
    request.access = record.access;
    request.shareAccess = record.shareAccess;
    request.disposition = static_cast<host::Disposition>(record.disposition);
    request.options = record.options;
    request.overlapped = record.overlapped != 0;
    request.root = record.root;
    const host::OpenResult opened = process_->Create(request);
    return {.record = {opened.status.code, opened.handle, opened.action, 0}};
}

Guest::Answer Guest::CarryCall(Desk& desk, const IoRecord& record, std::span<const std::byte> data) {
    switch (desk.header.op) {
        case Op::kClose:
            return {.record = {process_->Close(record.handle).code, 0, 0, 0}};
        case Op::kFlush:
            return {.record = {process_->Flush(record.handle).code, 0, 0, 0}};
        case Op::kQueryInformation:
        case Op::kSetInformation:
        case Op::kQueryVolumeInformation:
        case Op::kSetVolumeInformation:
            return CarryInformation(desk, record, data);
        case Op::kRead:
        case Op::kWrite:
        case Op::kQueryDirectory:
        case Op::kDeviceControl:
        case Op::kFileSystemControl:
        case Op::kNotify:
            return CarryRequest(desk.header, record, data);
        case Op::kCancel:
            Cancel(record.offset);
            return {.silent = true};
        case Op::kCancelAll:
            process_->CancelAll(record.handle);
            return {.silent = true};
        case Op::kAllocateMemory:
            return CarryAllocate(record.offset);
        case Op::kFreeMemory:
            FreeMemory(record.code);
            return {.silent = true};
        case Op::kMapSection:
            return CarrySection(record, data);
        default:
            return {.breach = "an unknown operation " + std::to_string(static_cast<unsigned>(desk.header.op))};
    }
}

// These wait for their end whatever the handle, and their records are small: all in the frame.
Guest::Answer Guest::CarryInformation(Desk& desk, const IoRecord& record, std::span<const std::byte> data) {
    if (record.in.memory != 0 || record.out.memory != 0) {
        return {.breach = "an information record that is not in its frame"};
    }
    if (!desk.out) {
        desk.out = std::make_unique<std::byte[]>(kMaxInline);
    }
    const std::span<std::byte> out(desk.out.get(), record.out.length);
    host::IoResult result{};
    switch (desk.header.op) {
        case Op::kQueryInformation:
            result = process_->QueryInformation(record.handle, record.code, out);
            break;
        case Op::kSetInformation:
            result = process_->SetInformation(record.handle, record.code, data);
            break;
        case Op::kQueryVolumeInformation:
            result = process_->QueryVolumeInformation(record.handle, record.code, out);
            break;
        default:
            result = process_->SetVolumeInformation(record.handle, record.code, data);
            break;
    }
    const bool query = desk.header.op == Op::kQueryInformation || desk.header.op == Op::kQueryVolumeInformation;
    return {.record = {result.status.code, 0, result.information, 0},
            .data = WrittenBytes(query ? out : std::span<std::byte>(), result.information)};
}

// ---- Memory and sections ----

Guest::Answer Guest::CarryAllocate(std::uint64_t size) {
    const std::lock_guard hold(memoryLock_);
    if (size > house_.limits.sharedBytes || shared_ > house_.limits.sharedBytes - size) {
        return {.record = {host::status::kInsufficientResources.code, 0, 0, 0}};
    }
    host::Process::NamedMemory memory;
    host::LocalProcess::Share share;
    const host::Status status = process_->AllocateShared(static_cast<std::size_t>(size), memory, share);
    if (!status.Ok()) {
        return {.record = {status.code, 0, 0, 0}};
    }
    memory_[memory.name] = memory.bytes;
    shared_ += share.descriptor >= 0 ? share.bytes : 0;
    return {.record = {status.code, memory.name, share.bytes, share.number},
            .descriptor = Descriptor(share.descriptor)};
}

void Guest::FreeMemory(std::uint32_t name) {
    const std::lock_guard hold(memoryLock_);
    if (memory_.erase(name) != 0) {
        process_->FreeMemory({{}, name});
    }
}

std::span<std::byte> Guest::MemoryAt(const Place& place) {
    const std::lock_guard hold(memoryLock_);
    const auto found = memory_.find(place.memory);
    if (found == memory_.end() || place.offset > found->second.size() ||
        place.length > found->second.size() - place.offset) {
        return {};
    }
    return found->second.subspan(static_cast<std::size_t>(place.offset), place.length);
}

Guest::Answer Guest::CarrySection(const IoRecord& record, std::span<const std::byte> data) {
    if (data.size() % sizeof(char16_t) != 0) {
        return {.breach = "half a character"};
    }
    host::LocalProcess::OpenedSection section;
    const host::Status status = process_->OpenSection(TextOf(data), (record.options & kWritable) != 0, section);
    return {.record = {status.code, section.handle, section.bytes, 0}, .descriptor = Descriptor(section.descriptor)};
}

}  // namespace vlink
