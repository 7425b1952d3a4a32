// Puts one clip on a drive, new or in place of another.
#pragma once

#include "tool/clip_transfer.h"
#include "tool/drive_file.h"
#include "tool/output.h"
#include "tool/paths.h"
#include "tool/session.h"

namespace tool {

class ClipPut {
  public:
    // `local` names the source to the user.
    ClipPut(Session& session, const Output& output, std::string local)
        : session_(session), process_(session.Process()), progress_(output), local_(std::move(local)) {}

    // Under a name that is free. When it fails nothing is left there, or the failure says what.
    [[nodiscard]] Result PutNew(ClipTransfer& transfer, const DrivePath& path);

    // In place of the clip that stands there. At every moment one whole and durable clip exists, the old or the new
    // one: the new one is written beside the old one and read back; then the old one is renamed, the new one takes its
    // name, and the old one goes.
    [[nodiscard]] Result Replace(ClipTransfer& transfer, const DrivePath& path);

  private:
    [[nodiscard]] Result Write(ClipTransfer& transfer, DriveFile& file);
    [[nodiscard]] Result Discard(Failure failure, DriveFile& file, const DrivePath& path);
    [[nodiscard]] Result CheckSize(const DrivePath& path, std::uint64_t bytes);
    // Whether what is read back from the drive is the clip of that digest; then it is made durable.
    [[nodiscard]] Result ReadBack(const DrivePath& path, const ClipDigest& digest);
    [[nodiscard]] Result PutBeside(ClipTransfer& transfer, const DrivePath& path, DrivePath& beside);
    [[nodiscard]] bool FindFreeName(const DrivePath& path, const std::u16string& ending, DrivePath& found);
    [[nodiscard]] Result Swap(const DrivePath& beside, const DrivePath& path);
    [[nodiscard]] Failure RemoveBeside(Failure failure, const DrivePath& beside, const DrivePath& path);

    Session& session_;
    host::Process& process_;
    Progress progress_;
    std::string local_;
};

}  // namespace tool
