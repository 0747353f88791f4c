// A conntrack table of made-up entries, in a network namespace of its own.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "lab/NetNamespace.h"

namespace bench {

/// A hotspot client, as the plug-in knows one.
struct Client {
  std::string mac;
  std::string ipv4;
  std::string ipv6;          ///< in the spelling of inet_ntop(3)
  std::string expandedIpv6;  ///< as the parser compares it
};

enum class Families { kIpv4, kQuarterIpv6 };

/// What a table is made of: every client owns as many entries as every other.
struct TableShape {
  std::size_t entries;
  std::size_t clients;  ///< 250 at most
  Families families = Families::kQuarterIpv6;
};

/// Half of the entries are TCP, half UDP; those of IPv4 are translated to one upstream address.
///
/// The kernel keeps the entries of all namespaces in one hash and walks past the others': use one
/// table at a time.
class BenchTable {
 public:
  /// The client to look for: from number 18 on no address is contained in another's text.
  static constexpr std::size_t kLoneClient = 55;

  /// Fills the table and moves the calling thread, the main thread, into its namespace, where
  /// /proc/net is that table's. Throws lab::Error.
  explicit BenchTable(const TableShape& shape);

  /// Empties the table: of a namespace that goes, the kernel does so at its leisure.
  ~BenchTable();
  BenchTable(const BenchTable&) = delete;
  BenchTable& operator=(const BenchTable&) = delete;

  /// Client |number|, from 0.
  [[nodiscard]] static Client client(std::size_t number);

  /// How many entries client |number| has in the table, and how many of them are IPv4.
  [[nodiscard]] std::size_t entriesOf(std::size_t number) const;
  [[nodiscard]] std::size_t ipv4EntriesOf(std::size_t number) const;

  /// Puts back the entries of client |number|, which somebody has deleted. Throws lab::Error.
  void refill(std::size_t number);

  /// Fills the table anew with |entries| of the same clients. Throws lab::Error.
  void resize(std::size_t entries);

  [[nodiscard]] const lab::NetNamespace& where() const { return where_; }

 private:
  [[nodiscard]] bool isIpv6(std::size_t index) const;
  void fill();

  TableShape shape_;
  lab::NetNamespace where_;
};

}  // namespace bench
