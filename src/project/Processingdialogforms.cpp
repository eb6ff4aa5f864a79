#include "project/Processingdialogforms.h"

#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "project/Project.h"
#include "project/Viewerbase.h"

#include <algorithm>

namespace {

bool Contains(const TIntList& ids, int32_t id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// The reason a list check failed, found by asking the same check on smaller lists: the count, an ID that
// is missing or of another class, or the first ID that differs from the first one.
template <class Check>
std::string ListRefusalReason(TProject& project, const TIntList* ids, int32_t minCount, int32_t maxCount,
                              const char* className, const char* what, Check check) {
  if (!ids || ids->empty()) return std::string("no ") + what + " is given";
  const auto count = static_cast<int32_t>(ids->size());
  if (minCount >= 1 && count < minCount)
    return "the tool takes at least " + std::to_string(minCount) + " " + what + "s, " +
           std::to_string(count) + " given";
  if (maxCount >= 1 && count > maxCount)
    return "the tool takes at most " + std::to_string(maxCount) + " " + what + (maxCount == 1 ? "" : "s") +
           ", " + std::to_string(count) + " given";
  for (int32_t id : *ids) {
    const TData* data = project.FindData(id);
    if (!data) return "no object has the ID " + std::to_string(id);
    if (!data->InheritsFrom(className))
      return "ID " + std::to_string(id) + " is a " + data->GetClassNameA() + ", the tool takes a " +
             className;
  }
  for (int32_t id : *ids)
    if (!check(TIntList{ids->front(), id}))
      return "ID " + std::to_string(id) + " does not match ID " + std::to_string(ids->front()) +
             " (size, axes or units)";
  return std::string("the ") + what + "s are refused";
}

} // namespace

// --- TDataSetChanger -----------------------------------------------------------------------------------

void TDataSetChanger::IDListChanged(const TIntList& ids) {
  FIDs = ids;
  if (!Contains(FIDs, FCurrentID)) FCurrentID = FIDs.empty() ? 0 : FIDs.front();
}

std::vector<std::string> TDataSetChanger::GetCaptions(const TProject& project) const {
  std::vector<std::string> captions;
  for (int32_t id : FIDs) {
    const TData* data = project.FindData(id);
    captions.push_back(data ? data->GetCaption() : std::string());
  }
  return captions;
}

bool TDataSetChanger::Select(int32_t id) {
  if (!Contains(FIDs, id)) return false;
  if (id == FCurrentID) return true;
  FCurrentID = id;
  if (FOnChange) FOnChange(id);
  return true;
}

// --- Graph frame ---------------------------------------------------------------------------------------

TProjectGraphProcessingDialogForm::TProjectGraphProcessingDialogForm(std::string dialogName,
                                                                     TParameterTable& declaration)
    : TProjectDialogForm(std::move(dialogName), declaration) {}

TProjectGraphProcessingDialogForm::~TProjectGraphProcessingDialogForm() {
  if (GetIsActive()) {
    try {
      CleanUp();
    } catch (...) {
    }
  }
}

bool TProjectGraphProcessingDialogForm::IsInputIDListOkay(TProject* project, const TIntList* ids,
                                                          const TIntList* /*extra*/, std::string* reason) {
  auto check = [&](const TIntList& list) {
    return TDGraph::IsGraphIDListOkay(project, list, MinNumberOfGraphs, MaxNumberOfGraphs, SameSize,
                                      SameGraphSize, SameSpaceTransformation, SameXTransformation,
                                      SameXInterpretation, SameZInterpretation);
  };
  if (project && ids && check(*ids)) return true;
  if (reason)
    *reason = project
                  ? ListRefusalReason(
                        *project, ids, MinNumberOfGraphs, MaxNumberOfGraphs, TDGraph::kClassName, "graph",
                        [&](const TIntList& pair) {
                          return TDGraph::IsGraphIDListOkay(project, pair, -1, -1, SameSize, SameGraphSize,
                                                            SameSpaceTransformation, SameXTransformation,
                                                            SameXInterpretation, SameZInterpretation);
                        })
                  : "no project";
  return false;
}

void TProjectGraphProcessingDialogForm::Init(const TIntList* ids, const TIntList* extra, TProject* project) {
  TProjectDialogForm::Init(ids, extra, project);
  FMCC = std::make_unique<TMCC>(GetDialogName(), [this](TMCC* mcc, int thread) {
    if (thread == 0) mcc->OverallProgressMax.store(static_cast<int64_t>(FRunInputs ? FRunInputs->size() : 0));
    CalculateThread(mcc, thread, *FRunInputs, *FRunResults);
  });
  FMCC->PrepareThreads();
  FPositionX = FPositionY = 0;
  FInputIDs = ids ? *ids : TIntList();
  FCurrentID = FInputIDs.empty() ? 0 : FInputIDs.front();
  FNumberOfCalculations = 0;
  if (!Interactive || ConfigurationOnly || FCurrentID == 0) return;
  if (UseDataSetChanger) {
    FDataSetChanger = std::make_unique<TDataSetChanger>([this](int32_t id) { ChangeCurrentID(id); });
    FDataSetChanger->IDListChanged(FInputIDs);
  }
  TProject& p = *GetProject();
  auto preview = TDGraph::CreateNewGraph(&p, FCurrentID, true, TDataFieldKind::Float,
                                         TDataSaveMode::HardwareOwned, "Preview");
  auto original = TDGraph::CreateNewGraph(&p, FCurrentID, true, TDataFieldKind::Float,
                                          TDataSaveMode::HardwareOwned, "Original");
  if (!preview || !original) return;
  FPreviewGraphID = preview->GetID();
  FOriginalGraphID = original->GetID();
  AddDataToProject(std::move(original));
  AddDataToProject(std::move(preview));
  if (IToolViewerFactory* factory = IToolViewerFactory::GetFactory()) {
    FPreviewViewer = AddCustomForm(factory->CreateGraphViewer(p, FOriginalGraphID, {FPreviewGraphID}));
    if (FPreviewViewer) factory->SetAutoUpdate(*FPreviewViewer, true);
  }
  try {
    UpdatePreview();
  } catch (...) {
    if (FPreviewViewer) IToolViewerFactory::GetFactory()->SetAutoUpdate(*FPreviewViewer, false);
    throw;
  }
  if (FPreviewViewer) IToolViewerFactory::GetFactory()->SetAutoUpdate(*FPreviewViewer, false);
}

void TProjectGraphProcessingDialogForm::CleanUp() {
  DropOwnedResults();
  FInputIDs.clear();
  FCurrentID = FPreviewGraphID = FOriginalGraphID = 0;
  FPreviewViewer = nullptr;
  FDataSetChanger.reset();
  FMCC.reset();
  TProjectDialogForm::CleanUp();
}

void TProjectGraphProcessingDialogForm::DoRemoveData(TData* data) {
  if (data && Contains(FInputIDs, data->GetID())) CleanUp();
}

void TProjectGraphProcessingDialogForm::DoDataChange(TData* data) {
  if (!data || !data->InheritsFrom(TDSpaceCursor::kClassName) || FCurrentID == 0 || !Interactive) return;
  int32_t x = 0, y = 0;
  if (!GetXYCoordinateFromGraphCursor(*GetProject(), x, y, FCurrentID)) return;
  if (x == FPositionX && y == FPositionY) return;
  FPositionX = x;
  FPositionY = y;
  UpdatePreview();
}

void TProjectGraphProcessingDialogForm::EnableDisableCalculations(bool extract, bool extractAll,
                                                                  TIntList* ids) {
  TProjectDialogForm::EnableDisableCalculations(extract && IsExtractPossible(),
                                                extractAll && IsExtractAllPossible(), ids);
}

bool TProjectGraphProcessingDialogForm::IsDataUsed(int32_t id) const {
  return GetIsActive() && Contains(FInputIDs, id);
}

void TProjectGraphProcessingDialogForm::UpdatePreview() {
  if (!GetIsActive() || FCurrentID == 0) return;
  TProject& project = *GetProject();
  auto* current = dynamic_cast<TDGraph*>(project.FindData(FCurrentID));
  auto* original = dynamic_cast<TDGraph*>(project.FindData(FOriginalGraphID));
  if (!current) return;
  if (original && FPositionX < current->GetSizeX() && FPositionY < current->GetSizeY()) {
    std::vector<float> spectrum(static_cast<size_t>(current->GetSizeGraph()));
    current->GetSpectrum(FPositionX, FPositionY, spectrum.data());
    original->SetSpectrum(0, 0, spectrum.data());
    original->SetLineValid(0, true);
    original->DoDataChange(TDataChangeInfo::DataChanged);
  }
  FIsPreview = true;
  StartCalculationSequence(std::make_unique<TIntList>(ProcessAllData ? FInputIDs : TIntList{FCurrentID}));
}

void TProjectGraphProcessingDialogForm::ChangeCurrentID(int32_t id) {
  if (ProcessAllData || !Contains(FInputIDs, id) || !GetIsActive()) return;
  FCurrentID = id;
  TProject& project = *GetProject();
  const auto* current = dynamic_cast<const TDGraph*>(project.FindData(id));
  if (!current) return;
  for (int32_t previewID : {FPreviewGraphID, FOriginalGraphID}) {
    auto* graph = dynamic_cast<TDGraph*>(project.FindData(previewID));
    if (!graph) continue;
    graph->SetXTransformationID(current->GetXTransformationID());
    graph->SetXInterpretationID(current->GetXInterpretationID());
    graph->SetZInterpretationID(current->GetZInterpretationID());
    graph->SetFieldSize(1, 1, TDataFieldKind::Float, current->GetSizeGraph());
  }
  FPositionX = FPositionY = 0;
  UpdatePreview();
}

bool TProjectGraphProcessingDialogForm::DoCommand(const std::string& name) {
  if (name == kCalculatePreview) {
    UpdatePreview();
    return true;
  }
  if (name != kExtract && name != kExtractAll) return false;
  FIsPreview = false;
  const bool all = name == kExtractAll || IsRunAll() || ProcessAllData;
  StartCalculationSequence(std::make_unique<TIntList>(all ? FInputIDs : TIntList{FCurrentID}));
  FIsPreview = false;
  return !FLastRunCancelled;
}

void TProjectGraphProcessingDialogForm::StartCalculationSequence(std::unique_ptr<TIntList> ids) {
  if (!ids || !GetIsActive() || !FMCC) return;
  TProject& project = *GetProject();
  TGraphList inputs = project.GetTypedDataListByIDList<TDGraph>(*ids);
  TGraphList results;
  if (!FIsPreview) SetRunInputIDs(*ids);
  FLastRunCancelled = false;
  ++FNumberOfCalculations;
  try {
    if (!PreCalculate(inputs, results))
      throw OrvexException("TProjectGraphProcessingDialogForm::StartCalculationSequence() of \"" +
                           GetDialogName() + "\": PreCalculate() failed");
    // One input: one progress level.
    FMCC->ShowSubProgress = inputs.size() != 1;
    for (TDGraph* result : results) result->SetAutoDataChange(false);
    FRunInputs = &inputs;
    FRunResults = &results;
    FMCC->StopCancel();
    FMCC->StartThreads(0);
    FMCC->WaitAndShowProgressOnDelay(FIsPreview ? 500 : 100);
  } catch (...) {
    FRunInputs = FRunResults = nullptr;
    if (FMCC) FMCC->WaitForThreadsFinished(~0UL);
    for (TDGraph* result : results) result->SetAutoDataChange(true);
    DropOwnedResults();
    project.ReleaseTypedList(inputs);
    throw;
  }
  FRunInputs = FRunResults = nullptr;
  FLastRunCancelled = FMCC->GetCancel();
  for (TDGraph* result : results) {
    result->DoDataChange(TDataChangeInfo::DataChanged);
    result->SetAutoDataChange(true);
  }
  try {
    PostCalculate(inputs, results);
  } catch (...) {
    DropOwnedResults();
    project.ReleaseTypedList(inputs);
    throw;
  }
  DropOwnedResults();
  project.ReleaseTypedList(inputs);
}

bool TProjectGraphProcessingDialogForm::PreCalculate(TGraphList& /*inputs*/, TGraphList& /*results*/) {
  return true;
}

void TProjectGraphProcessingDialogForm::CalculateThread(TMCC* /*mcc*/, int /*threadIndex*/,
                                                        TGraphList& /*inputs*/, TGraphList& /*results*/) {}

void TProjectGraphProcessingDialogForm::PostCalculate(TGraphList& /*inputs*/, TGraphList& /*results*/) {}

TDGraph* TProjectGraphProcessingDialogForm::OwnResult(std::unique_ptr<TDGraph> result) {
  if (!result) return nullptr;
  FOwnedResults.push_back(std::move(result));
  return FOwnedResults.back().get();
}

void TProjectGraphProcessingDialogForm::HandOverResults(TGraphList& results) {
  if (FIsPreview) return;
  if (FLastRunCancelled) {
    DropOwnedResults();
    results.clear();
    return;
  }
  for (TDGraph* result : results) {
    auto it = std::find_if(FOwnedResults.begin(), FOwnedResults.end(),
                           [result](const auto& owned) { return owned.get() == result; });
    if (it == FOwnedResults.end()) continue;
    std::unique_ptr<TDGraph> owned = std::move(*it);
    FOwnedResults.erase(it);
    AddResult(std::move(owned));
  }
}

void TProjectGraphProcessingDialogForm::DropOwnedResults() {
  FOwnedResults.clear();
}

// --- Image frame ---------------------------------------------------------------------------------------

TProjectImageProcessingDialogForm::TProjectImageProcessingDialogForm(std::string dialogName,
                                                                     TParameterTable& declaration)
    : TProjectDialogForm(std::move(dialogName), declaration) {}

TProjectImageProcessingDialogForm::~TProjectImageProcessingDialogForm() {
  if (GetIsActive()) {
    try {
      CleanUp();
    } catch (...) {
    }
  }
}

bool TProjectImageProcessingDialogForm::IsInputIDListOkay(TProject* project, const TIntList* ids,
                                                          const TIntList* /*extra*/, std::string* reason) {
  if (project && ids &&
      TDImage::IsImageIDListOkay(project, *ids, MinNumberOfImages, MaxNumberOfImages, SameSize,
                                 SameSpaceTransformation, SameInterpretation, false))
    return true;
  if (reason)
    *reason = project ? ListRefusalReason(*project, ids, MinNumberOfImages, MaxNumberOfImages,
                                          TDImage::kClassName, "image",
                                          [&](const TIntList& pair) {
                                            return TDImage::IsImageIDListOkay(project, pair, -1, -1, SameSize,
                                                                              SameSpaceTransformation,
                                                                              SameInterpretation, false);
                                          })
                      : "no project";
  return false;
}

void TProjectImageProcessingDialogForm::Init(const TIntList* ids, const TIntList* extra, TProject* project) {
  TProjectDialogForm::Init(ids, extra, project);
  FMCC = std::make_unique<TMCC>(GetDialogName(), [this](TMCC* mcc, int thread) {
    if (thread == 0) mcc->OverallProgressMax.store(static_cast<int64_t>(FRunInputs ? FRunInputs->size() : 0));
    CalculateThread(mcc, thread, *FRunInputs, *FRunResults);
  });
  FMCC->PrepareThreads();
  FInputIDs = ids ? *ids : TIntList();
  FCurrentID = FInputIDs.empty() ? 0 : FInputIDs.front();
  FNumberOfCalculations = 0;
  FIsPreview = true;
  if (!Interactive || ConfigurationOnly || FCurrentID == 0) return;
  if (UseDataSetChanger) {
    FDataSetChanger = std::make_unique<TDataSetChanger>([this](int32_t id) { OnDataSetChangerChange(id); });
    FDataSetChanger->IDListChanged(FInputIDs);
  }
  CreatePreviewImages();
  if (AutoPreview) DoPreviewImages();
}

void TProjectImageProcessingDialogForm::CleanUp() {
  DropOwnedResults();
  FPreviewImages.clear();
  FInputIDs.clear();
  FCurrentID = 0;
  FDataSetChanger.reset();
  FMCC.reset();
  TProjectDialogForm::CleanUp();
}

void TProjectImageProcessingDialogForm::DoRemoveData(TData* data) {
  if (data && Contains(FInputIDs, data->GetID())) CleanUp();
}

void TProjectImageProcessingDialogForm::EnableDisableCalculations(bool extract, bool extractAll,
                                                                  TIntList* ids) {
  TProjectDialogForm::EnableDisableCalculations(extract && ExtractEnabled, extractAll && ExtractEnabled, ids);
}

bool TProjectImageProcessingDialogForm::IsDataUsed(int32_t id) const {
  return GetIsActive() && Contains(FInputIDs, id);
}

void TProjectImageProcessingDialogForm::OnDataSetChangerChange(int32_t id) {
  if (!Contains(FInputIDs, id)) return;
  FCurrentID = id;
  for (TImageProcessingPreviewImage& slot : FPreviewImages) {
    RemoveDataFromProject(slot.ID);
    slot.ID = 0;
  }
  FPreviewImages.clear();
  CreatePreviewImages();
  for (TImageProcessingPreviewImage& slot : FPreviewImages) slot.UpdateOnNextShow = true;
  if (AutoPreview) DoPreviewImages();
}

void TProjectImageProcessingDialogForm::CreatePreviewImages() {
  if (!GetIsActive() || FCurrentID == 0) return;
  auto preview = TDImage::CreateNewImage(GetProject(), FCurrentID, TDataFieldKind::Float,
                                         TDataSaveMode::HardwareOwned, "Preview");
  if (!preview) return;
  TImageProcessingPreviewImage slot;
  slot.ID = preview->GetID();
  FPreviewImages.push_back(slot);
  AddDataToProject(std::move(preview));
}

void TProjectImageProcessingDialogForm::DoParameterChanged(const TUserParameterList& /*changed*/) {
  if (GetIsActive() && Interactive && AutoPreview && !ConfigurationOnly) DoPreviewImages();
}

void TProjectImageProcessingDialogForm::DoPreviewImages() {
  if (!GetIsActive() || FCurrentID == 0) return;
  FIsPreview = true;
  FIsShowPreview = false;
  IToolViewerFactory* factory = IToolViewerFactory::GetFactory();
  for (TImageProcessingPreviewImage& slot : FPreviewImages)
    if (slot.Viewer && factory) factory->SetAutoUpdate(*slot.Viewer, true);
  try {
    StartCalculationSequence(std::make_unique<TIntList>(ProcessAllData ? FInputIDs : TIntList{FCurrentID}));
  } catch (...) {
    for (TImageProcessingPreviewImage& slot : FPreviewImages)
      if (slot.Viewer && factory) factory->SetAutoUpdate(*slot.Viewer, false);
    throw;
  }
  for (TImageProcessingPreviewImage& slot : FPreviewImages)
    if (slot.Viewer && factory) factory->SetAutoUpdate(*slot.Viewer, false);
}

void TProjectImageProcessingDialogForm::ShowPreviewImageForms() {
  IToolViewerFactory* factory = IToolViewerFactory::GetFactory();
  for (TImageProcessingPreviewImage& slot : FPreviewImages) {
    if (slot.Visible) {
      if (!slot.Viewer && factory) {
        slot.Viewer = AddCustomForm(factory->CreateImageViewer(*GetProject(), slot.ID, slot.ConfirmActive));
      } else if (slot.Viewer && slot.UpdateOnNextShow && factory) {
        factory->SetImageID(*slot.Viewer, slot.ID);
      }
    } else if (slot.Viewer) {
      RemoveCustomForm(slot.Viewer);
      slot.Viewer = nullptr;
    }
    slot.UpdateOnNextShow = false;
  }
}

TDImage* TProjectImageProcessingDialogForm::ExtractPreviewImage(size_t index, const std::string& caption) {
  if (index >= FPreviewImages.size() || !GetIsActive()) return nullptr;
  auto* preview = dynamic_cast<TDImage*>(GetProject()->FindData(FPreviewImages[index].ID));
  if (!preview) return nullptr;
  auto image = TDImage::CreateNewImage(GetProject(), FCurrentID, TDataFieldKind::Float, TDataSaveMode::Always,
                                       caption);
  if (!image) return nullptr;
  image->CopyFieldValuesFrom(*preview);
  return static_cast<TDImage*>(AddResult(std::move(image)));
}

bool TProjectImageProcessingDialogForm::DoCommand(const std::string& name) {
  if (name == kCalculatePreview) {
    DoPreviewImages();
    return true;
  }
  if (name != kExtract && name != kExtractAll) return false;
  FIsPreview = false;
  const bool all = name == kExtractAll || IsRunAll() || ProcessAllData;
  try {
    StartCalculationSequence(std::make_unique<TIntList>(all ? FInputIDs : TIntList{FCurrentID}));
  } catch (...) {
    FIsPreview = true;
    throw;
  }
  FIsPreview = true;
  return !FLastRunCancelled;
}

void TProjectImageProcessingDialogForm::StartCalculationSequence(std::unique_ptr<TIntList> ids) {
  if (!ids || !GetIsActive() || !FMCC) return;
  TProject& project = *GetProject();
  TImageList inputs = project.GetTypedDataListByIDList<TDImage>(*ids);
  TImageList results;
  if (!FIsPreview) SetRunInputIDs(*ids);
  FLastRunCancelled = false;
  ++FNumberOfCalculations;
  try {
    // More than one input: two progress levels (the flag reads the other way round than the graph frame's).
    FMCC->ShowSubProgress = inputs.size() > 1;
    PreCalculate(inputs, results);
    for (TDImage* result : results) result->SetAutoDataChange(false);
    FRunInputs = &inputs;
    FRunResults = &results;
    FMCC->StopCancel();
    FMCC->StartThreads(0);
    FMCC->WaitAndShowProgressOnDelay(100);
  } catch (...) {
    FRunInputs = FRunResults = nullptr;
    if (FMCC) FMCC->WaitForThreadsFinished(~0UL);
    for (TDImage* result : results) result->SetAutoDataChange(true);
    DropOwnedResults();
    project.ReleaseTypedList(inputs);
    throw;
  }
  FRunInputs = FRunResults = nullptr;
  FLastRunCancelled = FMCC->GetCancel();
  for (TDImage* result : results) {
    result->DoDataChange(TDataChangeInfo::DataChanged);
    result->SetAutoDataChange(true);
  }
  try {
    if (FIsPreview && Interactive) ShowPreviewImageForms();
    PostCalculate(inputs, results);
  } catch (...) {
    DropOwnedResults();
    project.ReleaseTypedList(inputs);
    throw;
  }
  DropOwnedResults();
  project.ReleaseTypedList(inputs);
}

void TProjectImageProcessingDialogForm::PreCalculate(TImageList& /*inputs*/, TImageList& /*results*/) {}

void TProjectImageProcessingDialogForm::CalculateThread(TMCC* /*mcc*/, int /*threadIndex*/,
                                                        TImageList& /*inputs*/, TImageList& /*results*/) {}

void TProjectImageProcessingDialogForm::PostCalculate(TImageList& /*inputs*/, TImageList& /*results*/) {}

TDImage* TProjectImageProcessingDialogForm::OwnResult(std::unique_ptr<TDImage> result) {
  if (!result) return nullptr;
  FOwnedResults.push_back(std::move(result));
  return FOwnedResults.back().get();
}

void TProjectImageProcessingDialogForm::HandOverResults(TImageList& results) {
  if (FIsPreview) return;
  if (FLastRunCancelled) {
    DropOwnedResults();
    results.clear();
    return;
  }
  for (TDImage* result : results) {
    auto it = std::find_if(FOwnedResults.begin(), FOwnedResults.end(),
                           [result](const auto& owned) { return owned.get() == result; });
    if (it == FOwnedResults.end()) continue;
    std::unique_ptr<TDImage> owned = std::move(*it);
    FOwnedResults.erase(it);
    AddResult(std::move(owned));
  }
}

void TProjectImageProcessingDialogForm::DropOwnedResults() {
  FOwnedResults.clear();
}
