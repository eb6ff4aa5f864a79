// The mask toolbar's logic.
#include "project/Graphmasktoolbar.h"

#include "project/Graphmask.h"

#include <cstddef>
#include <memory>

uint32_t GraphMaskBandColor(int bandIndex) {
  static constexpr uint32_t kColors[] = {
      0x0040C000, // green
      0x000090FF, // orange
      0x00C04090, // violet
  };
  const int n = static_cast<int>(std::size(kColors));
  return kColors[static_cast<size_t>(((bandIndex % n) + n) % n)];
}

TGraphMaskToolBar::TGraphMaskToolBar(TGraphMask* mask, int colorIndex, int size)
    : FMask(mask), FColorIndex(colorIndex), FSize(size) {}

const std::vector<TGraphMaskButtonInfo>& TGraphMaskToolBar::Buttons() {
  static const std::vector<TGraphMaskButtonInfo> buttons = {
      {TGraphMaskCommand::Set, "Set", "Set the point of the value"},
      {TGraphMaskCommand::Clear, "Clear", "Clear the point of the value"},
      {TGraphMaskCommand::SetAll, "Set All", "Set every point"},
      {TGraphMaskCommand::ClearAll, "Clear All", "Clear every point"},
      {TGraphMaskCommand::InvertAll, "Invert All", "Toggle every point"},
      {TGraphMaskCommand::SetRange, "Set Range", "Set the points from the lower to below the upper value"},
      {TGraphMaskCommand::ClearRange, "Clear Range",
       "Clear the points from the lower to below the upper value"},
      {TGraphMaskCommand::CropRange, "Crop Range",
       "Keep only the points from the lower to below the upper value"},
      {TGraphMaskCommand::Extract, "Extract", "Extract the mask as a graph of zeros and ones"},
  };
  return buttons;
}

void TGraphMaskToolBar::SetGraphMask(TGraphMask* mask, int index) {
  FMask = mask;
  FMaskIndex = index;
}

bool TGraphMaskToolBar::Click(TGraphMaskCommand command) {
  if (!FMask) return false;
  const int tag = FMaskIndex;
  switch (command) {
  case TGraphMaskCommand::Set:
    FMask->SetButtonClick(tag);
    break;
  case TGraphMaskCommand::Clear:
    FMask->ClearButtonClick(tag);
    break;
  case TGraphMaskCommand::SetAll:
    FMask->SetAllButtonClick(tag);
    break;
  case TGraphMaskCommand::ClearAll:
    FMask->ClearAllButtonClick(tag);
    break;
  case TGraphMaskCommand::InvertAll:
    FMask->InvertAllButtonClick(tag);
    break;
  case TGraphMaskCommand::SetRange:
    FMask->SetRangeButtonClick(tag);
    break;
  case TGraphMaskCommand::ClearRange:
    FMask->ClearRangeButtonClick(tag);
    break;
  case TGraphMaskCommand::CropRange:
    FMask->CropRangeButtonClick(tag);
    break;
  case TGraphMaskCommand::Extract:
    FMask->ExtractButtonClick(tag);
    break;
  }
  return true;
}

uint32_t TGraphMaskToolBar::GetColor() const {
  return GraphMaskBandColor(FColorIndex);
}

bool TGraphMaskToolBar::ReadValue(const std::string& value, std::vector<bool>& points,
                                  std::string& reason) const {
  if (!FMask || FMask->GetMaskSize() < 1 || FMask->GetNumberOfMasks() < 1) {
    reason = "there is no mask";
    return false;
  }
  TGraphMaskAxis axis;
  if (FProject && FMask->GetGraphID() != 0 &&
      !GetGraphMaskAxis(*FProject, FMask->GetGraphID(), "", axis, reason))
    return false;
  if (!axis.Values.empty() && static_cast<int>(axis.Values.size()) != FMask->GetMaskSize()) axis = {};
  points.assign(static_cast<size_t>(FMask->GetMaskSize()), false);
  return ParseGraphMaskText(value, axis, FProject, points, reason);
}

bool TGraphMaskToolBar::ToolButtonDragOver(TGraphMaskCommand command, const std::string& value,
                                           std::string& reason) const {
  if (command == TGraphMaskCommand::SetAll || command == TGraphMaskCommand::ClearAll ||
      command == TGraphMaskCommand::InvertAll || command == TGraphMaskCommand::Extract) {
    reason = "this button takes no value";
    return false;
  }
  std::vector<bool> points;
  return ReadValue(value, points, reason);
}

bool TGraphMaskToolBar::ToolButtonDragDrop(TGraphMaskCommand command, const std::string& value,
                                           std::string& reason) {
  std::vector<bool> points;
  if (!ToolButtonDragOver(command, value, reason) || !ReadValue(value, points, reason)) return false;
  const int size = FMask->GetMaskSize();
  const int first = FMaskIndex < 0 ? 0 : FMaskIndex;
  const int last = FMaskIndex < 0 ? FMask->GetNumberOfMasks() - 1 : FMaskIndex;
  if (first >= FMask->GetNumberOfMasks()) {
    reason = "the mask " + std::to_string(FMaskIndex) + " does not exist";
    return false;
  }
  std::unique_ptr<bool[]> values(new bool[static_cast<size_t>(size)]);
  for (int m = first; m <= last; ++m) {
    const bool* mask = FMask->GetMask(m);
    for (int i = 0; i < size; ++i) {
      const bool old = mask[i], p = points[static_cast<size_t>(i)];
      bool now = old;
      switch (command) {
      case TGraphMaskCommand::Set:
      case TGraphMaskCommand::SetRange:
        now = old || p;
        break;
      case TGraphMaskCommand::Clear:
      case TGraphMaskCommand::ClearRange:
        now = old && !p;
        break;
      case TGraphMaskCommand::CropRange:
        now = p;
        break;
      default:
        break;
      }
      values[static_cast<size_t>(i)] = now;
    }
    FMask->CopyCompleteMaskFrom(m, values.get());
  }
  // One report for the drop, with the buttons' mask current while it is told.
  const int current = FMask->GetCurrentMaskIndex();
  FMask->SetCurrentMaskIndex(first);
  FMask->MaskChanged();
  FMask->SetCurrentMaskIndex(current);
  return true;
}
