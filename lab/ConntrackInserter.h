// Puts made-up entries into a conntrack table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "lab/ConntrackTable.h"

struct mnl_socket;

namespace lab {

class NetNamespace;

/// Puts made-up entries into a conntrack table, as if their connections had been seen.
class ConntrackInserter {
 public:
  struct Entry {
    /// IPPROTO_TCP or IPPROTO_UDP.
    std::uint8_t protocol = 0;
    ConntrackTuple original;
    /// Without a value the mirror image of |original|: no address translation.
    std::optional<ConntrackTuple> reply = std::nullopt;
    std::uint32_t timeoutSeconds = 600;
  };

  /// Throws Error.
  explicit ConntrackInserter(const NetNamespace& where);

  /// Inserts |entries| in order; each one is acknowledged by the kernel when this returns. TCP
  /// entries are ESTABLISHED. Throws Error when the kernel refuses one (an equal one exists, say);
  /// others may be in the table then. Any one thread.
  void insert(std::span<const Entry> entries);

  /// Empties the table. Throws Error.
  void removeAll();

 private:
  void insertBatch(std::span<const Entry> batch);

  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket_;
};

}  // namespace lab
