#include "platform/linux/LocalAccount.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace ostrel::platform::linuxport {

std::optional<Identity> LookUpAccount(const std::string& i_name) {
    if (i_name.empty()) {
        return std::nullopt;
    }
    long nHint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(nHint > 0 ? static_cast<size_t>(nHint) : 1024);
    passwd entry{};
    passwd* pEntry = nullptr;
    int nError = 0;
    while ((nError = getpwnam_r(i_name.c_str(), &entry, buffer.data(), buffer.size(), &pEntry)) == ERANGE &&
           buffer.size() < (1u << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    if (nError != 0 || pEntry == nullptr) {
        return std::nullopt;
    }
    Identity identity{entry.pw_uid, entry.pw_gid, {}};
    std::vector<gid_t> groups(32);
    int nGroups = static_cast<int>(groups.size());
    while (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &nGroups) < 0) {
        // nGroups now says how many there are.
        if (nGroups <= static_cast<int>(groups.size()) || nGroups > 65536) {
            return std::nullopt;
        }
        groups.resize(static_cast<size_t>(nGroups));
    }
    identity.m_arrGroups.assign(groups.begin(), groups.begin() + nGroups);
    return identity;
}

}  // namespace ostrel::platform::linuxport
