// Neighbours that the kernel is told of, and tells the plug-in of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "lab/NetNamespace.h"

namespace bench {

/// An IPv4 or IPv6 address and a MAC address, as texts.
struct Neighbour {
  std::string address;
  std::string mac;
};

/// The permanent neighbours of an interface made for them in |where|. Thread: any one.
class NeighbourTable {
 public:
  /// Neighbours that one set() may have: their notifications fit into a socket's receive buffer.
  static constexpr std::size_t kBatch = 100;

  /// Throws lab::Error.
  explicit NeighbourTable(const lab::NetNamespace& where);

  /// Adds |neighbours|, kBatch at most, or gives their addresses these MAC addresses. The kernel
  /// has queued a notification for each that is new or has changed when this returns. Throws
  /// lab::Error.
  void set(const std::vector<Neighbour>& neighbours);

  /// A message that announces |neighbour|, as the kernel's begin, with room for a decoder that
  /// reads behind it.
  [[nodiscard]] static std::vector<unsigned char> announcement(const Neighbour& neighbour);

 private:
  void awaitAcknowledgement(std::uint32_t sequence);

  base::UniqueFd socket_;
  int interface_ = 0;
  std::uint32_t sequence_ = 0;
};

}  // namespace bench
