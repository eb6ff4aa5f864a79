// The "fit" command: fits one curve from a text file with a standard fit function or a formula.
#include "CliCommon.h"
#include "common/Saveandload.h"
#include "common/numerics/Chisqrminimizer.h"
#include "common/numerics/Fitfunctions.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvexcli {

namespace {

struct TFitOptions {
  std::string Formula;
  std::string Function;
  std::string DataFile;
  std::vector<double> Start;
  bool Json = false;
  double Tolerance = 0;  ///< 0: the minimizer's default
  int MaxIterations = 0; ///< 0: the minimizer's default
};

struct TCurve {
  std::vector<double> X, Y, Sigma;
  bool HasSigma = false;
};

// Columns x y [sigma], whitespace-separated; '#' starts a comment line.
TCurve ReadCurve(const std::string& fileName) {
  std::ifstream in(fileName);
  if (!in) {
    const int error = errno;
    throw CliError(kExitUsage, "cannot open '" + fileName + "': " + FileErrorReason(error));
  }
  TCurve c;
  std::string line;
  int lineNumber = 0, sigmaLines = 0;
  while (std::getline(in, line)) {
    ++lineNumber;
    size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    std::istringstream s(line);
    std::vector<double> values;
    std::string word;
    while (s >> word) {
      char* end = nullptr;
      const double v = std::strtod(word.c_str(), &end);
      if (end == word.c_str() || *end != '\0' || !std::isfinite(v))
        throw CliError(kExitFailure, "Bad number '" + word + "' in line " + std::to_string(lineNumber));
      values.push_back(v);
    }
    if (values.size() < 2 || values.size() > 3)
      throw CliError(kExitFailure, "Line " + std::to_string(lineNumber) + " needs the columns x y [sigma]");
    if (values.size() == 3) {
      if (values[2] <= 0.0)
        throw CliError(kExitFailure, "Sigma must be positive in line " + std::to_string(lineNumber));
      ++sigmaLines;
    }
    c.X.push_back(values[0]);
    c.Y.push_back(values[1]);
    c.Sigma.push_back(values.size() == 3 ? values[2] : 1.0);
  }
  if (sigmaLines != 0 && sigmaLines != static_cast<int>(c.X.size()))
    throw CliError(kExitFailure, "Either every data line or none has a sigma column");
  c.HasSigma = sigmaLines > 0;
  if (c.X.empty()) throw CliError(kExitFailure, "No data points in " + fileName);
  return c;
}

std::string Lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

std::unique_ptr<TNLFitFunction> CreateStandardFunction(const std::string& name) {
  std::vector<std::unique_ptr<TNLFitFunction>> all;
  all.emplace_back(new TNLFitGauss());
  all.emplace_back(new TNLFitLorentz());
  all.emplace_back(new TNLFitPsdVoigt1());
  all.emplace_back(new TNLFitPsdVoigt2());
  all.emplace_back(new TNLFitExpDecay());
  all.emplace_back(new TNLFitPolynom());
  std::string names;
  for (auto& f : all) {
    if (Lower(f->FunctionName) == Lower(name)) return std::move(f);
    names += (names.empty() ? "" : ", ") + f->FunctionName;
  }
  throw CliError(kExitUsage, "Unknown fit function '" + name + "'; one of: " + names);
}

// Highest variable index of a formula (x1 is the abscissa).
int HighestVariableIndex(const std::string& formula) {
  int highest = 1;
  for (size_t i = 0; i < formula.size(); ++i) {
    if ((formula[i] != 'x' && formula[i] != 'X') ||
        (i > 0 && std::isalnum(static_cast<unsigned char>(formula[i - 1]))))
      continue;
    size_t j = i + 1;
    int k = 0;
    while (j < formula.size() && std::isdigit(static_cast<unsigned char>(formula[j])))
      k = k * 10 + (formula[j++] - '0');
    if (j > i + 1 && k < 1000) highest = std::max(highest, k);
  }
  return highest;
}

std::unique_ptr<TNLFitFunction> CreateFormulaFunction(const std::string& formula, int startCount) {
  auto f = std::make_unique<TNLFitUserDefined>();
  f->NumberOfParams = std::max({HighestVariableIndex(formula) - 1, startCount, 1});
  f->FitFunctionString = formula;
  f->CreateParameters();
  if (!f->UserFitFunctionChanged()) {
    const TFormelParser& p = f->Parser();
    std::string message = p.GetMessage();
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
    if (!p.HasError()) message = "There is no valid formula !";
    throw CliError(kExitFailure, "Formula error at position " + std::to_string(p.GetErrorPosition()) + ": " +
                                     message +
                                     " (a formula uses x1 for the abscissa and x2, x3, ... for the "
                                     "parameters, e.g. \"x2*x1+x3\")");
  }
  return f;
}

int RunFit(const TFitOptions& o) {
  if (o.Formula.empty() == o.Function.empty())
    throw CliError(kExitUsage, "Give either --formula or --function");
  const TCurve curve = ReadCurve(o.DataFile);
  std::unique_ptr<TNLFitFunction> f =
      o.Formula.empty() ? CreateStandardFunction(o.Function)
                        : CreateFormulaFunction(o.Formula, static_cast<int>(o.Start.size()));
  const int np = f->GetNumberOfParameters();
  if (!o.Start.empty()) {
    if (static_cast<int>(o.Start.size()) != np)
      throw CliError(kExitUsage, "--start needs " + std::to_string(np) + " values for " + f->FunctionName);
    for (int i = 0; i < np; ++i) {
      f->Params[i]->StartValue = o.Start[i];
      f->Params[i]->Value = o.Start[i];
      f->Params[i]->StartValueAutoDetect = false;
    }
  }
  if (o.Tolerance > 0) f->Tolerance = o.Tolerance;
  if (o.MaxIterations > 0) f->MaxIterations = o.MaxIterations;
  const int n = static_cast<int>(curve.X.size());
  auto* minimizer = static_cast<TChiSqrMinimizer*>(f->ThreadPrepare());
  struct TRelease {
    TNLFitFunction& Function;
    TChiSqrMinimizer* Minimizer;
    ~TRelease() { Function.ThreadPostpare(Minimizer); }
  } release{*f, minimizer};
  std::vector<double> values(np), errors(np);
  TFitFunctionErrorInfo info;
  std::string status;
  const bool ok =
      f->CalculateThread(minimizer, nullptr, values.data(), errors.data(), n, curve.X.data(), curve.Y.data(),
                         curve.HasSigma ? curve.Sigma.data() : nullptr, info, status);
  const int iterations = minimizer->GetIterations();
  // Running out of iterations is a warning: the point reached is reported with its errors.
  const bool warning = !ok && minimizer->GetErrorCode() == csmMaxIterations;
  if (!ok && !warning) throw CliError(kExitFailure, status);
  if (warning) {
    for (int i = 0; i < np; ++i) {
      values[i] = minimizer->GetParameter(i);
      errors[i] = minimizer->GetParameterError(i);
    }
    info.ChiSqr = minimizer->GetChiSqr();
    double rss = 0.0;
    for (int i = 0; i < n; ++i) {
      const double r = curve.Y[i] - minimizer->EvaluateModel(curve.X[i]);
      rss += r * r;
    }
    info.ResidualSumOfSquares = rss;
    std::cerr << "warning: the fit stopped after " << iterations
              << " iterations before it converged (--max-iterations raises the limit)\n";
  }

  if (o.Json) {
    nlohmann::ordered_json j;
    j["parameters"] = nlohmann::ordered_json::array();
    for (int i = 0; i < np; ++i)
      j["parameters"].push_back(
          {{"name", f->Params[i]->ShortName}, {"value", values[i]}, {"error", errors[i]}});
    j["chi2"] = info.ChiSqr;
    j["rss"] = info.ResidualSumOfSquares;
    j["iterations"] = iterations;
    j["status"] = warning ? "warning" : "ok";
    j["message"] = status;
    std::cout << j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    return kExitOk;
  }
  for (int i = 0; i < np; ++i)
    std::cout << f->Params[i]->ShortName << " " << FormatNumber(values[i]) << " " << FormatNumber(errors[i])
              << "\n";
  std::cout << "chi2 " << FormatNumber(info.ChiSqr) << "\n"
            << "rss " << FormatNumber(info.ResidualSumOfSquares) << "\n"
            << "iterations " << iterations << "\n"
            << "status " << status << "\n";
  return kExitOk;
}

} // namespace

void AddFitCommands(CLI::App& app, CliContext& ctx) {
  auto o = std::make_shared<TFitOptions>();
  auto* fit =
      app.add_subcommand("fit", "Fit one curve (columns x y [sigma]) with a fit function or a formula");
  auto* formula =
      fit->add_option("--formula", o->Formula, "Formula over x1 (the x value) and x2, x3, ... (parameters)");
  auto* function =
      fit->add_option("--function", o->Function,
                      "Standard fit function: Gauss, Lorentz, PsdVoigt1, PsdVoigt2, ExpDecay, Polynom");
  formula->excludes(function);
  fit->add_option("--data", o->DataFile, "Text file with the columns x y [sigma]; '#' lines are ignored")
      ->required();
  fit->add_option("--start", o->Start, "Start values, in parameter order")->delimiter(',');
  fit->add_flag("--json", o->Json, "Machine-readable result");
  fit->add_option("--tolerance", o->Tolerance,
                  "Relative change of chi-square that ends the fit (default 1e-8)")
      ->check(Positive());
  fit->add_option("--max-iterations", o->MaxIterations, "Iterations before the fit gives up (default 200)")
      ->check(Positive());
  SetCommandAction(fit, ctx, [o] { return RunFit(*o); });
}

} // namespace orvexcli
