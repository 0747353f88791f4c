#pragma once

#include <functional>

namespace demo {

/// What main() of zandemo and zansoak comes to: becomes able to create network namespaces, turns
/// SIGINT and SIGTERM into Demo::requestStop() and calls |play|. Says on standard error, after
/// |name|, what |play| threw. Returns the exit status: 0, 1 if it threw, 130 if interrupted.
int runProgram(const char* name, const std::function<void()>& play);

}  // namespace demo
