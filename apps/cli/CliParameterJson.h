// The JSON form of declared parameters that the command line prints for tools and export filters.
#pragma once

#include "common/parameters/Parametertable.h"

#include <nlohmann/json.hpp>

namespace orvexcli {

/// One object per declared parameter that takes a value, in declaration order, as ParametersToJson lists it:
/// {"name","caption","kind","default","min","max","unit","choices","value"}, kind one of "int", "float",
/// "bool", "string", "list". Limits, unit and choices are null where the declaration has none (a list has
/// its choices' texts and no limits). "default" and "value" are of the kind's JSON type, a list's as the
/// text of its choice. "value" is the parameter of the same name in values (the stored settings), null
/// when values is null or holds no such parameter. Triggers are left out: they hold no value.
nlohmann::ordered_json ParameterDeclarationsToJson(const TParameterTable& table,
                                                   const TUserParameterAdministrator* values);

} // namespace orvexcli
