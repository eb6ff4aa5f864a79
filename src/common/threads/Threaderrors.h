// Private helper of the thread folder: runs a thread function so that nothing it throws leaves the
// thread, and hands the errors on to the log and the process-wide error hook.
#pragma once

#include "common/OrvexException.h"

#include <cfenv>
#include <exception>
#include <memory>
#include <new>
#include <string>

namespace oxthreads {

/// What a guarded call of a thread function ended with.
struct TGuardedCallResult {
  /// A mathematical failure: reported on its own, never handed to a waiting thread.
  bool MathError = false;
  /// The error, as an exception of the family; null when the call returned normally.
  std::unique_ptr<Exception> Error;
  /// What a waiting thread should see: the original exception, or the replacement made here.
  std::exception_ptr Thrown;
};

/// Runs fn and clears the floating-point status flags afterwards. A math exception comes back with
/// MathError set; a failed allocation becomes a new OrvexExceptionMemoryAllocation with
/// memoryAllocationText around the original; other exceptions of the family are copied with their
/// dynamic type; other standard exceptions become an Exception with their text; anything else becomes
/// TUnknown(unknownText).
template <class TUnknown, class F>
TGuardedCallResult RunGuarded(F&& fn, const std::string& memoryAllocationText, const char* unknownText) {
  TGuardedCallResult result;
  try {
    fn();
  } catch (const OrvexExceptionMathError& e) {
    result.MathError = true;
    result.Error.reset(e.Clone());
    result.Thrown = std::current_exception();
  } catch (const OrvexExceptionMemoryAllocation& e) {
    OrvexExceptionMemoryAllocation replacement(memoryAllocationText, e);
    result.Error = std::make_unique<OrvexExceptionMemoryAllocation>(replacement);
    result.Thrown = std::make_exception_ptr(replacement);
  } catch (const std::bad_alloc& e) {
    OrvexExceptionMemoryAllocation replacement(memoryAllocationText, Exception(e.what()));
    result.Error = std::make_unique<OrvexExceptionMemoryAllocation>(replacement);
    result.Thrown = std::make_exception_ptr(replacement);
  } catch (const Exception& e) {
    result.Error.reset(e.Clone());
    result.Thrown = std::current_exception();
  } catch (const std::exception& e) {
    result.Error = std::make_unique<Exception>(e.what());
    result.Thrown = std::current_exception();
  } catch (...) {
    TUnknown replacement(unknownText);
    result.Error = std::make_unique<TUnknown>(replacement);
    result.Thrown = std::make_exception_ptr(replacement);
  }
  std::feclearexcept(FE_ALL_EXCEPT);
  return result;
}

/// Makes an error record of e with the given context text, gives it to the process-wide error hook
/// when one is set, and writes it to the log when there is one.
void ReportThreadError(const Exception& e, const std::string& context);

/// Reports a math error of a thread: logText goes to the log (when there is one), and the error is
/// shown to the user through the thread-safe window with the given context text.
void ReportThreadMathError(const Exception& e, const std::string& logText, const std::string& context);

/// Writes one line to the process's log file, when there is one.
void LogThreadMessage(const std::string& text);

/// Sets the process-wide flag that a floating-point exception happened.
void SetFPUExceptionOccurred();

} // namespace oxthreads
