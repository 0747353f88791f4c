// A network namespace without a name.
#include "lab/NetNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <string>
#include <thread>

#include "lab/Error.h"

namespace lab {
namespace {

void runAndRethrow(const std::function<void()>& work) {
  std::exception_ptr failure;
  std::thread thread([&work, &failure] {
    try {
      work();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  thread.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace

NetNamespace::NetNamespace() {
  runAndRethrow([this] {
    if (::unshare(CLONE_NEWNET) != 0) {
      throw systemError("cannot create a network namespace", errno,
                        "run as root, or enter a user namespace first");
    }
    fd_.reset(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (!fd_.valid()) {
      throw systemError("cannot open /proc/thread-self/ns/net", errno, "is /proc mounted?");
    }
  });
}

std::string NetNamespace::path() const {
  return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(fd_.get());
}

void NetNamespace::setSysctl(const char* path, const char* value) const {
  run([path, value] {
    const std::string file = std::string("/proc/sys/net/") + path;
    const base::UniqueFd fd(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd.valid() || ::write(fd.get(), value, std::strlen(value)) < 0) {
      throw systemError("cannot write " + file);
    }
  });
}

void NetNamespace::runOnThread(const std::function<void()>& work) const {
  runAndRethrow([this, &work] {
    if (::setns(fd_.get(), CLONE_NEWNET) != 0) {
      throw systemError("cannot enter a network namespace of the lab");
    }
    work();
  });
}

}  // namespace lab
