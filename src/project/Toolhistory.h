// The history entry of a tool run: readable, and exact enough to run again. Its text is the dialog
// name, then the `orvex run` command line of the run with every parameter as a shell-quoted --set, then
// which of the run's results the object is:
//   Graph Calculator: orvex run GraphCalculator --input 3 --set 'Formula=2*x1+3' (result 1 of 1)
#pragma once

#include "common/Tagcontrol.h"

#include <string>
#include <vector>

struct TToolRunStep {
  std::string DialogName;
  std::string Key;
  TIntList Inputs;
  std::string Command = "Extract";
  bool All = false;
  std::vector<std::string> Assignments; ///< "name=value", every parameter of the tool
  int ResultIndex = 1;                  ///< 1-based
  int ResultCount = 1;
};

/// The text as written into the history.
std::string FormatToolRunStep(const TToolRunStep& step);
/// Reads such a text back; false with a problem when it is no tool run entry.
bool ParseToolRunStep(const std::string& text, TToolRunStep& step, std::string& problem);

/// The word as a POSIX shell reads it back: unchanged when it holds only safe characters, else in single
/// quotes (a quote inside as '\'').
std::string ShellQuote(const std::string& word);
/// Splits a command line as a POSIX shell would (quotes and backslashes, no expansion); false with a
/// problem for an unclosed quote.
bool SplitShellWords(const std::string& line, std::vector<std::string>& words, std::string& problem);
