// Graphs: spectra per pixel, line flags, interpolation, ID links and the file form.
#include "data/Dgraph.h"

#include "common/OrvexException.h"

#include <algorithm>

TDGraph::TDGraph() {
  SetCaption("Graph");
  SetImageIndex(0);
  SetFieldSize(0, 0, TDataFieldKind::Int32, 0);
}

TDGraph::~TDGraph() = default;

int32_t TDGraph::GetDataCategory() const {
  switch (GetImageIndex()) {
  case 3:
    return 2;
  case 4:
    return 4;
  default:
    return 3;
  }
}

std::unique_ptr<TDGraph> TDGraph::CreateNewGraph(IDataProject* project, int32_t templateID,
                                                 bool singleSpectrum, TDataFieldKind kind,
                                                 TDataSaveMode saveMode, const std::string& caption) {
  if (!project) return nullptr;
  TData* data = project->LockData(templateID);
  auto* source = dynamic_cast<TDGraph*>(data);
  if (!source) {
    if (data) project->UnlockData(data);
    return nullptr;
  }
  auto graph = std::make_unique<TDGraph>();
  if (singleSpectrum) {
    graph->SetFieldSize(1, 1, kind, source->FSizeGraph);
  } else {
    graph->SetFieldSize(source->FSizeX, source->FSizeY, kind, source->FSizeGraph);
    graph->FSpaceTransformationID = source->FSpaceTransformationID;
  }
  graph->FXTransformationID = source->FXTransformationID;
  graph->FXInterpretationID = source->FXInterpretationID;
  graph->FZInterpretationID = source->FZInterpretationID;
  graph->SetImageIndex(source->GetImageIndex());
  project->UnlockData(data);
  graph->SetSaveMode(saveMode);
  graph->SetCaption(caption);
  graph->SetID(project->GetNewDataID());
  return graph;
}

std::unique_ptr<TDGraph> TDGraph::CreateResultGraph(IDataProject& project, int32_t templateID,
                                                    bool singleSpectrum, TDataFieldKind kind,
                                                    const TResultInfo& info) {
  const TData* source = project.FindData(templateID);
  const std::string baseCaption = source ? source->GetCaption() : std::string();
  auto graph = CreateNewGraph(&project, templateID, singleSpectrum, kind, info.SaveMode, baseCaption);
  if (graph) ApplyResultInfo(*graph, baseCaption, info);
  return graph;
}

void TDGraph::SetFieldSize(int32_t sizeX, int32_t sizeY, TDataFieldKind kind, int32_t sizeGraph) {
  if (FField && sizeX == FSizeX && sizeY == FSizeY && sizeGraph == FSizeGraph &&
      FField->GetLastDataFieldKind() == kind)
    return;
  if (sizeX < 0 || sizeY < 0 || sizeGraph < 0 || int64_t(sizeY) * sizeGraph > INT32_MAX)
    throw OrvexExceptionMemoryAllocation(GetCaption() + ": TDGraph::SetFieldSize: sizes out of range");
  FreeField();
  FField = std::make_unique<TDataField>(std::initializer_list<int32_t>{sizeX, sizeY * sizeGraph}, kind);
  FSizeX = sizeX;
  FSizeY = sizeY;
  FSizeGraph = sizeGraph;
  FLineChanged.assign(static_cast<size_t>(sizeY), false);
  FLineValid.assign(static_cast<size_t>(sizeY), false);
}

void TDGraph::FreeField() {
  FField.reset();
}

float TDGraph::GetField(int32_t x, int32_t y, int32_t g) const {
  if (x < 0 || x >= FSizeX || g < 0 || g >= FSizeGraph || !GetLineValid(y)) return 0;
  return GetFastField(x, y, g);
}

float TDGraph::GetFastField(int32_t x, int32_t y, int32_t g) const {
  const int32_t index[2] = {x, y * FSizeGraph + g};
  return FField->GetValue(index);
}

void TDGraph::SetField(int32_t x, int32_t y, int32_t g, float value) {
  if (x < 0 || x >= FSizeX || !LineInside(y) || g < 0 || g >= FSizeGraph) return;
  const int32_t index[2] = {x, y * FSizeGraph + g};
  FField->SetValue(index, value);
}

void TDGraph::CheckIndices(int32_t x, int32_t y, const char* operation) const {
  if (x < 0 || x >= FSizeX || y < 0 || y >= FSizeY)
    throw OrvexException(GetCaption() + ": TDGraph::" + operation +
                         ": wrong indices: x = " + std::to_string(x) + ", y = " + std::to_string(y));
}

void TDGraph::SetSpectrum(int32_t x, int32_t y, const float* values) {
  CheckIndices(x, y, "SetSpectrum");
  const int32_t index[2] = {x, y * FSizeGraph};
  FField->SetValueArray(index, values, FSizeGraph);
}

void TDGraph::GetSpectrum(int32_t x, int32_t y, float* values, bool ignoreValid) const {
  CheckIndices(x, y, "GetSpectrum");
  if (!ignoreValid && !GetLineValid(y)) {
    std::fill(values, values + FSizeGraph, 0.0f);
    return;
  }
  const int32_t index[2] = {x, y * FSizeGraph};
  FField->GetValueArray(index, values, FSizeGraph);
}

const float* TDGraph::GetSpectraPartReadPointer(int32_t x, int32_t y, int32_t first, int32_t count,
                                                int32_t& spectra) const {
  if (x < 0 || x >= FSizeX || y < 0 || y >= FSizeY || first < 0 || count < 1 || first + count > FSizeGraph ||
      spectra < 1 || y + spectra > FSizeY)
    throw OrvexException(GetCaption() + ": TDGraph::GetSpectraPartReadPointer: wrong indices or Range: x = " +
                         std::to_string(x) + ", y = " + std::to_string(y));
  const int32_t index[2] = {x, y * FSizeGraph + first};
  int64_t available = 0;
  const float* p = FField ? FField->GetFloatReadPointer(index, available) : nullptr;
  if (!p || available < count) {
    spectra = 0;
    return nullptr;
  }
  spectra = static_cast<int32_t>(std::min<int64_t>(spectra, 1 + (available - count) / FSizeGraph));
  return p;
}

void TDGraph::GetPartOfSpectrum(int32_t x, int32_t y, int32_t first, int32_t count, float* values,
                                bool ignoreValid) const {
  if (x < 0 || x >= FSizeX || y < 0 || y >= FSizeY || first < 0 || count < 0 || first + count > FSizeGraph)
    throw OrvexException(GetCaption() + ": TDGraph::GetPartOfSpectrum: wrong indices or Range: x = " +
                         std::to_string(x) + ", y = " + std::to_string(y));
  if (!ignoreValid && !GetLineValid(y)) {
    std::fill(values, values + count, 0.0f);
    return;
  }
  const int32_t index[2] = {x, y * FSizeGraph + first};
  FField->GetValueArray(index, values, count);
}

float TDGraph::GetInterpolatedField(double x, double y, double g) const {
  if (x < 0 || y < 0 || x >= FSizeX - 1 || y >= FSizeY - 1) return 0;
  const auto i = static_cast<int32_t>(x);
  const auto j = static_cast<int32_t>(y);
  const auto k = static_cast<int32_t>(g);
  if (!GetLineValid(j) || !GetLineValid(j + 1) || k < 0 || k >= FSizeGraph) return 0;
  const double fx = x - i, fy = y - j;
  return static_cast<float>(
      (1 - fx) * (1 - fy) * GetFastField(i, j, k) + fx * (1 - fy) * GetFastField(i + 1, j, k) +
      fx * fy * GetFastField(i + 1, j + 1, k) + (1 - fx) * fy * GetFastField(i, j + 1, k));
}

void TDGraph::GetInterpolatedSpectrum(double x, double y, float* values) const {
  if (x < 0 || y < 0 || x >= FSizeX - 1 || y >= FSizeY - 1)
    throw OrvexException("GetInterpolatedSpectrum: Out of Graph Ranges");
  const auto i = static_cast<int32_t>(x);
  const auto j = static_cast<int32_t>(y);
  if (!GetLineValid(j) || !GetLineValid(j + 1)) {
    std::fill(values, values + FSizeGraph, 0.0f);
    return;
  }
  const double fx = x - i, fy = y - j;
  std::vector<float> a(static_cast<size_t>(FSizeGraph)), b(a.size()), c(a.size()), d(a.size());
  GetSpectrum(i, j, a.data(), true);
  GetSpectrum(i + 1, j, b.data(), true);
  GetSpectrum(i + 1, j + 1, c.data(), true);
  GetSpectrum(i, j + 1, d.data(), true);
  for (size_t g = 0; g < a.size(); ++g)
    values[g] = static_cast<float>((1 - fx) * (1 - fy) * a[g] + fx * (1 - fy) * b[g] + fx * fy * c[g] +
                                   (1 - fx) * fy * d[g]);
}

float TDGraph::GetInterpolatedXField(int32_t x, int32_t y, double g) const {
  const auto k = static_cast<int32_t>(g);
  if (g >= 0 && k < FSizeGraph - 1 && GetLineValid(y) && x >= 0 && x < FSizeX) {
    const double f = g - k;
    return static_cast<float>((1 - f) * GetFastField(x, y, k) + f * GetFastField(x, y, k + 1));
  }
  return GetField(x, y, k);
}

bool TDGraph::IsDataPointInside(double x, double y) const {
  return x >= -0.0001 && x <= FSizeX - 1 + 0.0001 && y >= -0.0001 && y <= FSizeY - 1 + 0.0001;
}

void TDGraph::FillField(float value) {
  std::vector<float> spectrum(static_cast<size_t>(FSizeGraph), value);
  for (int32_t y = 0; y < FSizeY; ++y)
    for (int32_t x = 0; x < FSizeX; ++x) SetSpectrum(x, y, spectrum.data());
}

void TDGraph::CopyFieldFrom(const TDGraph& graph) {
  if (graph.FSizeX != FSizeX || graph.FSizeY != FSizeY || graph.FSizeGraph != FSizeGraph) return;
  std::vector<float> spectrum(static_cast<size_t>(FSizeGraph));
  for (int32_t y = 0; y < FSizeY; ++y) {
    SetLineValid(y, graph.GetLineValid(y));
    if (!graph.GetLineValid(y)) continue;
    for (int32_t x = 0; x < FSizeX; ++x) {
      graph.GetSpectrum(x, y, spectrum.data(), true);
      SetSpectrum(x, y, spectrum.data());
    }
  }
}

bool TDGraph::IsGraphIDListOkay(IDataProject* project, const TIntList& idList, int32_t minCount,
                                int32_t maxCount, bool sameSize, bool sameGraphSize,
                                bool sameSpaceTransformation, bool sameXTransformation,
                                bool sameXInterpretation, bool sameZInterpretation) {
  if (!project || idList.empty()) return false;
  const auto count = static_cast<int32_t>(idList.size());
  if ((minCount >= 1 && count < minCount) || (maxCount >= 1 && count > maxCount)) return false;
  const TDGraph* first = nullptr;
  for (int32_t id : idList) {
    const TData* data = project->FindData(id);
    if (!data || data->GetClassNameA() != kClassName) return false;
    const auto* graph = static_cast<const TDGraph*>(data);
    if (!first) {
      first = graph;
      continue;
    }
    if ((sameSize && (graph->FSizeX != first->FSizeX || graph->FSizeY != first->FSizeY)) ||
        (sameGraphSize && graph->FSizeGraph != first->FSizeGraph) ||
        (sameSpaceTransformation && graph->FSpaceTransformationID != first->FSpaceTransformationID) ||
        (sameXTransformation && graph->FXTransformationID != first->FXTransformationID) ||
        (sameXInterpretation && graph->FXInterpretationID != first->FXInterpretationID) ||
        (sameZInterpretation && graph->FZInterpretationID != first->FZInterpretationID))
      return false;
  }
  return true;
}

void TDGraph::AfterOnDataChange() {
  std::fill(FLineChanged.begin(), FLineChanged.end(), false);
}

void TDGraph::AddToID(int32_t delta) {
  TDImageBase::AddToID(delta);
  SafeAddToDataID(FXTransformationID, delta);
  SafeAddToDataID(FXInterpretationID, delta);
}

bool TDGraph::IsDataUsed(int32_t id) const {
  return TDImageBase::IsDataUsed(id) || (id != 0 && (FXTransformationID == id || FXInterpretationID == id));
}

void TDGraph::CleanWrongDataConnections() {
  TDImageBase::CleanWrongDataConnections();
  IDataProject* project = GetProject();
  if (!project) return;
  if (FXTransformationID != 0 && !project->DataIDExists(FXTransformationID)) FXTransformationID = 0;
  if (FXInterpretationID != 0 && !project->DataIDExists(FXInterpretationID)) FXInterpretationID = 0;
}

void TDGraph::ExchangeID(int32_t oldID, int32_t newID) {
  TDImageBase::ExchangeID(oldID, newID);
  if (FXInterpretationID == oldID) FXInterpretationID = newID;
}

void TDGraph::DataChanged(TData* sender, TDataChangeInfo info) {
  TDImageBase::DataChanged(sender, info);
  if (info != TDataChangeInfo::Removed || !sender) return;
  if (FXTransformationID == sender->GetID()) FXTransformationID = 0;
  if (FXInterpretationID == sender->GetID()) FXInterpretationID = 0;
}

std::vector<std::pair<std::string, int32_t>> TDGraph::GetReferencedIDs() const {
  auto ids = TDImageBase::GetReferencedIDs();
  ids.emplace_back("XTransformationID", FXTransformationID);
  ids.emplace_back("XInterpretationID", FXInterpretationID);
  return ids;
}

TTagError TDGraph::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDImageBase::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  IProgressAndCancel* const progress = FieldProgress();
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "SizeX", FSizeX)) < 1 ||
      (result = t.SaveIntTag(file, "SizeY", FSizeY)) < 1 ||
      (result = t.SaveIntTag(file, "SizeGraph", FSizeGraph)) < 1 ||
      (result = t.SaveIntTag(file, "SpaceTransformationID", FSpaceTransformationID)) < 1 ||
      (result = t.SaveIntTag(file, "XTransformationID", FXTransformationID)) < 1 ||
      (result = t.SaveIntTag(file, "XInterpretationID", FXInterpretationID)) < 1 ||
      (result = t.SaveIntTag(file, "ZInterpretationID", FZInterpretationID)) < 1 ||
      (result = SaveDataFieldToTagFile(file, "GraphData", *FField, progress)) < 1 ||
      (result = SaveBoolVectorTag(file, "LineChanged", FLineChanged)) < 1 ||
      (result = SaveBoolVectorTag(file, "LineValid", FLineValid)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDGraph::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDImageBase::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.FindTag(file, kClassName, parent)) < 1) return result;
  FreeField();
  int32_t sizeX = 0, sizeY = 0, sizeGraph = 0;
  if ((result = t.LoadIntTag(file, "Version", own, &FVersion, 1)) < 1 ||
      (result = t.LoadIntTag(file, "SizeX", own, &sizeX, 1)) < 1 ||
      (result = t.LoadIntTag(file, "SizeY", own, &sizeY, 1)) < 1 ||
      (result = t.LoadIntTag(file, "SizeGraph", own, &sizeGraph, 1)) < 1 ||
      (result = t.LoadIntTag(file, "SpaceTransformationID", own, &FSpaceTransformationID, 1)) < 1 ||
      (result = t.LoadIntTag(file, "XTransformationID", own, &FXTransformationID, 1)) < 1 ||
      (result = t.LoadIntTag(file, "XInterpretationID", own, &FXInterpretationID, 1)) < 1)
    return result;
  t.LoadOrDefaultIntTag(file, "ZInterpretationID", own, &FZInterpretationID, 1, 0);
  if (sizeX < 0 || sizeY < 0 || sizeGraph < 0 || int64_t(sizeY) * sizeGraph > INT32_MAX)
    return teReadFileError;
  IProgressAndCancel* const progress = FieldProgress();
  if ((result = LoadDataFieldFromTagFile(file, "GraphData", own, FField, progress)) < 1) return result;
  if (FField->Ranges() != std::vector<int32_t>{sizeX, sizeY * sizeGraph})
    return teReadFileError; // the stored field doesn't match the stated sizes
  FSizeX = sizeX;
  FSizeY = sizeY;
  FSizeGraph = sizeGraph;
  if ((result = LoadBoolVectorTag(file, "LineChanged", own, FLineChanged, sizeY)) < 1 ||
      (result = LoadBoolVectorTag(file, "LineValid", own, FLineValid, sizeY)) < 1)
    return result;
  return teNoError;
}
