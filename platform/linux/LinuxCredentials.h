// The kernel's credentials of the calling thread, read and changed with raw
// system calls so that only that thread is concerned. Results are errno values.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/linux/LinuxTokenApi.h"

namespace ostrel::platform::linuxport {

struct KernelCredentials {
    uint32_t m_nRealUid = 0;
    uint32_t m_nEffectiveUid = 0;
    uint32_t m_nSavedUid = 0;
    uint32_t m_nRealGid = 0;
    uint32_t m_nEffectiveGid = 0;
    uint32_t m_nSavedGid = 0;
    std::vector<uint32_t> m_arrGroups;

    Identity Effective() const { return Identity{m_nEffectiveUid, m_nEffectiveGid, m_arrGroups}; }
};

int ReadThreadCredentials(KernelCredentials& o_credentials);

// The process's identity as /proc tells it (the main thread's); false if unreadable.
bool ReadProcessStatus(Identity& o_identity);

// Effective ids and groups only: real and saved ids stay, so the way back stays open.
int SwitchThreadTo(const Identity& i_identity);

// Back to i_original, privileged effective uid first so that the groups may change.
int RestoreThread(const KernelCredentials& i_original);

// CAP_SETUID and CAP_SETGID in the calling thread's effective set.
bool ThreadMaySwitchUsers();

bool IsMainThread();

}  // namespace ostrel::platform::linuxport
