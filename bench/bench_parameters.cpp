// Cost of the parameter table: parsing and applying a set of 50 "name=value" assignments (all kinds),
// the same from one line, through a binding (which builds its parameters per call), and the tag round
// trip and JSON listing of the 50. Prints microseconds per set.
#include "common/parameters/Parametertable.h"
#include "common/parameters/Parametertext.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using TClock = std::chrono::steady_clock;
constexpr int kParameters = 50;

/// Ten of each kind: int, float, bool, string, list.
struct TFiftySettings {
  int32_t Ints[10] = {};
  double Floats[10] = {};
  bool Bools[10] = {};
  std::string Strings[10];
  int32_t Lists[10] = {};
};

const TParameterTable& FiftyTable() {
  static const TParameterTable table = [] {
    TParameterTable t;
    for (int i = 0; i < 10; ++i) {
      const std::string n = std::to_string(i);
      t.AddInt("Int" + n, "Int " + n, 0).SetLimits(-1000, 1000);
      t.AddFloat("Float" + n, "Float " + n, 0.0).SetLimits(-1e6, 1e6).SetUnit("cm-1");
      t.AddBool("Bool" + n, "Bool " + n, false);
      t.AddString("String" + n, "String " + n, "");
      t.AddList("List" + n, "List " + n, 0, {{"Zero", 0}, {"One", 1}, {"Two", 2}, {"Three", 3}});
    }
    return t;
  }();
  return table;
}

std::vector<std::string> FiftyAssignments(int round) {
  std::vector<std::string> a;
  static const char* const kChoices[] = {"Zero", "One", "Two", "Three"};
  for (int i = 0; i < 10; ++i) {
    const std::string n = std::to_string(i);
    a.push_back("Int" + n + "=" + std::to_string((round + i) % 1000));
    a.push_back("Float" + n + "=" + std::to_string(0.1 * (round + i)));
    a.push_back("Bool" + n + "=" + ((round + i) % 2 ? "true" : "false"));
    a.push_back("String" + n + "=text; " + std::to_string(round));
    a.push_back("List" + n + "=" + kChoices[(round + i) % 4]);
  }
  return a;
}

template <class F>
void Measure(const char* what, int rounds, F&& body) {
  const auto start = TClock::now();
  for (int r = 0; r < rounds; ++r) body(r);
  const double seconds = std::chrono::duration<double>(TClock::now() - start).count();
  std::printf("%-58s %8.2f us per set of %d (%d sets)\n", what, seconds * 1e6 / rounds, kParameters, rounds);
}

} // namespace

int main() {
  constexpr int kRounds = 2000;
  TUserParameterAdministrator administrator;
  administrator.CreateParameters(const_cast<TParameterTable*>(&FiftyTable()));
  std::vector<std::vector<std::string>> sets;
  std::vector<std::string> lines;
  for (int r = 0; r < kRounds; ++r) {
    sets.push_back(FiftyAssignments(r));
    lines.push_back(FormatParameterLine(sets.back()));
  }
  int failures = 0;

  Measure("parse and apply 50 name=value (administrator)", kRounds,
          [&](int r) { failures += !administrator.SetParameterValuesFromText(sets[r]).empty(); });
  Measure("split one line and apply 50 (administrator)", kRounds,
          [&](int r) { failures += !SetParameterValuesFromLine(administrator, lines[r]).empty(); });
  Measure("make 50 parameters from the table", kRounds, [&](int) {
    TUserParameterAdministrator fresh;
    fresh.CreateParameters(const_cast<TParameterTable*>(&FiftyTable()));
    failures += fresh.GetParameters().size() != kParameters;
  });
  Measure("check 50 with one wrong value (nothing applied)", kRounds, [&](int r) {
    std::vector<std::string> wrong = sets[r];
    wrong[6] = "Float1=abc";
    failures += administrator.SetParameterValuesFromText(wrong).size() != 1;
  });
  Measure("save 50 value tags to a tree and load them back", kRounds, [&](int) {
    TTagControl tag("DialogParameters", TTagKind::TagList);
    administrator.SaveParameterValueTagsToTagControl(tag);
    failures += administrator.LoadParameterValueTagsFromTagControl(tag) < 1;
  });
  Measure("JSON listing of 50", kRounds,
          [&](int) { failures += ParametersToJson(administrator).size() < 100; });

  // Through a binding to plain fields: the binding builds its administrator on every call.
  static TFiftySettings settings;
  TParameterBinding binding(
      FiftyTable(),
      [](TUserParameterAdministrator& a) {
        const auto& p = a.GetParameters();
        for (int i = 0; i < 10; ++i) {
          static_cast<TUserIntParameter&>(*p[5 * i]).SetParameterSilent(settings.Ints[i]);
          static_cast<TUserDoubleParameter&>(*p[5 * i + 1]).SetParameterSilent(settings.Floats[i]);
          static_cast<TUserBoolParameter&>(*p[5 * i + 2]).SetParameterSilent(settings.Bools[i]);
          static_cast<TUserStringParameter&>(*p[5 * i + 3]).SetParameterSilent(settings.Strings[i]);
          static_cast<TUserIntParameter&>(*p[5 * i + 4]).SetParameterSilent(settings.Lists[i]);
        }
      },
      [](const TUserParameterAdministrator& a) {
        const auto& p = a.GetParameters();
        for (int i = 0; i < 10; ++i) {
          settings.Ints[i] = static_cast<const TUserIntParameter&>(*p[5 * i]).GetCurrentValue();
          settings.Floats[i] = static_cast<const TUserDoubleParameter&>(*p[5 * i + 1]).GetCurrentValue();
          settings.Bools[i] = static_cast<const TUserBoolParameter&>(*p[5 * i + 2]).GetCurrentValue();
          settings.Strings[i] = static_cast<const TUserStringParameter&>(*p[5 * i + 3]).GetCurrentValue();
          settings.Lists[i] = static_cast<const TUserIntParameter&>(*p[5 * i + 4]).GetCurrentValue();
        }
      });
  Measure("parse and apply 50 through a binding to fields", kRounds,
          [&](int r) { failures += !binding.SetFromText(sets[r]).empty(); });

  std::printf("failed sets: %d (expected 0)\n", failures);
  return failures == 0 ? 0 : 1;
}
