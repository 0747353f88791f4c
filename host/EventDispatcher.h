// Event registration, as the framework's headers compile it into every plug-in.
#pragma once

#include <cstdint>
#include <map>

/// Listeners by event identifier.
///
/// The registration side is compiled into whoever calls it and works on the members below
/// directly, so their order and types are part of the binary contract. The dispatching side,
/// dispatchEvent(), lives in the framework library alone.
///
/// Thread: everything runs on the framework's event thread; there is no lock.
template <typename EventT>
class EventDispatcher {
 public:
  /// |evtData| is borrowed for the call; |cbData| is what was registered.
  using Callback = void (*)(EventT event, const void* evtData, void* cbData);

  EventDispatcher() = default;
  EventDispatcher(const EventDispatcher&) = delete;
  EventDispatcher& operator=(const EventDispatcher&) = delete;

  /// Adds a listener behind those that |event| already has. The triple of arguments identifies
  /// it; the same triple may be registered more than once. |cbData| stays the caller's and must
  /// live until the listener is deregistered.
  void regEventCallback(EventT event, Callback callback, void* cbData) {
    registrations.emplace(event, new CallbackRecord{callback, cbData, kIdle});
    changed = 1;
  }

  /// Removes the first listener with this triple; unknown triples are ignored. A listener that is
  /// being dispatched is only marked, and freed by the dispatcher once the dispatch is over: it
  /// may therefore deregister itself from inside its own callback.
  void deregEventCallback(EventT event, Callback callback, void* cbData) {
    const auto range = registrations.equal_range(event);
    for (auto it = range.first; it != range.second; ++it) {
      CallbackRecord* record = it->second;
      if (record->callback != callback || record->cbData != cbData) continue;
      if (record->state == kDispatching) {
        record->state = kRemovalRequested;
      } else if (record->state == kIdle) {
        delete record;
        registrations.erase(it);
        changed = 1;
      }
      return;
    }
  }

  /// Calls the listeners of |event| in registration order, those registered meanwhile excluded.
  /// Defined by the framework; a plug-in never calls it.
  void dispatchEvent(EventT event, const void* evtData);

 protected:
  /// Frees the records that nobody deregistered. Defined by the framework.
  ~EventDispatcher();

  enum RecordState : std::int32_t { kIdle = 0, kDispatching = 1, kRemovalRequested = 2 };

  /// Allocated by regEventCallback(), freed by deregEventCallback() or by the dispatcher, which
  /// may be on different sides of the library boundary: both use the global operator new.
  struct CallbackRecord {
    Callback callback;
    void* cbData;
    RecordState state;
  };

  std::multimap<EventT, CallbackRecord*> registrations;
  std::int32_t changed = 0;  ///< set to 1 by every successful registration or removal
};
