// The calls that the plug-in makes, any of which can be made to fail.
#pragma once

#include <string>

/// The linker's --wrap leads the calls of our own objects here, in every build alike; a definition
/// of read() in the executable would also catch those of the C library and fight the sanitizers'
/// own. The stream over the table reads through here because fdopen() makes it of two functions.
///
/// Thread: the test's own; the calls themselves, any.
namespace faults {

/// Which call fails, with which errno value, and whether alone.
struct Fault {
  int number;  ///< from 1
  int error;
  enum class Extent { kOnce, kFromThenOn } extent;  ///< of its kind
};

/// Counts calls from now on, and lets |fault| happen.
void fail(const Fault& fault);

/// Stops counting. Returns the kind of the call that failed, empty when there were fewer calls.
std::string stop();

/// Files that open as the table and as a timer, and the command channel.
extern int table;
extern int timer;
extern int channel;

}  // namespace faults
