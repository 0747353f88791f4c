// The fields of a line of the kernel's conntrack table, read as sscanf(3) would read them, at a
// sixth of its cost: the event thread waits for every line.
#pragma once

#include <cstdint>

/// The tokens that begin a line. A token that is longer than its buffer is cut there, and what is
/// left of it is read as the next one: the kernel's own tokens all fit.
struct LineStart {
  char layer3Name[16];
  char layer3Number[16];
  char layer4Name[16];
  char layer4Number[4];
};

/// Longer than any address (INET6_ADDRSTRLEN).
using AddressField = char[48];

/// What follows the source address of a direction.
struct DestinationText {
  AddressField dst;
  std::uint16_t sport;
  std::uint16_t dport;
};

/// As sscanf(|line|, "%15s %15s %15s %3s"): a token that |line| lacks keeps what it held.
void readLineStart(const char* line, LineStart& start);

/// As sscanf(|tuple|, " src=%47s"). Returns where the source ends, or null if there is none.
const char* readSource(const char* tuple, AddressField& source);

/// As sscanf(|sourceEnd|, " dst=%47s sport=%hu dport=%hu"): from the first field on that is lacking
/// there, and wholly if |sourceEnd| is null, fields keep what they held.
void readDestination(const char* sourceEnd, DestinationText& destination);
