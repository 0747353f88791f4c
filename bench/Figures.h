// What is measured: one function a subject.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace bench {

class Report;

struct Options {
  std::string plugin;                   ///< path of the plug-in as it ships
  Effort effort{};                      ///< for each figure
  std::vector<std::size_t> tableSizes;  ///< entries, ascending
};

/// A scan against one with small reads, which older kernels answer slowly (ScanFigures.cpp).
void measureReads(const Options& options, Report& report);

/// A scan against reading the same descriptor to its end, and how it grows (ScanFigures.cpp).
void measureScans(const Options& options, Report& report);

/// From a client's departure to its last deleted entry, against conntrack(8) (FlushFigures.cpp).
void measureFlushes(const Options& options, Report& report);

/// Many clients that leave in one event (FlushFigures.cpp).
void measureDepartures(const Options& options, Report& report);

/// Deletions a second, against prebuilt requests (DeletionFigures.cpp).
void measureDeletions(const Options& options, Report& report);

/// Instructions that a line takes, which carry over from one processor to another: runs of one
/// build differ by a hundredth at most, however busy the machine is (InstructionFigures.cpp).
void measureInstructions(const Options& options, Report& report);

/// The run whose instructions are counted: has the parser read |count| lines of a kind.
void readLines(int count, const std::string& kindName);

}  // namespace bench
