// What the manager deletes when hotspot clients leave and upstream addresses are lost.
#include <gmock/gmock.h>

#include <atomic>
#include <future>

#include "base/Patience.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/Hotspot.h"
#include "tests/Sleepers.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr Client clientA{1};
constexpr Client clientB{2};
constexpr Client clientC{3};

const std::string kBrokenLine = clientA.ipv4() + "\n";

/// Each entry of the table is told by its port.
struct HotspotTest : testing::Test {
  Hotspot hotspot;
  RecordingHost& host = hotspot.host;

  void SetUp() override { hotspot.start(); }
};

TEST_F(HotspotTest, FlushesADepartedClientAtOnce) {
  hotspot.table.write(tableEntry(clientA.ipv4(), 101) + tableEntry(clientA.ipv6(), 102));
  hotspot.arrives(clientA);
  EXPECT_THAT(hotspot.deleted(), IsEmpty()) << "it is there";
  hotspot.leaves(clientA);
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101, 102));
}

TEST_F(HotspotTest, KeepsTheOtherClients) {
  hotspot.table.write(tableEntry(clientA.ipv4(), 101) + tableEntry(clientB.ipv4(), 102));
  hotspot.arrives({clientA, clientB});
  hotspot.leaves(clientA);
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101));
}

TEST_F(HotspotTest, FlushesWhoIsReplacedByAnother) {
  hotspot.table.write(tableEntry(clientA.ipv4(), 101));
  hotspot.arrives(clientA);
  hotspot.reportClients({clientB.mac()});
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101));
}

TEST_F(HotspotTest, FlushesADepartureOnce) {
  hotspot.table.write(tableEntry(clientA.ipv4(), 101) + tableEntry(clientB.ipv4(), 102));
  hotspot.arrives({clientA, clientB, clientC});
  hotspot.leaves(clientA);
  hotspot.leaves(clientB);
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101, 102));
}

TEST_F(HotspotTest, ALineWithoutAnEntryEndsAFlushButWhatWasFoundIsDeleted) {
  hotspot.table.write(tableEntry(clientA.ipv4(), 101) + kBrokenLine +
                      tableEntry(clientA.ipv4(), 102));
  hotspot.arrives(clientA);
  hotspot.leaves(clientA);
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101));
  EXPECT_THAT(host.logged("Failed to parse /proc"),
              ElementsAre("4 10409 ZanConnTrackMgr:: Failed to parse /proc/net/nf_conntrack"));
}

TEST_F(HotspotTest, FlushesTwiceMoreFiveSecondsApart) {
  const std::chrono::seconds kPause(5);
  hotspot.table.write(tableEntry(clientA.ipv4(), 101));
  hotspot.arrives(clientA);
  hotspot.leaves(clientA);
  for (const std::size_t flushes : {1U, 2U}) {
    ASSERT_EQ(sleepers::await(), kPause);
    EXPECT_THAT(hotspot.deleted(), SizeIs(flushes));
    sleepers::wake();
  }
  EXPECT_TRUE(hotspot.cleanUpsEnd());
  EXPECT_THAT(hotspot.deleted(), SizeIs(3));
}

TEST_F(HotspotTest, ForgetsTheClientAfterTheLastFlush) {
  hotspot.arrives(clientA);
  hotspot.leaves(clientA);
  EXPECT_TRUE(hotspot.knows(clientA));
  EXPECT_TRUE(hotspot.cleanUpsEnd());
  EXPECT_FALSE(hotspot.knows(clientA));
}

TEST_F(HotspotTest, ASleepingCleanUpDoesNotHoldUpTheEndAndThenDoesNothing) {
  hotspot.table.write(tableEntry(clientA.ipv4(), 101));
  hotspot.arrives(clientA);
  hotspot.leaves(clientA);
  sleepers::await();
  EXPECT_EQ(hotspot.stop(), 0);
  EXPECT_TRUE(hotspot.cleanUpsEnd());
  EXPECT_THAT(hotspot.deleted(), SizeIs(1)) << "the flush at once";
}

TEST_F(HotspotTest, DeparturesOfOneEventShareOneReading) {
  host.whenRecorded = [this](const std::string& line) {
    if (line.ends_with("client Info " + clientB.mac())) hotspot.table.write("");
  };
  hotspot.table.write(tableEntry(clientA.ipv4(), 101) + tableEntry(clientB.ipv4(), 102));
  hotspot.arrives({clientA, clientB});
  hotspot.leaves({clientA, clientB});
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101, 102)) << "B's too, although they have gone since";
}

TEST_F(HotspotTest, ALostUpstreamAddressTakesWhatWasTranslatedToIt) {
  hotspot.table.write(tableEntry(clientA.ipv4(), 101, "7.7.7.7") +
                      tableEntry(clientB.ipv4(), 102, "7.7.7.8") +
                      tableEntry("10.9.9.9", 103, "7.7.7.7"));
  hotspot.arrives({clientA, clientB});
  hotspot.losesUpstream({"7.7.7.9", "7.7.7.7"});
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101)) << "no other address, no stranger";
}

TEST_F(HotspotTest, ALossDoesNotRepeatTheFlushBeforeIt) {
  hotspot.table.write(tableEntry(clientA.ipv6(), 101));
  hotspot.arrives(clientA);
  hotspot.leaves(clientA);
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101));
  hotspot.losesUpstream({"7.7.7.7"});
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101));
}

/// A hotspot of which the first deletion worker hangs in its first request.
struct HangingDeletion : HotspotTest {
  std::promise<void> release;
  std::atomic<int> sends = 0;

  void SetUp() override {
    host.whenRecorded = [this, released = release.get_future().share()](const std::string& line) {
      if (line.starts_with("sendConntrackNetlinkMsg") && sends++ == 0) released.wait();
    };
    hotspot.start();
    hotspot.table.write(tableEntry(clientA.ipv4(), 101) + tableEntry(clientA.ipv4(), 102) +
                        tableEntry(clientB.ipv4(), 103));
    hotspot.arrives({clientA, clientB});
    hotspot.leaves(clientA);
    EXPECT_TRUE(base::eventually([this] { return sends == 1; }));
  }
};

TEST_F(HangingDeletion, HoldsUpNoOtherFlush) {
  hotspot.leaves(clientB);
  EXPECT_TRUE(base::eventually([this] { return !hotspot.deletedSoFar().empty(); }));
  EXPECT_THAT(hotspot.deletedSoFar(), ElementsAre(103));
  release.set_value();
  EXPECT_THAT(hotspot.deleted(), ElementsAre(101, 102, 103));
}

TEST_F(HangingDeletion, OutlivesTheManagerAndGoesOnToItsEnd) {
  EXPECT_EQ(deinit_ct_mgr(), 0);
  release.set_value();
  EXPECT_TRUE(base::eventually([this] { return hotspot.deletedSoFar().size() == 2; }));
  EXPECT_THAT(hotspot.deletedSoFar(), ElementsAre(101, 102));
}

}  // namespace
