// The JSON form of declared parameters: the declaration's fields and the stored value.
#include "CliParameterJson.h"

#include <charconv>
#include <cmath>

namespace orvexcli {

namespace {

using json = nlohmann::json;

const char* KindName(TParameterKind kind) {
  switch (kind) {
  case TParameterKind::Int:
    return "int";
  case TParameterKind::Float:
    return "float";
  case TParameterKind::Bool:
    return "bool";
  case TParameterKind::String:
    return "string";
  case TParameterKind::List:
    return "list";
  case TParameterKind::Trigger:
    break;
  }
  return nullptr;
}

json Number(double value) {
  return std::isfinite(value) ? json(value) : json(nullptr);
}

json Limit(const TParameterDeclaration& declaration, bool has, double value) {
  if (!has || declaration.Kind == TParameterKind::List) return nullptr;
  if (declaration.Kind == TParameterKind::Int) return static_cast<int64_t>(value);
  return Number(value);
}

std::string ChoiceText(const TParameterDeclaration& declaration, int32_t number) {
  for (const TParameterChoice& choice : declaration.Choices)
    if (choice.Number == number) return choice.Text;
  return std::to_string(number);
}

json DefaultValue(const TParameterDeclaration& declaration) {
  switch (declaration.Kind) {
  case TParameterKind::Int:
    return static_cast<int64_t>(declaration.DefaultNumber);
  case TParameterKind::Float:
    return Number(declaration.DefaultNumber);
  case TParameterKind::Bool:
    return declaration.DefaultNumber != 0;
  case TParameterKind::String:
    return declaration.DefaultText;
  case TParameterKind::List:
    return ChoiceText(declaration, static_cast<int32_t>(declaration.DefaultNumber));
  case TParameterKind::Trigger:
    break;
  }
  return nullptr;
}

// The stored value from its text form, which every parameter kind gives back exactly: integers and the
// shortest round-trip text of floats parse to the same number, bools are "true"/"false", a list's text is
// its choice.
json StoredValue(const TParameterDeclaration& declaration, const TUserParameterAdministrator* values) {
  if (!values) return nullptr;
  const TUserParameter* parameter = values->GetUserParameterByName(declaration.Name);
  if (!parameter) return nullptr;
  const std::string text = parameter->GetValueText();
  switch (declaration.Kind) {
  case TParameterKind::Int: {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? json(value) : json(nullptr);
  }
  case TParameterKind::Float: {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? Number(value) : json(nullptr);
  }
  case TParameterKind::Bool:
    return text == "true";
  case TParameterKind::String:
  case TParameterKind::List:
    return text;
  case TParameterKind::Trigger:
    break;
  }
  return nullptr;
}

} // namespace

nlohmann::json ParameterDeclarationsToJson(const TParameterTable& table,
                                           const TUserParameterAdministrator* values) {
  json list = json::array();
  for (const TParameterDeclaration& declaration : table.GetDeclarations()) {
    const char* kind = KindName(declaration.Kind);
    if (!kind) continue;
    json choices = nullptr;
    if (declaration.Kind == TParameterKind::List) {
      choices = json::array();
      for (const TParameterChoice& choice : declaration.Choices) choices.push_back(choice.Text);
    }
    list.push_back(json{{"name", declaration.Name},
                        {"caption", declaration.Caption},
                        {"kind", kind},
                        {"default", DefaultValue(declaration)},
                        {"min", Limit(declaration, declaration.HasLowerLimit, declaration.LowerLimit)},
                        {"max", Limit(declaration, declaration.HasUpperLimit, declaration.UpperLimit)},
                        {"unit", declaration.Unit.empty() ? json(nullptr) : json(declaration.Unit)},
                        {"choices", choices},
                        {"value", StoredValue(declaration, values)}});
  }
  return list;
}

} // namespace orvexcli
