// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

/// Closes its descriptor when it dies. -1 stands for none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : fd(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~FileDescriptor() {
    if (fd != -1) close(fd);
  }

  [[nodiscard]] int get() const { return fd; }
  [[nodiscard]] bool valid() const { return fd != -1; }

 private:
  int fd = -1;
};
