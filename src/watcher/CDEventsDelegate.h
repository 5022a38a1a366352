#pragma once

#include <memory>

namespace kestrine {

class CDEvent;
class CDEvents;

/// What a delegate of a CDEvents implements.
class CDEventsDelegate {
 public:
  virtual ~CDEventsDelegate() = default;

  /// Called for each delivered event, in order, on the thread of the run loop that `URLWatcher` is scheduled on.
  virtual void URLWatcher_eventOccurred(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event) = 0;

 protected:
  CDEventsDelegate() = default;
  CDEventsDelegate(const CDEventsDelegate&) = default;
  CDEventsDelegate& operator=(const CDEventsDelegate&) = default;
};

}  // namespace kestrine
