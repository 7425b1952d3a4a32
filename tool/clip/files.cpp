#include "tool/clip/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "tool/interrupt.h"

namespace clip {
namespace {

constexpr const char* kStandardStream = "-";

[[noreturn]] void Throw(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool IsSpecial(const std::string& name) {
    struct stat status {};
    return ::stat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

}  // namespace

ClipOutput::ClipOutput(const std::string& name) : name_(name) {
    if (name == kStandardStream) {
        name_ = "standard output";
        file_ = STDOUT_FILENO;
        return;
    }
    owned_ = true;
    if (!IsSpecial(name)) {
        partName_ = name + ".part";
    }
    const std::string& opened = partName_.empty() ? name_ : partName_;
    file_ = ::open(opened.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file_ < 0) {
        Throw("cannot create " + opened);
    }
}

ClipOutput::~ClipOutput() {
    if (owned_ && file_ >= 0) {
        ::close(file_);
    }
    if (!partName_.empty()) {
        ::unlink(partName_.c_str());
    }
}

void ClipOutput::Write(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const ssize_t done = ::write(file_, bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done < 0) {
            Throw("cannot write " + name_);
        }
        bytes = bytes.subspan(static_cast<size_t>(done));
    }
}

void ClipOutput::Commit() {
    if (!owned_) {
        return;
    }
    const int file = file_;
    file_ = -1;
    if (::close(file) != 0) {
        Throw("cannot write " + name_);
    }
    if (!partName_.empty() && std::rename(partName_.c_str(), name_.c_str()) != 0) {
        Throw("cannot give " + partName_ + " its name " + name_);
    }
    partName_.clear();
}

ClipInput::ClipInput(const std::string& name) : name_(name) {
    if (name == kStandardStream) {
        name_ = "standard input";
        file_ = STDIN_FILENO;
        return;
    }
    file_ = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (file_ < 0) {
        Throw("cannot open " + name_);
    }
    owned_ = true;
    positioned_ = ::lseek(file_, 0, SEEK_CUR) >= 0;
}

ClipInput::~ClipInput() {
    if (owned_) {
        ::close(file_);
    }
}

ClipSource ClipInput::Source() {
    ClipSource source;
    source.read = [this](uint64_t offset, std::span<std::byte> buffer) { return Read(offset, buffer); };
    struct stat status {};
    if (positioned_ && ::fstat(file_, &status) == 0 && S_ISREG(status.st_mode)) {
        source.size = static_cast<uint64_t>(status.st_size);
    }
    return source;
}

size_t ClipInput::Read(uint64_t offset, std::span<std::byte> buffer) {
    size_t got = 0;
    while (got < buffer.size()) {
        if (!positioned_ && !tool::WaitReadable(file_)) {
            errno = EINTR;  // a pipe may keep us waiting for ever; Ctrl-C ends that
            Throw("stopped reading " + name_);
        }
        const ssize_t done =
            positioned_ ? ::pread(file_, buffer.data() + got, buffer.size() - got, static_cast<off_t>(offset + got))
                        : ::read(file_, buffer.data() + got, buffer.size() - got);
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done < 0) {
            Throw("cannot read " + name_ + " at byte " + std::to_string(offset + got));
        }
        if (done == 0) {
            break;
        }
        got += static_cast<size_t>(done);
    }
    return got;
}

}  // namespace clip
