// Masks over the points of a spectrum, their text form and their extraction as graphs.
#include "project/Graphmask.h"

#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Projectactionform.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>

namespace {

std::string Trim(const std::string& s) {
  const size_t a = s.find_first_not_of(" \t");
  if (a == std::string::npos) return {};
  const size_t b = s.find_last_not_of(" \t");
  return s.substr(a, b - a + 1);
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

/// A whole text as one finite number (no blanks inside, "." as decimal separator).
bool ParseNumber(const std::string& text, double& value) {
  const std::string t = Trim(text);
  if (t.empty()) return false;
  const char* begin = t.data();
  if (*begin == '+') ++begin;
  const auto [end, ec] = std::from_chars(begin, t.data() + t.size(), value);
  return ec == std::errc() && end == t.data() + t.size() && std::isfinite(value);
}

bool ParseInteger(const std::string& text, long long& value) {
  const std::string t = Trim(text);
  if (t.empty()) return false;
  const char* begin = t.data();
  if (*begin == '+') ++begin;
  const auto [end, ec] = std::from_chars(begin, t.data() + t.size(), value);
  return ec == std::errc() && end == t.data() + t.size();
}

/// The shortest text that reads back to the same double.
std::string FormatNumber(double value) {
  char buffer[64];
  const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, end) : std::to_string(value);
}

/// The points a closed value range selects on an axis.
void SelectByValue(const TGraphMaskAxis& axis, double lo, double hi, std::vector<bool>& selected) {
  for (size_t i = 0; i < axis.Values.size(); ++i)
    if (axis.Values[i] >= lo && axis.Values[i] <= hi) selected[i] = true;
}

} // namespace

bool GetGraphMaskAxis(IDataProject& project, int32_t graphID, const std::string& unit, TGraphMaskAxis& axis,
                      std::string& error) {
  axis = TGraphMaskAxis();
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(graphID));
  if (!graph) {
    error = "no graph with ID " + std::to_string(graphID);
    return false;
  }
  const auto* transformation =
      dynamic_cast<const TDTransformation*>(project.FindData(graph->GetXTransformationID()));
  const int count = graph->GetSizeGraph();
  if (!transformation || count <= 0) {
    if (!unit.empty()) {
      error = "graph " + std::to_string(graphID) + " has no spectral axis to give '" + unit + "' values";
      return false;
    }
    return true;
  }
  const int32_t interpretationID = graph->GetXInterpretationID() != 0 ? graph->GetXInterpretationID()
                                                                      : transformation->GetInterpretationID();
  const auto* interpretation = dynamic_cast<const TDInterpretation*>(project.FindData(interpretationID));
  int32_t unitIndex = -1;
  if (!unit.empty()) {
    if (interpretation) {
      const auto& units = interpretation->GetUnits();
      const auto it = std::find(units.begin(), units.end(), unit);
      if (it != units.end()) unitIndex = static_cast<int32_t>(it - units.begin());
    }
    if (unitIndex < 0 && !(interpretation == nullptr && unit == transformation->GetStandardUnit())) {
      error = "the axis of graph " + std::to_string(graphID) + " has no unit '" + unit + "'";
      return false;
    }
  }
  const size_t dimension = static_cast<size_t>(std::max<int>(transformation->GetDim(), 1));
  std::vector<double> bin(std::max<size_t>(dimension, 3), 0.0), real(bin.size(), 0.0);
  axis.Values.resize(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    std::fill(bin.begin(), bin.end(), 0.0);
    bin[0] = i;
    transformation->BinToReal(bin.data(), real.data());
    axis.Values[static_cast<size_t>(i)] =
        interpretation ? interpretation->StandardTo(real[0], unitIndex) : real[0];
  }
  axis.Unit = interpretation
                  ? interpretation->UnitString(unitIndex < 0 ? interpretation->GetUnitIndex() : unitIndex)
                  : transformation->GetStandardUnit();
  return true;
}

bool ParseGraphMaskText(const std::string& text, const TGraphMaskAxis& axis, IDataProject* project,
                        std::vector<bool>& mask, std::string& error) {
  const size_t size = mask.size();
  std::vector<bool> result(size, false);
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string item =
        Trim(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    const std::string lower = Lower(item);
    if (item.empty()) {
      error = "mask text '" + text + "': empty item";
      return false;
    }
    std::vector<bool> selected(size, false);
    if (lower == "all") {
      selected.assign(size, true);
    } else if (lower == "none") {
      // Selects nothing on purpose.
    } else if (lower.rfind("graph:", 0) == 0) {
      long long id = 0;
      if (!ParseInteger(item.substr(6), id) || id <= 0 || id > INT32_MAX) {
        error = "mask item '" + item + "': graph:ID needs a positive ID";
        return false;
      }
      const auto* graph =
          project ? dynamic_cast<const TDGraph*>(project->FindData(static_cast<int32_t>(id))) : nullptr;
      if (!graph) {
        error = "mask item '" + item + "': no graph with ID " + std::to_string(id);
        return false;
      }
      if (graph->GetSizeGraph() != static_cast<int32_t>(size)) {
        error = "mask item '" + item + "': the graph has " + std::to_string(graph->GetSizeGraph()) +
                " points, the mask " + std::to_string(size);
        return false;
      }
      if (graph->GetNumberOfSpectra() < 1 || !graph->GetLineValid(0)) {
        error = "mask item '" + item + "': the graph holds no valid spectrum";
        return false;
      }
      std::vector<float> values(size);
      graph->GetSpectrum(0, 0, values.data());
      for (size_t i = 0; i < size; ++i) selected[i] = values[i] >= 0.5f;
    } else {
      const size_t colon = item.find(':');
      if (colon == std::string::npos) {
        error = "mask item '" + item + "': expected lo:hi, lo:hi px, all, none or graph:ID";
        return false;
      }
      std::string hiText = Trim(item.substr(colon + 1));
      const bool pixels = hiText.size() >= 2 && Lower(hiText.substr(hiText.size() - 2)) == "px";
      if (pixels) hiText = hiText.substr(0, hiText.size() - 2);
      double lo = 0, hi = 0;
      if (!ParseNumber(item.substr(0, colon), lo) || !ParseNumber(hiText, hi)) {
        error = "mask item '" + item + "': lo and hi must be numbers";
        return false;
      }
      if (lo > hi) {
        error = "mask item '" + item + "': lo is above hi";
        return false;
      }
      if (pixels) {
        if (lo != std::floor(lo) || hi != std::floor(hi)) {
          error = "mask item '" + item + "': point indices must be whole numbers";
          return false;
        }
        const double first = std::max(lo, 0.0), last = std::min(hi, static_cast<double>(size) - 1);
        // Compared as doubles first, so that indices far outside the mask never become integers.
        if (first <= last)
          for (size_t i = static_cast<size_t>(first); i <= static_cast<size_t>(last); ++i) selected[i] = true;
      } else {
        if (axis.Values.size() != size) {
          error = "mask item '" + item + "': the graph has no spectral axis; give point indices (lo:hi px)";
          return false;
        }
        SelectByValue(axis, lo, hi, selected);
      }
      if (std::find(selected.begin(), selected.end(), true) == selected.end()) {
        error = "mask item '" + item + "' selects no point" +
                (pixels ? " of 0.." + std::to_string(static_cast<long long>(size) - 1)
                        : (axis.Values.empty()
                               ? std::string()
                               : " (the axis runs from " + FormatNumber(axis.Values.front()) + " to " +
                                     FormatNumber(axis.Values.back()) + " " + axis.Unit + ")"));
        return false;
      }
    }
    for (size_t i = 0; i < size; ++i)
      if (selected[i]) result[i] = true;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  mask = std::move(result);
  return true;
}

std::string FormatGraphMaskText(const bool* mask, int size, const TGraphMaskAxis& axis) {
  if (!mask || size < 1) return "none";
  const int set = static_cast<int>(std::count(mask, mask + size, true));
  if (set == 0) return "none";
  if (set == size) return "all";
  const bool haveAxis = axis.Values.size() == static_cast<size_t>(size);
  std::string text;
  for (int first = 0; first < size;) {
    if (!mask[first]) {
      ++first;
      continue;
    }
    int last = first;
    while (last + 1 < size && mask[last + 1]) ++last;
    std::string item = std::to_string(first) + ":" + std::to_string(last) + " px";
    if (haveAxis) {
      // A value range serves only when it selects exactly this run: on an axis that turns back or holds a
      // value twice it would take other points too.
      const double a = axis.Values[static_cast<size_t>(first)], b = axis.Values[static_cast<size_t>(last)];
      const double lo = std::min(a, b), hi = std::max(a, b);
      bool exact = std::isfinite(lo) && std::isfinite(hi);
      for (int i = 0; exact && i < size; ++i) {
        const bool inside =
            axis.Values[static_cast<size_t>(i)] >= lo && axis.Values[static_cast<size_t>(i)] <= hi;
        exact = inside == (i >= first && i <= last);
      }
      if (exact) item = FormatNumber(lo) + ":" + FormatNumber(hi);
    }
    text += (text.empty() ? "" : ",") + item;
    first = last + 1;
  }
  return text;
}

bool ReadGraphMaskForGraph(IDataProject& project, int32_t graphID, const std::string& text,
                           const std::string& unit, std::vector<bool>& mask, std::string& error) {
  TGraphMaskAxis axis;
  if (!GetGraphMaskAxis(project, graphID, unit, axis, error)) return false;
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(graphID));
  std::vector<bool> result(static_cast<size_t>(std::max(graph->GetSizeGraph(), 0)), false);
  if (result.empty()) {
    error = "graph " + std::to_string(graphID) + " has no spectral points";
    return false;
  }
  if (!ParseGraphMaskText(text, axis, &project, result, error)) return false;
  mask = std::move(result);
  return true;
}

// ---------------------------------------------------------------------------------------------------------

TGraphMask::TGraphMask(IGraphMaskOwner* dialog, int maskSize, int numberOfMasks, int32_t graphID)
    : FDialog(dialog), FMaskSize(std::max(maskSize, 0)), FNumberOfMasks(std::max(numberOfMasks, 0)),
      FGraphID(graphID) {
  AllocateMasks();
}

TGraphMask::~TGraphMask() = default;

void TGraphMask::SetGraphFormInfo(IGraphMaskViewer* form, int index) {
  FGraphForm = form;
  FGraphFormIndex = index;
}

void TGraphMask::SetRangeControls(TIntValueSource lower, TIntValueSource upper) {
  FLower = std::move(lower);
  FUpper = std::move(upper);
}

void TGraphMask::FreeMasks() {
  FMasks.clear();
}

void TGraphMask::AllocateMasks() {
  FreeMasks();
  if (FMaskSize == 0 || FNumberOfMasks == 0) return;
  for (int i = 0; i < FNumberOfMasks; ++i) FMasks.emplace_back(new bool[static_cast<size_t>(FMaskSize)]());
}

void TGraphMask::SetNumberOfMasks(int n) {
  n = std::max(n, 0);
  if (n == FNumberOfMasks) return;
  FNumberOfMasks = n;
  AllocateMasks();
  if (FCurrentMaskIndex >= FNumberOfMasks) FCurrentMaskIndex = 0;
}

void TGraphMask::SetMaskSize(int n) {
  n = std::max(n, 0);
  if (n == FMaskSize) return;
  FMaskSize = n;
  AllocateMasks();
}

void TGraphMask::SetCurrentMaskIndex(int index) {
  if (index >= 0 && index < FNumberOfMasks) FCurrentMaskIndex = index;
}

bool* TGraphMask::GetMask(int index) {
  return index >= 0 && index < static_cast<int>(FMasks.size()) ? FMasks[static_cast<size_t>(index)].get()
                                                               : nullptr;
}

const bool* TGraphMask::GetMask(int index) const {
  return index >= 0 && index < static_cast<int>(FMasks.size()) ? FMasks[static_cast<size_t>(index)].get()
                                                               : nullptr;
}

void TGraphMask::SetCurrentMask(const bool* values) {
  bool* mask = GetCurrentMask();
  if (mask && values) std::memcpy(mask, values, static_cast<size_t>(FMaskSize) * sizeof(bool));
}

void TGraphMask::CopyCompleteMaskFrom(int index, const bool* values) {
  // Index number of masks, one past the set, is refused too: there is no array behind it.
  bool* mask = GetMask(index);
  if (FMaskSize >= 1 && mask && values)
    std::memcpy(mask, values, static_cast<size_t>(FMaskSize) * sizeof(bool));
}

bool TGraphMask::IsMaskEqual(const bool* values, int index) const {
  const bool* mask = GetMask(index);
  return mask && values && std::equal(mask, mask + FMaskSize, values);
}

void TGraphMask::SetMask(const bool* values) {
  if (!values || !GetCurrentMask()) return;
  SetCurrentMask(values);
  MaskChanged();
}

void TGraphMask::CopyMaskToArray(bool* values, int index) const {
  const bool* mask = GetMask(index);
  if (mask && values) std::memcpy(values, mask, static_cast<size_t>(FMaskSize) * sizeof(bool));
}

template <class F>
void TGraphMask::ForEachTarget(F&& f) {
  if (FApplyToAll) {
    for (auto& mask : FMasks) f(mask.get());
  } else if (bool* mask = GetCurrentMask()) {
    f(mask);
  }
}

void TGraphMask::SetAll() {
  if (FMasks.empty()) return;
  ForEachTarget([&](bool* m) { std::fill(m, m + FMaskSize, true); });
  MaskChanged();
}

void TGraphMask::ClearAll() {
  if (FMasks.empty()) return;
  ForEachTarget([&](bool* m) { std::fill(m, m + FMaskSize, false); });
  MaskChanged();
}

void TGraphMask::InvertAll() {
  if (FMasks.empty()) return;
  ForEachTarget([&](bool* m) {
    for (int i = 0; i < FMaskSize; ++i) m[i] = !m[i];
  });
  MaskChanged();
}

void TGraphMask::Set(int index) {
  if (!IsValueValid(index)) return;
  ForEachTarget([&](bool* m) { m[index] = true; });
  MaskChanged();
}

void TGraphMask::Clear(int index) {
  if (!IsValueValid(index)) return;
  ForEachTarget([&](bool* m) { m[index] = false; });
  MaskChanged();
}

void TGraphMask::SetMaskRange(int first, int last) {
  if (!IsRangeValid(first, last)) return;
  ForEachTarget([&](bool* m) { std::fill(m + first, m + last + 1, true); });
  MaskChanged();
}

void TGraphMask::ClearMaskRange(int first, int last) {
  if (!IsRangeValid(first, last)) return;
  ForEachTarget([&](bool* m) { std::fill(m + first, m + last + 1, false); });
  MaskChanged();
}

void TGraphMask::CropMaskRange(int first, int last) {
  if (!IsRangeValid(first, last)) return;
  ForEachTarget([&](bool* m) {
    for (int i = 0; i < FMaskSize; ++i) m[i] = i >= first && i <= last;
  });
  MaskChanged();
}

bool TGraphMask::IsMaskCleared() const {
  const bool* mask = GetMask(FCurrentMaskIndex);
  return !mask || std::none_of(mask, mask + FMaskSize, [](bool b) { return b; });
}

bool TGraphMask::IsRangeValid(int first, int last) const {
  return FMaskSize >= 1 && FNumberOfMasks >= 1 && first >= 0 && last >= first && first < FMaskSize &&
         last < FMaskSize;
}

bool TGraphMask::IsValueValid(int index) const {
  return FMaskSize >= 1 && FNumberOfMasks >= 1 && index >= 0 && index < FMaskSize;
}

bool TGraphMask::IsRangeValid() const {
  if (!FLower || !FUpper || FMaskSize < 1 || FNumberOfMasks < 1) return false;
  const int lower = FLower(), upper = FUpper();
  return lower >= 0 && lower < upper && lower < FMaskSize && upper <= FMaskSize;
}

bool TGraphMask::IsValueValid() const {
  return FOneValue && IsValueValid(FOneValue());
}

bool TGraphMask::IsRangeFilledWithValue(int first, int last, bool value) const {
  if (last < first) return true;
  const bool* mask = GetMask(FCurrentMaskIndex);
  if (!mask || first < 0 || last >= FMaskSize) return false;
  return std::all_of(mask + first, mask + last + 1, [value](bool b) { return b == value; });
}

IDataProject* TGraphMask::Project() const {
  if (FDialog) return FDialog->GetMaskProject();
  TProjectActionForm* main = TProjectActionForm::Instance();
  return main ? &main->Project() : nullptr;
}

std::vector<int32_t> TGraphMask::ExtractMask() {
  std::vector<int32_t> ids;
  if (FMaskSize < 1 || FNumberOfMasks < 1) return ids;
  IDataProject* project = Project();
  if (!project) return ids;
  for (int index = 0; index < FNumberOfMasks; ++index) {
    if (!FApplyToAll && index != FCurrentMaskIndex) continue;
    const bool* mask = GetMask(index);
    if (!mask) continue;
    const std::string caption = FNumberOfMasks > 1 ? FMaskName + " " + std::to_string(index) : FMaskName;
    // The template stays locked while the mask graph is made from it, so it can't go away meanwhile.
    TData* locked = project->LockData(FGraphID);
    if (!dynamic_cast<TDGraph*>(locked)) {
      if (locked) project->UnlockData(locked);
      continue;
    }
    std::unique_ptr<TDGraph> graph = TDGraph::CreateNewGraph(project, FGraphID, true, TDataFieldKind::Float,
                                                             TDataSaveMode::Always, caption);
    if (graph) {
      graph->GetMetaData().AddSubTag("DataCategories|Mask", TTagKind::TagList);
      graph->SetFieldSize(1, 1, TDataFieldKind::Float, FMaskSize);
      graph->SetLineValid(0, true);
      graph->SetImageIndex(6);
      std::vector<float> values(static_cast<size_t>(FMaskSize));
      for (int i = 0; i < FMaskSize; ++i) values[static_cast<size_t>(i)] = mask[i] ? 1.0f : 0.0f;
      graph->SetSpectrum(0, 0, values.data());
      ids.push_back(graph->GetID());
      project->AddData(std::move(graph));
    }
    project->UnlockData(locked);
  }
  return ids;
}

void TGraphMask::MaskChanged() {
  if (FOnMaskChange) FOnMaskChange(FCurrentMaskIndex);
  if (FGraphID != 0 && FGraphForm) {
    const int index = FGraphFormIndex != -1 ? FGraphFormIndex : FCurrentMaskIndex;
    if (index >= 0) {
      FGraphForm->SetMultiMask(FGraphID, index, 0, -1, GetCurrentMask());
      FGraphForm->HideMarker();
    }
  }
}

bool TGraphMask::SetMaskFromText(const std::string& text, std::string& error, const std::string& unit) {
  if (FMasks.empty()) {
    error = "the mask has no points";
    return false;
  }
  TGraphMaskAxis axis;
  IDataProject* project = Project();
  if (project && FGraphID != 0) {
    if (!GetGraphMaskAxis(*project, FGraphID, unit, axis, error)) return false;
  } else if (!unit.empty()) {
    error = "the mask has no graph whose axis could give '" + unit + "' values";
    return false;
  }
  std::vector<bool> parsed(static_cast<size_t>(FMaskSize), false);
  if (!ParseGraphMaskText(text, axis, project, parsed, error)) return false;
  ForEachTarget([&](bool* m) {
    for (int i = 0; i < FMaskSize; ++i) m[i] = parsed[static_cast<size_t>(i)];
  });
  MaskChanged();
  return true;
}

std::string TGraphMask::GetMaskText(int index, std::string& error, const std::string& unit) const {
  const bool* mask = GetMask(index);
  if (!mask) {
    error = "no mask " + std::to_string(index);
    return {};
  }
  TGraphMaskAxis axis;
  IDataProject* project = Project();
  if (project && FGraphID != 0 && !GetGraphMaskAxis(*project, FGraphID, unit, axis, error)) return {};
  if (axis.Values.size() != static_cast<size_t>(FMaskSize)) axis = TGraphMaskAxis();
  return FormatGraphMaskText(mask, FMaskSize, axis);
}

void TGraphMask::RunButton(int tag, bool (TGraphMask::*check)() const,
                           const std::function<void()>& operation) {
  if (!FDialog || !FDialog->IsMaskOwnerActive() || !(this->*check)()) return;
  if (tag == -1) {
    const bool previous = FApplyToAll;
    FApplyToAll = true;
    operation();
    FApplyToAll = previous;
    return;
  }
  if (tag < 0 || tag >= FNumberOfMasks) return;
  FRememberedMaskIndex = FCurrentMaskIndex;
  FCurrentMaskIndex = tag;
  operation();
  FCurrentMaskIndex = FRememberedMaskIndex;
}

void TGraphMask::SetButtonClick(int tag) {
  RunButton(tag, &TGraphMask::IsValueValid, [this] { Set(FOneValue()); });
}

void TGraphMask::ClearButtonClick(int tag) {
  RunButton(tag, &TGraphMask::IsValueValid, [this] { Clear(FOneValue()); });
}

void TGraphMask::SetAllButtonClick(int tag) {
  RunButton(tag, &TGraphMask::AlwaysValid, [this] { SetAll(); });
}

void TGraphMask::ClearAllButtonClick(int tag) {
  RunButton(tag, &TGraphMask::AlwaysValid, [this] { ClearAll(); });
}

void TGraphMask::InvertAllButtonClick(int tag) {
  RunButton(tag, &TGraphMask::AlwaysValid, [this] { InvertAll(); });
}

void TGraphMask::SetRangeButtonClick(int tag) {
  RunButton(tag, &TGraphMask::IsRangeValid, [this] { SetMaskRange(FLower(), FUpper() - 1); });
}

void TGraphMask::ClearRangeButtonClick(int tag) {
  RunButton(tag, &TGraphMask::IsRangeValid, [this] { ClearMaskRange(FLower(), FUpper() - 1); });
}

void TGraphMask::CropRangeButtonClick(int tag) {
  RunButton(tag, &TGraphMask::IsRangeValid, [this] { CropMaskRange(FLower(), FUpper() - 1); });
}

void TGraphMask::ExtractButtonClick(int tag) {
  RunButton(tag, &TGraphMask::AlwaysValid, [this] { ExtractMask(); });
}
