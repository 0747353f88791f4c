// The calls that the linker leads here, and operator new of whoever can do without.
#include "tests/faults/FaultyCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "host/ZanNetlinkSocket.h"

namespace {

std::mutex mutex;  // guards what follows
std::atomic<bool> counting = false;
faults::Fault wanted{};
int callsLeft = 0;  // until the one that fails
std::string_view failed;

/// Sets errno when this call of |kind| is to fail.
bool fails(std::string_view kind) {
  if (!counting) return false;
  const std::lock_guard<std::mutex> lock(mutex);
  const bool again = wanted.extent == faults::Fault::Extent::kFromThenOn && failed == kind;
  if (--callsLeft != 0 && !again) return false;
  failed = kind;
  errno = wanted.error;
  return true;
}

}  // namespace

namespace faults {

int table = -1;
int timer = -1;
int channel = -1;

void fail(const Fault& fault) {
  const std::lock_guard<std::mutex> lock(mutex);
  wanted = fault;
  callsLeft = fault.number;
  counting = true;
}

std::string stop() {
  const std::lock_guard<std::mutex> lock(mutex);
  counting = false;
  return std::string(std::exchange(failed, {}));
}

}  // namespace faults

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return fails("new") ? nullptr : operator new(size);
}

extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_read(int fd, void* buffer, std::size_t size);
ssize_t __real_write(int fd, const void* data, std::size_t size);
int __real_close(int fd);
int __real_property_get(const char* key, char* value, const char* otherwise);
int __real__ZN16ZanNetlinkSocket23sendConntrackNetlinkMsgEP8nlmsghdr(ZanNetlinkSocket*, nlmsghdr*);

/// Nobody here creates files, so that there is no mode.
int __wrap_open(const char* path, int flags, ...) {
  const bool timer = std::strstr(path, "xt_idletimer") != nullptr;
  if (!timer && std::strstr(path, "nf_conntrack") == nullptr) return __real_open(path, flags);
  const std::string link = "/proc/self/fd/" + std::to_string(timer ? faults::timer : faults::table);
  return fails(timer ? "open timer" : "open table") ? -1 : __real_open(link.c_str(), flags);
}
[[gnu::alias("__wrap_open")]] int __wrap_open64(const char* path, int flags, ...);

ssize_t __wrap_read(int fd, void* buffer, std::size_t size) {
  return fails(fd == faults::channel ? "read channel" : "read timer")
             ? -1
             : __real_read(fd, buffer, size);
}
ssize_t __wrap___read_chk(int fd, void* buffer, std::size_t size, std::size_t /*room*/) {
  return __wrap_read(fd, buffer, size);
}
ssize_t __wrap_write(int fd, const void* data, std::size_t size) {
  return fails("write channel") ? -1 : __real_write(fd, data, size);
}

/// The kernel frees the number also when it reports an error.
int __wrap_close(int fd) {
  const int result = __real_close(fd);
  return fails("close") ? -1 : result;
}

static ssize_t readTable(void* table, char* buffer, std::size_t size) {
  return fails("read table") ? -1 : __real_read(*static_cast<int*>(table), buffer, size);
}
static int seekTable(void* table, off64_t* offset, int whence) {
  *offset = fails("rewind table") ? -1 : lseek64(*static_cast<int*>(table), *offset, whence);
  return *offset == -1 ? -1 : 0;
}
std::FILE* __wrap_fdopen(int fd, const char* mode) {
  if (fails("fdopen")) return nullptr;
  static std::array<int, 1024> tables;  // each at its own index
  int& table = tables.at(static_cast<std::size_t>(fd));
  table = fd;
  return fopencookie(&table, mode, {readTable, nullptr, seekTable, nullptr});
}

int __wrap_property_get(const char* key, char* value, const char* otherwise) {
  return fails("property_get") ? -1 : __real_property_get(key, value, otherwise);
}
int __wrap__ZN16ZanNetlinkSocket23sendConntrackNetlinkMsgEP8nlmsghdr(ZanNetlinkSocket* socket,
                                                                     nlmsghdr* msg) {
  if (fails("send")) return -1;
  return __real__ZN16ZanNetlinkSocket23sendConntrackNetlinkMsgEP8nlmsghdr(socket, msg);
}

}  // extern "C"
