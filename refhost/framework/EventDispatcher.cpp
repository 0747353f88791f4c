// The dispatching side of the event dispatcher.
#include "host/EventDispatcher.h"

#include <vector>

#include "host/ZanDsmEvents.h"

template <typename EventT>
EventDispatcher<EventT>::~EventDispatcher() {
  for (const auto& registration : registrations) delete registration.second;
}

/// A record is being dispatched from the start of its event's dispatch to the end, not only while
/// its own callback runs: whoever is deregistered by an earlier listener is no longer called, and
/// no record is freed under the loop.
template <typename EventT>
void EventDispatcher<EventT>::dispatchEvent(EventT event, const void* evtData) {
  std::vector<CallbackRecord*> listeners;
  std::vector<CallbackRecord*> claimed;  // not those of an outer dispatch of the same event
  const auto range = registrations.equal_range(event);
  for (auto it = range.first; it != range.second; ++it) {
    CallbackRecord* record = it->second;
    listeners.push_back(record);
    if (record->state != kIdle) continue;
    record->state = kDispatching;
    claimed.push_back(record);
  }
  for (const CallbackRecord* record : listeners) {
    if (record->state == kDispatching) record->callback(event, evtData, record->cbData);
  }
  for (CallbackRecord* record : claimed) {
    if (record->state != kRemovalRequested) {
      record->state = kIdle;
      continue;
    }
    const auto candidates = registrations.equal_range(event);
    for (auto it = candidates.first; it != candidates.second; ++it) {
      if (it->second != record) continue;
      registrations.erase(it);
      break;
    }
    delete record;
    changed = 1;
  }
}

template class EventDispatcher<ZanDsmEvent>;
