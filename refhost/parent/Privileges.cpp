// Giving up privileges with the kernel's own calls.
#include "refhost/parent/Privileges.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace parent {
namespace {

constexpr uid_t kNobody = 65534;

struct NamedCapability {
  unsigned int number;
  const char* name;
};
constexpr NamedCapability kKnown[] = {{CAP_DAC_READ_SEARCH, "CAP_DAC_READ_SEARCH"},
                                      {CAP_NET_ADMIN, "CAP_NET_ADMIN"}};

constexpr std::uint64_t kWorking = std::uint64_t{1} << CAP_NET_ADMIN;
constexpr std::uint64_t kLoading = kWorking | std::uint64_t{1} << CAP_DAC_READ_SEARCH;

using CapabilitySets = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

bool readSets(CapabilitySets& sets) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(SYS_capget, &header, sets.data()) == 0;
}

/// Keeps what is both held and in |kept|.
bool limitSets(std::uint64_t kept) {
  CapabilitySets sets{};
  if (!readSets(sets)) return false;
  for (__user_cap_data_struct& set : sets) {  // the lower word comes first
    set.permitted &= static_cast<std::uint32_t>(kept);
    set.effective = set.permitted;
    set.inheritable = 0;
    kept >>= 32;
  }
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(SYS_capset, &header, sets.data()) == 0;
}

void limitBoundingSet() {
  for (unsigned int number = 0; number < 64 && prctl(PR_CAPBSET_READ, number) >= 0; ++number) {
    if ((kLoading >> number & 1U) == 0) prctl(PR_CAPBSET_DROP, number);
  }
}

/// The user that the package makes for the host; nobody where there is none.
uid_t workingUser() {
  const passwd* user = getpwnam("zanhost");
  return user != nullptr ? user->pw_uid : kNobody;
}

/// False with errno set; a user namespace that does not know that user is no failure.
bool ceaseToBeRoot() {
  if (geteuid() != 0) return true;
  const uid_t user = workingUser();
  if (setgroups(0, nullptr) != 0 && errno != EPERM) return false;
  if (setresgid(0, 0, 0) != 0) return false;
  return setresuid(user, user, user) == 0 || errno == EINVAL;
}

std::optional<std::string> failure() {
  return std::string("cannot give up privileges: ") + std::strerror(errno);
}

}  // namespace

std::optional<std::string> dropPrivileges() {
  limitBoundingSet();
  const bool dropped = prctl(PR_SET_KEEPCAPS, 1) == 0 && ceaseToBeRoot() && limitSets(kLoading) &&
                       prctl(PR_SET_KEEPCAPS, 0) == 0 &&
                       prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
  return dropped ? std::nullopt : failure();
}

std::optional<std::string> endLoading() {
  return limitSets(kWorking) ? std::nullopt : failure();
}

Privileges currentPrivileges() {
  Privileges privileges{geteuid(), getegid(), {}};
  CapabilitySets sets{};
  if (!readSets(sets)) return privileges;
  std::uint64_t effective = 0;
  for (std::size_t word = 0; word < sets.size(); ++word) {
    effective |= std::uint64_t{sets[word].effective} << (32 * word);
  }
  for (const NamedCapability& capability : kKnown) {
    const std::uint64_t bit = std::uint64_t{1} << capability.number;
    if ((effective & bit) != 0) privileges.capabilities.emplace_back(capability.name);
    effective &= ~bit;
  }
  for (unsigned int number = 0; effective != 0; ++number, effective >>= 1) {
    if ((effective & 1U) != 0) {
      privileges.capabilities.push_back("capability " + std::to_string(number));
    }
  }
  return privileges;
}

}  // namespace parent
