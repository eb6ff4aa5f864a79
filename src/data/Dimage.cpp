// Images: field orientation, lines, statistics, interpolation and the file form.
#include "data/Dimage.h"

#include "common/Logfile.h"

#include <algorithm>
#include <cmath>

TDImage::TDImage() {
  SetCaption("Image");
  SetImageIndex(0);
  SetFieldSize(0, 0, TDataFieldKind::Float, true);
}

TDImage::~TDImage() = default;

std::unique_ptr<TDImage> TDImage::CreateNewImage(IDataProject* project, int32_t templateID,
                                                 TDataFieldKind kind, TDataSaveMode saveMode,
                                                 const std::string& caption) {
  if (!project) return nullptr;
  TData* data = project->LockData(templateID);
  auto* base = dynamic_cast<TDImageBase*>(data);
  if (!base) {
    if (data) project->UnlockData(data);
    return nullptr;
  }
  auto image = std::make_unique<TDImage>();
  image->SetFieldSize(base->GetSizeX(), base->GetSizeY(), kind, true);
  image->SetSpaceTransformationID(base->GetSpaceTransformationID());
  image->SetZInterpretationID(base->GetZInterpretationID());
  image->SetImageIndex(base->GetImageIndex());
  project->UnlockData(data);
  image->SetSaveMode(saveMode);
  image->SetCaption(caption);
  image->SetID(project->GetNewDataID());
  return image;
}

std::unique_ptr<TDImage> TDImage::CreateResultImage(IDataProject& project, int32_t templateID,
                                                    TDataFieldKind kind, const TResultInfo& info) {
  const TData* source = project.FindData(templateID);
  const std::string baseCaption = source ? source->GetCaption() : std::string();
  auto image = CreateNewImage(&project, templateID, kind, info.SaveMode, baseCaption);
  if (image) ApplyResultInfo(*image, baseCaption, info);
  return image;
}

void TDImage::ResizeLineArrays() {
  const auto n = static_cast<size_t>(std::max(FSizeY, 0));
  for (auto* line : {&FLineAverage, &FLineSumSqr, &FLineSum, &FLineA, &FLineB}) line->assign(n, 0.0);
  FLineChanged.assign(n, true);
  FLineValid.assign(n, false);
}

void TDImage::SetFieldSize(int32_t sizeX, int32_t sizeY, TDataFieldKind kind, bool inverted) {
  if (FField && sizeX == FSizeX && sizeY == FSizeY && FField->GetLastDataFieldKind() == kind &&
      inverted == FInverted)
    return;
  FreeField();
  FField = inverted ? std::make_unique<TDataField>(std::initializer_list<int32_t>{sizeY, sizeX}, kind)
                    : std::make_unique<TDataField>(std::initializer_list<int32_t>{sizeX, sizeY}, kind);
  FSizeX = sizeX;
  FSizeY = sizeY;
  FInverted = inverted;
  ResizeLineArrays();
}

void TDImage::FreeField() {
  FField.reset();
}

void TDImage::Index(int32_t x, int32_t y, int32_t* index) const {
  if (FInverted) {
    index[0] = y;
    index[1] = x;
  } else {
    index[0] = x;
    index[1] = y;
  }
}

float TDImage::GetField(int32_t x, int32_t y) const {
  if (x < 0 || x >= FSizeX || !GetLineValid(y)) return 0;
  return GetFastField(x, y);
}

float TDImage::GetFastField(int32_t x, int32_t y) const {
  int32_t index[2];
  Index(x, y, index);
  return FField->GetValue(index);
}

void TDImage::SetField(int32_t x, int32_t y, float value) {
  if (x < 0 || x >= FSizeX || !LineInside(y)) return;
  int32_t index[2];
  Index(x, y, index);
  FField->SetValue(index, value);
  FLineChanged[static_cast<size_t>(y)] = true;
}

void TDImage::GetFastLine(int32_t y, float* values) const {
  if (FInverted) {
    const int32_t index[2] = {y, 0};
    FField->GetValueArray(index, values, FSizeX);
  } else {
    for (int32_t x = 0; x < FSizeX; ++x) values[x] = GetFastField(x, y);
  }
}

void TDImage::GetLine(int32_t y, float* values) const {
  if (!GetLineValid(y)) {
    std::fill(values, values + FSizeX, 0.0f);
    return;
  }
  GetFastLine(y, values);
}

void TDImage::SetLine(int32_t y, const float* values) {
  if (!LineInside(y)) return;
  if (FInverted) {
    const int32_t index[2] = {y, 0};
    FField->SetValueArray(index, values, FSizeX);
  } else {
    for (int32_t x = 0; x < FSizeX; ++x) {
      const int32_t index[2] = {x, y};
      FField->SetValue(index, values[x]);
    }
  }
  FLineChanged[static_cast<size_t>(y)] = true;
}

void TDImage::FillField(float value) {
  std::vector<float> line(static_cast<size_t>(FSizeX), value);
  for (int32_t y = 0; y < FSizeY; ++y) SetLine(y, line.data());
}

void TDImage::SetFieldValues(float value) {
  const bool autoChange = GetAutoDataChange();
  SetAutoDataChange(false);
  SetAllLinesValid(true);
  FillField(value);
  DoDataChange(TDataChangeInfo::DataChanged);
  SetAutoDataChange(autoChange);
  if (!autoChange) return;
  SetAutoDataChange(true);
}

void TDImage::CopyFieldValuesToDataField(TDataField& field) const {
  std::vector<float> line(static_cast<size_t>(FSizeX));
  for (int32_t y = 0; y < FSizeY; ++y) {
    GetFastLine(y, line.data());
    const int32_t index[2] = {y, 0};
    field.SetValueArray(index, line.data(), FSizeX);
  }
}

void TDImage::CopyFieldValuesFromDataField(const TDataField& field) {
  std::vector<float> line(static_cast<size_t>(FSizeX));
  for (int32_t y = 0; y < FSizeY; ++y) {
    const int32_t index[2] = {y, 0};
    field.GetValueArray(index, line.data(), FSizeX);
    SetLine(y, line.data());
  }
}

void TDImage::CopyFieldValuesFrom(const TDImage& image) {
  if (image.GetSizeX() != FSizeX || image.GetSizeY() != FSizeY) return;
  std::vector<float> line(static_cast<size_t>(FSizeX));
  for (int32_t y = 0; y < FSizeY; ++y) {
    image.GetFastLine(y, line.data());
    SetLine(y, line.data());
    SetLineValid(y, image.GetLineValid(y));
  }
}

bool TDImage::IsDataPointInside(double x, double y) const {
  return x >= -0.0001 && x <= FSizeX - 1 + 0.0001 && y >= -0.0001 && y <= FSizeY - 1 + 0.0001;
}

bool TDImage::IsSameSize(const TDImage& image, bool withTransformation) const {
  return FSizeX == image.FSizeX && FSizeY == image.FSizeY &&
         (!withTransformation || FSpaceTransformationID == image.FSpaceTransformationID);
}

bool TDImage::ImagesHaveSameParameters(const TDImage& a, const TDImage& b) {
  return a.IsSameSize(b, true) && a.FZInterpretationID == b.FZInterpretationID;
}

bool TDImage::IsImageIDListOkay(IDataProject* project, const TIntList& idList, int32_t minCount,
                                int32_t maxCount, bool sameSize, bool sameSpaceTransformation,
                                bool sameZInterpretation, bool mustHaveTransformation) {
  if (!project || idList.empty()) return false;
  const auto count = static_cast<int32_t>(idList.size());
  if ((minCount >= 0 && count < minCount) || (maxCount >= 0 && count > maxCount)) return false;
  const TDImage* first = nullptr;
  for (int32_t id : idList) {
    const TData* data = project->FindData(id);
    if (!data || data->GetClassNameA() != kClassName) return false;
    const auto* image = static_cast<const TDImage*>(data);
    if (mustHaveTransformation && image->FSpaceTransformationID == 0) return false;
    if (!first) {
      first = image;
      continue;
    }
    if ((sameSize && !image->IsSameSize(*first, false)) ||
        (sameSpaceTransformation && image->FSpaceTransformationID != first->FSpaceTransformationID) ||
        (sameZInterpretation && image->FZInterpretationID != first->FZInterpretationID))
      return false;
  }
  return true;
}

bool TDImage::GetMinMaxValuesForValidPixels(float& min, float& max) const {
  bool any = false;
  std::vector<float> line(static_cast<size_t>(FSizeX));
  for (int32_t y = 0; y < FSizeY; ++y) {
    if (!GetLineValid(y)) continue;
    GetFastLine(y, line.data());
    for (float v : line) {
      if (!any) {
        min = max = v;
        any = true;
      }
      min = std::min(min, v);
      max = std::max(max, v);
    }
  }
  return any;
}

namespace {

// Bilinear interpolation at (x, y), clamped into a grid of sizeX × sizeY: at(i, j) gives a value,
// rowValid(j) tells whether row j may take part. The last column and the last row interpolate along the
// other axis only; where rows are missing, corner(i, j) gives the value.
template <class At, class RowValid, class Corner>
float Bilinear(double x, double y, int32_t sizeX, int32_t sizeY, At at, RowValid rowValid, Corner corner) {
  if (sizeX <= 0 || sizeY <= 0) return 0;
  x = std::clamp(x, 0.0, double(sizeX - 1));
  y = std::clamp(y, 0.0, double(sizeY - 1));
  const auto i = static_cast<int32_t>(x);
  const auto j = static_cast<int32_t>(y);
  const double fx = x - i, fy = y - j;
  if (i < sizeX - 1 && j < sizeY - 1 && rowValid(j) && rowValid(j + 1))
    return static_cast<float>((1 - fx) * (1 - fy) * at(i, j) + fx * (1 - fy) * at(i + 1, j) +
                              fx * fy * at(i + 1, j + 1) + (1 - fx) * fy * at(i, j + 1));
  if (i == sizeX - 1 && j < sizeY - 1 && rowValid(j) && rowValid(j + 1))
    return static_cast<float>((1 - fy) * at(i, j) + fy * at(i, j + 1));
  if (j == sizeY - 1 && i < sizeX - 1 && rowValid(j))
    return static_cast<float>((1 - fx) * at(i, j) + fx * at(i + 1, j));
  return corner(i, j);
}

} // namespace

float TDImage::GetInterpolatedField(double x, double y) const {
  return Bilinear(
      x, y, FSizeX, FSizeY, [this](int32_t a, int32_t b) { return double(GetFastField(a, b)); },
      [this](int32_t row) { return GetLineValid(row); },
      [this](int32_t a, int32_t b) { return GetField(a, b); });
}

float TDImage::GetInterpolatedValueFromImageArray(double x, double y, int32_t sizeX, int32_t sizeY,
                                                  const float* values) {
  auto at = [&](int32_t a, int32_t b) { return double(values[int64_t(b) * sizeX + a]); };
  return Bilinear(
      x, y, sizeX, sizeY, at, [](int32_t) { return true; },
      [&](int32_t a, int32_t b) { return static_cast<float>(at(a, b)); });
}

void TDImage::CalculateLineInformation(int32_t y) {
  if (!LineInside(y)) return;
  std::vector<float> line(static_cast<size_t>(FSizeX));
  GetFastLine(y, line.data());
  double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0, syy = 0;
  for (int32_t x = 0; x < FSizeX; ++x) {
    const double v = line[static_cast<size_t>(x)];
    n += 1;
    sx += x;
    sy += v;
    sxx += double(x) * x;
    sxy += x * v;
    syy += v * v;
  }
  const double d = n * sxx - sx * sx;
  if (d == 0 || n == 0) {
    // A single-pixel line gives infinities, not an abort.
    if (GlobalLogFile) GlobalLogFile->AddLog("TDImage Division by Zero Error!", TLogLevel::Warning, false, 0);
  }
  const auto k = static_cast<size_t>(y);
  FLineA[k] = (sxx * sy - sx * sxy) / d;
  FLineB[k] = (n * sxy - sx * sy) / d;
  FLineAverage[k] = sy / n;
  FLineSum[k] = sy;
  FLineSumSqr[k] = syy;
}

void TDImage::CalculateLineInformationForAllValidLines() {
  for (int32_t y = 0; y < FSizeY; ++y)
    if (GetLineValid(y) && GetLineChanged(y)) CalculateLineInformation(y);
  CalculateImageStatistics();
}

void TDImage::CalculateImageStatistics() {
  double sum = 0, squares = 0;
  int64_t validLines = 0;
  for (int32_t y = 0; y < FSizeY; ++y) {
    if (!GetLineValid(y)) continue;
    sum += FLineSum[static_cast<size_t>(y)];
    squares += FLineSumSqr[static_cast<size_t>(y)];
    ++validLines;
  }
  if (validLines == 0 || FSizeX == 0) return;
  const double count = double(FSizeX) * double(validLines);
  FAverage = sum / count;
  const double meanSquare = squares / count;
  FDeviation = std::sqrt(std::fabs(FAverage * FAverage - meanSquare));
}

void TDImage::DoDataChange(TDataChangeInfo info) {
  if (info == TDataChangeInfo::DataChanged && GetAutoDataChange()) CalculateLineInformationForAllValidLines();
  TDImageBase::DoDataChange(info);
}

void TDImage::AfterOnDataChange() {
  std::fill(FLineChanged.begin(), FLineChanged.end(), false);
}

std::unique_ptr<TDataField> TDImage::MakeTransposedCopy(bool inverted) const {
  auto copy = inverted ? std::make_unique<TDataField>(std::initializer_list<int32_t>{FSizeY, FSizeX},
                                                      FField->GetLastDataFieldKind())
                       : std::make_unique<TDataField>(std::initializer_list<int32_t>{FSizeX, FSizeY},
                                                      FField->GetLastDataFieldKind());
  std::vector<float> line(static_cast<size_t>(FSizeX));
  for (int32_t y = 0; y < FSizeY; ++y) {
    GetFastLine(y, line.data());
    for (int32_t x = 0; x < FSizeX; ++x) {
      const int32_t index[2] = {inverted ? y : x, inverted ? x : y};
      copy->SetValue(index, line[static_cast<size_t>(x)]);
    }
  }
  return copy;
}

// ---------------------------------------------------------------------------------------------
// File form

TTagError TDImage::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDImageBase::SaveDataToTagFile(file);
  if (result < 1) return result;
  const int32_t version = TFileVersion::SaveVersion < 6 ? 0 : ThisVersion;
  TTagControl own, t;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", version)) < 1 ||
      (result = t.SaveIntTag(file, "SizeX", FSizeX)) < 1 ||
      (result = t.SaveIntTag(file, "SizeY", FSizeY)) < 1 ||
      (result = t.SaveIntTag(file, "PositionTransformationID", FSpaceTransformationID)) < 1 ||
      (result = t.SaveIntTag(file, "ZInterpretationID", FZInterpretationID)) < 1 ||
      (result = t.SaveDoubleTag(file, "Average", FAverage)) < 1 ||
      (result = t.SaveDoubleTag(file, "Deviation", FDeviation)) < 1 ||
      (result = t.SaveDoubleTag(file, "LineAverage", FLineAverage.data(), FSizeY)) < 1 ||
      (result = t.SaveDoubleTag(file, "LineSumSqr", FLineSumSqr.data(), FSizeY)) < 1 ||
      (result = t.SaveDoubleTag(file, "LineSum", FLineSum.data(), FSizeY)) < 1 ||
      (result = t.SaveDoubleTag(file, "LineA", FLineA.data(), FSizeY)) < 1 ||
      (result = t.SaveDoubleTag(file, "LineB", FLineB.data(), FSizeY)) < 1 ||
      (result = SaveBoolVectorTag(file, "LineChanged", FLineChanged)) < 1 ||
      (result = SaveBoolVectorTag(file, "LineValid", FLineValid)) < 1)
    return result;
  IProgressAndCancel* const progress = FieldProgress();
  if (version >= 1) {
    if ((result = t.SaveBoolTag(file, "ImageDataIsInverted", true)) < 1 ||
        (result = SaveDataFieldToTagFile(file, "ImageData", *FField, progress)) < 1)
      return result;
  } else {
    // Old software reads only the non-inverted orientation.
    const auto copy = FInverted ? MakeTransposedCopy(false) : nullptr;
    if ((result = SaveDataFieldToTagFile(file, "ImageData", copy ? *copy : *FField, progress)) < 1)
      return result;
  }
  return own.CloseWriteTag(file);
}

TTagError TDImage::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDImageBase::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.FindTag(file, kClassName, parent)) < 1) return result;
  FreeField();
  int32_t sizeX = 0, sizeY = 0;
  if ((result = t.LoadIntTag(file, "Version", own, &FVersion, 1)) < 1 ||
      (result = t.LoadIntTag(file, "SizeX", own, &sizeX, 1)) < 1 ||
      (result = t.LoadIntTag(file, "SizeY", own, &sizeY, 1)) < 1 ||
      (result = t.LoadIntTag(file, "PositionTransformationID", own, &FSpaceTransformationID, 1)) < 1)
    return result;
  if (sizeX < 0 || sizeY < 0) return teReadFileError;
  t.LoadOrDefaultIntTag(file, "ZInterpretationID", own, &FZInterpretationID, 1, 0);
  // Line arrays must hold size Y values: refuse sizes the tags can't back before allocating.
  TTagControl probe;
  if (probe.FindTag(file, "LineValid", own) < 1 || probe.End() - probe.Begin() < sizeY ||
      probe.End() > FileSize(file))
    return teReadFileError;
  FSizeX = sizeX;
  FSizeY = sizeY;
  ResizeLineArrays();
  if ((result = t.LoadDoubleTag(file, "Average", own, &FAverage, 1)) < 1 ||
      (result = t.LoadDoubleTag(file, "Deviation", own, &FDeviation, 1)) < 1 ||
      (result = t.LoadDoubleTag(file, "LineAverage", own, FLineAverage.data(), sizeY)) < 1 ||
      (result = t.LoadDoubleTag(file, "LineSumSqr", own, FLineSumSqr.data(), sizeY)) < 1 ||
      (result = t.LoadDoubleTag(file, "LineSum", own, FLineSum.data(), sizeY)) < 1 ||
      (result = t.LoadDoubleTag(file, "LineA", own, FLineA.data(), sizeY)) < 1 ||
      (result = t.LoadDoubleTag(file, "LineB", own, FLineB.data(), sizeY)) < 1 ||
      (result = LoadBoolVectorTag(file, "LineChanged", own, FLineChanged, sizeY)) < 1 ||
      (result = LoadBoolVectorTag(file, "LineValid", own, FLineValid, sizeY)) < 1)
    return result;
  bool inverted = false;
  t.LoadOrDefaultBoolTag(file, "ImageDataIsInverted", own, &inverted, 1, false);
  IProgressAndCancel* const progress = FieldProgress();
  if ((result = LoadDataFieldFromTagFile(file, "ImageData", own, FField, progress)) < 1) return result;
  const std::vector<int32_t> expected =
      inverted ? std::vector<int32_t>{sizeY, sizeX} : std::vector<int32_t>{sizeX, sizeY};
  if (FField->Ranges() != expected) return teReadFileError;
  FInverted = inverted;
  if (!inverted) {
    // A loaded image is always inverted from then on.
    auto copy = MakeTransposedCopy(true);
    FField = std::move(copy);
    FInverted = true;
  }
  return teNoError;
}
