// Who is handed on after a listing, and in which order.
#include <gmock/gmock.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

#include "base/UniqueFd.h"
#include "host/ZanNetlinkSocket.h"
#include "refhost/framework/NeighbourListing.h"

namespace framework {
namespace {

using testing::ElementsAre;

/// A listing that is under way; its neighbours are known by their interface numbers. The test
/// stands in for the kernel.
class NeighbourListingTest : public testing::Test {
 protected:
  NeighbourListingTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    socket.reset(ends[0]);
    kernel.reset(ends[1]);
    EXPECT_TRUE(listing.ask(socket.get()));
  }

  void list(int neighbour, int state, std::optional<std::uint32_t> updatedAgo) {
    take(neighbour, state, kAnswer, updatedAgo);
  }
  void announce(int neighbour) { take(neighbour, NUD_STALE, 0, std::nullopt); }

  void finish(std::uint16_t type) {
    nlmsghdr* const end = newMessage(type, kAnswer);
    mnl_nlmsg_put_extra_header(end, sizeof(nlmsgerr));
    listing.take(*end);
  }

  /// Who is handed on, in order.
  std::vector<int> result() {
    std::vector<int> neighbours;
    for (const auto& message : listing.result()) {
      neighbours.push_back(
          static_cast<const ndmsg*>(mnl_nlmsg_get_payload(&header(message)))->ndm_ifindex);
      const auto length = static_cast<std::ptrdiff_t>(header(message).nlmsg_len);
      EXPECT_EQ(std::count(message.begin() + length, message.end(), 0),
                static_cast<std::ptrdiff_t>(kNetlinkReceiveSlack));
    }
    return neighbours;
  }

  base::UniqueFd socket;
  base::UniqueFd kernel;
  NeighbourListing listing;

 private:
  static constexpr std::uint32_t kAnswer = 1;

  static const nlmsghdr& header(const std::vector<unsigned char>& bytes) {
    return *static_cast<const nlmsghdr*>(static_cast<const void*>(bytes.data()));
  }

  void take(int neighbour, int state, std::uint32_t sequence,
            std::optional<std::uint32_t> updatedAgo) {
    nlmsghdr* const message = newMessage(RTM_NEWNEIGH, sequence);
    auto* const body = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ndmsg)));
    body->ndm_ifindex = neighbour;
    body->ndm_state = static_cast<std::uint16_t>(state);
    nda_cacheinfo times{};
    times.ndm_updated = updatedAgo.value_or(0);
    if (updatedAgo) mnl_attr_put(message, NDA_CACHEINFO, sizeof(times), &times);
    listing.take(*message);
  }

  nlmsghdr* newMessage(std::uint16_t type, std::uint32_t sequence) {
    nlmsghdr* const message = mnl_nlmsg_put_header(room.data());
    message->nlmsg_type = type;
    message->nlmsg_seq = sequence;
    return message;
  }

  alignas(nlmsghdr) std::array<char, 256> room{};
};

TEST_F(NeighbourListingTest, HandsOnTheFreshestLastAndThenWhatHasChangedMeanwhile) {
  list(1, NUD_REACHABLE, 20);
  announce(2);
  list(3, NUD_STALE, 3000000000);
  list(4, NUD_PERMANENT, 0);
  list(5, NUD_DELAY, 20);
  announce(1);
  EXPECT_TRUE(listing.underWay());
  finish(NLMSG_DONE);
  EXPECT_FALSE(listing.underWay());
  EXPECT_THAT(result(), ElementsAre(3, 1, 5, 4, 2, 1));
  EXPECT_THAT(result(), ElementsAre());
}

TEST_F(NeighbourListingTest, LeavesOutWhoWouldNotBeAnnounced) {
  for (const int state : {NUD_NONE, NUD_INCOMPLETE, NUD_FAILED, NUD_NOARP}) list(1, state, 1);
  list(2, NUD_PROBE, 1);
  finish(NLMSG_DONE);
  EXPECT_THAT(result(), ElementsAre(2));
}

TEST_F(NeighbourListingTest, HandsOnTheChangesAlsoWhenTheKernelRefuses) {
  announce(1);
  finish(NLMSG_ERROR);
  EXPECT_FALSE(listing.underWay());
  EXPECT_THAT(result(), ElementsAre(1));
}

}  // namespace
}  // namespace framework
