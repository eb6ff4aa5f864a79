// The exception family of the system: every programming error and failed large allocation
// travels as one of these, with a text that names the class and operation that failed.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <vector>

/// Base of all exceptions that the system raises itself; stands for the platform's Exception.
class Exception : public std::exception {
public:
  explicit Exception(std::string message) : FMessage(std::move(message)) {}
  ~Exception() override = default;

  const char* what() const noexcept override { return FMessage.c_str(); }
  const std::string& Message() const { return FMessage; }
  void SetMessage(std::string message) { FMessage = std::move(message); }
  /// The class name that error records show.
  virtual std::string ClassName() const { return "Exception"; }
  /// A heap copy of the object with its dynamic type (error records keep exceptions alive).
  virtual Exception* Clone() const { return new Exception(*this); }

private:
  std::string FMessage;
};

/// Severity of an OrvexException; 1 is what the constructors without a severity take.
enum class OrvexExceptionSeverity : int { Low = 0, Normal = 1, High = 2, Fatal = 3 };

/// Base of the family. Keeps the history of the exceptions it was built from, newest first.
class OrvexException : public Exception {
public:
  explicit OrvexException(const std::string& message);
  OrvexException(const std::string& message, const Exception& inner);
  explicit OrvexException(const Exception& inner);
  OrvexException(OrvexExceptionSeverity severity, const std::string& message);
  OrvexException(OrvexExceptionSeverity severity, const std::string& message, const Exception& inner);
  OrvexException(OrvexExceptionSeverity severity, const Exception& inner);

  OrvexException(const OrvexException& other);
  OrvexException& operator=(const OrvexException& other);
  ~OrvexException() override = default;

  std::string ClassName() const override { return "Orvex Exception"; }
  Exception* Clone() const override { return new OrvexException(*this); }

  OrvexExceptionSeverity Severity() const { return FSeverity; }
  /// Null until an inner exception was given; entry 0 is the inner exception, the oldest is last.
  const std::vector<std::string>* ExceptionHistory() const { return FExceptionHistory.get(); }
  /// Clears the history and fills it from inner: its class and message, then its own history.
  void InitExceptionHistory(const Exception& inner);

private:
  OrvexExceptionSeverity FSeverity = OrvexExceptionSeverity::Normal;
  std::unique_ptr<std::vector<std::string>> FExceptionHistory;
};

/// "Class: message" of any exception of the family (or of the platform's base).
std::string GetExceptionClassNameAndMessage(const Exception& e);
/// True when text is part of any entry of e's history.
bool ExceptionHistoryContainsString(const OrvexException& e, const std::string& text);

#define ORVEX_DECLARE_EXCEPTION(Name, RecordName)                                                            \
  class Name : public OrvexException {                                                                       \
  public:                                                                                                    \
    using OrvexException::OrvexException;                                                                    \
    std::string ClassName() const override { return RecordName; }                                            \
    Exception* Clone() const override { return new Name(*this); }                                            \
  };

/// A large allocation failed (paged arrays, data fields).
ORVEX_DECLARE_EXCEPTION(OrvexExceptionMemoryAllocation, "OrvexExceptionMemoryAllocation")
/// A mathematical failure.
ORVEX_DECLARE_EXCEPTION(OrvexExceptionMathError, "Math Exception")
/// Stands for a platform fault (signal) turned into an exception.
ORVEX_DECLARE_EXCEPTION(OrvexExceptionSEHSource, "Orvex Structured Exception")
/// An error from a calculation thread.
ORVEX_DECLARE_EXCEPTION(OrvexExceptionMCC, "MCC Exception")
/// A calculation thread stopped because a sibling failed.
ORVEX_DECLARE_EXCEPTION(OrvexExceptionMCCSiblingTriggered, "MCC Exception Sibling Triggered")

#undef ORVEX_DECLARE_EXCEPTION
