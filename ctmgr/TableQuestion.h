// Sharing what one reading of the conntrack table gave.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "ctmgr/ReadingTurns.h"

namespace ctmgr {

/// The whole table as it was read once, in the pieces that fgets(3) gave.
using TableText = std::vector<std::string>;

/// Longest text that is kept for others, in bytes.
inline constexpr std::size_t kMostTextBytes = 16U << 20U;

/// What a flush asks: any reading of the table that began after the event, or the end of the sleep,
/// that made it ask. Flushes of one event share the question.
struct TableQuestion {
  using Clock = std::chrono::steady_clock;

  explicit TableQuestion(ReadingTurns::Asker who) : asker(who) {}

  ReadingTurns::Asker asker;
  Clock::time_point asked = Clock::now();
  bool askedAgain =
      false;  ///< there are more flushes to come with it: what is read is kept for them

  /// The reading that answered it, once one was kept, and the stream that it came from.
  std::shared_ptr<const TableText> text;
  const void* stream = nullptr;
};

}  // namespace ctmgr
