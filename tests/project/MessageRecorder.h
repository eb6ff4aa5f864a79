// A message strategy for tests: remembers every message it answers and answers with a chosen answer.
#pragma once

#include "common/Standardmessage.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace oxtest {

struct TRecordedMessage {
  std::string Text;
  std::string Caption;
};

/// The record shared by the test and the strategy (which the message proxy owns and may delete first).
struct TMessageRecord {
  std::mutex Lock;
  std::vector<TRecordedMessage> Messages;
  TStandardMessageAnswer Answer = kAnswerYes;

  bool Contains(const std::string& text) {
    std::lock_guard guard(Lock);
    for (const auto& message : Messages)
      if (message.Text.find(text) != std::string::npos) return true;
    return false;
  }
  size_t Count() {
    std::lock_guard guard(Lock);
    return Messages.size();
  }
};

class TRecordingStrategy : public IMessagingStrategy {
public:
  explicit TRecordingStrategy(std::shared_ptr<TMessageRecord> record) : FRecord(std::move(record)) {}
  TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override {
    if (!message) return {};
    auto record = FRecord;
    return [record](IStandardMessage* m) -> IStandardMessageReply* {
      std::lock_guard guard(record->Lock);
      record->Messages.push_back({m->GetMessageText(), m->GetCaption()});
      return m->GetReply(record->Answer);
    };
  }
  std::string GetName() const override { return "Test Recorder"; }

private:
  std::shared_ptr<TMessageRecord> FRecord;
};

} // namespace oxtest
