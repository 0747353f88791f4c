// Where the build's other files are.
#pragma once

#include <filesystem>
#include <string>

namespace lab {

/// File |name|, "folder/file", of the build that the running program, in a folder of its own,
/// belongs to, wherever that was copied to.
[[nodiscard]] inline std::string builtFile(const char* name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / name;
}

}  // namespace lab
