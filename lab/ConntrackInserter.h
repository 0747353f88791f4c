#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "base/UniqueFd.h"
#include "lab/ConntrackTable.h"

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
  void sendBatch(const std::vector<Entry>& entries, std::size_t begin, std::size_t end);
  void collectAcknowledgements(const std::vector<Entry>& entries, std::size_t begin,
                               std::size_t end);

  base::UniqueFd socket_;
};

}  // namespace lab
