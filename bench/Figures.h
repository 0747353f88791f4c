// What is measured: one function a subject, each in the file that is called like it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace bench {

class Report;

struct Options {
  std::string plugin;                   ///< path of the plug-in as it ships
  Effort effort{};                      ///< for each measurement
  std::vector<std::size_t> tableSizes;  ///< entries, ascending
};

/// A scan through the parser's public interface against read(2) to the end of the same descriptor,
/// and how it grows with the table (ScanFigures.cpp).
void measureScans(const Options& options, Report& report);

/// How many times as fast a scan is as one whose stream reads 1024 bytes at a time, on this kernel
/// (ReadFigures.cpp).
void measureReads(const Options& options, Report& report);

/// Lines away from the kernel; ends with measureInstructions() (LineFigures.cpp).
void measureLines(const Options& options, Report& report);

/// Instructions that a line takes, counted by callgrind, against their limits: what carries over
/// from one processor to another. Runs of one build differ by a hundredth at most, however busy it
/// is.
void measureInstructions(Report& report);

/// Has the parser read |count| lines of a kind: the run whose instructions are counted.
void readLines(int count, const std::string& kind);
[[nodiscard]] std::vector<std::string> lineKinds();

/// Deletions a second by the worker (DeletionFigures.cpp).
void measureDeletions(const Options& options, Report& report);

/// Event 27 to the last acknowledgement (FlushFigures.cpp).
void measureFlushes(const Options& options, Report& report);

/// Many clients that leave in one event (DepartureFigures.cpp).
void measureDepartures(const Options& options, Report& report);

/// Neighbour notifications a second (NeighbourFigures.cpp).
void measureNeighbours(const Options& options, Report& report);

/// Memory, and loading and unloading (FootprintFigures.cpp).
void measureFootprint(const Options& options, Report& report);

}  // namespace bench
