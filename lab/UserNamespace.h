// What lets the lab run without root.
#pragma once

namespace lab {

/// What lets the lab run without root: a user namespace in which the caller is root.
class UserNamespace {
 public:
  /// Moves the process into a user and mount namespace of its own, mapped to uid and gid 0, if
  /// it lacks the capabilities to create network namespaces; otherwise does nothing. Returns
  /// whether it moved.
  ///
  /// Call it first thing in main(): the kernel refuses to move a process that has threads, and
  /// network namespaces made before the map exists would own a conntrack table that nobody may
  /// read. Throws Error when the kernel does not allow it.
  static bool enterIfNeeded();
};

}  // namespace lab
