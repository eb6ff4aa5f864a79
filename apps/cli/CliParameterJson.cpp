// The JSON form of declared parameters: the listing every parameter set has, and the stored value.
#include "CliParameterJson.h"

#include "common/parameters/Parametertext.h"

#include <charconv>
#include <cmath>

namespace orvexcli {

namespace {

using json = nlohmann::ordered_json;

// The stored value from its text form, which every parameter kind gives back exactly: integers and the
// shortest round-trip text of floats parse to the same number, bools are "true"/"false", a list's text is
// its choice.
json StoredValue(const std::string& name, const std::string& kind,
                 const TUserParameterAdministrator* values) {
  if (!values) return nullptr;
  const TUserParameter* parameter = values->GetUserParameterByName(name);
  if (!parameter) return nullptr;
  const std::string text = parameter->GetValueText();
  if (kind == "int") {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? json(value) : json(nullptr);
  }
  if (kind == "float") {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && std::isfinite(value) ? json(value)
                                                                                            : json(nullptr);
  }
  if (kind == "bool") return text == "true";
  return text;
}

} // namespace

nlohmann::ordered_json ParameterDeclarationsToJson(const TParameterTable& table,
                                                   const TUserParameterAdministrator* values) {
  // The declared parameters as a set of their own, listed as every parameter set is listed.
  TUserParameterAdministrator declared;
  const_cast<TParameterTable&>(table).CreateParameters(declared); // reads the table only
  declared.AllParameterListChanged();
  json list = json::parse(ParametersToJson(declared));
  for (auto& item : list)
    item["value"] = StoredValue(item["name"].get<std::string>(), item["kind"].get<std::string>(), values);
  return list;
}

} // namespace orvexcli
