// What lets the lab run without root.
#include "lab/UserNamespace.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>

#include "base/UniqueFd.h"
#include "lab/Error.h"

namespace lab {
namespace {

bool hasCapability(unsigned capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
  if (::syscall(SYS_capget, &header, data.data()) != 0) return false;
  return (data.at(capability / 32).effective & (1U << (capability % 32))) != 0;
}

void writeFile(const char* path, const std::string& text) {
  const base::UniqueFd file(::open(path, O_WRONLY | O_CLOEXEC));
  if (!file.valid() || ::write(file.get(), text.data(), text.size()) < 0) {
    throw systemError(std::string("cannot write ") + path);
  }
}

std::string adviceFor(int error) {
  if (error == EINVAL) return "this has to happen before the process starts a thread";
  return "run as root, or allow user namespaces: kernel.unprivileged_userns_clone=1, "
         "user.max_user_namespaces above 0";
}

}  // namespace

bool UserNamespace::enterIfNeeded() {
  if (hasCapability(CAP_SYS_ADMIN) && hasCapability(CAP_NET_ADMIN)) return false;

  const std::string uid = std::to_string(::geteuid());
  const std::string gid = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    const int error = errno;
    throw systemError("cannot create a user namespace", error, adviceFor(error));
  }
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", "0 " + uid + " 1");
  writeFile("/proc/self/gid_map", "0 " + gid + " 1");
  return true;
}

}  // namespace lab
