// A progress channel for tests: records what work reports and cancels it after a chosen number of
// questions, so that kernels and data objects are tested without threads or a calculation controller.
#pragma once

#include "common/threads/Progressandcancel.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace oxtest {

class TRecordingProgress final : public IProgressAndCancel {
public:
  /// cancelAfter < 0: never cancels; otherwise IsCancelled answers true from its (cancelAfter+1)-th call on.
  explicit TRecordingProgress(int cancelAfter = -1) : FCancelAfter(cancelAfter) {}

  void SetProgressCaption(const std::string& caption) override {
    std::lock_guard lock(FLock);
    Captions.push_back(caption);
  }
  void SetProgress(std::int64_t done, std::int64_t total) override {
    Done.store(done);
    Total.store(total);
    Updates.fetch_add(1);
  }
  void AddProgress(std::int64_t delta) override {
    Done.fetch_add(delta);
    Updates.fetch_add(1);
  }
  bool IsCancelled() const override {
    const int asked = FQuestions.fetch_add(1);
    return FCancelAfter >= 0 && asked >= FCancelAfter;
  }
  IProgressAndCancel& SubLevel() override { return Sub; }

  int Questions() const { return FQuestions.load(); }
  std::vector<std::string> CaptionsSeen() const {
    std::lock_guard lock(FLock);
    return Captions;
  }

  std::atomic<std::int64_t> Done{0};
  std::atomic<std::int64_t> Total{0};
  std::atomic<int> Updates{0};
  std::vector<std::string> Captions;

  /// The level below, recorded the same way; it never cancels on its own.
  class TLevel final : public IProgressAndCancel {
  public:
    explicit TLevel(TRecordingProgress& owner) : FOwner(owner) {}
    void SetProgressCaption(const std::string& caption) override { Caption = caption; }
    void SetProgress(std::int64_t done, std::int64_t total) override {
      Done.store(done);
      Total.store(total);
      Updates.fetch_add(1);
    }
    void AddProgress(std::int64_t delta) override { Done.fetch_add(delta); }
    bool IsCancelled() const override { return FOwner.IsCancelled(); }
    std::string Caption;
    std::atomic<std::int64_t> Done{0};
    std::atomic<std::int64_t> Total{0};
    std::atomic<int> Updates{0};

  private:
    TRecordingProgress& FOwner;
  };
  TLevel Sub{*this};

private:
  mutable std::mutex FLock;
  mutable std::atomic<int> FQuestions{0};
  int FCancelAfter;
};

} // namespace oxtest
