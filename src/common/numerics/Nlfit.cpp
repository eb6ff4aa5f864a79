// Powell fits over named parameters: working order, limits and the chi-square closure.
#include "common/numerics/Nlfit.h"

#include <algorithm>

TNLFit::TNLFit(int numberOfParameters) {
  for (int i = 0; i < std::max(numberOfParameters, 0); ++i)
    FParams.push_back(std::make_unique<TNLFitParam>());
}

TNLFitParam* TNLFit::GetParam(int index) {
  return (index >= 0 && index < GetNumberOfParameters()) ? FParams[index].get() : nullptr;
}

int TNLFit::GetNumberOfVariableParameters() const {
  return static_cast<int>(
      std::count_if(FParams.begin(), FParams.end(), [](const auto& p) { return p->Variable; }));
}

void TNLFit::CheckOrders() {
  std::vector<int> variable;
  for (int i = 0; i < GetNumberOfParameters(); ++i) {
    if (FParams[i]->Variable)
      variable.push_back(i);
    else
      FParams[i]->Order = -1;
  }
  const int count = static_cast<int>(variable.size());
  // Valid orders first, rising; the rest after them in list order.
  auto key = [&](int i) {
    const int o = FParams[i]->Order;
    return (o >= 0 && o < count) ? o : count;
  };
  std::stable_sort(variable.begin(), variable.end(), [&](int a, int b) { return key(a) < key(b); });
  for (int k = 0; k < count; ++k) FParams[variable[k]]->Order = k;
}

void TNLFit::CheckOrder(int index, int order) {
  TNLFitParam* moved = GetParam(index);
  if (!moved || !moved->Variable) return;
  CheckOrders();
  const int count = GetNumberOfVariableParameters();
  order = std::clamp(order, 0, count - 1);
  const int old = moved->Order;
  if (order == old) return;
  for (auto& p : FParams) {
    if (!p->Variable || p.get() == moved) continue;
    if (order < old && p->Order >= order && p->Order < old) ++p->Order;
    if (order > old && p->Order > old && p->Order <= order) --p->Order;
  }
  moved->Order = order;
}

void TNLFit::InitFit() {
  CheckOrders();
  const int count = GetNumberOfVariableParameters();
  if (!FMinimizer || FMinimizer->GetDimension() != count) FMinimizer = std::make_unique<TMinimizer>(count);
  FMinimizer->Tolerance = Tolerance;
  FMinimizer->MaxIterations = MaxNumberOfIterations;
  FMinimizer->SetHelperClosure([this](const double* p) { return Chi2MM(p); });
  FWorking.assign(count, -1);
  for (int i = 0; i < GetNumberOfParameters(); ++i)
    if (FParams[i]->Variable) FWorking[FParams[i]->Order] = i;
  for (int k = 0; k < count; ++k) {
    const TNLFitParam& p = *FParams[FWorking[k]];
    FMinimizer->SetLowerLimit(k, p.HasLowerLimit, p.LowerLimit);
    FMinimizer->SetUpperLimit(k, p.HasUpperLimit, p.UpperLimit);
  }
}

double TNLFit::Chi2MM(const double* variable) {
  for (size_t k = 0; k < FWorking.size(); ++k) FParams[FWorking[k]]->Value = variable[k];
  if (!FChiSqr) return 0.0;
  FValues.resize(FParams.size());
  for (size_t i = 0; i < FParams.size(); ++i) FValues[i] = FParams[i]->Value;
  return FChiSqr(FValues.data(), static_cast<int>(FValues.size()));
}

void TNLFit::StartFit() {
  if (!FMinimizer || static_cast<int>(FWorking.size()) != GetNumberOfVariableParameters()) InitFit();
  const int count = static_cast<int>(FWorking.size());
  std::vector<double> start(count), steps(count);
  for (int k = 0; k < count; ++k) {
    start[k] = FParams[FWorking[k]]->Value;
    steps[k] = FParams[FWorking[k]]->Vary;
    FMinimizer->SetParam(k, start[k]);
  }
  FMinimizer->SetVaryStartMatrix(steps.data());
  if (count > 0) {
    FMinimizer->MinimizeFunction();
    FLastChiSqr = FMinimizer->GetFunctionValue();
  } else {
    FLastChiSqr = Chi2MM(nullptr);
  }
  // The values reached (the last evaluations may have been trial points).
  for (int k = 0; k < count; ++k) FParams[FWorking[k]]->Value = FMinimizer->GetParam(k);
}
