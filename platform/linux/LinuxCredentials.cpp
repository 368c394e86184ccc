#include "platform/linux/LinuxCredentials.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

namespace ostrel::platform::linuxport {

static_assert(sizeof(uid_t) == sizeof(uint32_t) && sizeof(gid_t) == sizeof(uint32_t),
              "the kernel's 32-bit ids are passed through as they are");

namespace {

// syscall() reads longs; an id passes zero-extended and the kernel takes 32 bits of it.
long Arg(uint32_t i_nId) { return static_cast<long>(i_nId); }
const long kKeep = Arg(static_cast<uint32_t>(-1));

int ErrnoOf(long i_nResult) { return i_nResult == 0 ? 0 : errno; }

int ReadGroups(std::vector<uint32_t>& o_arrGroups) {
    // Another thread's libc set*id call may change them between the two calls.
    for (int nTry = 0; nTry < 8; ++nTry) {
        const long nCount = syscall(SYS_getgroups, 0L, nullptr);
        if (nCount < 0) {
            return errno;
        }
        o_arrGroups.resize(static_cast<size_t>(nCount));
        const long nGot = syscall(SYS_getgroups, nCount, o_arrGroups.data());
        if (nGot >= 0) {
            o_arrGroups.resize(static_cast<size_t>(nGot));
            return 0;
        }
        if (errno != EINVAL) {
            return errno;
        }
    }
    return EAGAIN;
}

bool ParseIds(const std::string& i_line, std::vector<uint32_t>& o_arrIds) {
    std::istringstream in(i_line);
    unsigned long nId = 0;
    while (in >> nId) {
        o_arrIds.push_back(static_cast<uint32_t>(nId));
    }
    return in.eof();
}

}  // namespace

bool SameIdentity(const Identity& i_a, const Identity& i_b) {
    if (i_a.m_nUid != i_b.m_nUid || i_a.m_nGid != i_b.m_nGid) {
        return false;
    }
    std::vector<uint32_t> a = i_a.m_arrGroups;
    std::vector<uint32_t> b = i_b.m_arrGroups;
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    a.erase(std::unique(a.begin(), a.end()), a.end());
    b.erase(std::unique(b.begin(), b.end()), b.end());
    return a == b;
}

int ReadThreadCredentials(KernelCredentials& o_credentials) {
    uid_t ruid = 0, euid = 0, suid = 0;
    gid_t rgid = 0, egid = 0, sgid = 0;
    if (syscall(SYS_getresuid, &ruid, &euid, &suid) != 0 || syscall(SYS_getresgid, &rgid, &egid, &sgid) != 0) {
        return errno;
    }
    o_credentials.m_nRealUid = ruid;
    o_credentials.m_nEffectiveUid = euid;
    o_credentials.m_nSavedUid = suid;
    o_credentials.m_nRealGid = rgid;
    o_credentials.m_nEffectiveGid = egid;
    o_credentials.m_nSavedGid = sgid;
    return ReadGroups(o_credentials.m_arrGroups);
}

bool ReadProcessStatus(Identity& o_identity) {
    std::ifstream status("/proc/self/status");
    std::string line;
    bool bUid = false, bGid = false, bGroups = false;
    while (std::getline(status, line)) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        const std::string key = line.substr(0, colon);
        std::vector<uint32_t> ids;
        if (key != "Uid" && key != "Gid" && key != "Groups") {
            continue;
        }
        if (!ParseIds(line.substr(colon + 1), ids)) {
            return false;
        }
        // Uid and Gid list real, effective, saved and file-system ids.
        if (key == "Uid" && ids.size() >= 2) {
            o_identity.m_nUid = ids[1];
            bUid = true;
        } else if (key == "Gid" && ids.size() >= 2) {
            o_identity.m_nGid = ids[1];
            bGid = true;
        } else if (key == "Groups") {
            o_identity.m_arrGroups = std::move(ids);
            bGroups = true;
        }
    }
    return bUid && bGid && bGroups;
}

int SwitchThreadTo(const Identity& i_identity) {
    // Groups and gid need CAP_SETGID, which leaves the effective set with uid 0: uid last.
    if (int e = ErrnoOf(
            syscall(SYS_setgroups, static_cast<long>(i_identity.m_arrGroups.size()), i_identity.m_arrGroups.data()))) {
        return e;
    }
    if (int e = ErrnoOf(syscall(SYS_setresgid, kKeep, Arg(i_identity.m_nGid), kKeep))) {
        return e;
    }
    return ErrnoOf(syscall(SYS_setresuid, kKeep, Arg(i_identity.m_nUid), kKeep));
}

int RestoreThread(const KernelCredentials& i_original) {
    // The real and saved uids were kept, so the original effective uid is always
    // allowed; going back to 0 refills the effective capabilities from the permitted.
    if (int e = ErrnoOf(syscall(SYS_setresuid, kKeep, Arg(i_original.m_nEffectiveUid), kKeep))) {
        return e;
    }
    if (int e = ErrnoOf(
            syscall(SYS_setgroups, static_cast<long>(i_original.m_arrGroups.size()), i_original.m_arrGroups.data()))) {
        return e;
    }
    if (int e = ErrnoOf(syscall(SYS_setresgid, Arg(i_original.m_nRealGid), Arg(i_original.m_nEffectiveGid),
                                Arg(i_original.m_nSavedGid)))) {
        return e;
    }
    return ErrnoOf(syscall(SYS_setresuid, Arg(i_original.m_nRealUid), Arg(i_original.m_nEffectiveUid),
                           Arg(i_original.m_nSavedUid)));
}

bool ThreadMaySwitchUsers() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    const uint32_t needed = (1u << CAP_SETUID) | (1u << CAP_SETGID);
    return (data[0].effective & needed) == needed;
}

bool IsMainThread() { return syscall(SYS_gettid) == static_cast<long>(getpid()); }

}  // namespace ostrel::platform::linuxport
