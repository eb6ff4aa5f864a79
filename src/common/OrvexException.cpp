// The exception family and its history chain.
#include "common/OrvexException.h"

#include <utility>

OrvexException::OrvexException(const std::string& message) : Exception(message) {}

OrvexException::OrvexException(const std::string& message, const Exception& inner) : Exception(message) {
  InitExceptionHistory(inner);
}

OrvexException::OrvexException(const Exception& inner) : Exception(inner.Message()) {
  InitExceptionHistory(inner);
}

OrvexException::OrvexException(OrvexExceptionSeverity severity, const std::string& message)
    : Exception(message), FSeverity(severity) {}

OrvexException::OrvexException(OrvexExceptionSeverity severity, const std::string& message,
                               const Exception& inner)
    : Exception(message), FSeverity(severity) {
  InitExceptionHistory(inner);
}

OrvexException::OrvexException(OrvexExceptionSeverity severity, const Exception& inner)
    : Exception(inner.Message()), FSeverity(severity) {
  InitExceptionHistory(inner);
}

OrvexException::OrvexException(const OrvexException& other) : Exception(other), FSeverity(other.FSeverity) {
  if (other.FExceptionHistory)
    FExceptionHistory = std::make_unique<std::vector<std::string>>(*other.FExceptionHistory);
}

OrvexException& OrvexException::operator=(const OrvexException& other) {
  if (this != &other) {
    Exception::operator=(other);
    FSeverity = other.FSeverity;
    FExceptionHistory = other.FExceptionHistory
                            ? std::make_unique<std::vector<std::string>>(*other.FExceptionHistory)
                            : nullptr;
  }
  return *this;
}

void OrvexException::InitExceptionHistory(const Exception& inner) {
  // Copy the inner history first: inner may be this object's own history owner in odd call chains.
  std::vector<std::string> entries;
  entries.push_back(GetExceptionClassNameAndMessage(inner));
  if (const auto* orvexInner = dynamic_cast<const OrvexException*>(&inner)) {
    if (const auto* history = orvexInner->ExceptionHistory())
      entries.insert(entries.end(), history->begin(), history->end());
  }
  if (!FExceptionHistory) FExceptionHistory = std::make_unique<std::vector<std::string>>();
  *FExceptionHistory = std::move(entries);
}

std::string GetExceptionClassNameAndMessage(const Exception& e) {
  return e.ClassName() + ": " + e.Message();
}

bool ExceptionHistoryContainsString(const OrvexException& e, const std::string& text) {
  if (const auto* history = e.ExceptionHistory()) {
    for (const auto& entry : *history)
      if (entry.find(text) != std::string::npos) return true;
  }
  return false;
}
