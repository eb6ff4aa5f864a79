// The narrow channel between long work and whoever waits for it: how far the work has come, what it is
// doing, and whether it should stop. Kernels, data objects and tools take this instead of the calculation
// controller, so that they run and test without threads; TMCC implements it.
#pragma once

#include <cstdint>
#include <string>

/// Progress and cancel of one level of work. Calls may come from any thread: AddProgress from several at
/// once; figures are for display only, so readers accept torn values.
class IProgressAndCancel {
public:
  /// What the work is doing now ("Loading Graph 3").
  virtual void SetProgressCaption(const std::string& caption) = 0;
  /// done of total (elements or steps); a total of 0 means unknown.
  virtual void SetProgress(std::int64_t done, std::int64_t total) = 0;
  /// Adds to done without touching total; safe from several threads at once.
  virtual void AddProgress(std::int64_t delta) = 0;
  /// True when the work should end as soon as it can leave its results consistent.
  virtual bool IsCancelled() const = 0;
  /// The level below this one (the share of the current item of the work); this level when there is none.
  virtual IProgressAndCancel& SubLevel() { return *this; }

protected:
  ~IProgressAndCancel() = default;
};

/// Null-safe shorthands for code whose progress channel is optional.
inline bool IsCancelled(const IProgressAndCancel* progress) {
  return progress && progress->IsCancelled();
}
inline void SetProgress(IProgressAndCancel* progress, std::int64_t done, std::int64_t total) {
  if (progress) progress->SetProgress(done, total);
}
