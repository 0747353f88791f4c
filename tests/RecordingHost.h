// A host that carries nothing out but remembers, in order, whatever the plug-in asks of it.
#pragma once

#include <sys/mman.h>

#include <condition_variable>
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

/// The host object and everything behind it; there is one at a time.
///
/// Sockets have the descriptor 1000 + protocol. Every request is refused as "no such entry".
///
/// Thread: any for what the plug-in calls, take() and awaitRequests(); else the test's own.
class RecordingHost : public ZanMsg {
 public:
  RecordingHost() { zan_log_class_ptr = this; }
  virtual ~RecordingHost();

  /// What happened since the last call, as far as the extended regular expression |having| matches:
  /// a newline, then a line for each log line, "LEVEL MODULE TEXT", and each call, "operation
  /// argument ...", in order. Log lines that show where an object lies appear as their format, and
  /// the manager's construction and destruction without the line number.
  std::string take(const std::string& having = "");

  /// All delete requests so far, once there are |count| of them or patience has run out.
  std::vector<Bytes> awaitRequests(std::size_t count);

  /// Has the socket |fd| receive |messages| and its watcher be called.
  void receive(int fd, Bytes messages);

  /// Connects the command channel to a privileged parent of which only the answers exist,
  /// acknowledgements and results alike, a character each:
  ///
  ///   .  0        1  1        -  -1
  ///
  /// After |answers| the stream ends. The record has "parent" and the pieces it was sent between
  /// two other entries: four bytes as a number, others as text with its NUL.
  void connectParent(const std::string& answers = "");

  /// The host's side of the calls above.
  void record(std::string entry);
  virtual void recordRequest(int fd, const nlmsghdr* msg);
  int deliver(NlMsgCallback callback, void* cbData);

  void setThreshold(int /*level*/) override {}
  [[nodiscard]] bool enabled(int /*level*/) const override { return true; }
  [[gnu::format(printf, 4, 5)]] void log(int level, int module, const char* format, ...) override;

  Zan zan;
  bool forgetful = false;  ///< what happens is formatted and then dropped
  /// Called with each entry before it is recorded, on the thread that it comes from.
  std::function<void(const std::string& entry)> whenRecorded = [](const std::string&) {};
  const char* property = nullptr;                   ///< value of every property, if it has one
  std::map<std::string, _ZanDsmWwanInfoType> wwan;  ///< every WWAN interface
  int dormancyStatus = 1;                           ///< of every link
  int filtersAnswer = 1;                            ///< to installFilters()
  int listenFiltersAnswer = 1;                      ///< to installListenFilters()

  /// The modem listeners registered last, until they are deregistered: function and its cbData.
  std::pair<ZanRix::WdsCallback, void*> dormancyListener;
  std::pair<ZanRix::DfsCallback, void*> filteringListener;

 private:
  void recordPieces();

  int parentFd = -1;
  std::mutex mutex;  ///< guards the two records
  std::condition_variable requestRecorded;
  std::vector<std::string> sequence;
  std::vector<Bytes> requests;
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

/// The bytes of an IPv4 or IPv6 address text.
Bytes addressBytes(const std::string& text);

/// A neighbour notification with |attributes|, type and payload each.
Bytes neighbourMessage(std::uint8_t type, std::uint8_t family,
                       const std::vector<std::pair<std::uint8_t, Bytes>>& attributes);
