// What the host program says: its state and its log, both as JSON.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lab {

/// What the host program says of itself at one moment, as far as the lab wants to know.
struct HostState {
  struct Deletions {
    std::size_t requested = 0;
    std::size_t deleted = 0;
    std::size_t alreadyGone = 0;
    std::size_t refused = 0;

    /// "49 requested: 49 deleted, 0 already gone, 0 refused".
    [[nodiscard]] std::string text() const;
  };

  /// A mobile-data interface, as the host's monitor and modem have it.
  struct Interface {
    bool connected = false;
    bool dormant = false;
    bool filterMode = false;
    /// The first text of the record that the modem's filters were installed with.
    std::optional<std::string> filters;
    std::optional<std::string> listenFilters;
  };

  std::vector<std::string> clients;
  Deletions deletions;
  std::size_t neighbourEvents = 0;
  std::size_t neighbourOverruns = 0;
  bool tethering = false;
  std::map<std::string, Interface> interfaces;
  /// Of the process with the plug-in.
  pid_t pid = 0;
  std::vector<std::string> capabilities;

  /// The interface |name|; one that nothing was heard of if there is none.
  [[nodiscard]] Interface interface(const std::string& name) const;

  /// Reads the answer to "status json". Throws Error for anything else.
  [[nodiscard]] static HostState parse(const std::string& answer);
};

struct HostLogLine {
  /// When the lab received it.
  std::chrono::steady_clock::time_point received;
  /// Who says so: "HOST" for the program itself. Empty for a line that is no JSON object (a
  /// sanitizer's report, say), which is the text as a whole.
  std::string module;
  std::string text;

  /// |line|, which was received just now.
  [[nodiscard]] static HostLogLine parse(const std::string& line);
};

}  // namespace lab
