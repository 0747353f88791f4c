// What the process with the plug-in may do, and no more.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace parent {

/// Gives up everything but what the plug-in's work needs: CAP_NET_ADMIN, for conntrack requests,
/// and the group of root, which may read the conntrack table. Root becomes the user
/// zanhost, or nobody where there is none, if the user namespace knows that user. Nothing that is
/// executed later gains anything.
///
/// CAP_DAC_READ_SEARCH stays, where it was held, until endLoading(): the plug-in may lie in a
/// folder that only root may enter.
///
/// Both return what failed, or nothing. Call them before there are threads.
[[nodiscard]] std::optional<std::string> dropPrivileges();
[[nodiscard]] std::optional<std::string> endLoading();

/// What the process holds.
struct Privileges {
  unsigned int uid;
  unsigned int gid;
  std::vector<std::string> capabilities;  ///< effective ones, such as "CAP_NET_ADMIN"
};
[[nodiscard]] Privileges currentPrivileges();

}  // namespace parent
