// The kernel's list of the neighbours that are there already.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace framework {

/// Asks for the list on a socket that gets neighbour notifications too, and says in which order
/// both are to be handed on: first the list, as its neighbours were announced last, then the
/// changes that have come meanwhile. Left out is who would not be announced: no link-layer address
/// is known of it, or the kernel needs none.
///
/// Thread: event thread.
class NeighbourListing {
 public:
  /// One netlink message with kNetlinkReceiveSlack zero bytes behind it.
  using Message = std::vector<unsigned char>;

  /// Sends the request on |fd|, for the neighbours with one of |macs|, texts in lower case; for all
  /// if that is empty. False, with errno set, if that fails.
  [[nodiscard]] bool ask(int fd, std::set<std::string> macs);

  /// From a request to the end of its answer; take() gets every message meanwhile.
  [[nodiscard]] bool underWay() const { return underWay_; }
  void take(const nlmsghdr& msg);

  /// What is to be handed on, once the answer has ended.
  [[nodiscard]] std::vector<Message> result();

 private:
  struct Kept {
    std::int64_t age;  ///< of the latest announcement, in the kernel's ticks; a change is younger
    Message message;
  };

  [[nodiscard]] bool isWanted(const nlmsghdr& msg) const;

  std::set<std::string> macs_;
  std::vector<Kept> kept_;
  bool underWay_ = false;
};

}  // namespace framework
