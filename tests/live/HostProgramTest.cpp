// The host program as a whole: how it starts, refuses and stops.
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class HostProgram : public LiveTest {
 protected:
  /// A file that holds |content|, until the test is over.
  std::string write(const std::string& content) {
    files.push_back(testing::TempDir() + "/zanhostXXXXXX");
    close(mkstemp(files.back().data()));
    std::ofstream(files.back()) << content;
    return files.back();
  }
  void TearDown() override {
    for (const std::string& file : files) unlink(file.c_str());
  }

  /// Runs the host on a gateway of its own.
  base::ProgramRun run(const std::vector<std::string>& command, const std::string& input = {}) {
    const lab::HotspotNetwork network({.clients = 0, .ipv6Only = {}});
    return lab::Process::run(command, &network.gateway(), input);
  }

  std::vector<std::string> files;
};

TEST_F(HostProgram, SaysWhatCannotBeHadBeforeAnythingIsChanged) {
  const std::string script = write("clients\nwait soon\nquit\n");
  const std::string properties = write("a=1\nmistake\n");
  const struct {
    std::vector<std::string> command;
    int exitCode;
    std::string said;
  } cases[] = {
      {{kHostProgram}, 1, "/zanhost/vendor.libzanctmgr.so"},
      {{kHostProgram, "--plagin"}, 2, "not expected: --plagin"},
      {{kHostProgram, "--plugin", "/nonexistent.so"}, 1, "/nonexistent.so"},
      {{kHostProgram, "--plugin", "libc.so.6"}, 1, "libc.so.6"},
      {{kHostProgram, "--plugin", kPluginPath, "--script", script}, 2, script + ":2: wait:"},
      {{kHostProgram, "--plugin", kPluginPath, "--properties", properties}, 2, ":2: 'mistake'"},
  };
  for (const auto& test : cases) {
    const auto result = run(test.command);
    EXPECT_EQ(result.status.code, test.exitCode) << result.errors;
    EXPECT_THAT(result.errors + result.output, HasSubstr(test.said));
    EXPECT_THAT(result.errors, Not(HasSubstr("ready")));
  }
}

TEST_F(HostProgram, WarnsAtTheStartWhenIdleTimersCannotBeHad) {
  const struct {
    std::string hidden;  ///< nobody finds what is in there
    testing::Matcher<std::string> said;
  } cases[] = {
      {"/usr/sbin", HasSubstr("iptables failed with 127")},
      {"/usr/lib/*/xtables", HasSubstr("xt_IDLETIMER")},
      {"/mnt", Not(HasSubstr("idle timers"))},
  };
  if (!run({"unshare", "--mount", "true"}).status.success()) {
    GTEST_SKIP() << "no mount namespace can be had here, as in a chroot";
  }
  for (const auto& test : cases) {
    const auto result = run({"unshare", "--mount", "sh", "-c",
                             "mount -t tmpfs none " + test.hidden + R"( && exec "$0" "$@")",
                             kHostProgram, "--plugin", kPluginPath, "--wwan", "nosuch9"},
                            "quit\n");
    EXPECT_TRUE(result.status.success()) << result.errors;
    EXPECT_THAT(result.errors, test.said);
  }
}

TEST_F(HostProgram, SweepsTheRulesOfKilledHostsAndNoOthers) {
  const std::string script = R"sh(
    each() { for program in iptables ip6tables; do $program -t mangle "$@"; done; }
    add() { each -A POSTROUTING -o "$1" -j IDLETIMER --timeout 7 --label "$2"; }
    add theirs "not$$"; before=$(each -S)
    add "sw$$" "CT_sw$$"; add "sw$$" "CT_sw$$"
    "$0" --sweep && [ "$(each -S)" = "$before" ])sh";
  const auto result = run({"bash", "-ec", script, kHostProgram});
  EXPECT_TRUE(result.status.success()) << result.errors;
}

TEST_F(HostProgram, StopsInOrderAlsoWhileACleanUpSleeps) {
  for (const int signal : {SIGTERM, SIGINT, 0}) {
    Hotspot hotspot;
    hotspot.reportClients({0});
    hotspot.reportClients({});
    if (signal == 0) hotspot.host.command("quit");
    const auto status = hotspot.host.stop(signal);
    EXPECT_TRUE(status.success()) << status.text();
    EXPECT_TRUE(logs(hotspot.host, "stopped: deinit_ct_mgr returned 0"));
  }
}

TEST_F(HostProgram, StopsInOrderWhateverStandardStreamIsClosed) {
  const std::string host = "'" + kHostProgram + "' --plugin '" + kPluginPath + "' --script ";
  const std::string script = write("status\nquit\n");
  for (const char* closed : {" <&-", " >&-", " 2>&-"}) {
    const auto result = run({"bash", "-c", host + script + closed});
    EXPECT_TRUE(result.status.success()) << closed << ": " << result.status.text();
  }
}

}  // namespace
