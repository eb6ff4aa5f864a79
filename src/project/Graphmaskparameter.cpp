#include "project/Graphmaskparameter.h"

#include "common/OrvexException.h"
#include "data/Dgraph.h"

TGraphMaskParameterLink::TGraphMaskParameterLink(TUserStringParameter& parameter, IDataProject& project,
                                                 int32_t graphID, int bandIndex, TViewerSource viewer)
    : FParameter(parameter), FProject(project), FBandIndex(bandIndex), FViewer(std::move(viewer)) {
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(graphID));
  if (!graph || graph->GetSizeGraph() < 1)
    throw OrvexException("TGraphMaskParameterLink: no graph with spectral points has the ID " +
                         std::to_string(graphID));
  FMask = std::make_unique<TGraphMask>(this, graph->GetSizeGraph(), 1, graphID);
  FMask->SetMaskName(parameter.GetName());
  FMask->SetGraphFormInfo(this, bandIndex);
  FMask->SetOnMaskChangeEvent([this](int) { WriteText(); });
  ReadText();
  FParameter.AddInputMask(this);
}

TGraphMaskParameterLink::~TGraphMaskParameterLink() {
  FParameter.RemoveInputMask(this);
}

void TGraphMaskParameterLink::ReadText() {
  FReading = true;
  std::string error;
  const bool ok = FMask->SetMaskFromText(FParameter.GetParameter(), error);
  FReading = false;
  FTextError = ok ? std::string() : error;
}

void TGraphMaskParameterLink::ShowBand() {
  FReading = true;
  FMask->MaskChanged();
  FReading = false;
}

void TGraphMaskParameterLink::WriteText() {
  // A text being read tells the mask's change too; that must not write the text back.
  if (FReading || FWriting) return;
  std::string error;
  const std::string text = FMask->GetMaskText(0, error);
  if (text.empty()) return;
  FWriting = true;
  ++FWriteCount;
  bool taken = false;
  try {
    taken = FParameter.SetParameter(text);
  } catch (...) {
    FWriting = false;
    throw;
  }
  FWriting = false;
  // A refused text leaves the parameter as it was: the mask follows it back.
  if (!taken) {
    ReadText();
    return;
  }
  FTextError.clear();
  if (OnTextWritten) OnTextWritten();
}

void TGraphMaskParameterLink::ShowParameter(const TUserParameter& /*parameter*/) {
  // The parameter tells its own value after a write from the mask: the mask holds it already.
  if (FWriting || FReading) return;
  ReadText();
}

void TGraphMaskParameterLink::ShowState(bool /*enabled*/, bool /*visible*/,
                                        TUserParameterFontColor /*fontColor*/) {}

void TGraphMaskParameterLink::SetMultiMask(int32_t graphID, int bandIndex, int firstPoint, int lastPoint,
                                           const bool* mask) {
  IGraphMaskViewer* viewer = FViewer ? FViewer() : nullptr;
  if (!viewer) return;
  // A mask over every point shows no band: tinting the whole plot tells nothing and dims the curves.
  bool everyPoint = mask != nullptr;
  for (int i = 0; everyPoint && i < FMask->GetMaskSize(); ++i) everyPoint = mask[i];
  viewer->SetMultiMask(graphID, bandIndex, firstPoint, lastPoint, everyPoint ? nullptr : mask);
}

void TGraphMaskParameterLink::HideMarker() {
  if (IGraphMaskViewer* viewer = FViewer ? FViewer() : nullptr) viewer->HideMarker();
}
