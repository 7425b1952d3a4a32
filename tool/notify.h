// What a program tells whoever started it and waits for it to be ready: a service manager.
#pragma once

#include <string>

namespace tool {

// Sends the text ("READY=1") to the manager that NOTIFY_SOCKET names, if there is one: one datagram. Whoever waits for
// nothing hears nothing, so there is nobody to report a failure to.
void NotifyManager(const std::string& text);

}  // namespace tool
