// The host program as a whole: how it starts, refuses and stops.
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using namespace std::chrono_literals;
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
  lab::CommandResult run(const std::vector<std::string>& command, const std::string& input = {}) {
    const lab::HotspotNetwork network({.clients = 0, .ipv6Only = {}});
    return lab::Process::run(command, &network.gateway(), input, 15s);
  }

  std::vector<std::string> files;
};

TEST_F(HostProgram, SaysWhatCannotBeHadBeforeAnythingIsChanged) {
  const std::string library = write("no library");
  const std::string script = write("clients\nwait soon\nquit\n");
  const std::string properties = write("a=1\nmistake\n");
  const struct {
    std::vector<std::string> command;
    int exitCode;
    std::string said;
  } cases[] = {
      {{kHostProgram}, 2, "--plugin is required"},
      {{kHostProgram, "--plugin", "/nonexistent.so"}, 1, "/nonexistent.so"},
      {{kHostProgram, "--plugin", library}, 1, "cannot load the plug-in"},
      {{kHostProgram, "--plugin", "libc.so.6"}, 1, "libc.so.6"},
      {{kHostProgram, "--plugin", kPluginPath, "--script", script}, 2, script + ":2: wait:"},
      {{kHostProgram, "--plugin", kPluginPath, "--script", "/nonexistent"}, 2, "No such file"},
      {{kHostProgram, "--plugin", kPluginPath, "--properties", properties}, 2, ":2: 'mistake'"},
      {{kHostProgram, "--plugin", kPluginPath, "--property", "x"}, 2, "NAME=VALUE"},
      {{kHostProgram, "--plugin", kPluginPath, "--log-level", "9"}, 2, "range"},
      {{"unshare", "--user", kHostProgram, "--plugin", kPluginPath}, 1, "run as root"},
      {{"unshare", "--user", "--map-root-user", kHostProgram, "--plugin", kPluginPath},
       1,
       "run as root"},
  };
  for (const auto& test : cases) {
    const auto result = run(test.command);
    EXPECT_EQ(result.status.code, test.exitCode) << result.errors;
    EXPECT_THAT(result.errors + result.output, HasSubstr(test.said));
    EXPECT_THAT(result.errors, Not(HasSubstr("ready")));
  }
}

TEST_F(HostProgram, StopsInOrderAlsoWhileACleanUpSleeps) {
  for (const int signal : {SIGTERM, SIGINT, 0}) {
    Hotspot hotspot;
    hotspot.reportClients({0});
    hotspot.reportClients({});
    if (signal == 0) hotspot.host.command("quit");
    const auto start = Hotspot::Clock::now();
    const auto status = hotspot.host.stop(signal);
    EXPECT_TRUE(status.success()) << status.text();
    EXPECT_LT(Hotspot::Clock::now() - start, 1s) << "the clean-up sleeps for five";
    EXPECT_TRUE(logs(hotspot.host, "stopped: deinit_ct_mgr returned 0"));
  }
}

TEST_F(HostProgram, RunsAScriptAndReportsWrongCommandsWithoutActing) {
  const std::string script =
      write("# two clients\nclients 02:00:00:00:43:0A 02:00:00:00:43:0b\nstatus json\nquit\n");
  const auto result = run({kHostProgram, "--plugin", kPluginPath, "--script", script});
  EXPECT_TRUE(result.status.success()) << result.errors;
  EXPECT_THAT(result.output, HasSubstr(R"("clients":["02:00:00:00:43:0a","02:00:00:00:43:0b"])"));

  const auto typed = run({kHostProgram, "--plugin", kPluginPath},
                         "clients 02:00:00:00:43:0a\nclients x\nstatus json\nquit\n");
  EXPECT_TRUE(typed.status.success()) << typed.errors;
  EXPECT_THAT(typed.output, HasSubstr(R"("clients":["02:00:00:00:43:0a"])"));
  EXPECT_THAT(typed.errors, HasSubstr("'x' is no MAC address"));
}

TEST_F(HostProgram, StopsInOrderWhateverItsStandardStreamsAre) {
  // Closed, and open to somebody who never reads: more answers and lines than a pipe holds.
  const std::string flood = "yes status | head -n 2000 |";
  const std::string host = "'" + kHostProgram + "' --log-level 0 --plugin '" + kPluginPath + "'";
  const std::string commands[] = {
      "timeout -s TERM 1 " + host + " <&- ; test $? = 124",
      "timeout -s TERM 1 " + host + " >&- ; test $? = 124",
      "timeout -s TERM 1 " + host + " 2>&- ; test $? = 124",
      flood + " timeout -k 8 -s TERM 1 " + host + " 2>&1 | (sleep 5; true); " +
          "test ${PIPESTATUS[2]} = 124",
  };
  for (const std::string& command : commands) {
    const auto result = run({"bash", "-c", command});
    EXPECT_TRUE(result.status.success()) << command << ": " << result.status.text();
  }
}

}  // namespace
