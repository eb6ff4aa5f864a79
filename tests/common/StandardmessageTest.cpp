// Tests of standard messages: replies, strategies, logged lines, box layout, console prompt, several threads,
// and the messages carried to the main thread.
#include "common/Standardmessage.h"

#include "common/Logfile.h"
#include "common/MainThreadQueue.h"
#include "common/OrvexException.h"
#include "support/TestSupport.h"

#include <atomic>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace {

using TReplyPtr = std::unique_ptr<IStandardMessageReply>;

/// Proxy with a fresh log; everything is taken down again after the test.
class MessageProxyTest : public ::testing::Test {
protected:
  void SetUp() override {
    TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
    ASSERT_TRUE(Log.Open(Dir.File("messages.log"), true));
    Proxy = TMessageProxy::MsgProxySingleton();
    Proxy->SetMessageLoggingStrategy(new TStdMsgToLogFile_Strategy(&Log));
  }
  void TearDown() override {
    TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
    SetMessageApplicationTitle(std::nullopt);
  }
  /// Entries of the log after the time and thread columns.
  std::vector<std::string> LoggedTexts() {
    std::vector<std::string> texts;
    const std::string content = oxtest::ReadFileBytes(Log.GetFileName());
    std::size_t start = 0;
    while (start < content.size()) {
      auto end = content.find("\r\n", start);
      const std::string line = content.substr(start, end - start);
      const auto second = line.find(';', line.find(';') + 1);
      texts.push_back(line.substr(second + 1));
      start = end + 2;
    }
    return texts;
  }

  oxtest::TempDir Dir;
  TLogFile Log{false, false};
  TMessageProxy* Proxy = nullptr;
};

/// A message with none of the further parts.
class TBareMessage : public IStandardMessage {
public:
  TGuid GetTypeId() const override { return TGuid{7, 7, 7, {7, 7, 7, 7, 7, 7, 7, 7}}; }
  bool IsBlocking() const override { return Blocking; }
  void SetMessageText(const std::string& text) override { Text = text; }
  std::string GetMessageText() const override { return Text; }
  IStandardMessageReply* GetReply(TStandardMessageAnswer answer) override {
    auto event = std::make_shared<TAutoResetEvent>();
    event->Set();
    return new TStandardMessageReply(event, {answer, kProgressionNotSure});
  }
  void SetCaptionText(const std::string&) override {}
  void SetCaptionByID(int) override {}
  void SetMessageTextByID(int) override {}
  std::string GetCaption() const override { return ""; }
  std::string Text = "bare";
  bool Blocking = true;
};

/// Counts its own destruction.
class TCountingStrategy : public TContinueAllMessages_MessagingStrategy {
public:
  explicit TCountingStrategy(int* destroyed) : FDestroyed(destroyed) {}
  ~TCountingStrategy() override { ++*FDestroyed; }
  std::string GetName() const override { return "Counting"; }

private:
  int* FDestroyed;
};

TStandardMessageAnswerPair AnswerOf(IStandardMessageReply* reply) {
  EXPECT_NE(reply, nullptr);
  return reply ? reply->GetAnswer() : TStandardMessageAnswerPair{0, 0};
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Messages and replies

TEST(StandardMessage, ConstructionDefaults) {
  TBlockingMultipleChoiceMessage question;
  EXPECT_EQ(question.GetMessageText(), "Default Question");
  EXPECT_EQ(question.GetCaption(), "");
  EXPECT_TRUE(question.IsBlocking());
  EXPECT_EQ(question.GetPossibleAnswers(),
            (TStandardMessagePossibleAnswers{{kAnswerOk, kProgressionContinue}}));
  ASSERT_NE(question.GetDefaultReply(), nullptr);
  EXPECT_EQ(question.GetDefaultReply()->GetAnswer(),
            (TStandardMessageAnswerPair{kAnswerOk, kProgressionContinue}));

  std::unique_ptr<TBlockingMultipleChoiceMessage> yesNo(
      TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("Delete?", "Project", kSeverityQuestion, 0));
  EXPECT_EQ(yesNo->GetPossibleAnswers(),
            (TStandardMessagePossibleAnswers{{kAnswerDefault, 0}, {kAnswerYes, 1}, {kAnswerNo, 0}}));
  EXPECT_EQ(yesNo->GetSeverity(), kSeverityQuestion);
  EXPECT_EQ(yesNo->GetCaption(), "Project");
  std::unique_ptr<TBlockingMultipleChoiceMessage> okCancel(
      TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel("Go?", "", kSeverityWarning, 1));
  EXPECT_EQ(okCancel->GetPossibleAnswers(),
            (TStandardMessagePossibleAnswers{{kAnswerDefault, 1}, {kAnswerOk, 1}, {kAnswerCancel, 0}}));
  EXPECT_NE(TBlockingNotification::ClassGuid, TBlockingMultipleChoiceMessage::ClassGuid);
  EXPECT_EQ(TBlockingNotification().GetTypeId(), TBlockingNotification::ClassGuid);
}

TEST(StandardMessage, GetReplyTakesTheNearestAnswerNotBelowAndSetsTheEvent) {
  std::unique_ptr<TBlockingMultipleChoiceMessage> message(
      TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("q", "", kSeverityQuestion, 0));
  TReplyPtr exact(message->GetReply(kAnswerNo));
  EXPECT_EQ(exact->GetAnswer(), (TStandardMessageAnswerPair{kAnswerNo, 0}));
  ASSERT_NE(exact->AnswerAvailable(), nullptr);
  EXPECT_TRUE(exact->AnswerAvailable()->IsSet());
  EXPECT_TRUE(exact->AnswerAvailable()->Wait(std::chrono::milliseconds(0)));
  EXPECT_FALSE(exact->AnswerAvailable()->IsSet()); // auto-reset

  TReplyPtr between(message->GetReply(kAnswerOk)); // 1 is not possible: the next key is Yes (6)
  EXPECT_EQ(between->GetAnswer(), (TStandardMessageAnswerPair{kAnswerYes, 1}));
  TReplyPtr beyond(message->GetReply(42));
  EXPECT_EQ(beyond->GetAnswer(), (TStandardMessageAnswerPair{42, kProgressionNotSure}));
  // The reply keeps its event alive after the message has gone.
  message.reset();
  EXPECT_TRUE(beyond->AnswerAvailable()->IsSet());
}

TEST(StandardMessage, NotificationCaptionFollowsTheApplicationTitle) {
  SetMessageApplicationTitle(std::nullopt);
  EXPECT_EQ(TBlockingNotification().GetCaption(), "Orvex Project"); // resource 1
  SetMessageApplicationTitle("Orvex Project Plus 6.1");
  EXPECT_EQ(TBlockingNotification().GetCaption(), "Project");
  SetMessageApplicationTitle("Orvex Control Four");
  EXPECT_EQ(TBlockingNotification().GetCaption(), "Control");
  SetMessageApplicationTitle("Workbench");
  TBlockingNotification notification;
  EXPECT_EQ(notification.GetCaption(), "Workbench");
  EXPECT_EQ(notification.GetMessageText(), "Default Notification");
  SetMessageApplicationTitle(std::nullopt);
  SetMessageResourceString(900, "From the resources");
  notification.SetMessageTextByID(900);
  EXPECT_EQ(notification.GetMessageText(), "From the resources");
}

TEST(StandardMessage, GuidText) {
  const TGuid guid{0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
  EXPECT_EQ(guid.ToString(), "{01234567-89AB-CDEF-0123-456789ABCDEF}");
  EXPECT_TRUE(TGuid{}.IsNull());
  EXPECT_FALSE(guid.IsNull());
}

// ---------------------------------------------------------------------------------------------------------
// Proxy, strategies, logging

TEST_F(MessageProxyTest, NullMessageIsLoggedAndGivesNoReply) {
  Proxy->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy());
  EXPECT_EQ(Proxy->IssueMessage(nullptr, false), nullptr);
  Proxy->SetMessagingStrategy(nullptr);
  EXPECT_EQ(Proxy->IssueMessage(nullptr, false), nullptr);
  EXPECT_EQ(LoggedTexts(), (std::vector<std::string>{
                               "Standard Message Logger: NULL-Message passed in. Messaging-Strategy: "
                               "TContinueAllMessages_MessagingStrategy",
                               "Standard Message Logger: NULL-Message passed in. No Messaging Strategy."}));
}

TEST_F(MessageProxyTest, ContinueAllAnswersYesAndOk) {
  Proxy->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy());
  // The default entry continues too, but it is no real answer: Yes must win.
  TReplyPtr yes(Proxy->IssueMessage(TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(
                                        "Overwrite?\r\nThe file exists", "", kSeverityQuestion, 1),
                                    false));
  EXPECT_EQ(AnswerOf(yes.get()), (TStandardMessageAnswerPair{kAnswerYes, kProgressionContinue}));
  TReplyPtr ok(Proxy->IssueMessage(
      TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel("Proceed\nnow", "", kSeverityWarning, 0),
      false));
  EXPECT_EQ(AnswerOf(ok.get()), (TStandardMessageAnswerPair{kAnswerOk, kProgressionContinue}));
  // A message without answers gets the default answer.
  TReplyPtr bare(Proxy->IssueMessage(new TBareMessage(), false));
  EXPECT_EQ(AnswerOf(bare.get()).first, kAnswerDefault);
  const auto texts = LoggedTexts();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0],
            "Standard Message Logger: Message issued and answered - Overwrite?  The file exists - Yes "
            "(continue). Messaging-Strategy: TContinueAllMessages_MessagingStrategy");
  EXPECT_EQ(texts[1], "Standard Message Logger: Message issued and answered - Proceed now - Ok (continue). "
                      "Messaging-Strategy: TContinueAllMessages_MessagingStrategy");
  EXPECT_EQ(texts[2],
            "Standard Message Logger: Message issued and answered - bare - Default Answer (not sure what "
            "to do). Messaging-Strategy: TContinueAllMessages_MessagingStrategy");
}

TEST_F(MessageProxyTest, FixedAnswerWherePossibleOtherwiseDefault) {
  Proxy->SetMessagingStrategy(new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerNo));
  TReplyPtr fallback(Proxy->IssueMessage(
      TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel("Save changes", "", kSeverityQuestion, 0),
      false));
  EXPECT_EQ(AnswerOf(fallback.get()), (TStandardMessageAnswerPair{kAnswerDefault, kProgressionInterrupt}));
  TReplyPtr no(Proxy->IssueMessage(
      TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("Keep", "", kSeverityQuestion, 1), false));
  EXPECT_EQ(AnswerOf(no.get()), (TStandardMessageAnswerPair{kAnswerNo, kProgressionInterrupt}));
  // A notification has no -2 entry: the nearest answer not below it is Ok.
  TReplyPtr note(Proxy->IssueMessage(TBlockingNotification::CreateAndInit("Done", ""), false));
  EXPECT_EQ(AnswerOf(note.get()), (TStandardMessageAnswerPair{kAnswerOk, kProgressionContinue}));
  const auto texts = LoggedTexts();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0], "Standard Message Logger: Message issued and answered - Save changes - Default Answer "
                      "(interrupt). Messaging-Strategy: TFixedAnswerToAllMessages_MessagingStrategy");
  EXPECT_EQ(texts[1], "Standard Message Logger: Message issued and answered - Keep - No (interrupt). "
                      "Messaging-Strategy: TFixedAnswerToAllMessages_MessagingStrategy");
}

TEST_F(MessageProxyTest, NoStrategyMeansNoReplyAndAGotNoReplyLine) {
  TReplyPtr reply(Proxy->IssueMessage(TBlockingNotification::CreateAndInit("x", ""), false));
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(LoggedTexts(), std::vector<std::string>{
                               "Standard Message Logger: Got no reply for Message Type " +
                               TBlockingNotification::ClassGuid.ToString() + ". No Messaging Strategy."});
}

TEST_F(MessageProxyTest, LoggerTextsForUnansweredAndInvalidReplies) {
  TBlockingMultipleChoiceMessage message;
  message.SetMessageText("Pending");
  TContinueAllMessages_MessagingStrategy strategy;
  auto event = std::make_shared<TAutoResetEvent>();
  TStandardMessageReply open(event, {kAnswerOk, kProgressionContinue});
  EXPECT_EQ(TStdMsgToLogFile_Strategy::ComposeLogLine(&strategy, &message, &open),
            "Standard Message Logger: Message issued but not yet answered - Pending. Messaging-Strategy: "
            "TContinueAllMessages_MessagingStrategy");
  event->Set();
  TStandardMessageReply odd(event, {99, 5});
  EXPECT_EQ(TStdMsgToLogFile_Strategy::ComposeLogLine(nullptr, &message, &odd),
            "Standard Message Logger: Message issued and answered - Pending - Invalid Answer (99) (not sure "
            "what to "
            "do). No Messaging Strategy.");
  TStandardMessageReply cancel(event, {kAnswerCancel, 0});
  EXPECT_EQ(
      TStdMsgToLogFile_Strategy::ComposeLogLine(nullptr, &message, &cancel),
      "Standard Message Logger: Message issued and answered - Pending - Cancel (interrupt). No Messaging "
      "Strategy.");
}

TEST_F(MessageProxyTest, StrategiesByMessageTypeAndTheirOwnership) {
  int destroyedA = 0, destroyedB = 0;
  auto* a = new TCountingStrategy(&destroyedA);
  Proxy->SetMessagingStrategy(a);
  Proxy->SetMessagingStrategy(a, TBlockingNotification::ClassGuid); // one strategy, two keys
  Proxy->SetMessagingStrategy(new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerNo),
                              TBlockingMultipleChoiceMessage::ClassGuid);
  TReplyPtr question(Proxy->IssueMessage(
      TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("q", "", kSeverityQuestion, 1), false));
  EXPECT_EQ(AnswerOf(question.get()).first, kAnswerNo); // by its type
  TReplyPtr bare(Proxy->IssueMessage(new TBareMessage(), false));
  EXPECT_EQ(AnswerOf(bare.get()).first, kAnswerDefault); // by the default key

  Proxy->SetMessagingStrategy(new TCountingStrategy(&destroyedB)); // a still serves the notification key
  EXPECT_EQ(destroyedA, 0);
  EXPECT_EQ(Proxy->GetMessagingStrategy(TBlockingNotification::ClassGuid), a);
  Proxy->SetMessagingStrategy(nullptr, TBlockingNotification::ClassGuid);
  EXPECT_EQ(destroyedA, 1);
  Proxy->DeleteAllMessagingStrategies();
  EXPECT_EQ(destroyedB, 1);
  EXPECT_EQ(Proxy->GetMessagingStrategy(), nullptr);
}

TEST_F(MessageProxyTest, DiscardedReplyAndIssueByType) {
  struct TRecorder : IMessagingStrategy {
    TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override {
      if (!message) return {};
      return [this](IStandardMessage* msg) {
        Type = msg->GetTypeId();
        Text = msg->GetMessageText();
        if (auto* severity = dynamic_cast<IStandardMessageSeverity*>(msg)) Severity = severity->GetSeverity();
        ++Calls;
        return msg->GetReply(kAnswerOk);
      };
    }
    std::string GetName() const override { return "Recorder"; }
    TGuid Type;
    std::string Text;
    int Severity = -1;
    int Calls = 0;
  };
  auto* recorder = new TRecorder();
  Proxy->SetMessagingStrategy(recorder);
  EXPECT_EQ(Proxy->IssueMessage(TBlockingNotification::ClassGuid, "by type", true, kSeverityError), nullptr);
  EXPECT_EQ(recorder->Calls, 1);
  EXPECT_EQ(recorder->Type, TBlockingNotification::ClassGuid);
  EXPECT_EQ(recorder->Text, "by type");
  EXPECT_EQ(recorder->Severity, kSeverityError);
  // An unregistered type makes no message at all.
  EXPECT_EQ(Proxy->IssueMessage(TGuid{1, 2, 3, {}}, "unknown", false, kSeverityError), nullptr);
  EXPECT_EQ(recorder->Calls, 1);
  EXPECT_EQ(LoggedTexts().back(),
            "Standard Message Logger: NULL-Message passed in. Messaging-Strategy: Recorder");
  EXPECT_EQ(TMessageProxy::MessageCreatorMap().count(TBlockingMultipleChoiceMessage::ClassGuid), 1u);
}

TEST_F(MessageProxyTest, ExceptionOfAStrategyLeavesTheProxyUsable) {
  Proxy->SetMessagingStrategy(
      new TShowWindowMessage_MessagingStrategy([](const TMessageBoxLayout&) { return kAnswerOk; }));
  auto* odd = new TBlockingMultipleChoiceMessage();
  odd->DefinePossibleAnswers({{kAnswerYes, 1}}); // Yes alone: no box has that
  try {
    Proxy->IssueMessage(odd, false);
    FAIL() << "no exception";
  } catch (const OrvexException& e) {
    EXPECT_EQ(e.Message(), "No appropriate combination of Message buttons found");
  }
  auto* nonBlocking = new TBareMessage();
  nonBlocking->Blocking = false;
  try {
    Proxy->IssueMessage(nonBlocking, false);
    FAIL() << "no exception";
  } catch (const OrvexException& e) {
    EXPECT_EQ(e.Message(),
              "TShowWindowMessage_MessagingStrategy::GetAnswerStrategyForMessage: Not implemented - "
              "Non-blocking Messages cannot be shown");
  }
  TReplyPtr ok(Proxy->IssueMessage(TBlockingNotification::CreateAndInit("fine", ""), false));
  EXPECT_EQ(AnswerOf(ok.get()).first, kAnswerOk);
}

TEST_F(MessageProxyTest, ThreadsIssuingAtOnceAreServedOneAtATime) {
  struct TSlowStrategy : TContinueAllMessages_MessagingStrategy {
    TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override {
      auto inner = TContinueAllMessages_MessagingStrategy::GetAnswerStrategyForMessage(message);
      return [this, inner](IStandardMessage* msg) {
        const int now = ++Inside;
        int seen = MaxInside.load();
        while (now > seen && !MaxInside.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::yield();
        auto* reply = inner(msg);
        --Inside;
        ++Answered;
        return reply;
      };
    }
    std::atomic<int> Inside{0}, MaxInside{0}, Answered{0};
  };
  auto* strategy = new TSlowStrategy();
  Proxy->SetMessagingStrategy(strategy);
  Log.SetImmediateFlush(false); // a disk sync per message would only slow the test down
  constexpr int kThreads = 8, kMessages = 25;
  std::atomic<int> yesReplies{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kMessages; ++i) {
        TReplyPtr reply(TMessageProxy::MsgProxySingleton()->IssueMessage(
            TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("T" + std::to_string(t), "",
                                                                kSeverityQuestion, 0),
            false));
        if (reply && reply->GetAnswer().first == kAnswerYes) ++yesReplies;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(yesReplies.load(), kThreads * kMessages);
  EXPECT_EQ(strategy->Answered.load(), kThreads * kMessages);
  EXPECT_EQ(strategy->MaxInside.load(), 1);
  Log.SetImmediateFlush(true);
  EXPECT_EQ(LoggedTexts().size(), static_cast<std::size_t>(kThreads * kMessages));
}

TEST_F(MessageProxyTest, MainThreadWaitingForTheProxyServesAWorkersBox) {
  // The box of a GUI must run on the main thread. A worker's box holds the proxy while it waits for the
  // main thread; the main thread, issuing a message of its own, must keep serving its queue meanwhile.
  auto& queue = TMainThreadQueue::Instance();
  queue.SetMainThread();
  queue.ProcessPending();
  std::atomic<bool> workerInBox{false};
  Proxy->SetMessagingStrategy(new TShowWindowMessage_MessagingStrategy([&](const TMessageBoxLayout& layout) {
    TStandardMessageAnswer answer = kAnswerCancel;
    workerInBox = true;
    TMainThreadQueue::Instance().Send([&] { answer = layout.DefaultAnswer(); });
    return answer;
  }));
  TStandardMessageAnswer workerAnswer = 0;
  std::thread worker([&] {
    TReplyPtr reply(TMessageProxy::MsgProxySingleton()->IssueMessage(
        TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("worker", "", kSeverityQuestion, 0), false));
    workerAnswer = reply ? reply->GetAnswer().first : 0;
  });
  while (!workerInBox.load()) std::this_thread::yield();
  TReplyPtr mine(Proxy->IssueMessage(TBlockingNotification::CreateAndInit("main", ""), false));
  worker.join();
  EXPECT_EQ(AnswerOf(mine.get()).first, kAnswerOk);
  EXPECT_EQ(workerAnswer, kAnswerNo); // the default button of a Yes/No question whose default interrupts
}

// ---------------------------------------------------------------------------------------------------------
// Box layout and the console

TEST(MessageBoxLayout, ButtonsDefaultsIconsAndCaptions) {
  auto layoutOf = [](TBlockingMultipleChoiceMessage* message) {
    std::unique_ptr<TBlockingMultipleChoiceMessage> owned(message);
    return ChooseMessageBoxLayout(owned.get());
  };
  auto yesNoInterrupt =
      layoutOf(TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("t", "c", kSeverityQuestion, 0));
  EXPECT_EQ(yesNoInterrupt.Buttons, TMessageBoxButtons::YesNo);
  EXPECT_EQ(yesNoInterrupt.ButtonAnswers, (std::vector<TStandardMessageAnswer>{kAnswerYes, kAnswerNo}));
  EXPECT_EQ(yesNoInterrupt.DefaultButton, 1);
  EXPECT_EQ(yesNoInterrupt.DefaultAnswer(), kAnswerNo);
  EXPECT_EQ(yesNoInterrupt.Icon, TMessageBoxIcon::Question);
  EXPECT_EQ(yesNoInterrupt.Caption, "c");
  EXPECT_EQ(yesNoInterrupt.Text, "t");
  EXPECT_EQ(layoutOf(TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("t", "", kSeverityQuestion, 1))
                .DefaultButton,
            0);
  auto okCancel =
      layoutOf(TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel("t", "", kSeverityError, 0));
  EXPECT_EQ(okCancel.Buttons, TMessageBoxButtons::OkCancel);
  EXPECT_EQ(okCancel.DefaultAnswer(), kAnswerCancel);
  EXPECT_EQ(okCancel.Icon, TMessageBoxIcon::Hand);
  EXPECT_EQ(layoutOf(TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel("t", "", kSeverityWarning, 1))
                .DefaultAnswer(),
            kAnswerOk);

  auto* three = new TBlockingMultipleChoiceMessage();
  three->DefinePossibleAnswers({{kAnswerYes, 1}, {kAnswerNo, 0}, {kAnswerCancel, 5}, {kAnswerDefault, 5}});
  three->DefineMessageSeverity(17); // unknown severity: information
  three->DefineMessageOrigin(kOriginProjectPlus);
  three->SetCaptionText("Load");
  auto yesNoCancel = layoutOf(three);
  EXPECT_EQ(yesNoCancel.Buttons, TMessageBoxButtons::YesNoCancel);
  EXPECT_EQ(yesNoCancel.DefaultButton, 2);
  EXPECT_EQ(yesNoCancel.Icon, TMessageBoxIcon::Information);
  EXPECT_EQ(yesNoCancel.Caption, "Orvex Project Plus - Load");

  auto* note = TBlockingNotification::CreateAndInit("n", "", kSeverityWarning);
  note->DefineMessageOrigin(kOriginControl);
  auto okOnly = layoutOf(note);
  EXPECT_EQ(okOnly.Buttons, TMessageBoxButtons::Ok);
  EXPECT_EQ(okOnly.Icon, TMessageBoxIcon::Exclamation);
  EXPECT_EQ(okOnly.Caption, "Orvex Control");

  TBareMessage bare;
  EXPECT_THROW(ChooseMessageBoxLayout(&bare), OrvexException);
  auto* okYes = new TBlockingMultipleChoiceMessage();
  okYes->DefinePossibleAnswers({{kAnswerOk, 1}, {kAnswerYes, 1}});
  EXPECT_THROW(layoutOf(okYes), OrvexException);
}

namespace {

/// Runs a console strategy on a message with the given typed input; returns answer and what was printed.
std::pair<TStandardMessageAnswer, std::string>
RunConsole(IStandardMessage* message, const std::string& input,
           TConsoleMessagingStrategy::TInteraction interaction) {
  std::unique_ptr<IStandardMessage> owned(message);
  std::FILE* in = std::tmpfile();
  std::FILE* out = std::tmpfile();
  std::fputs(input.c_str(), in);
  std::rewind(in);
  TConsoleMessagingStrategy console(in, out, interaction);
  TReplyPtr reply(console.GetAnswerStrategyForMessage(message)(message));
  std::rewind(out);
  std::string printed;
  char buffer[512];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, out)) printed.append(buffer, n);
  std::fclose(in);
  std::fclose(out);
  return {reply->GetAnswer().first, printed};
}

} // namespace

TEST(ConsoleMessagingStrategy, AnswersByItselfWithoutATerminal) {
  using TI = TConsoleMessagingStrategy::TInteraction;
  auto [answer, printed] = RunConsole(TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(
                                          "Discard the preview?", "Background", kSeverityWarning, 0),
                                      "y\n", TI::Never);
  EXPECT_EQ(answer, kAnswerNo);
  EXPECT_EQ(printed, "\nWarning: Background\nDiscard the preview?\nAnswered automatically: No (default)\n");
  // Auto with a file as input is not a terminal either.
  auto automatic =
      RunConsole(TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel("Go", "", kSeverityQuestion, 1),
                 "c\n", TI::Auto);
  EXPECT_EQ(automatic.first, kAnswerOk);
  EXPECT_NE(automatic.second.find("Answered automatically: Ok (default)"), std::string::npos);
}

TEST(ConsoleMessagingStrategy, AsksOnATerminal) {
  using TI = TConsoleMessagingStrategy::TInteraction;
  auto yesNo = [] {
    return TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("Save?", "", kSeverityQuestion, 0);
  };
  auto typed = RunConsole(yesNo(), "y\n", TI::Always);
  EXPECT_EQ(typed.first, kAnswerYes);
  EXPECT_NE(typed.second.find("[y/N] "), std::string::npos);
  EXPECT_EQ(RunConsole(yesNo(), "\n", TI::Always).first, kAnswerNo);            // Enter: default button
  EXPECT_EQ(RunConsole(yesNo(), "maybe\nYES\n", TI::Always).first, kAnswerYes); // asks again
  EXPECT_EQ(RunConsole(yesNo(), "", TI::Always).first, kAnswerNo);              // end of input: default
  auto okCancel =
      RunConsole(TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel("Go", "", kSeverityQuestion, 1),
                 "c\n", TI::Always);
  EXPECT_EQ(okCancel.first, kAnswerCancel);
  EXPECT_NE(okCancel.second.find("[O/c] "), std::string::npos);
}

// ---------------------------------------------------------------------------------------------------------
// Messages to the main thread

namespace {

class TTestCustomMessage : public TCustomMessage {
public:
  TTestCustomMessage(int deleteMe, std::atomic<int>* runs, std::atomic<int>* destroyed)
      : TCustomMessage(8, deleteMe), FRuns(runs), FDestroyed(destroyed) {}
  ~TTestCustomMessage() override { ++*FDestroyed; }
  void ExecuteFunction() override {
    ++*FRuns;
    if (Throw) throw OrvexException("TTestCustomMessage::ExecuteFunction: failed");
  }
  bool Throw = false;

private:
  std::atomic<int>* FRuns;
  std::atomic<int>* FDestroyed;
};

class CustomMessageTest : public ::testing::Test {
protected:
  void SetUp() override {
    Queue.SetMainThread();
    Queue.ProcessPending();
  }
  void TearDown() override { Queue.ProcessPending(); }
  TMainThreadQueue& Queue = TMainThreadQueue::Instance();
  std::atomic<int> Runs{0}, Destroyed{0};
};

} // namespace

TEST_F(CustomMessageTest, OneShotPostIsDeletedAfterDelivery) {
  auto* message = new TTestCustomMessage(0, &Runs, &Destroyed);
  message->Post(nullptr);
  EXPECT_EQ(message->GetProcessed(), -1);
  EXPECT_EQ(message->GetDeleteMe(), 1);
  EXPECT_EQ(Runs.load(), 0);
  EXPECT_EQ(Queue.ProcessPending(), 1);
  EXPECT_EQ(Runs.load(), 1);
  EXPECT_EQ(Destroyed.load(), 1);
}

TEST_F(CustomMessageTest, CleanupOfAMultiUseMessageInFlightLeavesDeletionToTheReceiver) {
  TCustomMessage* message = new TTestCustomMessage(1, &Runs, &Destroyed); // the owner keeps it
  message->Post(nullptr);
  message->Post(nullptr);
  EXPECT_EQ(message->GetProcessed(), -2);
  EXPECT_EQ(Queue.ProcessPending(1), 1);
  EXPECT_EQ(Destroyed.load(), 0);
  CleanupMultiUseMessage(message);
  EXPECT_NE(message, nullptr); // one delivery still queued
  EXPECT_EQ(Destroyed.load(), 0);
  EXPECT_EQ(Queue.ProcessPending(), 1);
  EXPECT_EQ(Runs.load(), 2);
  EXPECT_EQ(Destroyed.load(), 1);

  TCustomMessage* idle = new TTestCustomMessage(1, &Runs, &Destroyed);
  idle->Post(nullptr);
  Queue.ProcessPending();
  EXPECT_EQ(Destroyed.load(), 1); // kept by its owner
  CleanupMultiUseMessage(idle);
  EXPECT_EQ(idle, nullptr);
  EXPECT_EQ(Destroyed.load(), 2);
  CleanupMultiUseMessage(idle); // null: nothing
}

TEST_F(CustomMessageTest, SendFromWorkersRunsOnTheMainThreadAndRethrows) {
  constexpr int kThreads = 4, kSends = 50;
  std::atomic<int> finished{0}, caught{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < kThreads; ++t)
    workers.emplace_back([&, t] {
      for (int i = 0; i < kSends; ++i) {
        auto* message = new TTestCustomMessage(0, &Runs, &Destroyed);
        message->Throw = (i % 10 == t);
        try {
          message->Send(nullptr);
        } catch (const OrvexException&) {
          ++caught;
        }
      }
      ++finished;
    });
  while (finished.load() < kThreads) Queue.WaitAndProcess(std::chrono::milliseconds(5));
  for (auto& worker : workers) worker.join();
  EXPECT_EQ(Runs.load(), kThreads * kSends);
  EXPECT_EQ(Destroyed.load(), kThreads * kSends); // thrown or not, every message is freed
  EXPECT_EQ(caught.load(), kThreads * kSends / 10);
}

TEST_F(CustomMessageTest, UserFeedbackFieldsAndDelivery) {
  EXPECT_EQ(TCustomMessageUserFeedback::UserStopString, "User Stop");
  EXPECT_EQ(TCustomMessageUserFeedback::UserWaitString, "Wait for User");
  EXPECT_EQ(TCustomMessageUserFeedback::NextStepString, "Press Next");
  {
    TCustomMessageUserFeedback locked(1), unlocked(0);
    EXPECT_EQ(locked.GetMessageId(), 12);
    EXPECT_EQ(locked.GetSnapshot().LockState, 1);
    EXPECT_EQ(unlocked.GetSnapshot().LockState, 0);
    unlocked.GenerateNewMessage("Scanning", 0, 3, "line 4");
    unlocked.ResetProgressStruct(2, "Lines", 5, {0.25, 0.5});
    auto data = unlocked.GetSnapshot();
    EXPECT_EQ(data.Text, "Scanning");
    EXPECT_EQ(data.Icon, 3);
    EXPECT_EQ(data.Text2, "line 4");
    EXPECT_EQ(data.Progress.Caption, "Lines");
    EXPECT_EQ(data.Progress.Steps, (std::map<int, double>{{0, 0.25}, {1, 0.5}}));
    unlocked.ResetToEmptyInformationLocked();
    data = unlocked.GetSnapshot();
    EXPECT_TRUE(data.Text.empty());
    EXPECT_EQ(data.LockState, 1);
    EXPECT_EQ(data.Icon, 1);
    EXPECT_EQ(data.Progress.Steps.size(), 2u); // the progress is a separate reset
    unlocked.ResetToNoProgress();
    EXPECT_TRUE(unlocked.GetSnapshot().Progress.Steps.empty());
  }
  std::vector<std::string> received;
  TCustomMessageUserFeedback::SetFeedbackHandler([&](const TCustomMessageUserFeedback::TSnapshot& data) {
    received.push_back(data.Text + "/" + data.Text2);
  });
  TCustomMessageUserFeedback::CreateAndPostMessage(nullptr, "Wait", 1, 2,
                                                   TCustomMessageUserFeedback::UserWaitString);
  EXPECT_TRUE(received.empty());
  EXPECT_EQ(Queue.ProcessPending(), 1);
  TCustomMessageUserFeedback::CreateAndSendNotifyMessage(nullptr, "Next", 1, 2, "");
  TCustomMessageUserFeedback::SetFeedbackHandler(nullptr);
  EXPECT_EQ(received, (std::vector<std::string>{"Wait/Wait for User", "Next/"}));
}

TEST(ConsoleMessagingStrategy, NotificationsAreOneLineAndTextsLoseTheirCarriageReturns) {
  using TI = TConsoleMessagingStrategy::TInteraction;
  // Nothing to choose: one line, no prompt, even on a terminal.
  auto note =
      RunConsole(TBlockingNotification::CreateAndInit("Data 3 (TDGraph) could not be loaded: Tag Not Found",
                                                      "Loading Error", kSeverityWarning),
                 "", TI::Always);
  EXPECT_EQ(note.second, "Warning: Loading Error: Data 3 (TDGraph) could not be loaded: Tag Not Found\n");
  // A question written for a narrow box: lines joined, paragraphs one line each, no carriage return.
  auto question = RunConsole(
      TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(
          "The file is newer\r\nthan this software.\r\n\r\nLoad it anyway ?", "Error", kSeverityError, 0),
      "n\n", TI::Never);
  EXPECT_EQ(question.second.find('\r'), std::string::npos);
  EXPECT_NE(question.second.find("The file is newer than this software.\nLoad it anyway ?\n"),
            std::string::npos)
      << question.second;
}
