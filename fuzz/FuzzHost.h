// What the fuzzers share.
#pragma once

#include <cstdio>

#include "ctmgr/ZanConnTrackUtils.h"
#include "fuzz/Require.h"
#include "tests/RecordingHost.h"

/// An address in the one form in which it is compared: dotted, or eight groups of four digits.
inline std::string addressText(int family, const std::uint8_t* address) {
  const bool ipv4 = family == AF_INET;
  std::string text;
  for (int i = 0; i < (ipv4 ? 4 : 16); ++i) {
    char part[5];
    std::snprintf(part, sizeof(part), ipv4 ? ".%d" : i % 2 == 0 ? ":%02x" : "%02x", address[i]);
    text += part;
  }
  return text.substr(1);
}

/// A host to build the plug-in's objects on, for all inputs.
struct FuzzHost {
  FuzzHost() { host.forgetful = true; }
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
};
