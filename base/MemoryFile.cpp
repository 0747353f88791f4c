// What processes leave for each other, and whole files.
#include "base/MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace base {

std::optional<std::string> readAll(int fd) {
  std::string text;
  std::array<char, 65536> buffer;
  while (true) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got == 0) return text;
    if (got > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(got));
    } else if (errno != EINTR) {
      return std::nullopt;
    }
  }
}

MemoryFile::MemoryFile(const std::string& content) : fd_(memfd_create("base", MFD_CLOEXEC)) {
  if (content.empty() || !fd_.valid()) return;
  if (write(fd(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    fd_.reset();
  }
  lseek(fd(), 0, SEEK_SET);
}

std::string MemoryFile::content() const {
  lseek(fd(), 0, SEEK_SET);
  return readAll(fd()).value_or("");
}

}  // namespace base
