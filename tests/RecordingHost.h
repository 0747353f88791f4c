// A host that carries nothing out but remembers, in order, whatever the plug-in asks of it.
//
// What it records is one line for each thing that happens:
//
//   installFilters w9 1 first  0 901   a call: the operation and its arguments
//   2 10409 ZanConnTrackMgr::No ...    a log line: its level, module and text
//   parent 8 w9 5 CT IDLETIMER 0       one exchange with the privileged parent: what it was sent
//
// A test asks for the lines that it is about, calls("installFilters") or logged("No change"). Only
// tests of order look at the whole record().
//
// What a test scripts:
//
//   the kernel's table   write() of a TableFile, which stands for /proc/net/nf_conntrack
//   neighbours           receive(kNeighbourSocket, neighbourMessage(...))
//   the modem            dormancyStatus and the two answers; reportDormancy(), reportFiltering()
//   the parent           connectParent(), with what it answers
//   the framework        property, wwan, zan.zanDsm.dispatchEvent()
#pragma once

#include <sys/mman.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "host/Zan.h"
#include "host/ZanMsg.h"
#include "host/ZanNetlinkSocket.h"

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

/// Descriptors of the plug-in's sockets: 1000 + the protocol.
inline constexpr int kNeighbourSocket = 1000;
inline constexpr int kConntrackSocket = 1012;

/// The host object and everything behind it; there is one at a time. The kernel refuses every
/// delete request as "no such entry".
///
/// Thread: any for what the plug-in calls and for reading the record; else the test's own.
class RecordingHost : public ZanMsg {
 public:
  RecordingHost() { zan_log_class_ptr = this; }
  virtual ~RecordingHost();

  /// Everything since the last forget().
  Lines record();
  /// Of that, the calls whose text begins with |start|.
  Lines calls(const std::string& start);
  /// Of that, the log lines that hold |part|. Those that show where an object lies appear as their
  /// format.
  Lines logged(const std::string& part);
  void forget();

  /// All delete requests so far.
  std::vector<Bytes> requests();

  /// Has the socket |fd| receive |messages| and its watcher, if there is one, be called.
  void receive(int fd, Bytes messages);

  /// Tells the modem's listeners the |status| of |ifaceName|.
  void reportDormancy(std::int32_t status, const std::string& ifaceName = "w9") const;
  void reportFiltering(std::int32_t status, const std::string& ifaceName = "w9") const;

  /// Connects the command channel to a new parent that gives |answers|, acknowledgements and
  /// results alike, and then ends its stream. A plug-in reads the end of the stream as consent.
  void connectParent(const std::vector<std::int32_t>& answers = {});

  /// The host's side of the calls above.
  void note(std::string line);
  virtual void noteRequest(int fd, const nlmsghdr* msg);
  int deliver(NlMsgCallback callback, void* cbData);

  void setThreshold(int /*level*/) override {}
  [[nodiscard]] bool enabled(int /*level*/) const override { return true; }
  [[gnu::format(printf, 4, 5)]] void log(int level, int module, const char* format, ...) override;

  Zan zan;
  bool forgetful = false;  ///< what happens is formatted and then dropped
  /// Called with each line before it is recorded, on the thread that it comes from.
  std::function<void(const std::string& line)> whenRecorded = [](const std::string&) {};
  const char* property = nullptr;                   ///< value of every property, if it has one
  std::map<std::string, _ZanDsmWwanInfoType> wwan;  ///< every WWAN interface
  int dormancyStatus = 1;                           ///< of every link
  int filtersAnswer = 1;                            ///< to installFilters()
  int listenFiltersAnswer = 1;                      ///< to installListenFilters()

  /// The modem listeners registered last, until they are deregistered: function and its cbData.
  std::pair<ZanRix::WdsCallback, void*> dormancyListener;
  std::pair<ZanRix::DfsCallback, void*> filteringListener;

 private:
  void noteExchanges();

  int parentFd = -1;
  std::mutex mutex;  ///< guards the two records
  Lines lines;
  std::vector<Bytes> deleteRequests;
  Bytes incoming;
};

/// A conntrack table of the test's own.
class TableFile {
 public:
  /// Replaces what the table holds.
  void write(const std::string& text) const;
  [[nodiscard]] int fd() const { return file.get(); }

 private:
  base::UniqueFd file{memfd_create("table", MFD_CLOEXEC)};
};

/// A connection of |client|, IPv4 or IPv6, from |port| to a server, translated to |upstream|.
std::string tableEntry(const std::string& client, int port,
                       const std::string& upstream = "7.7.7.7");

/// A neighbour notification that says that |address|, IPv4 or IPv6, belongs to |mac|.
Bytes neighbourMessage(std::uint8_t type, const std::string& address, const Bytes& mac);
