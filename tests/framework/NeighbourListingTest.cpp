// Which of the kernel's neighbours are handed on, and in which order.
#include <gmock/gmock.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <array>
#include <vector>

#include "refhost/framework/NeighbourListing.h"

namespace framework {
namespace {

using testing::ElementsAre;

constexpr std::uint32_t kAnnounced = 0;
constexpr std::uint32_t kListed = 1;

/// The test stands in for the kernel and knows the neighbours by their interface numbers.
struct NeighbourListingTest : testing::Test {
  void hear(std::uint32_t sequence, int neighbour, std::uint32_t ticksAgo) {
    alignas(nlmsghdr) std::array<char, 256> room{};
    nlmsghdr* const message = mnl_nlmsg_put_header(room.data());
    message->nlmsg_type = RTM_NEWNEIGH;
    message->nlmsg_seq = sequence;
    auto* const body = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ndmsg)));
    body->ndm_ifindex = neighbour;
    body->ndm_state = NUD_STALE;
    const std::array<unsigned char, 6> mac{2, 0, 0, 0, 0, static_cast<unsigned char>(neighbour)};
    mnl_attr_put(message, NDA_LLADDR, mac.size(), mac.data());
    nda_cacheinfo times{};
    times.ndm_updated = ticksAgo;
    mnl_attr_put(message, NDA_CACHEINFO, sizeof(times), &times);
    listing.take(*message);
  }

  std::vector<int> handedOn() {
    std::vector<int> neighbours;
    for (const NeighbourListing::Message& message : listing.result()) {
      const void* const body = message.data() + NLMSG_HDRLEN;
      neighbours.push_back(static_cast<const ndmsg*>(body)->ndm_ifindex);
    }
    return neighbours;
  }

  NeighbourListing listing;
};

TEST_F(NeighbourListingTest, TheLatestAnnouncedComesLastAndChangesBehindTheList) {
  hear(kListed, 1, 20);
  hear(kAnnounced, 4, 0);
  hear(kListed, 2, 3000000000);
  hear(kListed, 3, 0);
  EXPECT_THAT(handedOn(), ElementsAre(2, 1, 3, 4));
}

TEST_F(NeighbourListingTest, OfOthersOnlyTheChangesAreHandedOn) {
  constexpr int kNoKernel = -1;
  EXPECT_FALSE(listing.ask(kNoKernel, {"02:00:00:00:00:02"}));
  for (const int neighbour : {1, 2, 3}) hear(kListed, neighbour, 0);
  hear(kAnnounced, 4, 0);
  EXPECT_THAT(handedOn(), ElementsAre(2, 4));
}

}  // namespace
}  // namespace framework
