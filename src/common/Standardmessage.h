// Standard messages: the only way the system asks or tells the user something. Code builds a message object
// and hands it to TMessageProxy, whose strategy for that kind of message produces the reply (a message box,
// a console prompt, or an automatic answer for batch work); the proxy logs what happened.
// Also TCustomMessage, the small objects that carry work to the main thread.
#pragma once

#include <chrono>
#include <compare>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class TLogFile;

// ---------------------------------------------------------------------------------------------------------
// Values

/// Answer of a message: the values of a platform message box's results.
using TStandardMessageAnswer = std::int32_t;
constexpr TStandardMessageAnswer kAnswerOk = 1;
constexpr TStandardMessageAnswer kAnswerCancel = 2;
constexpr TStandardMessageAnswer kAnswerYes = 6;
constexpr TStandardMessageAnswer kAnswerNo = 7;
/// The default answer, for a strategy that takes no real decision.
constexpr TStandardMessageAnswer kAnswerDefault = -2;

/// What the caller should do after an answer: 0 interrupt, 1 continue; other values: not sure.
using TStandardMessageProgressionMode = std::int32_t;
constexpr TStandardMessageProgressionMode kProgressionInterrupt = 0;
constexpr TStandardMessageProgressionMode kProgressionContinue = 1;
/// What a reply holds when a strategy asked for an answer beyond every possible one.
constexpr TStandardMessageProgressionMode kProgressionNotSure = -1;

/// Severity: 0 information, 1 question, 2 warning, 3 error; other values show as information.
using TStandardMessageSeverityCategory = std::int32_t;
constexpr TStandardMessageSeverityCategory kSeverityInformation = 0;
constexpr TStandardMessageSeverityCategory kSeverityQuestion = 1;
constexpr TStandardMessageSeverityCategory kSeverityWarning = 2;
constexpr TStandardMessageSeverityCategory kSeverityError = 3;

/// Program family member that issued a message, shown as caption prefix; 0 none.
using TStandardMessageOriginCategory = std::int32_t;
constexpr TStandardMessageOriginCategory kOriginNone = 0;
constexpr TStandardMessageOriginCategory kOriginProject = 1;
constexpr TStandardMessageOriginCategory kOriginProjectPlus = 2;
constexpr TStandardMessageOriginCategory kOriginControl = 3;
/// "Orvex Project", "Orvex Project Plus", "Orvex Control" for 1..3, "" otherwise.
std::string GetMessageOriginName(TStandardMessageOriginCategory origin);

/// Possible answers of a message in key order, each with its progression mode.
using TStandardMessagePossibleAnswers = std::map<TStandardMessageAnswer, TStandardMessageProgressionMode>;
using TStandardMessageAnswerPair = std::pair<TStandardMessageAnswer, TStandardMessageProgressionMode>;

/// 16-byte identifier of a message class (the all-zero value keys the default strategy).
struct TGuid {
  std::uint32_t Data1 = 0;
  std::uint16_t Data2 = 0;
  std::uint16_t Data3 = 0;
  std::uint8_t Data4[8] = {0, 0, 0, 0, 0, 0, 0, 0};

  auto operator<=>(const TGuid&) const = default;
  bool operator==(const TGuid&) const = default;
  bool IsNull() const { return *this == TGuid{}; }
  /// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper-case hex.
  std::string ToString() const;
};

// ---------------------------------------------------------------------------------------------------------
// Text resources and application title used for captions

/// Text resource by id ("" when unknown). Resource 1 is the default caption, "Orvex Project".
std::string GetMessageResourceString(int id);
void SetMessageResourceString(int id, const std::string& text);
/// The application's title, or nothing while there is no application object.
void SetMessageApplicationTitle(std::optional<std::string> title);
std::optional<std::string> GetMessageApplicationTitle();

// ---------------------------------------------------------------------------------------------------------
// Event and reply

/// Auto-reset event: Set wakes one waiter, and a successful Wait resets it.
class TAutoResetEvent {
public:
  void Set();
  void Reset();
  /// Waits until set (or timeout) and resets; true when it was set.
  bool Wait(std::chrono::milliseconds timeout);
  /// True when set, without resetting.
  bool IsSet() const;

private:
  mutable std::mutex FLock;
  std::condition_variable FChanged;
  bool FSet = false;
};

/// The answer to a message.
class IStandardMessageReply {
public:
  virtual ~IStandardMessageReply() = default;
  /// The event that is set once the answer is there.
  virtual TAutoResetEvent* AnswerAvailable() = 0;
  virtual TStandardMessageAnswerPair GetAnswer() = 0;
};

/// A reply holding a share of its message's event and the answer pair.
class TStandardMessageReply : public IStandardMessageReply {
public:
  TStandardMessageReply(std::shared_ptr<TAutoResetEvent> event, TStandardMessageAnswerPair answer);
  TAutoResetEvent* AnswerAvailable() override { return FEvent.get(); }
  TStandardMessageAnswerPair GetAnswer() override { return FAnswer; }

private:
  std::shared_ptr<TAutoResetEvent> FEvent;
  TStandardMessageAnswerPair FAnswer;
};

// ---------------------------------------------------------------------------------------------------------
// Messages

/// A message to the user. Answers, severity and origin are further parts a message may have.
class IStandardMessage {
public:
  virtual ~IStandardMessage() = default;
  virtual TGuid GetTypeId() const = 0;
  virtual bool IsBlocking() const = 0;
  virtual void SetMessageText(const std::string& text) = 0;
  virtual std::string GetMessageText() const = 0;
  /// A new reply, owned by the caller, holding answer (see TBlockingMultipleChoiceMessage::GetReply).
  virtual IStandardMessageReply* GetReply(TStandardMessageAnswer answer) = 0;
  virtual void SetCaptionText(const std::string& caption) = 0;
  virtual void SetCaptionByID(int resourceId) = 0;
  virtual void SetMessageTextByID(int resourceId) = 0;
  virtual std::string GetCaption() const = 0;
};

/// Part of a message: the answers it offers.
class IStandardMessagePossibleAnswers {
public:
  virtual ~IStandardMessagePossibleAnswers() = default;
  virtual void DefinePossibleAnswers(const TStandardMessagePossibleAnswers& answers) = 0;
  virtual const TStandardMessagePossibleAnswers& GetPossibleAnswers() const = 0;
};

/// Part of a message: its severity.
class IStandardMessageSeverity {
public:
  virtual ~IStandardMessageSeverity() = default;
  virtual void DefineMessageSeverity(TStandardMessageSeverityCategory severity) = 0;
  virtual TStandardMessageSeverityCategory GetSeverity() const = 0;
};

/// Part of a message: the program family member that issued it.
class IStandardMessageOrigin {
public:
  virtual ~IStandardMessageOrigin() = default;
  virtual void DefineMessageOrigin(TStandardMessageOriginCategory origin) = 0;
  virtual TStandardMessageOriginCategory GetOrigin() const = 0;
};

/// A question with a set of answers; the issuing thread waits for the answer.
class TBlockingMultipleChoiceMessage : public IStandardMessage,
                                       public IStandardMessagePossibleAnswers,
                                       public IStandardMessageSeverity,
                                       public IStandardMessageOrigin {
public:
  static const TGuid ClassGuid;
  static IStandardMessage* CreateInstance();

  /// No (interrupt), Yes (continue), and the default answer with progressionModeOfDefault.
  static TBlockingMultipleChoiceMessage*
  CreateAndInit_YesNo(const std::string& text, const std::string& caption,
                      TStandardMessageSeverityCategory severity,
                      TStandardMessageProgressionMode progressionModeOfDefault);
  /// Cancel (interrupt), Ok (continue), and the default answer with progressionModeOfDefault.
  static TBlockingMultipleChoiceMessage*
  CreateAndInit_OkCancel(const std::string& text, const std::string& caption,
                         TStandardMessageSeverityCategory severity,
                         TStandardMessageProgressionMode progressionModeOfDefault);

  /// One possible answer (Ok, continue), caption "", text "Default Question".
  TBlockingMultipleChoiceMessage();

  TGuid GetTypeId() const override { return ClassGuid; }
  bool IsBlocking() const override { return true; }
  void SetMessageText(const std::string& text) override { FText = text; }
  std::string GetMessageText() const override { return FText; }
  /// The reply holds answer with its mode when answer is possible; otherwise the entry at the nearest key
  /// not below answer, or (answer, kProgressionNotSure) beyond the last key. Sets the message's event.
  IStandardMessageReply* GetReply(TStandardMessageAnswer answer) override;
  void SetCaptionText(const std::string& caption) override { FCaption = caption; }
  void SetCaptionByID(int resourceId) override { FCaption = GetMessageResourceString(resourceId); }
  void SetMessageTextByID(int resourceId) override { FText = GetMessageResourceString(resourceId); }
  std::string GetCaption() const override { return FCaption; }

  void DefinePossibleAnswers(const TStandardMessagePossibleAnswers& answers) override;
  const TStandardMessagePossibleAnswers& GetPossibleAnswers() const override { return FPossibleAnswers; }
  void DefineMessageSeverity(TStandardMessageSeverityCategory severity) override { FSeverity = severity; }
  TStandardMessageSeverityCategory GetSeverity() const override { return FSeverity; }
  void DefineMessageOrigin(TStandardMessageOriginCategory origin) override { FOrigin = origin; }
  TStandardMessageOriginCategory GetOrigin() const override { return FOrigin; }

  /// The reply made from the first possible answer at construction or definition of the answers.
  IStandardMessageReply* GetDefaultReply() const { return FDefaultReply.get(); }

protected:
  std::string FCaption;
  std::string FText;

private:
  TStandardMessagePossibleAnswers FPossibleAnswers;
  std::shared_ptr<TAutoResetEvent> FEvent;
  std::unique_ptr<TStandardMessageReply> FDefaultReply;
  TStandardMessageSeverityCategory FSeverity = kSeverityInformation;
  TStandardMessageOriginCategory FOrigin = kOriginNone;
};

/// A notification: a message with the single answer Ok (continue).
class TBlockingNotification : public TBlockingMultipleChoiceMessage {
public:
  static const TGuid ClassGuid;
  static IStandardMessage* CreateInstance();
  static TBlockingNotification* CreateAndInit(const std::string& text, const std::string& caption);
  static TBlockingNotification* CreateAndInit(const std::string& text, const std::string& caption,
                                              TStandardMessageSeverityCategory severity);

  /// Text "Default Notification"; caption from the application's title (see DefaultCaption).
  TBlockingNotification();
  TGuid GetTypeId() const override { return ClassGuid; }

  /// "Project" for a title containing "Project", else "Control" for one containing "Control", else the title;
  /// resource 1 without an application title.
  static std::string DefaultCaption();
};

// ---------------------------------------------------------------------------------------------------------
// Strategies and the proxy

using TMessageAnswerFunction = std::function<IStandardMessageReply*(IStandardMessage*)>;

/// Decides how a message is answered.
class IMessagingStrategy {
public:
  virtual ~IMessagingStrategy() = default;
  /// The function that answers message; empty for a null message.
  virtual TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) = 0;
  virtual std::string GetName() const = 0;
};

/// Records each message with its reply and the strategy that answered.
class IMessageLoggingStrategy {
public:
  virtual ~IMessageLoggingStrategy() = default;
  virtual void LogMessageAndReplyAndStrategy(IMessagingStrategy* strategy, IStandardMessage* message,
                                             IStandardMessageReply* reply) = 0;
};

using TMessageCreator = IStandardMessage* (*)();

/// The singleton every message goes through. All of IssueMessage up to the logging runs under one lock, so
/// messages of several threads come up one at a time.
class TMessageProxy {
public:
  static TMessageProxy* MsgProxySingleton();
  /// Deletes the singleton with its strategies and clears the registered message classes.
  static void CleanupRegisteredMessagesAndSingletonObject();
  /// Message classes by type GUID; the built-in classes are registered at first use.
  static std::map<TGuid, TMessageCreator>& MessageCreatorMap();
  static void RegisterMessageClass(const TGuid& classGuid, TMessageCreator creator);

  /// Takes strategy over for messageType (all-zero: the default). A strategy that stood there before is
  /// deleted unless it serves another key.
  void SetMessagingStrategy(IMessagingStrategy* strategy, const TGuid& messageType = TGuid{});
  IMessagingStrategy* GetMessagingStrategy(const TGuid& messageType = TGuid{}) const;
  void DeleteAllMessagingStrategies();
  /// Takes logger over (null: no logging); the previous one is deleted.
  void SetMessageLoggingStrategy(IMessageLoggingStrategy* logger);

  /// Takes ownership of message and answers it. The caller owns the reply, which is null when no strategy
  /// answered; with discardReply the reply is deleted and null returned.
  IStandardMessageReply* IssueMessage(IStandardMessage* message, bool discardReply);
  /// Creates a message of messageType through MessageCreatorMap with text and severity and issues it.
  IStandardMessageReply* IssueMessage(const TGuid& messageType, const std::string& text, bool discardReply,
                                      TStandardMessageSeverityCategory severity);

  ~TMessageProxy();

private:
  TMessageProxy() = default;
  void LockServingMainThread();

  std::timed_mutex FLock;
  mutable std::mutex FStrategyLock; ///< guards the maps against setters racing with a running message
  std::map<TGuid, IMessagingStrategy*> FStrategies;
  IMessageLoggingStrategy* FLogger = nullptr;
};

/// Answers each message with its first answer that continues (Yes for Yes/No, Ok for Ok/Cancel), or the
/// default answer when none continues.
/// A Yes/No question through the proxy: true only for Yes (no reply is no confirmation).
bool AskUserYesNo(const std::string& text, const std::string& caption,
                  TStandardMessageSeverityCategory severity);
/// A notification through the proxy; with nonBlocking the caller goes on at once.
void NotifyUser(const std::string& text, const std::string& caption,
                TStandardMessageSeverityCategory severity, bool nonBlocking);

class TContinueAllMessages_MessagingStrategy : public IMessagingStrategy {
public:
  TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override;
  std::string GetName() const override { return "TContinueAllMessages_MessagingStrategy"; }
};

/// Answers each message with one chosen answer where the message offers it, else the default answer.
class TFixedAnswerToAllMessages_MessagingStrategy : public IMessagingStrategy {
public:
  explicit TFixedAnswerToAllMessages_MessagingStrategy(TStandardMessageAnswer answer) : FAnswer(answer) {}
  TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override;
  std::string GetName() const override { return "TFixedAnswerToAllMessages_MessagingStrategy"; }
  TStandardMessageAnswer GetFixedAnswer() const { return FAnswer; }

private:
  TStandardMessageAnswer FAnswer;
};

/// Writes one line per message to a log file (the global one unless given).
class TStdMsgToLogFile_Strategy : public IMessageLoggingStrategy {
public:
  explicit TStdMsgToLogFile_Strategy(TLogFile* logFile = nullptr);
  void LogMessageAndReplyAndStrategy(IMessagingStrategy* strategy, IStandardMessage* message,
                                     IStandardMessageReply* reply) override;
  /// The line written for these three (without time and thread columns).
  static std::string ComposeLogLine(IMessagingStrategy* strategy, IStandardMessage* message,
                                    IStandardMessageReply* reply);

private:
  TLogFile* FLogFile;
};

// ---------------------------------------------------------------------------------------------------------
// Message box layout, shared by the GUI's box strategy and the console strategy

enum class TMessageBoxButtons { Ok, OkCancel, YesNoCancel, YesNo };
enum class TMessageBoxIcon { Information, Question, Exclamation, Hand };

/// How a message is shown: buttons, default button, icon, caption and text.
struct TMessageBoxLayout {
  TMessageBoxButtons Buttons = TMessageBoxButtons::Ok;
  std::vector<TStandardMessageAnswer> ButtonAnswers; ///< answer of each button in the order shown
  int DefaultButton = 0;                             ///< index into ButtonAnswers
  TMessageBoxIcon Icon = TMessageBoxIcon::Information;
  std::string Caption;
  std::string Text;
  TStandardMessageAnswer DefaultAnswer() const { return ButtonAnswers.at(DefaultButton); }
};

/// Chooses buttons, default button, icon and caption for message. Throws OrvexException "No appropriate
/// combination of Message buttons found" for answers no box can show.
TMessageBoxLayout ChooseMessageBoxLayout(IStandardMessage* message);

/// Shows a box and returns the answer of the button pressed.
using TMessageBoxFunction = std::function<TStandardMessageAnswer(const TMessageBoxLayout&)>;

/// Shows blocking messages in a message box that the GUI supplies.
class TShowWindowMessage_MessagingStrategy : public IMessagingStrategy {
public:
  explicit TShowWindowMessage_MessagingStrategy(TMessageBoxFunction box, void* ownerWindow = nullptr);
  /// Throws OrvexException for a non-blocking message.
  TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override;
  std::string GetName() const override { return "Windows Message Box"; }
  /// The window the boxes belong to (null: none); the workbench's box function places them over it.
  void* GetOwnerWindow() const { return FOwnerWindow; }

private:
  TMessageBoxFunction FBox;
  void* FOwnerWindow;
};

/// Messages on the command line: caption and text go to the output stream; on a terminal the user answers
/// with a letter ([y/n], [o/c], Enter takes the default button), otherwise the default button answers by
/// itself and that is said on the output stream.
class TConsoleMessagingStrategy : public IMessagingStrategy {
public:
  enum class TInteraction { Auto, Always, Never }; ///< Auto: ask when the input is a terminal
  explicit TConsoleMessagingStrategy(std::FILE* input = stdin, std::FILE* output = stderr,
                                     TInteraction interaction = TInteraction::Auto);
  TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override;
  std::string GetName() const override { return "Console Prompt"; }

private:
  TStandardMessageAnswer Ask(const TMessageBoxLayout& layout);
  bool IsInteractive() const;

  std::FILE* FInput;
  std::FILE* FOutput;
  TInteraction FInteraction;
};

// ---------------------------------------------------------------------------------------------------------
// Messages to the main thread

/// An object carried to the main thread through the main-thread queue. Each delivery lowers the processed
/// counter and raises the delete counter; the receiver undoes both after running the message and deletes it
/// when the delete counter falls below 1. A negative processed counter means deliveries are still queued.
class TCustomMessage {
public:
  TCustomMessage(int messageId, int deleteMe);
  virtual ~TCustomMessage() = default;
  TCustomMessage(const TCustomMessage&) = delete;
  TCustomMessage& operator=(const TCustomMessage&) = delete;

  /// Queued delivery; returns at once.
  virtual void Post(void* window);
  /// Blocks until the main thread has processed the message (at once on the main thread). Rethrows what
  /// the message's function threw. The message may be deleted when this returns, unless its owner keeps it.
  virtual void Send(void* window);
  /// At once on the main thread, otherwise queued.
  virtual void SendNotify(void* window);
  /// What the main thread does with the message; runs under the message's access lock.
  virtual void ExecuteFunction() {}

  int GetMessageId() const { return FMessageId; }
  void SetDeleteMe(int deleteMe);
  void SetProcessed(int processed);
  int GetDeleteMe() const;
  int GetProcessed() const;
  void GetAccess() { FAccess.lock(); }
  void LeaveAccess() { FAccess.unlock(); }

  /// The receiver on the main thread: runs the message under its lock, counts the delivery done and
  /// deletes the message after its last delivery. Rethrows what ExecuteFunction threw.
  static void ProcessCustomMessage(TCustomMessage* message);

private:
  enum class TDelivery { Post, Send, SendNotify };
  void Deliver(TDelivery delivery);

  mutable std::recursive_mutex FAccess;
  int FMessageId;
  int FDeleteMe;
  int FProcessed = 0;
};

/// Releases a message its owner reuses: deleted now (pointer nulled) when no delivery is queued, otherwise
/// the receiver deletes it after the last delivery and the pointer stays.
void CleanupMultiUseMessage(TCustomMessage*& message);

/// Lock state of a user feedback.
using TUserFeedbackMessageLockState = std::int32_t;
/// Icon of a user feedback.
using TUserFeedbackIcon = std::int32_t;
/// Kind of progress a user feedback shows.
using TUserFeedbackProgressType = std::int32_t;

/// Tells the main frame what an instrument-side sequence is doing (message id 12).
class TCustomMessageUserFeedback : public TCustomMessage {
public:
  static const int MessageId = 12;
  static const std::string UserStopString; ///< "User Stop"
  static const std::string UserWaitString; ///< "Wait for User"
  static const std::string NextStepString; ///< "Press Next"

  /// Progress part of the feedback.
  struct TProgress {
    TUserFeedbackProgressType Type = 0;
    std::string Caption;
    int StatusGlyph = 0;
    std::map<int, double> Steps; ///< value by step, in step order
    std::chrono::steady_clock::time_point Started = std::chrono::steady_clock::now();
  };
  /// A copy of the fields, taken under the message's lock.
  struct TSnapshot {
    std::string Text;
    TUserFeedbackMessageLockState LockState = 1;
    TUserFeedbackIcon Icon = 1;
    std::string Text2;
    TProgress Progress;
  };

  /// deleteMe as for TCustomMessage; a counter of 1 gives lock state 1.
  explicit TCustomMessageUserFeedback(int deleteMe);

  void ResetToEmptyInformationLocked();
  void ResetToNoProgress();
  /// Resets the progress and stores type, caption, glyph and the values of steps 0..n-1.
  void ResetProgressStruct(TUserFeedbackProgressType type, const std::string& caption, int statusGlyph,
                           const std::vector<double>& stepValues);
  void GenerateNewMessage(const std::string& text, TUserFeedbackMessageLockState lockState,
                          TUserFeedbackIcon icon, const std::string& text2);
  TSnapshot GetSnapshot() const;
  double ElapsedSeconds() const;

  static void CreateAndPostMessage(void* window, const std::string& text,
                                   TUserFeedbackMessageLockState lockState, TUserFeedbackIcon icon,
                                   const std::string& text2);
  static void CreateAndSendMessage(void* window, const std::string& text,
                                   TUserFeedbackMessageLockState lockState, TUserFeedbackIcon icon,
                                   const std::string& text2);
  static void CreateAndSendNotifyMessage(void* window, const std::string& text,
                                         TUserFeedbackMessageLockState lockState, TUserFeedbackIcon icon,
                                         const std::string& text2);
  /// Hands the feedback to the handler the main frame set (none: nothing happens).
  void ExecuteFunction() override;
  /// The main frame's receiver of feedbacks; runs on the main thread.
  static void SetFeedbackHandler(std::function<void(const TSnapshot&)> handler);

private:
  TSnapshot FData;
};
