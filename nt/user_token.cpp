#include "nt/user_token.h"

#include <map>
#include <mutex>
#include <shared_mutex>

namespace {

struct UserMemory {
    PEPROCESS process;
    PVOID address;
    SIZE_T bytes;
};

constexpr size_t kMaxTokens = 65535;

std::shared_mutex g_lock;
std::map<ULONG, UserMemory> g_memory;
ULONG g_lastToken = 0x10000;

}  // namespace

ULONG NtUserTokenCreate(PEPROCESS Process, PVOID Address, SIZE_T Bytes) {
    const std::unique_lock lock(g_lock);
    if (Address == nullptr || g_memory.size() >= kMaxTokens) {
        return 0;
    }
    do {
        g_lastToken += 0x10;
    } while (g_lastToken == 0 || g_memory.count(g_lastToken) != 0);
    g_memory[g_lastToken] = {Process, Address, Bytes};
    return g_lastToken;
}

VOID NtUserTokenRelease(ULONG Token) {
    const std::unique_lock lock(g_lock);
    g_memory.erase(Token);
}

PVOID NtUserTokenResolve(ULONG Token, SIZE_T Bytes) {
    const std::shared_lock lock(g_lock);
    const auto found = g_memory.find(Token);
    if (found == g_memory.end() || found->second.process != PsGetCurrentProcess() || found->second.bytes < Bytes) {
        return nullptr;
    }
    return found->second.address;
}
