// Messages that run a function on the main thread: posted, sent (the sender waits) or notified.
#pragma once

#include "common/Standardmessage.h"

#include <functional>
#include <type_traits>
#include <utility>

/// Carries a function to the main thread, where the receiver of custom messages runs it under the
/// message's access lock: first the bound function, then the plain one, each if set.
class TCustomMessageExecuteMainThreadFunction : public TCustomMessage {
public:
  static constexpr int MessageId = 8;
  using TPlainFunction = void (*)();
  using TBoundFunction = std::function<void()>;

  TCustomMessageExecuteMainThreadFunction(TBoundFunction bound, TPlainFunction plain, int deleteMe = 0);

  ///@{ Make a message and deliver it; it deletes itself after it has run. Send blocks until the
  /// function has run and rethrows what it threw; SendNotify runs at once on the main thread.
  static void CreateAndPostMessage(void* window, TBoundFunction function);
  static void CreateAndPostMessage(void* window, TPlainFunction function);
  static void CreateAndSendMessage(void* window, TBoundFunction function);
  static void CreateAndSendMessage(void* window, TPlainFunction function);
  static void CreateAndSendNotifyMessage(void* window, TBoundFunction function);
  static void CreateAndSendNotifyMessage(void* window, TPlainFunction function);
  ///@}
  ///@{ Lambdas without captures go the plain way, all other callables the bound way.
  template <class F>
  requires std::is_invocable_v<F&>
  static void CreateAndPostMessage(void* window, F&& function) {
    CreateAndPostMessage(window, Choose(std::forward<F>(function)));
  }
  template <class F>
  requires std::is_invocable_v<F&>
  static void CreateAndSendMessage(void* window, F&& function) {
    CreateAndSendMessage(window, Choose(std::forward<F>(function)));
  }
  template <class F>
  requires std::is_invocable_v<F&>
  static void CreateAndSendNotifyMessage(void* window, F&& function) {
    CreateAndSendNotifyMessage(window, Choose(std::forward<F>(function)));
  }
  ///@}

  void ExecuteFunction() override;
  /// Clears both functions under the access lock, so that a delivery still queued runs nothing; for
  /// the owner of a reused message whose target has gone.
  void SafeRemoveFunctionPointer();

private:
  template <class F>
  static auto Choose(F&& function) {
    if constexpr (std::is_convertible_v<F, TPlainFunction>)
      return static_cast<TPlainFunction>(function);
    else
      return TBoundFunction(std::forward<F>(function));
  }

  TBoundFunction FBound;
  TPlainFunction FPlain;
};

/// The same with a pointer parameter handed to the function.
class TCustomMessageExecuteMainThreadFunctionWithParameter : public TCustomMessage {
public:
  static constexpr int MessageId = 9;
  using TPlainFunction = void (*)(void* parameter);
  using TBoundFunction = std::function<void(void* parameter)>;

  TCustomMessageExecuteMainThreadFunctionWithParameter(TBoundFunction bound, TPlainFunction plain,
                                                       void* parameter, int deleteMe = 0);

  static void CreateAndPostMessage(void* window, TBoundFunction function, void* parameter);
  static void CreateAndSendMessage(void* window, TBoundFunction function, void* parameter);
  static void CreateAndSendNotifyMessage(void* window, TBoundFunction function, void* parameter);

  void ExecuteFunction() override;
  void SafeRemoveFunctionPointer();

private:
  TBoundFunction FBound;
  TPlainFunction FPlain;
  void* FParameter;
};
