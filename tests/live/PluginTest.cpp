// The plug-in as a library: what unloading it leaves behind.
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "lab/ConntrackTable.h"
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

TEST_F(PluginLibrary, WorksOnAndStaysMappedAfterItHasBeenUnloaded) {
  constexpr int kEntries = 5000;
  const std::string address = "10.0.0.1";
  const std::string mac = "02:00:00:00:00:01";
  const lab::NetNamespace gateway;
  ASSERT_EQ(setns(gateway.fd(), CLONE_NEWNET), 0);
  std::string entries;
  for (int port = 1; port <= kEntries; ++port) {
    entries += "-I -p udp -s " + address + " -d 198.51.100.7 --sport " + std::to_string(port) +
               " --dport 443 --timeout 600\n";
  }
  lab::insertConntrackEntries(gateway, entries);
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

}  // namespace
