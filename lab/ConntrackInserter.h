// Puts made-up entries into a conntrack table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "lab/ConntrackTable.h"

struct mnl_socket;

namespace lab {

class NetNamespace;

/// Puts made-up entries into a conntrack table, as if their connections had been seen.
class ConntrackInserter {
 public:
  struct Entry {
    /// An IPPROTO_ value. ICMP and ICMPv6 entries are echo requests with the identifier
    /// |original.sourcePort|; protocols the kernel does not know have no ports, whatever the
    /// tuple says.
    std::uint8_t protocol = 0;
    ConntrackTuple original;
    /// Without a value the mirror image of |original|: no address translation.
    std::optional<ConntrackTuple> reply = std::nullopt;
    std::uint32_t timeoutSeconds = 600;
  };

  /// Throws Error.
  explicit ConntrackInserter(const NetNamespace& where);

  /// Inserts |entries| in order; each one is acknowledged by the kernel when this returns. TCP
  /// entries are ESTABLISHED. Throws Error for the first entry that the kernel refuses (an equal
  /// one exists, say) or whose addresses are of two families or none; others of the same batch,
  /// before or after it, may be in the table then. Any one thread.
  void insert(const std::vector<Entry>& entries);

  /// Empties the table. Throws Error.
  void removeAll();

 private:
  void insertBatch(const std::vector<Entry>& entries, std::size_t begin, std::size_t end);

  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket_;
};

}  // namespace lab
