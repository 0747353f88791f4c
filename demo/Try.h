// The lab at a prompt.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "demo/DemoReport.h"
#include "demo/Program.h"
#include "demo/Prompt.h"
#include "lab/ClientConnections.h"
#include "lab/EchoServer.h"
#include "lab/HotspotNetwork.h"
#include "lab/MobileLink.h"
#include "lab/Process.h"

namespace demo {

/// A hotspot with two clients whose connections go on, a mobile link, and the host: whoever types
/// decides what happens. What is no word of the lab goes to the host, with "link" for the link's
/// name; the host's answers and log are printed as they come.
class Try {
 public:
  /// |waiting| must outlive this object.
  explicit Try(const Waiting& waiting);
  /// Ends the host in order.
  ~Try();

  /// Until "quit" or the end of the input. Throws Error, also when the host does not end in order,
  /// and Interrupted.
  void run();

 private:
  using Clock = Waiting::Clock;

  void carryOut(const std::string& line);
  void leave(std::size_t client);
  void comeBack(std::size_t client);

  /// Gives the host a command and prints what comes of it.
  void tellHost(const std::string& command);
  void reportClients();
  /// Lets the clients talk and prints what the host says, until |end| or until there is |input| to
  /// read. True if there is.
  bool follow(Clock::time_point end, int input = -1);
  void relay(int fd);

  const Waiting& waiting_;
  DemoReport report_;

  // Torn down in reverse: the host and the clients' connections first, the namespaces last.
  lab::HotspotNetwork network_;
  lab::MobileLink link_{network_.gateway(), 0};
  lab::EchoServer server_{network_.upstream()};
  std::array<std::optional<lab::ClientConnections>, 2> connections_;
  lab::Process host_;
  bool hostEnded_ = false;
  Clock::time_point lastHeard_;
  Clock::time_point nextTalk_ = Clock::now();
  /// The lab's own words.
  std::map<std::string, std::function<void()>> verbs_;
  Prompt prompt_;
};

}  // namespace demo
