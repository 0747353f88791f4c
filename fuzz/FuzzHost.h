// What the fuzzers share.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "ctmgr/ZanConnTrackUtils.h"
#include "tests/RecordingHost.h"

/// Ends the run unless |holds|; libFuzzer then keeps the input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "DIFFERENCE: %s\n", what);
  std::abort();
}

/// A host to build the plug-in's objects on, for all inputs.
struct FuzzHost {
  FuzzHost() { host.forgetful = true; }
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
};
