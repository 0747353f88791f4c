// What every live test needs: a kernel that lets us, and a hotspot with the host on its gateway.
#include "tests/live/LiveTest.h"

#include <sched.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

#include "lab/Error.h"
#include "lab/UserNamespace.h"

namespace {

/// Why live tests cannot run here, if they cannot.
std::string obstacle;

/// Before the process has threads.
void prepareForLiveTests() {
  try {
    lab::UserNamespace::enterIfNeeded();
    const lab::HotspotNetwork probe({.clients = 1, .ipv6Only = {}});
    static_cast<void>(lab::readConntrackTable(probe.gateway()));
  } catch (const lab::Error& error) {
    obstacle = error.what();
  }
  unshare(CLONE_NEWNET);  // a conntrack table of our own: it is read under /proc/self
}

bool holds(const lab::HostProcess::LogLine& line, const std::string& text) {
  return line.text.find(text) != std::string::npos;
}

}  // namespace

const std::string kHostProgram = lab::HostProcess::Options().program;
const std::string kPluginPath = lab::HostProcess::Options().plugin;

int main(int argc, char** argv) {
  prepareForLiveTests();
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}

lab::HostProcess::Options hostOptions(std::vector<std::string> properties,
                                      std::vector<std::string> arguments) {
  lab::HostProcess::Options options;
  options.properties = std::move(properties);
  options.arguments = std::move(arguments);
  options.logLevel = 0;
  return options;
}

bool logs(lab::HostProcess& host, const std::string& text) {
  return host.waitForLog([&](const auto& line) { return holds(line, text); }).has_value();
}

std::ptrdiff_t linesWith(const std::string& text, const lab::HostProcess& host) {
  const auto log = host.log();
  return std::count_if(log.begin(), log.end(), [&](const auto& line) { return holds(line, text); });
}

pid_t pluginProcess(lab::HostProcess& host) {
  return host.status().pid;
}

char stateOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const std::size_t name = stat.rfind(") ");
  return name == std::string::npos ? '?' : stat[name + 2];
}

std::ptrdiff_t threadsOf(pid_t process) {
  const std::filesystem::directory_iterator entries("/proc/" + std::to_string(process) + "/task");
  return std::distance(begin(entries), end(entries));
}

void LiveTest::SetUp() {
  if (obstacle.empty()) return;
  std::string why = "cannot run here: " + obstacle;
  std::replace(why.begin(), why.end(), '\n', ' ');
  const char* ci = std::getenv("CI");
  if (ci != nullptr && std::string(ci) == "true") FAIL() << why;
  GTEST_SKIP() << why;
}

Hotspot::Hotspot(lab::HotspotNetwork::Options options, std::vector<std::string> properties,
                 std::vector<std::string> arguments)
    : network(options),
      server(network.upstream()),
      host(hostOptions(std::move(properties), std::move(arguments)), network.gateway()) {}

void Hotspot::open(std::size_t i, std::size_t perKind) {
  connections[i] = std::make_unique<lab::ClientConnections>(network, i, perKind, server.port());
}

void Hotspot::connect(std::size_t i, std::size_t perKind) {
  open(i, perKind);
  const auto& client = network.client(i);
  EXPECT_TRUE(client.ipv4.empty() || logs(host, "Ipv4 neighbor Address " + client.ipv4));
  EXPECT_TRUE(logs(host, "Ipv6 neighbor Address " + client.ipv6));
}

void Hotspot::reportClients(const std::set<std::size_t>& present) {
  std::string command = "clients";
  for (const std::size_t i : present) command += " " + network.client(i).mac;
  host.command(command);
}

void Hotspot::lose(std::size_t i) {
  network.detachClient(i);
  reportClients({});
}

bool Hotspot::awaitDeletions(std::size_t count) {
  return base::eventually([&] { return host.status().deletions.deleted == count; });
}

bool sameConnections(const Hotspot::Entries& a, const Hotspot::Entries& b) {
  return std::is_permutation(
      a.begin(), a.end(), b.begin(), b.end(),
      [](const auto& one, const auto& other) { return one.sameConnection(other); });
}
