// Events for thread coordination: manual-reset or auto-reset, with waiting for one of several.
#pragma once

#include <chrono>
#include <initializer_list>

/// An event that threads wait for. A manual-reset event stays set until Reset; an auto-reset event
/// is reset by the one wait that it releases. Events are for rare coordination (start, stop, queued
/// calls); waiting blocks without using the processor.
class TEvent {
public:
  TEvent(bool manualReset, bool initiallySet);
  TEvent(const TEvent&) = delete;
  TEvent& operator=(const TEvent&) = delete;

  void Set();
  void Reset();
  bool IsSet() const;
  /// Waits up to milliseconds (negative: without limit); true when the event was set.
  bool Wait(int milliseconds);
  /// Waits until one of the events (null entries are skipped) is set; returns its position in the
  /// list, or -1 on time-out. An auto-reset event that releases the wait is reset.
  static int WaitForAny(std::initializer_list<TEvent*> events, int milliseconds);

private:
  bool FManualReset;
  bool FSet;
};
