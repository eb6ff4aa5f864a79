// Connectors, the data objects through which a tool listens to the project, and data evaluators, which
// take part in the acquisition program's measurements and are here only stored and restored.
#pragma once

#include "data/Dcustom.h"

#include <functional>

/// A data object without data: passes the project's changes and its clearing on to closures.
class TDConnector : public TData {
  ORVEX_DATA_CLASS(TDConnector, TData)
public:
  TDConnector();

  int32_t GetDataCategory() const override { return 9; }
  void DataChanged(TData* sender, TDataChangeInfo info) override;
  void BeforeClearProject() override;

  std::function<void(TData*, TDataChangeInfo)> OnDataChange;
  std::function<void()> OnClearProject;
};

/// A participant in measurements of the acquisition side; this program keeps it through save and load.
class TDDataEvaluator : public TData {
  ORVEX_DATA_CLASS(TDDataEvaluator, TData)
public:
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return 11; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;

  /// @{ The measurement cycle; nothing to do without acquisition hardware.
  virtual void Init() {}
  virtual void CleanUp() {}
  virtual void StartMeasurement() {}
  virtual void StopMeasurement() {}
  /// @}
};
