// The list of fit functions offered to the tools: the seven standard functions and the user's own ones,
// with the user fit function file ("ORX_UFIT").
#pragma once

#include "common/numerics/Fitfunctions.h"

#include <memory>
#include <string>
#include <vector>

/// Owner of the standard and the user's fit functions.
class TFitFunctionManager {
public:
  TFitFunctionManager() = default;
  TFitFunctionManager(const TFitFunctionManager&) = delete;
  TFitFunctionManager& operator=(const TFitFunctionManager&) = delete;
  virtual ~TFitFunctionManager() = default;

  /// Appends Gauss, Lorentz, PsdVoigt1, PsdVoigt2, ExpDecay, Polynom and User Defined, in this order.
  void CreateStandardFitFunctions();
  /// A new function of the class name, or null for an unknown name.
  static std::unique_ptr<TFitFunction> CreateFitFunctionByClassName(const std::string& className);
  /// A copy made by saving to a temporary tag file under "TempFitFunction" and loading into a new object;
  /// null when that fails.
  static std::unique_ptr<TFitFunction> CloneFitFunction(const TFitFunction& source);

  int GetCount() const { return static_cast<int>(FFunctions.size()); }
  TFitFunction* GetFitFunction(int i) const {
    return (i >= 0 && i < GetCount()) ? FFunctions[i].get() : nullptr;
  }
  /// Takes ownership; returns the index.
  int AddFitFunction(std::unique_ptr<TFitFunction> function);
  void DeleteFitFunction(int i);
  int GetUserFitFunctionCount() const;

  /// Writes the user's functions (IsUserFunction) to a file "ORX_UFIT" with root "OrvexUserFitFunctions".
  TTagError SaveUserFitFunctionsToTagFile(const std::string& fileName) const;
  /// Replaces the user's functions by those of the file.
  TTagError LoadUserFitFunctionsFromTagFile(const std::string& fileName);
  /// Adds the functions of the file to the user's functions.
  TTagError AppendUserFitFunctionsFromTagFile(const std::string& fileName);

private:
  std::vector<std::unique_ptr<TFitFunction>> FFunctions;
};
