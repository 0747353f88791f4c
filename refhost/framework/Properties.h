// The system properties of the reference host.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace framework {

/// Thread: filled before the plug-in is loaded, read-only afterwards.
class PropertyStore {
 public:
  /// The process's store, which property_get() reads.
  static PropertyStore& instance();

  /// Takes one "NAME=VALUE". Returns what is wrong with it, or nothing.
  [[nodiscard]] std::optional<std::string> assign(const std::string& assignment);

  /// Takes a file of such lines; blank lines and those that begin with '#' are skipped. Returns
  /// what is wrong, with the line's number, or nothing; nothing is taken from a wrong file.
  [[nodiscard]] std::optional<std::string> load(const std::string& path);

  /// The value of |name|, or null.
  [[nodiscard]] const std::string* find(const std::string& name) const;

 private:
  std::map<std::string, std::string> values_;
};

}  // namespace framework
