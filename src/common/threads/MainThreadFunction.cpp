// Functions carried to the main thread as custom messages.
#include "common/threads/MainThreadFunction.h"

TCustomMessageExecuteMainThreadFunction::TCustomMessageExecuteMainThreadFunction(TBoundFunction bound,
                                                                                 TPlainFunction plain,
                                                                                 int deleteMe)
    : TCustomMessage(MessageId, deleteMe), FBound(std::move(bound)), FPlain(plain) {}

void TCustomMessageExecuteMainThreadFunction::CreateAndPostMessage(void* window, TBoundFunction function) {
  (new TCustomMessageExecuteMainThreadFunction(std::move(function), nullptr))->Post(window);
}

void TCustomMessageExecuteMainThreadFunction::CreateAndPostMessage(void* window, TPlainFunction function) {
  (new TCustomMessageExecuteMainThreadFunction(nullptr, function))->Post(window);
}

void TCustomMessageExecuteMainThreadFunction::CreateAndSendMessage(void* window, TBoundFunction function) {
  (new TCustomMessageExecuteMainThreadFunction(std::move(function), nullptr))->Send(window);
}

void TCustomMessageExecuteMainThreadFunction::CreateAndSendMessage(void* window, TPlainFunction function) {
  (new TCustomMessageExecuteMainThreadFunction(nullptr, function))->Send(window);
}

void TCustomMessageExecuteMainThreadFunction::CreateAndSendNotifyMessage(void* window,
                                                                         TBoundFunction function) {
  (new TCustomMessageExecuteMainThreadFunction(std::move(function), nullptr))->SendNotify(window);
}

void TCustomMessageExecuteMainThreadFunction::CreateAndSendNotifyMessage(void* window,
                                                                         TPlainFunction function) {
  (new TCustomMessageExecuteMainThreadFunction(nullptr, function))->SendNotify(window);
}

void TCustomMessageExecuteMainThreadFunction::ExecuteFunction() {
  GetAccess();
  // Copies, so that a function may clear the message's pointers while it runs.
  TBoundFunction bound = FBound;
  TPlainFunction plain = FPlain;
  LeaveAccess();
  if (bound) bound();
  if (plain) plain();
}

void TCustomMessageExecuteMainThreadFunction::SafeRemoveFunctionPointer() {
  GetAccess();
  FBound = nullptr;
  FPlain = nullptr;
  LeaveAccess();
}

TCustomMessageExecuteMainThreadFunctionWithParameter::TCustomMessageExecuteMainThreadFunctionWithParameter(
    TBoundFunction bound, TPlainFunction plain, void* parameter, int deleteMe)
    : TCustomMessage(MessageId, deleteMe), FBound(std::move(bound)), FPlain(plain), FParameter(parameter) {}

void TCustomMessageExecuteMainThreadFunctionWithParameter::CreateAndPostMessage(void* window,
                                                                                TBoundFunction function,
                                                                                void* parameter) {
  (new TCustomMessageExecuteMainThreadFunctionWithParameter(std::move(function), nullptr, parameter))
      ->Post(window);
}

void TCustomMessageExecuteMainThreadFunctionWithParameter::CreateAndSendMessage(void* window,
                                                                                TBoundFunction function,
                                                                                void* parameter) {
  (new TCustomMessageExecuteMainThreadFunctionWithParameter(std::move(function), nullptr, parameter))
      ->Send(window);
}

void TCustomMessageExecuteMainThreadFunctionWithParameter::CreateAndSendNotifyMessage(void* window,
                                                                                      TBoundFunction function,
                                                                                      void* parameter) {
  (new TCustomMessageExecuteMainThreadFunctionWithParameter(std::move(function), nullptr, parameter))
      ->SendNotify(window);
}

void TCustomMessageExecuteMainThreadFunctionWithParameter::ExecuteFunction() {
  GetAccess();
  TBoundFunction bound = FBound;
  TPlainFunction plain = FPlain;
  void* parameter = FParameter;
  LeaveAccess();
  if (bound) bound(parameter);
  if (plain) plain(parameter);
}

void TCustomMessageExecuteMainThreadFunctionWithParameter::SafeRemoveFunctionPointer() {
  GetAccess();
  FBound = nullptr;
  FPlain = nullptr;
  LeaveAccess();
}
