// The plug-in as a library: what unloading it, and loading it again and again, leaves behind.
#include <malloc.h>
#include <netinet/in.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "lab/ConntrackInserter.h"
#include "lab/Process.h"
#include "refhost/framework/HostSides.h"
#include "refhost/framework/NetlinkCounters.h"
#include "refhost/zanhost/Plugin.h"
#include "tests/live/LiveTest.h"

namespace {

class PluginLibrary : public LiveTest {};

/// Waits until this thread is the only one left.
bool workersEnd() {
  return base::eventually([] { return threadsOf(getpid()) == 1; });
}

bool isMapped(const std::string& library) {
  std::ifstream maps("/proc/self/maps");
  const std::string all{std::istreambuf_iterator<char>(maps), {}};
  return all.find(std::filesystem::path(library).filename()) != std::string::npos;
}

long descriptorCount() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

struct Footprint {
  bool alone = workersEnd();  ///< no worker that ends has a stack any more
  long heapBytes = static_cast<long>(mallinfo2().uordblks);
  long descriptors = descriptorCount();
};

TEST_F(PluginLibrary, WorksOnAndStaysMappedAfterItHasBeenUnloaded) {
  constexpr std::uint16_t kEntries = 5000;
  const std::string address = "10.0.0.1";
  const std::string mac = "02:00:00:00:00:01";
  const lab::NetNamespace gateway;
  ASSERT_EQ(setns(gateway.fd(), CLONE_NEWNET), 0);
  std::vector<lab::ConntrackInserter::Entry> entries;
  for (std::uint16_t port = 1; port <= kEntries; ++port) {
    entries.push_back({IPPROTO_UDP, {address, "198.51.100.7", port, 443}});
  }
  lab::ConntrackInserter(gateway).insert(entries);
  Zan host;
  {
    zanhost::Plugin plugin(kPluginPath);
    ASSERT_EQ(plugin.start(host), 0);
    lab::Process::runIpBatch(gateway,
                             "link add ap1 type veth peer name ap2\nlink set ap1 up\n"
                             "neigh replace " +
                                 address + " lladdr " + mac + " dev ap1 nud permanent\n");
    while (framework::notificationCounters().delivered == 0)
      HostSides::loopOf(host.zanCom).turn(-1);
    for (const ZanDsmTextList& clients : {ZanDsmTextList{mac}, ZanDsmTextList{}}) {
      host.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &clients);
    }
    ASSERT_EQ(plugin.stop(), 0);
  }
  EXPECT_TRUE(base::eventually([] { return framework::deletionCounters().deleted == kEntries; }));
  EXPECT_TRUE(isMapped(kPluginPath));
  EXPECT_TRUE(workersEnd()) << "the clean-up wakes in the library's code";
}

TEST_F(PluginLibrary, LoadsAndUnloadsFiveHundredTimesWithoutGrowing) {
  constexpr int kWarmUpRounds = 100;
  constexpr int kRounds = 400;
  // By design a round leaves the conntrack socket and, once the table was read, the stream over
  // its descriptor: one descriptor, and on the heap the socket's object with the reference host's
  // receive buffer (8.4 KiB) and a FILE of the C library (0.5 KiB).
  constexpr long kLeftBehindBytes = 9216;
  constexpr int kLeftBehindDescriptors = 1;
  Zan host;
  const auto round = [&] {
    zanhost::Plugin plugin(kPluginPath);
    ASSERT_TRUE(plugin.loaded()) << plugin.error();
    ASSERT_EQ(plugin.start(host), 0);
    EXPECT_EQ(plugin.start(host), -1) << "there is a manager already";
    const ZanDsmTextList lost{"203.0.113.1"};
    host.zanDsm.dispatchEvent(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &lost);
    ASSERT_EQ(plugin.stop(), 0);
    EXPECT_EQ(plugin.stop(), -1) << "there is no manager any more";
  };
  for (int i = 0; i < kWarmUpRounds; ++i) round();
  const Footprint before;
  for (int i = 0; i < kRounds; ++i) round();
  const Footprint after;
  ASSERT_TRUE(before.alone && after.alone);
  EXPECT_LT(after.heapBytes - before.heapBytes, kRounds * kLeftBehindBytes);
  EXPECT_EQ(after.descriptors - before.descriptors, kRounds * kLeftBehindDescriptors);
}

}  // namespace
