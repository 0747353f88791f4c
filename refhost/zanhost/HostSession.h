// One run of the reference host: the host object and the commands that act on it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/Zan.h"
#include "refhost/framework/HostSides.h"
#include "refhost/zanhost/AnswerQueue.h"
#include "refhost/zanhost/Command.h"
#include "refhost/zanhost/HotspotClients.h"
#include "refhost/zanhost/Nl80211.h"
#include "refhost/zanhost/StationMonitor.h"
#include "refhost/zanhost/WwanMonitor.h"

namespace zanhost {

/// Thread: event thread.
class HostSession {
 public:
  /// |channel| is the command channel to the privileged parent process, or -1.
  explicit HostSession(int channel);

  /// The object that the plug-in is started with.
  [[nodiscard]] Zan& host() { return zan_; }

  /// Follows real mobile-data interfaces. False, with a log line, when the kernel does not tell.
  [[nodiscard]] bool follow(const std::vector<std::string>& wwanNames) {
    return wwan_.follow(wwanNames);
  }

  /// Counts the stations of these access points among the clients, once the event loop runs.
  void followHotspots(const std::vector<std::string>& names);

  /// The answer, one line (help and plain status: several), goes to |answers|.
  void execute(const Command& command, AnswerQueue& answers);

 private:
  void carryOut(const ClientsCommand& command);
  void carryOut(const UpstreamLostCommand& command);
  void carryOut(const StatusCommand& command);
  void carryOut(const WaitCommand& command);
  void carryOut(const HelpCommand& command);
  void carryOut(const QuitCommand& command);
  void carryOut(const WwanCommand& command);
  void carryOut(const ApnsCommand& command);
  void carryOut(const TetheringCommand& command);
  void carryOut(const DormancyCommand& command);
  void carryOut(const FilteringEndedCommand& command);
  void carryOut(const ModemAnswerCommand& command);
  void answer(const std::string& text) { answers_->add(text + "\n"); }

  Zan zan_;
  AnswerQueue* answers_ = nullptr;  ///< of the command that is being carried out
  WwanMonitor wwan_;
  HotspotClients clients_;
  StationMonitor stations_;
  std::unique_ptr<Nl80211> nl80211_;  ///< with an access point to follow
};

}  // namespace zanhost
