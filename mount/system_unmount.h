// The system's call beside a namespace of the same name as its other half.
#pragma once

namespace system_call {

// 0, or an errno.
int Unmount(const char* place, bool lazily);

}  // namespace system_call
