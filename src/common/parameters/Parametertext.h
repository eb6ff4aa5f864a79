// Text forms of a parameter set: the one-line message of its problems, the "name=value; ..." line that
// stores a whole set, the settings tree as the "Configure Default Settings" text, and the JSON listing
// of the parameters that the command line prints.
#pragma once

#include "common/Tagcontrol.h"
#include "common/parameters/Userparameteradministrator.h"

#include <string>
#include <vector>

/// One line naming every problem, "Order: 13 is outside the limits 0 to 12; Mode: ...", closed by
/// " - nothing was changed"; empty when there is none.
std::string ParameterProblemsMessage(const TUserParameterProblems& problems);

/// @{ A whole set on one line: "name=value" entries joined by "; ". A value that the plain form would
/// not keep (blanks at its ends, ";", a line break, or a leading quote) is written in double quotes,
/// with "\"" and "\\" inside; every other value stands as it is ("=" and "|" included).
std::string FormatParameterLine(const std::vector<std::string>& assignments);
/// Splits such a line back into "name=value" entries with the values as they were. Blanks around
/// names and plain values are dropped, empty entries skipped. False with a problem for an unclosed
/// quote or text after a closing quote.
bool SplitParameterLine(const std::string& line, std::vector<std::string>& assignments, std::string& problem);
/// @}

/// @{ The values of an administrator as one line, and a line applied to it: every problem at once,
/// nothing changed unless the whole line is right (see SetParameterValuesFromText).
std::string ParameterValuesToLine(const TUserParameterAdministrator& administrator);
TUserParameterProblems SetParameterValuesFromLine(TUserParameterAdministrator& administrator,
                                                  const std::string& line);
/// @}

/// A tag tree as text: one line per tag, two blanks of indent per level, value tags as name " = " value,
/// arrays of strings, ints, floats, doubles and bools as their values separated by ", ".
std::string TagTreeText(const TTagControl& tag);

/// The text of "Configure Default Settings": the value tags of the parameters under a tag named
/// "DefaultParameters", as TagTreeText shows it.
std::string DefaultSettingsText(TUserParameterAdministrator& administrator);

/// JSON array with one object per parameter that takes a value, in walk order (collections by their
/// members' paths): {"name","caption","kind","default","min","max","unit","choices"} with kind one of
/// "int", "float", "bool", "string", "list"; null where a parameter has no limit, unit or choices.
/// Numbers are the shortest texts that read back to the same value.
std::string ParametersToJson(const TUserParameterAdministrator& administrator);

/// The text in JSON string quotes, with quote, backslash and control characters escaped.
std::string JsonString(const std::string& text);
