// A hotspot in a test's words: clients come and go, and what the plug-in deletes for it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ctmgr/WorkerGate.h"
#include "host/ZanDsmEvents.h"
#include "tests/RecordingHost.h"

/// A client of the hotspot; |number|, one digit, makes its addresses.
struct Client {
  int number;

  [[nodiscard]] Bytes macBytes() const;
  [[nodiscard]] std::string mac() const;
  [[nodiscard]] std::string ipv4() const;
  [[nodiscard]] std::string ipv6() const;  ///< expanded, as the table shows it
};

/// The plug-in on a recording host, over a table that the test writes. Clean-ups sleep until the
/// test wakes them (tests/Sleepers.h), and at its end all are awaited.
class Hotspot {
 public:
  using Ports = std::vector<int>;

  Hotspot() = default;
  ~Hotspot();
  Hotspot(const Hotspot&) = delete;
  Hotspot& operator=(const Hotspot&) = delete;

  /// The plug-in starts, and its table is |table| from then on.
  void start();
  /// The plug-in ends; returns its result once the deletions that outlive it have ended.
  int stop();

  /// The kernel announces |client| under both addresses.
  void announce(const Client& client);

  /// |clients| come, all in one event; the kernel has announced them.
  void arrives(const std::vector<Client>& clients);
  void leaves(const std::vector<Client>& clients);
  void arrives(const Client& client) { arrives(std::vector{client}); }
  void leaves(const Client& client) { leaves(std::vector{client}); }
  /// The host names all clients that are there now (event 27).
  void reportClients(const ZanDsmTextList& macs);
  void losesUpstream(const ZanDsmTextList& addresses);

  /// Whether the neighbour table has an entry for |client|.
  [[nodiscard]] static bool knows(const Client& client);

  /// The clients' ports in all delete requests so far, sorted, once no deletion worker works.
  Ports deleted();
  /// The same without waiting.
  Ports deletedSoFar();

  /// Wakes sleepers until no clean-up is left, also of a manager that has gone. False when some
  /// stay.
  [[nodiscard]] bool cleanUpsEnd() const;

  RecordingHost host;
  TableFile table;

 private:
  ZanDsmTextList present;
  std::shared_ptr<ctmgr::WorkerGate> gate;  ///< shared with the manager and its clean-ups
};
