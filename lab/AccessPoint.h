// A real access point on simulated radios.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "base/MemoryFile.h"
#include "lab/HotspotNetwork.h"
#include "lab/Process.h"

struct mnl_socket;

namespace lab {

/// Puts the clients of a HotspotNetwork on radios of their own (module mac80211_hwsim) in place of
/// their cables, and the gateway on one with hostapd. Networks side by side do not hear each other.
/// The radios vanish with this object, or the process.
///
/// Not thread-safe; starts children (see Process).
class AccessPoint {
 public:
  /// The gateway's radio.
  static constexpr const char* kInterface = "wlan0";

  /// Where the gateway has its addresses.
  enum class Wiring { kPlain, kBridged };

  /// What is missing for one here; empty if nothing is.
  [[nodiscard]] static std::string obstacle();

  /// The access point is up, and no client is on it. |network| must outlive it. Throws Error.
  AccessPoint(const HotspotNetwork& network, Wiring wiring);

  /// The program that runs it ends in order, and starts.
  void stop();
  void start();

  /// Client |i| joins, leaves, or is thrown out by the gateway.
  void join(std::size_t i) const;
  void leave(std::size_t i) const;
  void throwOut(std::size_t i) const;

 private:
  void makeRadios();

  const HotspotNetwork& network_;
  std::string holder_;  ///< the interface with the gateway's addresses
  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> radios_;  ///< which last as long as it is open
  base::MemoryFile configuration_;
  std::optional<Process> daemon_;
};

}  // namespace lab
