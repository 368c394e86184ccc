// The calling thread's own kernel credentials, read and set with raw system calls: per thread on Linux,
// unlike the C library's process-wide wrappers.
#pragma once

#if defined(__linux__)
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace ostrel_test {

struct ThreadIdentity {
    uid_t ruid = 0, euid = 0, suid = 0;
    gid_t rgid = 0, egid = 0, sgid = 0;
    std::vector<gid_t> groups;  // sorted
};

inline ThreadIdentity CurrentThreadIdentity() {
    ThreadIdentity id;
    ::syscall(SYS_getresuid, &id.ruid, &id.euid, &id.suid);
    ::syscall(SYS_getresgid, &id.rgid, &id.egid, &id.sgid);
    id.groups.resize(64);
    id.groups.resize(static_cast<size_t>(std::max(0L, ::syscall(SYS_getgroups, 64, id.groups.data()))));
    std::sort(id.groups.begin(), id.groups.end());
    return id;
}

// Switches this thread alone to a user with the given groups (needs root); the saved user id keeps root reachable.
inline bool BecomeOnThisThread(uid_t i_uid, gid_t i_gid, const std::vector<gid_t>& i_groups) {
    return ::syscall(SYS_setgroups, i_groups.size(), i_groups.data()) == 0 &&
           ::syscall(SYS_setresgid, i_gid, i_gid, static_cast<gid_t>(-1)) == 0 &&
           ::syscall(SYS_setresuid, i_uid, i_uid, static_cast<uid_t>(-1)) == 0;
}

}  // namespace ostrel_test
#endif
