// Mobile-data interfaces: what the kernel reports of real ones, and what commands say.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/Zan.h"
#include "host/ZanNetlinkSocket.h"

namespace zanhost {

/// Keeps the data-service monitor's records and turns changes into its events:
///
///   link up with an address        event 2, status 1
///   link down, interface removed   event 2, status 4
///   an address is lost             event 28, with that address
///
/// Link-local addresses do not count. A record's two texts are the interface's first IPv4 and
/// first IPv6 address.
///
/// Thread: event thread.
class WwanMonitor {
 public:
  /// |zan| must outlive the monitor.
  explicit WwanMonitor(Zan& zan);
  ~WwanMonitor();
  WwanMonitor(const WwanMonitor&) = delete;
  WwanMonitor& operator=(const WwanMonitor&) = delete;

  /// Follows the kernel's interfaces of these names over rtnetlink(7), present ones and those to
  /// come. What is there already is known when this returns, and the log tells what the others
  /// lack. False, with a log line, when the kernel does not tell.
  [[nodiscard]] bool follow(const std::vector<std::string>& names);

  /// Says of an interface that no kernel reports, or of a followed one until its next change,
  /// that it is connected or not.
  void setStatus(const std::string& name, ZanWwanStatus status);

  /// What |name| lacks to be connected; empty when it is.
  [[nodiscard]] std::string lacks(const std::string& name) const;

  /// Sets the access points of |name|; takes effect with its next event.
  void setApns(const std::string& name, std::list<ZanApnType> apns);

 private:
  struct Link {
    std::string name;
    bool up = false;
    std::set<std::pair<std::string, int>> addresses;  ///< each with its prefix length
  };

  static void socketReady(int fd, void* cbData);
  static void messageReady(void* cbData, nlmsghdr* msg, unsigned int len);

  /// Reads all links and addresses anew and reports what has changed. False when the kernel does
  /// not list them.
  bool synchronise();
  void onLink(const nlmsghdr& msg);
  void onAddress(const nlmsghdr& msg);
  void update(const Link& link);
  void forget(Link link);
  void reportLost(const Link& link, const std::string& address);
  _ZanDsmWwanInfoType& record(const std::string& name);

  Zan& zan_;
  std::set<std::string> followed_;
  std::map<int, Link> links_;  ///< by interface index
  std::unique_ptr<ZanNetlinkSocket> socket_;
  bool dumping_ = false;   ///< while lists are read, nothing is reported
  bool stale_ = false;     ///< the lists must be read anew
  bool starting_ = false;  ///< what is there before the plug-in is, it finds out by itself
};

}  // namespace zanhost
