// Text forms of a parameter set: problem message, one-line set, settings tree text, JSON listing.
#include "common/parameters/Parametertext.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

std::string TrimBlanks(const std::string& text) {
  size_t first = 0, last = text.size();
  while (first < last && IsBlank(text[first])) ++first;
  while (last > first && IsBlank(text[last - 1])) --last;
  return text.substr(first, last - first);
}

bool NeedsQuotes(const std::string& value) {
  if (value.empty()) return false;
  if (IsBlank(value.front()) || IsBlank(value.back()) || value.front() == '"') return true;
  for (char c : value)
    if (c == ';' || c == '\n' || c == '\r') return true;
  return false;
}

std::string Quoted(const std::string& value) {
  std::string result = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + "\"";
}

template <typename T>
std::string NumberText(T value) {
  if constexpr (std::is_floating_point_v<T>)
    if (!std::isfinite(value)) return "null";
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return std::string(buffer, result.ptr);
}

/// The values of one value tag of a tree as text; kinds without a text form as "<Kind, n bytes>".
std::string TagValuesText(const TTagControl& tag) {
  const auto& data = tag.Data();
  std::string text;
  auto join = [&text](const std::string& item) { text += (text.empty() ? "" : ", ") + item; };
  auto each = [&data, &join](auto sample, auto format) {
    using T = decltype(sample);
    for (size_t pos = 0; pos + sizeof(T) <= data.size(); pos += sizeof(T)) {
      T value;
      std::memcpy(&value, data.data() + pos, sizeof(T));
      join(format(value));
    }
  };
  switch (tag.Kind()) {
  case TTagKind::AnsiString: {
    std::vector<std::string> strings;
    if (tag.GetAnsiStringsTag(strings) >= 1)
      for (const auto& s : strings) join(s);
    break;
  }
  case TTagKind::Int:
    each(int32_t{}, [](int32_t v) { return NumberText(v); });
    break;
  case TTagKind::Int64:
    each(int64_t{}, [](int64_t v) { return NumberText(v); });
    break;
  case TTagKind::Float:
    each(float{}, [](float v) { return NumberText(v); });
    break;
  case TTagKind::Double:
    each(double{}, [](double v) { return NumberText(v); });
    break;
  case TTagKind::Bool:
    each(uint8_t{}, [](uint8_t v) { return std::string(v ? "true" : "false"); });
    break;
  default:
    text = "<" + TagKindName(tag.Kind()) + ", " + std::to_string(data.size()) + " bytes>";
    break;
  }
  return text;
}

void AppendTree(const TTagControl& tag, int depth, std::string& out) {
  const std::string indent(static_cast<size_t>(2 * depth), ' ');
  if (tag.Kind() == TTagKind::TagList) {
    out += indent + tag.Name() + "\n";
    if (tag.Children())
      for (const auto& child : *tag.Children()) AppendTree(*child, depth + 1, out);
    return;
  }
  out += indent + tag.Name() + " = " + TagValuesText(tag) + "\n";
}

const char* JsonKind(TUserParameterKind kind) {
  switch (kind) {
  case TUserParameterKind::Int:
    return "int";
  case TUserParameterKind::Float:
    return "float";
  case TUserParameterKind::Bool:
    return "bool";
  case TUserParameterKind::String:
    return "string";
  case TUserParameterKind::List:
    return "list";
  default:
    return nullptr;
  }
}

/// A limit of a parameter as a JSON number in the parameter's own precision.
std::string LimitJson(const TUserParameter& parameter, bool has, double value) {
  if (!has) return "null";
  if (dynamic_cast<const TUserFloatParameter*>(&parameter)) return NumberText(static_cast<float>(value));
  if (parameter.GetKind() == TUserParameterKind::Int) return NumberText(static_cast<int32_t>(value));
  return NumberText(value);
}

/// The declared default as a JSON value of the parameter's kind.
std::string DefaultJson(const TUserParameterInfo& info) {
  switch (info.Kind) {
  case TUserParameterKind::Int:
  case TUserParameterKind::Float:
    // The text form of a number is the shortest round-trip text: a JSON number as it stands.
    return info.DefaultValue == "inf" || info.DefaultValue == "-inf" || info.DefaultValue == "nan"
               ? "null"
               : info.DefaultValue;
  case TUserParameterKind::Bool:
    return info.DefaultValue;
  default:
    return JsonString(info.DefaultValue);
  }
}

} // namespace

std::string ParameterProblemsMessage(const TUserParameterProblems& problems) {
  if (problems.empty()) return std::string();
  std::string message;
  for (const auto& problem : problems)
    message += (message.empty() ? "" : "; ") + problem.Parameter + ": " + problem.Message;
  return message + " - nothing was changed";
}

std::string FormatParameterLine(const std::vector<std::string>& assignments) {
  std::string line;
  for (const std::string& assignment : assignments) {
    const size_t equals = assignment.find('=');
    std::string entry = assignment;
    if (equals != std::string::npos) {
      const std::string value = assignment.substr(equals + 1);
      entry = assignment.substr(0, equals + 1) + (NeedsQuotes(value) ? Quoted(value) : value);
    }
    line += (line.empty() ? "" : "; ") + entry;
  }
  return line;
}

bool SplitParameterLine(const std::string& line, std::vector<std::string>& assignments,
                        std::string& problem) {
  assignments.clear();
  size_t pos = 0;
  const size_t n = line.size();
  while (pos <= n) {
    // The name part runs to "=" or to the end of the entry.
    size_t end = pos;
    while (end < n && line[end] != '=' && line[end] != ';') ++end;
    const std::string name = TrimBlanks(line.substr(pos, end - pos));
    if (end >= n || line[end] == ';') {
      if (!name.empty()) assignments.push_back(name); // reported as "expected name=value" when applied
      pos = end + 1;
      continue;
    }
    pos = end + 1; // behind "="
    while (pos < n && IsBlank(line[pos])) ++pos;
    std::string value;
    if (pos < n && line[pos] == '"') {
      ++pos;
      bool closed = false;
      while (pos < n) {
        const char c = line[pos++];
        if (c == '\\' && pos < n) {
          value += line[pos++];
        } else if (c == '"') {
          closed = true;
          break;
        } else {
          value += c;
        }
      }
      if (!closed) {
        problem = "the value of " + name + " has no closing quote";
        return false;
      }
      while (pos < n && IsBlank(line[pos])) ++pos;
      if (pos < n && line[pos] != ';') {
        problem = "text after the quoted value of " + name;
        return false;
      }
    } else {
      const size_t start = pos;
      while (pos < n && line[pos] != ';') ++pos;
      value = TrimBlanks(line.substr(start, pos - start));
    }
    assignments.push_back(name + "=" + value);
    ++pos; // behind ";"
  }
  return true;
}

std::string ParameterValuesToLine(const TUserParameterAdministrator& administrator) {
  return FormatParameterLine(administrator.GetParameterValuesAsText());
}

TUserParameterProblems SetParameterValuesFromLine(TUserParameterAdministrator& administrator,
                                                  const std::string& line) {
  std::vector<std::string> assignments;
  std::string problem;
  if (!SplitParameterLine(line, assignments, problem)) return {{line, problem}};
  return administrator.SetParameterValuesFromText(assignments);
}

std::string TagTreeText(const TTagControl& tag) {
  std::string out;
  AppendTree(tag, 0, out);
  return out;
}

std::string DefaultSettingsText(TUserParameterAdministrator& administrator) {
  TTagControl root("DefaultParameters", TTagKind::TagList);
  administrator.SaveParameterValueTagsToTagControl(root);
  return TagTreeText(root);
}

std::string JsonString(const std::string& text) {
  std::string result = "\"";
  for (char c : text) {
    switch (c) {
    case '"':
      result += "\\\"";
      break;
    case '\\':
      result += "\\\\";
      break;
    case '\n':
      result += "\\n";
      break;
    case '\r':
      result += "\\r";
      break;
    case '\t':
      result += "\\t";
      break;
    default:
      if (static_cast<unsigned char>(c) < 0x20) {
        char buffer[8];
        std::snprintf(buffer, sizeof(buffer), "\\u%04x",
                      static_cast<unsigned>(static_cast<unsigned char>(c)));
        result += buffer;
      } else {
        result += c; // UTF-8 passes as it is
      }
    }
  }
  return result + "\"";
}

std::string ParametersToJson(const TUserParameterAdministrator& administrator) {
  std::string json = "[";
  bool first = true;
  administrator.ForEachParameter([&](TUserParameter& parameter, int) {
    const char* kind = JsonKind(parameter.GetKind());
    if (!kind) return;
    TUserParameterInfo info;
    parameter.Describe(info);
    const bool isList = parameter.GetKind() == TUserParameterKind::List;
    std::string choices = "null";
    if (isList) {
      choices = "[";
      for (size_t i = 0; i < info.EntryNames.size(); ++i)
        choices += (i ? "," : "") + JsonString(info.EntryNames[i]);
      choices += "]";
    }
    json += first ? "" : ",";
    first = false;
    json +=
        "{\"name\":" + JsonString(parameter.GetAbsoluteName()) + ",\"caption\":" + JsonString(info.Caption) +
        ",\"kind\":\"" + kind + "\",\"default\":" + DefaultJson(info) +
        ",\"min\":" + (isList ? "null" : LimitJson(parameter, info.HasLowerLimit, info.LowerLimit)) +
        ",\"max\":" + (isList ? "null" : LimitJson(parameter, info.HasUpperLimit, info.UpperLimit)) +
        ",\"unit\":" + (info.Unit.empty() ? "null" : JsonString(info.Unit)) + ",\"choices\":" + choices + "}";
  });
  return json + "]";
}
