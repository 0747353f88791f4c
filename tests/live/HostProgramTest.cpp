// The host program as a whole: how it starts, refuses and stops.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using namespace std::chrono_literals;

class HostProgram : public LiveTest {
 protected:
  std::string write(const std::string& content) {
    std::string path = testing::TempDir() + "/zanhostXXXXXX";
    close(mkstemp(path.data()));
    std::ofstream(path) << content;
    files.push_back(path);
    return path;
  }
  void TearDown() override {
    for (const std::string& file : files) unlink(file.c_str());
  }

  std::vector<std::string> files;
};

TEST_F(HostProgram, SaysWhatCannotBeHadBeforeAnythingIsChanged) {
  const lab::HotspotNetwork network({.clients = 1, .ipv6Only = {}});
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
    const auto result = lab::Process::run(test.command, &network.gateway());
    EXPECT_EQ(result.status.code, test.exitCode) << result.errors;
    EXPECT_NE((result.errors + result.output).find(test.said), std::string::npos)
        << test.said << " is not in: " << result.errors << result.output;
    EXPECT_EQ(result.errors.find("ready"), std::string::npos) << result.errors;
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
    EXPECT_TRUE(hotspot.host.waitForLog(
        [](const auto& line) { return line.text == "stopped: deinit_ct_mgr returned 0"; }, 1s));
  }
}

TEST_F(HostProgram, RunsAScriptAndReportsWrongCommandsWithoutActing) {
  const lab::HotspotNetwork network({.clients = 1, .ipv6Only = {}});
  const std::string script =
      write("# two clients\nclients 02:00:00:00:43:0A 02:00:00:00:43:0b\nstatus json\nquit\n");
  const auto result = lab::Process::run({kHostProgram, "--plugin", kPluginPath, "--script", script},
                                        &network.gateway());
  EXPECT_TRUE(result.status.success()) << result.errors;
  EXPECT_NE(result.output.find(R"("clients":["02:00:00:00:43:0a","02:00:00:00:43:0b"])"),
            std::string::npos)
      << result.output;

  const auto typed = lab::Process::run({kHostProgram, "--plugin", kPluginPath}, &network.gateway(),
                                       "clients 02:00:00:00:43:0a\nclients x\nstatus json\nquit\n");
  EXPECT_TRUE(typed.status.success()) << typed.errors;
  EXPECT_NE(typed.output.find(R"("clients":["02:00:00:00:43:0a"])"), std::string::npos);
  EXPECT_NE(typed.errors.find("'x' is no MAC address"), std::string::npos) << typed.errors;
}

TEST_F(HostProgram, StopsInOrderWhateverItsStandardStreamsAre) {
  const lab::HotspotNetwork network({.clients = 1, .ipv6Only = {}});
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
    const auto result = lab::Process::run({"bash", "-c", command}, &network.gateway(), {},
                                          std::chrono::seconds(15));
    EXPECT_TRUE(result.status.success()) << command << ": " << result.status.text();
  }
}

}  // namespace
