#include "project/Toolhistory.h"

#include <cctype>
#include <charconv>

namespace {

const std::string kRunMarker = ": orvex run ";

bool IsSafeShellCharacter(unsigned char c) {
  return std::isalnum(c) || c == '_' || c == '-' || c == '.' || c == ',' || c == '/' || c == ':' ||
         c == '+' || c == '@' || c == '%';
}

bool ParseInt(const std::string& text, int& value) {
  const char* end = text.data() + text.size();
  auto [pointer, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && pointer == end;
}

bool ParseIDList(const std::string& text, TIntList& ids) {
  ids.clear();
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const std::string item =
        text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    int id = 0;
    if (!ParseInt(item, id) || id <= 0) return false;
    ids.push_back(id);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return !ids.empty();
}

} // namespace

std::string ShellQuote(const std::string& word) {
  bool safe = !word.empty();
  for (unsigned char c : word) safe = safe && IsSafeShellCharacter(c);
  if (safe) return word;
  std::string quoted = "'";
  for (char c : word) {
    if (c == '\'')
      quoted += "'\\''";
    else
      quoted += c;
  }
  return quoted + "'";
}

bool SplitShellWords(const std::string& line, std::vector<std::string>& words, std::string& problem) {
  words.clear();
  std::string word;
  bool inWord = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == ' ' || c == '\t' || c == '\n') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
    } else if (c == '\'') {
      const size_t close = line.find('\'', i + 1);
      if (close == std::string::npos) {
        problem = "unclosed single quote";
        return false;
      }
      word += line.substr(i + 1, close - i - 1);
      i = close;
      inWord = true;
    } else if (c == '"') {
      size_t j = i + 1;
      for (; j < line.size() && line[j] != '"'; ++j) {
        if (line[j] == '\\' && j + 1 < line.size() &&
            (line[j + 1] == '"' || line[j + 1] == '\\' || line[j + 1] == '$' || line[j + 1] == '`'))
          ++j;
        word += line[j];
      }
      if (j >= line.size()) {
        problem = "unclosed double quote";
        return false;
      }
      i = j;
      inWord = true;
    } else if (c == '\\' && i + 1 < line.size()) {
      word += line[++i];
      inWord = true;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) words.push_back(word);
  return true;
}

std::string FormatToolRunStep(const TToolRunStep& step) {
  std::string text = step.DialogName + kRunMarker + ShellQuote(step.Key) + " --input ";
  for (size_t i = 0; i < step.Inputs.size(); ++i) text += (i ? "," : "") + std::to_string(step.Inputs[i]);
  if (step.Command != "Extract") text += " --command " + ShellQuote(step.Command);
  if (step.All) text += " --all";
  // --set values are always quoted, so that the entry reads the same whatever the value holds.
  for (const std::string& assignment : step.Assignments) {
    std::string quoted = "'";
    for (char c : assignment) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    text += " --set " + quoted + "'";
  }
  text += " (result " + std::to_string(step.ResultIndex) + " of " + std::to_string(step.ResultCount) + ")";
  return text;
}

bool ParseToolRunStep(const std::string& text, TToolRunStep& step, std::string& problem) {
  step = TToolRunStep();
  const size_t marker = text.find(kRunMarker);
  if (marker == std::string::npos) {
    problem = "not a tool run";
    return false;
  }
  step.DialogName = text.substr(0, marker);
  std::string rest = text.substr(marker + kRunMarker.size());
  // The closing "(result k of n)".
  const size_t open = rest.rfind(" (result ");
  if (open == std::string::npos || rest.empty() || rest.back() != ')') {
    problem = "the entry doesn't say which result it is";
    return false;
  }
  const std::string counts = rest.substr(open + 9, rest.size() - open - 10);
  const size_t of = counts.find(" of ");
  if (of == std::string::npos || !ParseInt(counts.substr(0, of), step.ResultIndex) ||
      !ParseInt(counts.substr(of + 4), step.ResultCount) || step.ResultIndex < 1 ||
      step.ResultIndex > step.ResultCount) {
    problem = "the result count is unreadable";
    return false;
  }
  rest.resize(open);
  std::vector<std::string> words;
  if (!SplitShellWords(rest, words, problem)) return false;
  if (words.empty()) {
    problem = "no tool is named";
    return false;
  }
  step.Key = words[0];
  for (size_t i = 1; i < words.size(); ++i) {
    const std::string& option = words[i];
    const bool hasValue = i + 1 < words.size();
    if (option == "--all") {
      step.All = true;
    } else if (option == "--input" && hasValue) {
      if (!ParseIDList(words[++i], step.Inputs)) {
        problem = "the input list \"" + words[i] + "\" is unreadable";
        return false;
      }
    } else if (option == "--command" && hasValue) {
      step.Command = words[++i];
    } else if (option == "--set" && hasValue) {
      step.Assignments.push_back(words[++i]);
    } else {
      problem = "unexpected \"" + option + "\"";
      return false;
    }
  }
  if (step.Inputs.empty()) {
    problem = "no input is named";
    return false;
  }
  return true;
}
