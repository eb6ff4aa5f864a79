// The filter manager of older projects.
#include "viewers/Vfiltermanager.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "data/Dfilter.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Graphfilter.h"
#include "project/Filterextraction.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"

TVFilterManagerForm::TVFilterManagerForm() {
  SetFormCaption(kCaption);
  SetBounds(0, 0, 480, 360);
  FTree.AddSubTag("Version", TTagKind::Int, &ThisVersion);
}

void TVFilterManagerForm::RegisterViewer() {
  TVCustomForm::RegisterViewer(kClassName, [](TRegisteredViewer& entry) {
    entry.CreateViewer = [] { return std::make_unique<TVFilterManagerForm>(); };
    entry.IsInputIDListOkayForShowViewer = &TVFilterManagerForm::IsInputIDListOkayForShowViewer;
    entry.ShowViewer = [](TProject& project, const TIntList& ids) {
      return ShowNewViewer(project, std::make_unique<TVFilterManagerForm>(), ids);
    };
    entry.Caption = kCaption;
  });
}

bool TVFilterManagerForm::IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids) {
  return ids.size() == 1 && project.GetClassNameByID(ids.front()) == TDGraph::kClassName;
}

TDGraph* TVFilterManagerForm::FindGraph() const {
  TProject* project = GetProject();
  return project && FGraphID ? dynamic_cast<TDGraph*>(project->FindData(FGraphID)) : nullptr;
}

TIntList TVFilterManagerForm::GetFilterIDs() const {
  TIntList ids;
  TProject* project = GetProject();
  if (!project || !FGraphID) return ids;
  for (int32_t id : project->GetIDListOfAllData()) {
    const auto* filter = dynamic_cast<const TDFilter*>(project->FindData(id));
    int32_t input = 0, source = 0;
    if (filter) filter->GetIDs(input, source);
    if (filter && input == FGraphID) ids.push_back(id);
  }
  return ids;
}

namespace {
// A target that can take output values of graph: an image of its grid, or a profile of its line.
bool TargetFits(TData* target, const TDGraph& graph, TFilterResultShape shape) {
  if (shape == TFilterResultShape::Image)
    if (auto* image = dynamic_cast<TDImage*>(target))
      return image->GetSizeX() == graph.GetSizeX() && image->GetSizeY() == graph.GetSizeY();
  if (shape == TFilterResultShape::Profile)
    if (auto* profile = dynamic_cast<TDGraph*>(target))
      return profile->GetSizeX() == 1 && profile->GetSizeY() == 1 &&
             profile->GetSizeGraph() == graph.GetSizeX();
  return false;
}
} // namespace

TIntList TVFilterManagerForm::ReExtractFilters() {
  TProject* project = GetProject();
  TDGraph* graph = FindGraph();
  TIntList written;
  if (!project || !graph) return written;
  const TFilterResultShape shape = GetFilterResultShape(*graph);
  for (int32_t filterID : GetFilterIDs()) {
    auto* filter = dynamic_cast<TDFilter*>(project->FindData(filterID));
    if (!filter) continue;
    const TGraphFilterRangeStatus status = filter->PrepareCalculationForGraph(*graph);
    if (status != TGraphFilterRangeStatus::Inside && status != TGraphFilterRangeStatus::NarrowerThanStep)
      throw OrvexException(std::string(kCaption) + ": the range of filter \"" + filter->GetCaption() +
                           "\" (ID " + std::to_string(filterID) + ") can't be used on " +
                           FilterGraphName(*graph));
    TFilterExtraction extraction(*graph);
    extraction.AddDataFilter(*filter);
    const bool done = extraction.Run(kCaption);
    filter->PostpareCalculation();
    if (!done) return {};
    if (shape == TFilterResultShape::Values) continue; // a single spectrum has no targets
    for (int32_t i = 0; i < extraction.GetOutputCount(); ++i) {
      std::unique_ptr<TData> fresh = extraction.CreateResultObject(
          *project, i, FilterResultCaption(*graph, extraction.GetOutputCaption(i), ""));
      if (!fresh) continue;
      TData* target = project->FindData(filter->GetTargetID(i));
      if (target && TargetFits(target, *graph, shape)) {
        // The values go into the linked target, which keeps its ID, caption and links.
        target->SetAutoDataChange(false);
        if (auto* image = dynamic_cast<TDImage*>(target)) {
          const auto& values = extraction.GetValues(i);
          for (int32_t y = 0; y < graph->GetSizeY(); ++y) {
            image->SetLine(y, values.data() + static_cast<size_t>(y) * graph->GetSizeX());
            image->SetLineValid(y, extraction.GetLineValid(y));
          }
        } else if (auto* profile = dynamic_cast<TDGraph*>(target)) {
          profile->SetSpectrum(0, 0, extraction.GetValues(i).data());
          profile->SetLineValid(0, extraction.GetLineValid(0));
        }
        target->DoDataChange(TDataChangeInfo::DataChanged);
        target->SetAutoDataChange(true);
        written.push_back(target->GetID());
      } else {
        filter->SetTargetID(i, fresh->GetID());
        written.push_back(fresh->GetID());
        project->AddData(std::move(fresh));
      }
    }
  }
  return written;
}

TIntList TVFilterManagerForm::ExtractViewerObjects(std::string& reason) {
  if (!FindGraph()) {
    reason = "the filter manager shows no graph";
    return {};
  }
  if (GetFilterIDs().empty()) {
    reason = "no filter object works on the graph";
    return {};
  }
  TIntList ids = ReExtractFilters();
  if (ids.empty()) reason = "the filters made no images (a single spectrum, or cancelled)";
  return ids;
}

TTagError TVFilterManagerForm::SaveViewerToTagFile(TFileHandle file) {
  TTagError result = TVCustomForm::SaveViewerToTagFile(file);
  if (result < 1) return result;
  if (TTagControl* graph = FTree.FindTagInList("GraphID"))
    graph->SetOneIntTag(FGraphID);
  else
    FTree.AddSubTag("GraphID", TTagKind::Int, &FGraphID);
  return FTree.SaveTagListToFile(file);
}

TTagError TVFilterManagerForm::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TVCustomForm::LoadViewerFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl stored;
  if ((result = stored.LoadTagListByTagName(file, kClassName, parent)) != teNoError) return result;
  FTree.DeleteAllChildren();
  FTree.CopyFrom(stored);
  FTree.GetIntTagInListOrDefault("GraphID", FGraphID, 0);
  return teNoError;
}

void TVFilterManagerForm::DoDataUpdate() {
  std::string caption = kCaption;
  if (const TDGraph* graph = FindGraph()) caption += " - " + graph->GetCaption();
  SetFormCaption(caption);
  Redraw();
}

bool TVFilterManagerForm::AddDataID(int32_t id) {
  TProject* project = GetProject();
  if (!project || project->GetClassNameByID(id) != TDGraph::kClassName) return false;
  FGraphID = id;
  DoDataUpdate();
  project->ProjectChangedForSave(this);
  return true;
}

void TVFilterManagerForm::ExchangeID(int32_t oldID, int32_t newID) {
  if (FGraphID != 0 && FGraphID == oldID) {
    FGraphID = newID;
    DoDataUpdate();
  }
}

void TVFilterManagerForm::DataChanged(TData* data, TDataChangeInfo info) {
  if (!data || FGraphID == 0 || data->GetID() != FGraphID) return;
  if (info == TDataChangeInfo::Removed || info == TDataChangeInfo::AboutToBeDeleted) FGraphID = 0;
  DoDataUpdate();
}
