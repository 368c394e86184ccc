// The local account a principal maps to: its uid, primary gid and groups.
#pragma once

#include <optional>
#include <string>

#include "platform/linux/LinuxTokenApi.h"

namespace ostrel::platform::linuxport {

// The account's identity, its groups in the order getgrouplist gives them;
// nothing when the name has no account.
std::optional<Identity> LookUpAccount(const std::string& i_name);

}  // namespace ostrel::platform::linuxport
