// Image base: ID bookkeeping of the space transformation and Z interpretation links.
#include "data/Dimagebase.h"

#include "common/threads/Progressandcancel.h"

void TDImageBase::AddToID(int32_t delta) {
  TData::AddToID(delta);
  SafeAddToDataID(FSpaceTransformationID, delta);
  SafeAddToDataID(FZInterpretationID, delta);
}

bool TDImageBase::IsDataUsed(int32_t id) const {
  return id != 0 && (FSpaceTransformationID == id || FZInterpretationID == id);
}

void TDImageBase::CleanWrongDataConnections() {
  IDataProject* project = GetProject();
  if (!project) return;
  if (FSpaceTransformationID != 0 && !project->DataIDExists(FSpaceTransformationID))
    FSpaceTransformationID = 0;
  if (FZInterpretationID != 0 && !project->DataIDExists(FZInterpretationID)) FZInterpretationID = 0;
}

void TDImageBase::ExchangeID(int32_t oldID, int32_t newID) {
  // Only interpretations are exchanged; transformation links never are.
  if (FZInterpretationID == oldID) FZInterpretationID = newID;
}

void TDImageBase::DataChanged(TData* sender, TDataChangeInfo info) {
  if (info != TDataChangeInfo::Removed || !sender) return;
  const int32_t id = sender->GetID();
  if (FSpaceTransformationID == id) FSpaceTransformationID = 0;
  if (FZInterpretationID == id) FZInterpretationID = 0;
}

std::vector<std::pair<std::string, int32_t>> TDImageBase::GetReferencedIDs() const {
  return {{"SpaceTransformationID", FSpaceTransformationID}, {"ZInterpretationID", FZInterpretationID}};
}

bool TDImageBase::IDListDropAccept(const TIntList& idList) const {
  IDataProject* project = GetProject();
  if (!project || idList.empty()) return false;
  for (int32_t id : idList)
    if (!project->IsIDInheritFrom(id, "TDSpaceTransformation") &&
        !project->IsIDInheritFrom(id, "TDInterpretation"))
      return false;
  return true;
}

void TDImageBase::IDListDrop(const TIntList& idList) {
  IDataProject* project = GetProject();
  if (!project) return;
  for (int32_t id : idList) {
    if (project->IsIDInheritFrom(id, "TDSpaceTransformation"))
      FSpaceTransformationID = id;
    else if (project->IsIDInheritFrom(id, "TDZInterpretation"))
      FZInterpretationID = id;
  }
  DoDataChange(TDataChangeInfo::DataChanged);
}

TTagError SaveBoolVectorTag(TFileHandle file, const std::string& name, const std::vector<bool>& values) {
  std::unique_ptr<bool[]> flags(new bool[values.size() + 1]);
  std::copy(values.begin(), values.end(), flags.get());
  return TTagControl().SaveBoolTag(file, name, flags.get(), static_cast<int64_t>(values.size()));
}

TTagError LoadBoolVectorTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                            std::vector<bool>& values, int32_t count) {
  TTagControl tag;
  const TTagError result = tag.FindTag(file, name, parent);
  if (result < 1) return result;
  if (count < 0 || count > tag.End() - tag.Begin()) return teReadFileError;
  std::vector<uint8_t> bytes(static_cast<size_t>(count));
  if (LoadByteFromFile(file, bytes.data(), count) < 1) return teReadFileError;
  values.assign(bytes.begin(), bytes.end());
  for (size_t i = 0; i < bytes.size(); ++i) values[i] = bytes[i] != 0;
  return teNoError;
}

IProgressAndCancel* TDImageBase::FieldProgress() const {
  IProgressAndCancel* progress = GetProgress();
  return progress ? &progress->SubLevel() : nullptr;
}
