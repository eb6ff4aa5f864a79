// Standard messages, the message proxy and its strategies, and messages to the main thread.
#include "common/Standardmessage.h"

#include "common/Logfile.h"
#include "common/MainThreadQueue.h"
#include "common/OrvexException.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <exception>

#include <unistd.h>

// ---------------------------------------------------------------------------------------------------------
// Values, resources, application title

std::string GetMessageOriginName(TStandardMessageOriginCategory origin) {
  switch (origin) {
  case kOriginProject:
    return "Orvex Project";
  case kOriginProjectPlus:
    return "Orvex Project Plus";
  case kOriginControl:
    return "Orvex Control";
  default:
    return "";
  }
}

std::string TGuid::ToString() const {
  char text[40];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", Data1, Data2, Data3,
                Data4[0], Data4[1], Data4[2], Data4[3], Data4[4], Data4[5], Data4[6], Data4[7]);
  return text;
}

namespace {

std::mutex& ResourceLock() {
  static std::mutex lock;
  return lock;
}

std::map<int, std::string>& Resources() {
  static std::map<int, std::string> resources{{1, "Orvex Project"}};
  return resources;
}

std::optional<std::string>& ApplicationTitle() {
  static std::optional<std::string> title;
  return title;
}

} // namespace

std::string GetMessageResourceString(int id) {
  std::lock_guard guard(ResourceLock());
  auto found = Resources().find(id);
  return found == Resources().end() ? std::string() : found->second;
}

void SetMessageResourceString(int id, const std::string& text) {
  std::lock_guard guard(ResourceLock());
  Resources()[id] = text;
}

void SetMessageApplicationTitle(std::optional<std::string> title) {
  std::lock_guard guard(ResourceLock());
  ApplicationTitle() = std::move(title);
}

std::optional<std::string> GetMessageApplicationTitle() {
  std::lock_guard guard(ResourceLock());
  return ApplicationTitle();
}

// ---------------------------------------------------------------------------------------------------------
// Event and reply

void TAutoResetEvent::Set() {
  {
    std::lock_guard guard(FLock);
    FSet = true;
  }
  FChanged.notify_one();
}

void TAutoResetEvent::Reset() {
  std::lock_guard guard(FLock);
  FSet = false;
}

bool TAutoResetEvent::Wait(std::chrono::milliseconds timeout) {
  std::unique_lock lock(FLock);
  if (!FChanged.wait_for(lock, timeout, [&] { return FSet; })) return false;
  FSet = false;
  return true;
}

bool TAutoResetEvent::IsSet() const {
  std::lock_guard guard(FLock);
  return FSet;
}

TStandardMessageReply::TStandardMessageReply(std::shared_ptr<TAutoResetEvent> event,
                                             TStandardMessageAnswerPair answer)
    : FEvent(std::move(event)), FAnswer(answer) {}

// ---------------------------------------------------------------------------------------------------------
// Messages

const TGuid TBlockingMultipleChoiceMessage::ClassGuid{
    0x6D1C4E2A, 0x93B7, 0x4F05, {0xA1, 0x2E, 0x5C, 0x77, 0x0B, 0x91, 0xD4, 0x38}};
const TGuid TBlockingNotification::ClassGuid{
    0x2F8A61C3, 0x5E04, 0x4B9D, {0x86, 0xF1, 0x3A, 0xC2, 0x19, 0x6E, 0x7B, 0x05}};

TBlockingMultipleChoiceMessage::TBlockingMultipleChoiceMessage()
    : FText("Default Question"), FEvent(std::make_shared<TAutoResetEvent>()) {
  DefinePossibleAnswers({{kAnswerOk, kProgressionContinue}});
}

IStandardMessage* TBlockingMultipleChoiceMessage::CreateInstance() {
  return new TBlockingMultipleChoiceMessage();
}

TBlockingMultipleChoiceMessage* TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(
    const std::string& text, const std::string& caption, TStandardMessageSeverityCategory severity,
    TStandardMessageProgressionMode progressionModeOfDefault) {
  auto* message = new TBlockingMultipleChoiceMessage();
  message->DefinePossibleAnswers({{kAnswerNo, kProgressionInterrupt},
                                  {kAnswerYes, kProgressionContinue},
                                  {kAnswerDefault, progressionModeOfDefault}});
  message->SetMessageText(text);
  message->SetCaptionText(caption);
  message->DefineMessageSeverity(severity);
  return message;
}

TBlockingMultipleChoiceMessage* TBlockingMultipleChoiceMessage::CreateAndInit_OkCancel(
    const std::string& text, const std::string& caption, TStandardMessageSeverityCategory severity,
    TStandardMessageProgressionMode progressionModeOfDefault) {
  auto* message = new TBlockingMultipleChoiceMessage();
  message->DefinePossibleAnswers({{kAnswerCancel, kProgressionInterrupt},
                                  {kAnswerOk, kProgressionContinue},
                                  {kAnswerDefault, progressionModeOfDefault}});
  message->SetMessageText(text);
  message->SetCaptionText(caption);
  message->DefineMessageSeverity(severity);
  return message;
}

void TBlockingMultipleChoiceMessage::DefinePossibleAnswers(const TStandardMessagePossibleAnswers& answers) {
  FPossibleAnswers = answers;
  FDefaultReply.reset();
  if (!FPossibleAnswers.empty())
    FDefaultReply = std::make_unique<TStandardMessageReply>(FEvent, *FPossibleAnswers.begin());
}

IStandardMessageReply* TBlockingMultipleChoiceMessage::GetReply(TStandardMessageAnswer answer) {
  // Beyond the last key there is no entry to hold; the reply then keeps the answer asked for and says
  // that nobody knows how to go on.
  TStandardMessageAnswerPair pair{answer, kProgressionNotSure};
  auto found = FPossibleAnswers.lower_bound(answer);
  if (found != FPossibleAnswers.end()) pair = *found;
  auto* reply = new TStandardMessageReply(FEvent, pair);
  FEvent->Set();
  return reply;
}

TBlockingNotification::TBlockingNotification() {
  FText = "Default Notification";
  FCaption = DefaultCaption();
}

IStandardMessage* TBlockingNotification::CreateInstance() {
  return new TBlockingNotification();
}

TBlockingNotification* TBlockingNotification::CreateAndInit(const std::string& text,
                                                            const std::string& caption) {
  auto* message = new TBlockingNotification();
  message->SetMessageText(text);
  message->SetCaptionText(caption);
  return message;
}

TBlockingNotification* TBlockingNotification::CreateAndInit(const std::string& text,
                                                            const std::string& caption,
                                                            TStandardMessageSeverityCategory severity) {
  auto* message = CreateAndInit(text, caption);
  message->DefineMessageSeverity(severity);
  return message;
}

std::string TBlockingNotification::DefaultCaption() {
  const auto title = GetMessageApplicationTitle();
  if (!title) return GetMessageResourceString(1);
  if (title->find("Project") != std::string::npos) return "Project";
  if (title->find("Control") != std::string::npos) return "Control";
  return *title;
}

// ---------------------------------------------------------------------------------------------------------
// Proxy

namespace {

std::mutex& SingletonLock() {
  static std::mutex lock;
  return lock;
}

TMessageProxy*& SingletonObject() {
  static TMessageProxy* proxy = nullptr;
  return proxy;
}

std::mutex& CreatorLock() {
  static std::mutex lock;
  return lock;
}

bool& CreatorsRegistered() {
  static bool registered = false;
  return registered;
}

std::map<TGuid, TMessageCreator>& CreatorMapStorage() {
  static std::map<TGuid, TMessageCreator> creators;
  return creators;
}

void RegisterBuiltInMessagesLocked() {
  if (CreatorsRegistered()) return;
  CreatorsRegistered() = true;
  auto& creators = CreatorMapStorage();
  creators.emplace(TBlockingMultipleChoiceMessage::ClassGuid,
                   &TBlockingMultipleChoiceMessage::CreateInstance);
  creators.emplace(TBlockingNotification::ClassGuid, &TBlockingNotification::CreateInstance);
}

} // namespace

TMessageProxy* TMessageProxy::MsgProxySingleton() {
  std::lock_guard guard(SingletonLock());
  if (!SingletonObject()) SingletonObject() = new TMessageProxy();
  return SingletonObject();
}

void TMessageProxy::CleanupRegisteredMessagesAndSingletonObject() {
  TMessageProxy* proxy;
  {
    std::lock_guard guard(SingletonLock());
    proxy = SingletonObject();
    SingletonObject() = nullptr;
  }
  delete proxy;
  std::lock_guard guard(CreatorLock());
  CreatorMapStorage().clear();
  CreatorsRegistered() = false;
}

std::map<TGuid, TMessageCreator>& TMessageProxy::MessageCreatorMap() {
  std::lock_guard guard(CreatorLock());
  RegisterBuiltInMessagesLocked();
  return CreatorMapStorage();
}

void TMessageProxy::RegisterMessageClass(const TGuid& classGuid, TMessageCreator creator) {
  std::lock_guard guard(CreatorLock());
  RegisterBuiltInMessagesLocked();
  CreatorMapStorage()[classGuid] = creator;
}

TMessageProxy::~TMessageProxy() {
  DeleteAllMessagingStrategies();
  SetMessageLoggingStrategy(nullptr);
}

void TMessageProxy::LockServingMainThread() {
  // A strategy may need the main thread (a GUI box runs there). If the main thread itself waited here for
  // a worker's box, neither would move; so the main thread keeps draining its queue while it waits.
  auto& queue = TMainThreadQueue::Instance();
  if (!queue.IsMainThread()) {
    FLock.lock();
    return;
  }
  while (!FLock.try_lock()) queue.WaitAndProcess(std::chrono::milliseconds(2));
}

void TMessageProxy::SetMessagingStrategy(IMessagingStrategy* strategy, const TGuid& messageType) {
  LockServingMainThread();
  std::lock_guard unlockLater(FLock, std::adopt_lock);
  IMessagingStrategy* previous = nullptr;
  {
    std::lock_guard guard(FStrategyLock);
    auto found = FStrategies.find(messageType);
    if (found != FStrategies.end()) previous = found->second;
    if (strategy)
      FStrategies[messageType] = strategy;
    else
      FStrategies.erase(messageType);
    if (previous == strategy) return;
    for (const auto& [key, other] : FStrategies)
      if (other == previous) return; // still serves another key
  }
  delete previous;
}

IMessagingStrategy* TMessageProxy::GetMessagingStrategy(const TGuid& messageType) const {
  std::lock_guard guard(FStrategyLock);
  auto found = FStrategies.find(messageType);
  return found == FStrategies.end() ? nullptr : found->second;
}

void TMessageProxy::DeleteAllMessagingStrategies() {
  LockServingMainThread();
  std::lock_guard unlockLater(FLock, std::adopt_lock);
  std::vector<IMessagingStrategy*> unique;
  {
    std::lock_guard guard(FStrategyLock);
    for (const auto& [key, strategy] : FStrategies)
      if (std::find(unique.begin(), unique.end(), strategy) == unique.end()) unique.push_back(strategy);
    FStrategies.clear();
  }
  for (IMessagingStrategy* strategy : unique) delete strategy;
}

void TMessageProxy::SetMessageLoggingStrategy(IMessageLoggingStrategy* logger) {
  LockServingMainThread();
  std::lock_guard unlockLater(FLock, std::adopt_lock);
  IMessageLoggingStrategy* previous;
  {
    std::lock_guard guard(FStrategyLock);
    previous = FLogger;
    FLogger = logger;
  }
  if (previous != logger) delete previous;
}

IStandardMessageReply* TMessageProxy::IssueMessage(IStandardMessage* message, bool discardReply) {
  std::unique_ptr<IStandardMessage> owned(message);
  std::unique_ptr<IStandardMessageReply> reply;
  {
    LockServingMainThread();
    std::lock_guard unlockLater(FLock, std::adopt_lock);
    IMessagingStrategy* strategy = nullptr;
    IMessageLoggingStrategy* logger;
    {
      std::lock_guard guard(FStrategyLock);
      // A null message goes to the default strategy, which declines it; the log then names that strategy.
      auto found = message ? FStrategies.find(message->GetTypeId()) : FStrategies.end();
      if (found == FStrategies.end()) found = FStrategies.find(TGuid{});
      if (found != FStrategies.end()) strategy = found->second;
      logger = FLogger;
    }
    if (strategy) {
      if (auto answer = strategy->GetAnswerStrategyForMessage(message)) reply.reset(answer(message));
    }
    if (logger) logger->LogMessageAndReplyAndStrategy(strategy, message, reply.get());
  }
  owned.reset();
  if (discardReply) return nullptr;
  return reply.release();
}

IStandardMessageReply* TMessageProxy::IssueMessage(const TGuid& messageType, const std::string& text,
                                                   bool discardReply,
                                                   TStandardMessageSeverityCategory severity) {
  TMessageCreator creator = nullptr;
  {
    std::lock_guard guard(CreatorLock());
    RegisterBuiltInMessagesLocked();
    auto found = CreatorMapStorage().find(messageType);
    if (found != CreatorMapStorage().end()) creator = found->second;
  }
  IStandardMessage* message = creator ? creator() : nullptr;
  if (message) {
    message->SetMessageText(text);
    if (auto* severityPart = dynamic_cast<IStandardMessageSeverity*>(message))
      severityPart->DefineMessageSeverity(severity);
  }
  return IssueMessage(message, discardReply);
}

// ---------------------------------------------------------------------------------------------------------
// Automatic strategies

TMessageAnswerFunction
TContinueAllMessages_MessagingStrategy::GetAnswerStrategyForMessage(IStandardMessage* message) {
  if (!message) return {};
  return [](IStandardMessage* msg) -> IStandardMessageReply* {
    if (auto* answers = dynamic_cast<IStandardMessagePossibleAnswers*>(msg)) {
      // The default entry is no real answer: it only says what the default button means.
      for (const auto& [answer, mode] : answers->GetPossibleAnswers())
        if (answer != kAnswerDefault && mode == kProgressionContinue) return msg->GetReply(answer);
    }
    return msg->GetReply(kAnswerDefault);
  };
}

TMessageAnswerFunction
TFixedAnswerToAllMessages_MessagingStrategy::GetAnswerStrategyForMessage(IStandardMessage* message) {
  if (!message) return {};
  const TStandardMessageAnswer fixed = FAnswer;
  return [fixed](IStandardMessage* msg) -> IStandardMessageReply* {
    if (auto* answers = dynamic_cast<IStandardMessagePossibleAnswers*>(msg))
      if (answers->GetPossibleAnswers().count(fixed) != 0) return msg->GetReply(fixed);
    return msg->GetReply(kAnswerDefault);
  };
}

// ---------------------------------------------------------------------------------------------------------
// Logging strategy

TStdMsgToLogFile_Strategy::TStdMsgToLogFile_Strategy(TLogFile* logFile) : FLogFile(logFile) {}

std::string TStdMsgToLogFile_Strategy::ComposeLogLine(IMessagingStrategy* strategy, IStandardMessage* message,
                                                      IStandardMessageReply* reply) {
  const std::string strategyText =
      strategy ? ". Messaging-Strategy: " + strategy->GetName() : std::string(". No Messaging Strategy.");
  if (!message) return "Standard Message Logger: NULL-Message passed in" + strategyText;
  if (!reply)
    return "Standard Message Logger: Got no reply for Message Type " + message->GetTypeId().ToString() +
           strategyText;
  const bool answered = reply->AnswerAvailable() && reply->AnswerAvailable()->IsSet();
  std::string line = "Standard Message Logger: ";
  line += answered ? "Message issued and answered - " : "Message issued but not yet answered - ";
  std::string text = message->GetMessageText();
  std::replace(text.begin(), text.end(), '\r', ' ');
  std::replace(text.begin(), text.end(), '\n', ' ');
  line += text;
  if (answered) {
    const auto [answer, mode] = reply->GetAnswer();
    switch (answer) {
    case kAnswerOk:
      line += " - Ok";
      break;
    case kAnswerCancel:
      line += " - Cancel";
      break;
    case kAnswerYes:
      line += " - Yes";
      break;
    case kAnswerNo:
      line += " - No";
      break;
    case kAnswerDefault:
      line += " - Default Answer";
      break;
    default:
      line += " - Invalid Answer (" + std::to_string(answer) + ")";
    }
    if (mode == kProgressionInterrupt)
      line += " (interrupt)";
    else if (mode == kProgressionContinue)
      line += " (continue)";
    else
      line += " (not sure what to do)";
  }
  return line + strategyText;
}

void TStdMsgToLogFile_Strategy::LogMessageAndReplyAndStrategy(IMessagingStrategy* strategy,
                                                              IStandardMessage* message,
                                                              IStandardMessageReply* reply) {
  TLogFile* log = FLogFile ? FLogFile : GlobalLogFile;
  if (!log) return;
  log->AddLog(ComposeLogLine(strategy, message, reply), TLogLevel::DebugMessage, false, 0);
}

// ---------------------------------------------------------------------------------------------------------
// Message box layout and the box strategies

TMessageBoxLayout ChooseMessageBoxLayout(IStandardMessage* message) {
  if (!message) throw OrvexException("ChooseMessageBoxLayout: no message");
  TMessageBoxLayout layout;
  std::vector<TStandardMessageAnswer> real;
  std::optional<TStandardMessageAnswer> defaultAnswer;
  if (auto* answers = dynamic_cast<IStandardMessagePossibleAnswers*>(message)) {
    const auto& map = answers->GetPossibleAnswers();
    auto defaultEntry = map.find(kAnswerDefault);
    for (const auto& [answer, mode] : map) {
      if (answer == kAnswerDefault) continue;
      real.push_back(answer);
      if (defaultEntry != map.end() && !defaultAnswer && mode == defaultEntry->second) defaultAnswer = answer;
    }
  }
  auto has = [&](TStandardMessageAnswer answer) { return std::count(real.begin(), real.end(), answer) != 0; };
  const auto isDefault = [&](TStandardMessageAnswer answer) {
    return defaultAnswer && *defaultAnswer == answer;
  };
  if (real.size() == 1 && has(kAnswerOk)) {
    layout.Buttons = TMessageBoxButtons::Ok;
    layout.ButtonAnswers = {kAnswerOk};
  } else if (real.size() == 2 && has(kAnswerOk) && has(kAnswerCancel)) {
    layout.Buttons = TMessageBoxButtons::OkCancel;
    layout.ButtonAnswers = {kAnswerOk, kAnswerCancel};
    layout.DefaultButton = isDefault(kAnswerCancel) ? 1 : 0;
  } else if (real.size() == 3 && has(kAnswerYes) && has(kAnswerNo) && has(kAnswerCancel)) {
    layout.Buttons = TMessageBoxButtons::YesNoCancel;
    layout.ButtonAnswers = {kAnswerYes, kAnswerNo, kAnswerCancel};
    layout.DefaultButton = isDefault(kAnswerNo) ? 1 : isDefault(kAnswerCancel) ? 2 : 0;
  } else if (real.size() == 2 && has(kAnswerYes) && has(kAnswerNo)) {
    layout.Buttons = TMessageBoxButtons::YesNo;
    layout.ButtonAnswers = {kAnswerYes, kAnswerNo};
    layout.DefaultButton = isDefault(kAnswerNo) ? 1 : 0;
  } else {
    throw OrvexException("No appropriate combination of Message buttons found");
  }

  if (auto* severity = dynamic_cast<IStandardMessageSeverity*>(message)) {
    switch (severity->GetSeverity()) {
    case kSeverityQuestion:
      layout.Icon = TMessageBoxIcon::Question;
      break;
    case kSeverityWarning:
      layout.Icon = TMessageBoxIcon::Exclamation;
      break;
    case kSeverityError:
      layout.Icon = TMessageBoxIcon::Hand;
      break;
    default:
      layout.Icon = TMessageBoxIcon::Information;
    }
  }

  const std::string caption = message->GetCaption();
  std::string originName;
  if (auto* origin = dynamic_cast<IStandardMessageOrigin*>(message))
    originName = GetMessageOriginName(origin->GetOrigin());
  if (originName.empty())
    layout.Caption = caption;
  else
    layout.Caption = caption.empty() ? originName : originName + " - " + caption;
  layout.Text = message->GetMessageText();
  return layout;
}

TShowWindowMessage_MessagingStrategy::TShowWindowMessage_MessagingStrategy(TMessageBoxFunction box,
                                                                           void* ownerWindow)
    : FBox(std::move(box)), FOwnerWindow(ownerWindow) {}

TMessageAnswerFunction
TShowWindowMessage_MessagingStrategy::GetAnswerStrategyForMessage(IStandardMessage* message) {
  if (!message) return {};
  if (!message->IsBlocking())
    throw OrvexException(
        "TShowWindowMessage_MessagingStrategy::GetAnswerStrategyForMessage: Not implemented - "
        "Non-blocking Messages cannot be shown");
  TMessageBoxFunction box = FBox;
  return [box](IStandardMessage* msg) -> IStandardMessageReply* {
    const TMessageBoxLayout layout = ChooseMessageBoxLayout(msg);
    return msg->GetReply(box ? box(layout) : layout.DefaultAnswer());
  };
}

namespace {

struct TConsoleButton {
  TStandardMessageAnswer Answer;
  char Letter;
  const char* Name;
};

const TConsoleButton& ConsoleButton(TStandardMessageAnswer answer) {
  static const TConsoleButton buttons[] = {{kAnswerOk, 'o', "Ok"},
                                           {kAnswerCancel, 'c', "Cancel"},
                                           {kAnswerYes, 'y', "Yes"},
                                           {kAnswerNo, 'n', "No"}};
  for (const auto& button : buttons)
    if (button.Answer == answer) return button;
  return buttons[0];
}

const char* SeverityWord(TMessageBoxIcon icon) {
  switch (icon) {
  case TMessageBoxIcon::Question:
    return "Question";
  case TMessageBoxIcon::Exclamation:
    return "Warning";
  case TMessageBoxIcon::Hand:
    return "Error";
  default:
    return "Information";
  }
}

} // namespace

TConsoleMessagingStrategy::TConsoleMessagingStrategy(std::FILE* input, std::FILE* output,
                                                     TInteraction interaction)
    : FInput(input), FOutput(output), FInteraction(interaction) {}

bool TConsoleMessagingStrategy::IsInteractive() const {
  switch (FInteraction) {
  case TInteraction::Always:
    return FInput != nullptr;
  case TInteraction::Never:
    return false;
  default:
    return FInput != nullptr && isatty(fileno(FInput)) == 1;
  }
}

TMessageAnswerFunction TConsoleMessagingStrategy::GetAnswerStrategyForMessage(IStandardMessage* message) {
  if (!message) return {};
  return [this](IStandardMessage* msg) -> IStandardMessageReply* {
    return msg->GetReply(Ask(ChooseMessageBoxLayout(msg)));
  };
}

namespace {

// A message box text as a terminal shows it: no carriage returns, lines broken for a narrow box joined again,
// paragraphs kept apart by one line break.
std::string ConsoleText(const std::string& text) {
  std::string plain;
  for (char c : text)
    if (c != '\r') plain += c;
  std::string result;
  for (size_t i = 0; i < plain.size(); ++i) {
    if (plain[i] != '\n') {
      result += plain[i];
      continue;
    }
    size_t end = i;
    while (end < plain.size() && plain[end] == '\n') ++end;
    if (end == plain.size()) break;
    result += end - i > 1 ? '\n' : ' ';
    i = end - 1;
  }
  return result;
}

} // namespace

TStandardMessageAnswer TConsoleMessagingStrategy::Ask(const TMessageBoxLayout& layout) {
  const TStandardMessageAnswer defaultAnswer = layout.DefaultAnswer();
  std::FILE* out = FOutput ? FOutput : stderr;
  const std::string text = ConsoleText(layout.Text);
  if (layout.ButtonAnswers.size() == 1) {
    // A notification has nothing to choose: one line, and on.
    std::fprintf(out, "%s%s%s: %s\n", SeverityWord(layout.Icon), layout.Caption.empty() ? "" : ": ",
                 layout.Caption.c_str(), text.c_str());
    std::fflush(out);
    return defaultAnswer;
  }
  std::fprintf(out, "\n%s%s%s\n%s\n", SeverityWord(layout.Icon), layout.Caption.empty() ? "" : ": ",
               layout.Caption.c_str(), text.c_str());
  if (!IsInteractive()) {
    std::fprintf(out, "Answered automatically: %s (default)\n", ConsoleButton(defaultAnswer).Name);
    std::fflush(out);
    return defaultAnswer;
  }
  std::string prompt = "[";
  for (std::size_t i = 0; i < layout.ButtonAnswers.size(); ++i) {
    char letter = ConsoleButton(layout.ButtonAnswers[i]).Letter;
    if (static_cast<int>(i) == layout.DefaultButton)
      letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    if (i > 0) prompt += '/';
    prompt += letter;
  }
  prompt += "] ";
  for (int attempt = 0; attempt < 5; ++attempt) {
    std::fputs(prompt.c_str(), out);
    std::fflush(out);
    char line[256];
    if (!std::fgets(line, sizeof line, FInput)) {
      std::fprintf(out, "\nNo input: %s (default)\n", ConsoleButton(defaultAnswer).Name);
      return defaultAnswer;
    }
    std::string reply = line;
    reply.erase(std::remove_if(reply.begin(), reply.end(), [](unsigned char c) { return std::isspace(c); }),
                reply.end());
    if (reply.empty()) return defaultAnswer;
    const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(reply[0])));
    for (TStandardMessageAnswer answer : layout.ButtonAnswers)
      if (ConsoleButton(answer).Letter == letter) return answer;
  }
  std::fprintf(out, "No valid answer: %s (default)\n", ConsoleButton(defaultAnswer).Name);
  return defaultAnswer;
}

// ---------------------------------------------------------------------------------------------------------
// Messages to the main thread

TCustomMessage::TCustomMessage(int messageId, int deleteMe) : FMessageId(messageId), FDeleteMe(deleteMe) {}

void TCustomMessage::Post(void* /*window*/) {
  Deliver(TDelivery::Post);
}
void TCustomMessage::Send(void* /*window*/) {
  Deliver(TDelivery::Send);
}
void TCustomMessage::SendNotify(void* /*window*/) {
  Deliver(TDelivery::SendNotify);
}

void TCustomMessage::Deliver(TDelivery delivery) {
  {
    std::lock_guard guard(FAccess);
    --FProcessed;
    ++FDeleteMe;
  }
  auto& queue = TMainThreadQueue::Instance();
  auto receive = [this] { ProcessCustomMessage(this); };
  switch (delivery) {
  case TDelivery::Post:
    queue.Post(receive);
    break;
  case TDelivery::Send:
    queue.Send(receive);
    break;
  case TDelivery::SendNotify:
    queue.SendNotify(receive);
    break;
  }
}

void TCustomMessage::SetDeleteMe(int deleteMe) {
  std::lock_guard guard(FAccess);
  FDeleteMe = deleteMe;
}

void TCustomMessage::SetProcessed(int processed) {
  std::lock_guard guard(FAccess);
  FProcessed = processed;
}

int TCustomMessage::GetDeleteMe() const {
  std::lock_guard guard(FAccess);
  return FDeleteMe;
}

int TCustomMessage::GetProcessed() const {
  std::lock_guard guard(FAccess);
  return FProcessed;
}

void TCustomMessage::ProcessCustomMessage(TCustomMessage* message) {
  if (!message) return;
  std::exception_ptr error;
  message->GetAccess();
  try {
    message->ExecuteFunction();
  } catch (...) {
    error = std::current_exception();
  }
  --message->FDeleteMe;
  ++message->FProcessed;
  const bool last = message->FDeleteMe < 1;
  message->LeaveAccess();
  if (last) delete message;
  if (error) std::rethrow_exception(error);
}

void CleanupMultiUseMessage(TCustomMessage*& message) {
  if (!message) return;
  message->GetAccess();
  if (message->GetProcessed() >= 0) {
    message->LeaveAccess();
    delete message;
    message = nullptr;
    return;
  }
  message->SetDeleteMe(message->GetDeleteMe() - 1);
  message->LeaveAccess();
}

// ---------------------------------------------------------------------------------------------------------
// User feedback

const std::string TCustomMessageUserFeedback::UserStopString = "User Stop";
const std::string TCustomMessageUserFeedback::UserWaitString = "Wait for User";
const std::string TCustomMessageUserFeedback::NextStepString = "Press Next";

namespace {

std::mutex& FeedbackHandlerLock() {
  static std::mutex lock;
  return lock;
}

std::function<void(const TCustomMessageUserFeedback::TSnapshot&)>& FeedbackHandler() {
  static std::function<void(const TCustomMessageUserFeedback::TSnapshot&)> handler;
  return handler;
}

/// Holds a message's access lock for a scope.
class TAccessGuard {
public:
  explicit TAccessGuard(TCustomMessage& message) : FMessage(message) { FMessage.GetAccess(); }
  ~TAccessGuard() { FMessage.LeaveAccess(); }
  TAccessGuard(const TAccessGuard&) = delete;
  TAccessGuard& operator=(const TAccessGuard&) = delete;

private:
  TCustomMessage& FMessage;
};

} // namespace

TCustomMessageUserFeedback::TCustomMessageUserFeedback(int deleteMe) : TCustomMessage(MessageId, deleteMe) {
  FData.LockState = deleteMe == 1 ? 1 : 0;
}

void TCustomMessageUserFeedback::ResetToEmptyInformationLocked() {
  TAccessGuard guard(*this);
  FData.Text.clear();
  FData.Text2.clear();
  FData.Icon = 1;
  FData.LockState = 1;
}

void TCustomMessageUserFeedback::ResetToNoProgress() {
  TAccessGuard guard(*this);
  FData.Progress = TProgress{};
}

void TCustomMessageUserFeedback::ResetProgressStruct(TUserFeedbackProgressType type,
                                                     const std::string& caption, int statusGlyph,
                                                     const std::vector<double>& stepValues) {
  TAccessGuard guard(*this);
  ResetToNoProgress();
  FData.Progress.Type = type;
  FData.Progress.Caption = caption;
  FData.Progress.StatusGlyph = statusGlyph;
  for (std::size_t step = 0; step < stepValues.size(); ++step)
    FData.Progress.Steps[static_cast<int>(step)] = stepValues[step];
}

void TCustomMessageUserFeedback::GenerateNewMessage(const std::string& text,
                                                    TUserFeedbackMessageLockState lockState,
                                                    TUserFeedbackIcon icon, const std::string& text2) {
  TAccessGuard guard(*this);
  ResetToEmptyInformationLocked();
  ResetToNoProgress();
  FData.Text = text;
  FData.LockState = lockState;
  FData.Icon = icon;
  FData.Text2 = text2;
}

TCustomMessageUserFeedback::TSnapshot TCustomMessageUserFeedback::GetSnapshot() const {
  TAccessGuard guard(*const_cast<TCustomMessageUserFeedback*>(this));
  return FData;
}

double TCustomMessageUserFeedback::ElapsedSeconds() const {
  const auto started = GetSnapshot().Progress.Started;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

void TCustomMessageUserFeedback::CreateAndPostMessage(void* window, const std::string& text,
                                                      TUserFeedbackMessageLockState lockState,
                                                      TUserFeedbackIcon icon, const std::string& text2) {
  auto* message = new TCustomMessageUserFeedback(0);
  message->GenerateNewMessage(text, lockState, icon, text2);
  message->Post(window);
}

void TCustomMessageUserFeedback::CreateAndSendMessage(void* window, const std::string& text,
                                                      TUserFeedbackMessageLockState lockState,
                                                      TUserFeedbackIcon icon, const std::string& text2) {
  auto* message = new TCustomMessageUserFeedback(0);
  message->GenerateNewMessage(text, lockState, icon, text2);
  message->Send(window);
}

void TCustomMessageUserFeedback::CreateAndSendNotifyMessage(void* window, const std::string& text,
                                                            TUserFeedbackMessageLockState lockState,
                                                            TUserFeedbackIcon icon,
                                                            const std::string& text2) {
  auto* message = new TCustomMessageUserFeedback(0);
  message->GenerateNewMessage(text, lockState, icon, text2);
  message->SendNotify(window);
}

void TCustomMessageUserFeedback::ExecuteFunction() {
  std::function<void(const TSnapshot&)> handler;
  {
    std::lock_guard guard(FeedbackHandlerLock());
    handler = FeedbackHandler();
  }
  if (handler) handler(GetSnapshot());
}

void TCustomMessageUserFeedback::SetFeedbackHandler(std::function<void(const TSnapshot&)> handler) {
  std::lock_guard guard(FeedbackHandlerLock());
  FeedbackHandler() = std::move(handler);
}

bool AskUserYesNo(const std::string& text, const std::string& caption,
                  TStandardMessageSeverityCategory severity) {
  auto* message =
      TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(text, caption, severity, kProgressionInterrupt);
  std::unique_ptr<IStandardMessageReply> reply(
      TMessageProxy::MsgProxySingleton()->IssueMessage(message, false));
  return reply && reply->GetAnswer().first == kAnswerYes;
}

void NotifyUser(const std::string& text, const std::string& caption,
                TStandardMessageSeverityCategory severity, bool nonBlocking) {
  // A notification asks nothing: whatever reply comes back is not needed, and is freed here.
  std::unique_ptr<IStandardMessageReply> reply(TMessageProxy::MsgProxySingleton()->IssueMessage(
      TBlockingNotification::CreateAndInit(text, caption, severity), nonBlocking));
}
