// A network namespace without a name.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <type_traits>

#include "base/UniqueFd.h"

namespace lab {

/// A network namespace without a name. It lives as long as this object, a socket created in it
/// or a process running in it; since the lab's processes die with the lab, nothing is left
/// behind however the lab ends, and labs side by side cannot meet.
class NetNamespace {
 public:
  /// Creates an empty namespace (nothing but a loopback interface that is down). Throws Error.
  NetNamespace();
  NetNamespace(NetNamespace&&) noexcept = default;
  NetNamespace& operator=(NetNamespace&&) noexcept = default;

  /// For setns(); owned by this object.
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// What ip(8) calls it: a path through this process, which a child may follow.
  [[nodiscard]] std::string path() const;

  /// Calls |work| on a thread of its own inside the namespace, waits for it and returns its
  /// result; an exception of |work| comes out of here. Sockets that |work| creates belong to
  /// the namespace for good and may be used anywhere. There, /proc/thread-self/net and
  /// /proc/sys/net are the namespace's; /proc/net (the main thread's) is not.
  template <typename Work>
  std::invoke_result_t<Work&> run(Work&& work) const {
    using Result = std::invoke_result_t<Work&>;
    if constexpr (std::is_void_v<Result>) {
      runOnThread([&work] { work(); });
    } else {
      std::optional<Result> result;
      runOnThread([&work, &result] { result.emplace(work()); });
      return std::move(*result);
    }
  }

  /// Writes a sysctl of the namespace; |path| is relative to /proc/sys/net, e.g.
  /// "ipv4/ip_forward". Throws Error.
  void setSysctl(const char* path, const char* value) const;

 private:
  void runOnThread(const std::function<void()>& work) const;

  base::UniqueFd fd_;
};

}  // namespace lab
