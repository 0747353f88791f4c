// The plug-in as a library: what unloading it, and loading it again and again, leaves behind.
#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sched.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "refhost/Plugin.h"
#include "tests/live/LiveTest.h"

namespace {

class PluginLibrary : public LiveTest {};

struct Footprint {
  std::size_t heapBytes;
  std::size_t residentBytes;
  int descriptors;

  static Footprint now() {
    Footprint footprint{mallinfo2().uordblks, 0, 0};
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0;
    statm >> pages >> pages;
    footprint.residentBytes = pages * 4096;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/fd"), closedir);
    while (readdir(directory.get()) != nullptr) ++footprint.descriptors;
    return footprint;
  }
};

void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(PluginLibrary, StaysMappedForWorkersThatStillSleep) {
  Zan host;
  {
    Plugin plugin(kPluginPath);
    ASSERT_EQ(plugin.start(host), 0);
    for (const ZanDsmTextList& clients : {ZanDsmTextList{"02:00:00:00:00:01"}, ZanDsmTextList{}}) {
      host.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &clients);
    }
    ASSERT_EQ(plugin.stop(), 0);
  }
  const auto threads = [] {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
  };
  EXPECT_EQ(threads(), 2) << "the clean-up sleeps on";
  EXPECT_TRUE(Hotspot::within(std::chrono::seconds(10), [&] { return threads() == 1; }))
      << "it ends when it wakes";
}

TEST_F(PluginLibrary, LoadsAndUnloadsAThousandTimesWithoutGrowing) {
  constexpr int kWarmUpRounds = 100;
  constexpr int kRounds = 900;
  // By design a round leaves the conntrack socket and, once the table was read, the stream over
  // its descriptor: one descriptor, and on the heap the socket's object with the reference host's
  // receive buffer (8.4 KiB) and a FILE of the C library (0.5 KiB).
  constexpr std::size_t kLeftBehindBytes = 9216;
  constexpr int kLeftBehindDescriptors = 1;

  raiseDescriptorLimit();
  Zan host;
  const auto round = [&] {
    Plugin plugin(kPluginPath);
    ASSERT_TRUE(plugin.loaded()) << plugin.error();
    ASSERT_EQ(plugin.start(host), 0);
    EXPECT_EQ(plugin.start(host), -1) << "there is a manager already";
    const ZanDsmTextList lost{"203.0.113.1"};
    host.zanDsm.dispatchEvent(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &lost);
    ASSERT_EQ(plugin.stop(), 0);
    EXPECT_EQ(plugin.stop(), -1) << "there is no manager any more";
  };
  for (int i = 0; i < kWarmUpRounds; ++i) round();
  const Footprint before = Footprint::now();
  for (int i = 0; i < kRounds; ++i) round();
  const Footprint after = Footprint::now();

  const auto heapGrowth =
      static_cast<double>(after.heapBytes) - static_cast<double>(before.heapBytes);
  const auto residentGrowth =
      static_cast<double>(after.residentBytes) - static_cast<double>(before.residentBytes);
  RecordProperty("heap_bytes_a_round", std::to_string(heapGrowth / kRounds));
  std::printf("a round leaves %.0f bytes of heap, %.0f resident, %.2f descriptors\n",
              heapGrowth / kRounds, residentGrowth / kRounds,
              static_cast<double>(after.descriptors - before.descriptors) / kRounds);
  EXPECT_LT(heapGrowth / kRounds, kLeftBehindBytes);
  EXPECT_LT(residentGrowth / kRounds, 2 * kLeftBehindBytes);
  EXPECT_EQ(after.descriptors - before.descriptors, kRounds * kLeftBehindDescriptors);
}

}  // namespace

int main(int argc, char** argv) {
  prepareForLiveTests();
  unshare(CLONE_NEWNET);  // a conntrack table of our own: it is read under /proc/self
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
