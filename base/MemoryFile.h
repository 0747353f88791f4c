// What processes leave for each other, and whole files.
#pragma once

#include <optional>
#include <string>

#include "base/UniqueFd.h"

namespace base {

/// Everything from where |fd| stands to its end. Nothing, with errno, if it cannot be read.
[[nodiscard]] std::optional<std::string> readAll(int fd);

/// A file without a name: what one process writes there another may read when the first has ended.
/// Neither waits for the other, however much it is.
class MemoryFile {
 public:
  /// Holds |content|, and whoever reads it begins there.
  explicit MemoryFile(const std::string& content = {});

  /// Owned by this object; -1, with errno, if the kernel had none.
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// From its beginning, whoever has written it.
  [[nodiscard]] std::string content() const;

 private:
  UniqueFd fd_;
};

}  // namespace base
