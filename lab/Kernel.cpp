// Which kernel runs here.
#include "lab/Kernel.h"

#include <sys/utsname.h>

#include <cstdio>
#include <utility>

namespace lab {

std::string kernelRelease() {
  utsname name{};
  ::uname(&name);
  const std::string release = name.release;
  return release.substr(0, release.find_first_not_of("0123456789."));
}

bool kernelIsAtLeast(int version, int patchLevel) {
  int major = 0;
  int minor = 0;
  std::sscanf(kernelRelease().c_str(), "%d.%d", &major, &minor);
  return std::pair(major, minor) >= std::pair(version, patchLevel);
}

}  // namespace lab
