// Connectors and data evaluators.
#include "data/Dconnector.h"

TDConnector::TDConnector() {
  SetCaption("Connector");
  SetSaveMode(TDataSaveMode::HardwareOwned); // never written to a project file
}

void TDConnector::DataChanged(TData* sender, TDataChangeInfo info) {
  TData::DataChanged(sender, info);
  if (OnDataChange) OnDataChange(sender, info);
}

void TDConnector::BeforeClearProject() {
  TData::BeforeClearProject();
  if (OnClearProject) OnClearProject();
}

TTagError TDDataEvaluator::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TData::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDDataEvaluator::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TData::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own;
  return own.FindTag(file, kClassName, parent);
}
