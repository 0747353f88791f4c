// The plug-in as it ships, on the reference host's objects in this very process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/NeighbourTable.h"
#include "host/Zan.h"
#include "refhost/zanhost/Plugin.h"

namespace bench {

/// A flush leaves threads behind that sleep for seconds: in a child process (inChild()) they end
/// with it. Thread: one.
class PluginHost {
 public:
  /// Loads |path| and starts it in the calling thread's namespace. Throws lab::Error.
  explicit PluginHost(const std::string& path);
  ~PluginHost() { plugin_.stop(); }
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  /// Has the kernel tell the plug-in of |neighbours|, which |table| may know already. Throws
  /// lab::Error.
  void learn(NeighbourTable& table, const std::vector<Neighbour>& neighbours);

  /// The seconds from the event that client |mac| has gone to the last of |entries|
  /// acknowledgements. Stops the plug-in afterwards. Throws lab::Error unless the flush deleted
  /// exactly |entries| entries and asked for no more.
  double flush(const std::string& mac, std::uint64_t entries);

  /// The seconds of the event that all of |macs| have gone.
  double leave(const ZanDsmTextList& macs);

 private:
  Zan zan_;
  zanhost::Plugin plugin_;
};

}  // namespace bench
