// Axis transformations: viewport matrices, the spectral models, look-up tables, file forms and helpers.
#include "data/Dtransformation.h"

#include "common/OrvexException.h"
#include "common/Standardmessage.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr double kTiny = 1e-34;

TVector3 Subtract(const TVector3& a, const TVector3& b) {
  return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
double Dot(const TVector3& a, const TVector3& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
double Length(const TVector3& a) {
  return std::sqrt(Dot(a, a));
}
TVector3 Cross(const TVector3& a, const TVector3& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
// Divides by the length, or by 1 for a null vector, so that a null vector stays null.
TVector3 Unit(const TVector3& a) {
  double length = Length(a);
  if (length < 1e-30) length = 1.0;
  return {a[0] / length, a[1] / length, a[2] / length};
}
TVector3 Multiply(const TMatrix3& m, const TVector3& v) {
  return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
          m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}
TMatrix3 RowsToMatrix(const TVector3& r0, const TVector3& r1, const TVector3& r2) {
  return {r0[0], r0[1], r0[2], r1[0], r1[1], r1[2], r2[0], r2[1], r2[2]};
}
bool NearlyEqual(double a, double b) {
  return std::fabs(a - b) <= 1e-12 * std::max({1.0, std::fabs(a), std::fabs(b)});
}
template <class T>
bool AllNearlyEqual(const T& a, const T& b) {
  for (size_t i = 0; i < a.size(); ++i)
    if (!NearlyEqual(a[i], b[i])) return false;
  return true;
}

} // namespace

TMatrix3 MultiplyMatrix(const TMatrix3& a, const TMatrix3& b) {
  TMatrix3 r{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k) r[i * 3 + j] += a[i * 3 + k] * b[k * 3 + j];
  return r;
}

TMatrix3 MakeRotationMatrix(double x, double y, double z) {
  const TMatrix3 rx{1, 0, 0, 0, std::cos(x), -std::sin(x), 0, std::sin(x), std::cos(x)};
  const TMatrix3 ry{std::cos(y), 0, std::sin(y), 0, 1, 0, -std::sin(y), 0, std::cos(y)};
  const TMatrix3 rz{std::cos(z), -std::sin(z), 0, std::sin(z), std::cos(z), 0, 0, 0, 1};
  return MultiplyMatrix(rz, MultiplyMatrix(ry, rx));
}

TMatrix3 InverseMatrix(const TMatrix3& m) {
  // Adjugate (transposed cofactors) divided by the determinant.
  const TMatrix3 c{m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                   m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                   m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
  const double det = m[0] * c[0] + m[1] * c[3] + m[2] * c[6];
  TMatrix3 inverse{};
  if (det == 0.0) return inverse;
  for (int i = 0; i < 9; ++i) inverse[i] = c[i] / det;
  return inverse;
}

// ---------------------------------------------------------------------------------------------
// TViewPort3D

TViewPort3D::TViewPort3D() {
  UpdateMatrices();
}

void TViewPort3D::UpdateMatrices() {
  const TMatrix3 scale{FScale[0], 0, 0, 0, FScale[1], 0, 0, 0, FScale[2]};
  FMatrix = MultiplyMatrix(FRotation, scale);
  FInverse = InverseMatrix(FMatrix);
}

void TViewPort3D::BinToReal(const double* bin, double* real) const {
  const TVector3 r =
      Multiply(FMatrix, {bin[0] - FModelOrigin[0], bin[1] - FModelOrigin[1], bin[2] - FModelOrigin[2]});
  for (int i = 0; i < 3; ++i) real[i] = r[i] + FWorldOrigin[i];
}

void TViewPort3D::RealToBin(double* bin, const double* real) const {
  const TVector3 b =
      Multiply(FInverse, {real[0] - FWorldOrigin[0], real[1] - FWorldOrigin[1], real[2] - FWorldOrigin[2]});
  for (int i = 0; i < 3; ++i) bin[i] = b[i] + FModelOrigin[i];
}

void TViewPort3D::SetScale(const TVector3& scale) {
  if (scale == FScale) return;
  FScale = scale;
  UpdateMatrices();
}

void TViewPort3D::SetRotationMatrix(const TMatrix3& rotation) {
  if (rotation == FRotation) return;
  FRotation = rotation;
  UpdateMatrices();
}

void TViewPort3D::SetRotation(double xDegrees, double yDegrees, double zDegrees) {
  constexpr double toRadians = std::numbers::pi / 180.0;
  SetRotationMatrix(MakeRotationMatrix(xDegrees * toRadians, yDegrees * toRadians, zDegrees * toRadians));
}

void TViewPort3D::SetRotationBy2Points(const TVector3& a, const TVector3& b) {
  const TVector3 first = Unit(Subtract(b, a));
  // A helper axis that isn't parallel to the first row: z, then y, then x.
  const TVector3 helpers[3] = {{0, 0, 1}, {0, 1, 0}, {1, 0, 0}};
  TVector3 third{};
  for (const auto& helper : helpers) {
    third = Cross(first, helper);
    if (Length(third) >= 1e-30) break;
  }
  // first x (helper x first) lies in the plane of first and helper, orthogonal to first.
  const TVector3 second = Unit(Cross(Unit(third), first));
  SetRotationMatrix(RowsToMatrix(first, second, Cross(first, second)));
}

void TViewPort3D::SetRotationByPoints(const TVector3& p0, const TVector3& p1, const TVector3& p2) {
  const TVector3 first = Unit(Subtract(p1, p0));
  TVector3 third = Cross(first, Subtract(p2, p0));
  if (Length(third) < 1e-30) {
    SetRotationBy2Points(p0, p1);
    return;
  }
  third = Unit(third);
  SetRotationMatrix(RowsToMatrix(first, Cross(third, first), third));
}

void TViewPort3D::SetRotationByPoints2(const TVector3& p0, const TVector3& p1, const TVector3& p2) {
  const TVector3 second = Unit(Subtract(p2, p0));
  TVector3 third = Cross(Subtract(p1, p0), second);
  if (Length(third) < 1e-30) {
    SetRotationByPoints(p0, p1, p2);
    return;
  }
  third = Unit(third);
  SetRotationMatrix(RowsToMatrix(Cross(second, third), second, third));
}

bool TViewPort3D::IsEqual(const TViewPort3D& other) const {
  return AllNearlyEqual(FModelOrigin, other.FModelOrigin) &&
         AllNearlyEqual(FWorldOrigin, other.FWorldOrigin) && AllNearlyEqual(FScale, other.FScale) &&
         AllNearlyEqual(FRotation, other.FRotation);
}

// ---------------------------------------------------------------------------------------------
// TDTransformation

TDTransformation::TDTransformation() {
  SetSaveMode(TDataSaveMode::WhileUsed);
  SetImageIndex(0);
}

void TDTransformation::BinToReal(const double* bin, double* real) const {
  std::copy_n(bin, std::max(FDimension, 0), real);
}

void TDTransformation::RealToBin(double* bin, const double* real) const {
  std::copy_n(real, std::max(FDimension, 0), bin);
}

double TDTransformation::Dim1BinToDim1Real(double bin) const {
  if (FDimension != 1) throw OrvexException("Wrong Implementation of TDTransformation::Dim1BinToDim1Real()!");
  double real = 0.0;
  BinToReal(&bin, &real);
  return real;
}

double TDTransformation::Dim1RealToDim1Bin(double real) const {
  if (FDimension != 1) throw OrvexException("Wrong Implementation of TDTransformation::Dim1RealToDim1Bin()!");
  double bin = 0.0;
  RealToBin(&bin, &real);
  return bin;
}

double TDTransformation::DimMultiRealToDim1Real(const double* multi) const {
  if (FDimension != 1)
    throw OrvexException("Wrong Implementation of TDTransformation::DimMultiRealToDim1Real()!");
  return multi[0];
}

void TDTransformation::Dim1RealToDimMultiReal(double one, double* multi) const {
  if (FDimension != 1)
    throw OrvexException("Wrong Implementation of TDTransformation::Dim1RealToDimMultiReal()!");
  multi[0] = one;
}

int32_t TDTransformation::MakeOrGetInterpretationID() {
  IDataProject* project = OwningProject(*this);
  if (!project) return 0;
  if (FUnitKind == TUnitKind::ZValue)
    return GetOrMakeStandardZInterpretation(*project, "ZInterpretation " + FStandardUnit, FStandardUnit);
  const std::string className = GetInterpretationClassNameForUnitKind(FUnitKind);
  return className.empty() ? 0 : project->MakeOrGetFirstIDByClassName(className);
}

int32_t TDTransformation::MakeOrGetCursorID() {
  const std::string className = GetCursorClassNameForUnitKind(FUnitKind);
  IDataProject* project = OwningProject(*this);
  if (className.empty() || !project) return 0;
  return project->MakeOrGetFirstIDByClassName(className);
}

void TDTransformation::CopyParametersFrom(const TDTransformation& source) {
  FUnitKind = source.FUnitKind;
  FInterpretationID = source.FInterpretationID;
  FIsCalibrated = source.FIsCalibrated;
  FStandardUnit = source.FStandardUnit;
  FDimension = source.FDimension;
}

bool TDTransformation::IsEqualTo(const TDTransformation& other) const {
  return GetClassNameA() == other.GetClassNameA() && FUnitKind == other.FUnitKind &&
         FStandardUnit == other.FStandardUnit;
}

void TDTransformation::AddToID(int32_t delta) {
  TData::AddToID(delta);
  SafeAddToDataID(FInterpretationID, delta);
}

void TDTransformation::CleanWrongDataConnections() {
  if (FInterpretationID != 0 && (!GetProject() || !GetProject()->DataIDExists(FInterpretationID)))
    FInterpretationID = 0;
}

void TDTransformation::ExchangeID(int32_t oldID, int32_t newID) {
  if (FInterpretationID == oldID) FInterpretationID = newID;
}

void TDTransformation::DataChanged(TData* sender, TDataChangeInfo info) {
  if (info == TDataChangeInfo::Removed && sender && sender->GetID() != 0 &&
      sender->GetID() == FInterpretationID)
    FInterpretationID = 0;
}

TTagError TDTransformation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TData::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, "TDTransformation", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveAnsiStringTag(file, "StandardUnit", FStandardUnit)) < 1 ||
      (result = t.SaveIntTag(file, "UnitKind", static_cast<int32_t>(FUnitKind))) < 1 ||
      (result = t.SaveIntTag(file, "InterpretationID", FInterpretationID)) < 1 ||
      (result = t.SaveBoolTag(file, "IsCalibrated", FIsCalibrated)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDTransformation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TData::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0;
  if ((result = own.FindTag(file, "TDTransformation", parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1)
    return result;
  t.LoadOrDefaultAnsiStringTag(file, "StandardUnit", own, FStandardUnit, FStandardUnit);
  int32_t kind = 0;
  t.LoadOrDefaultIntTag(file, "UnitKind", own, &kind, 1, 0);
  FUnitKind = static_cast<TUnitKind>(kind);
  t.LoadOrDefaultIntTag(file, "InterpretationID", own, &FInterpretationID, 1, 0);
  t.LoadOrDefaultBoolTag(file, "IsCalibrated", own, &FIsCalibrated, 1, true);
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TDSpaceTransformation

TDSpaceTransformation::TDSpaceTransformation() {
  FDimension = 3;
  FUnitKind = TUnitKind::Space;
  FStandardUnit = "µm";
  SetCaption("Space Transformation");
  SetSaveMode(TDataSaveMode::Always);
}

double TDSpaceTransformation::Dim1BinToDim1Real(double bin) const {
  const double zero[3] = {0, 0, 0};
  const double along[3] = {bin, 0, 0};
  TVector3 p0, p;
  BinToReal(zero, p0.data());
  BinToReal(along, p.data());
  const double distance = Length(Subtract(p, p0));
  return bin < 0 ? -distance : distance;
}

double TDSpaceTransformation::Dim1RealToDim1Bin(double real) const {
  double sizeX = 0, sizeY = 0;
  GetPixelSize(sizeX, sizeY);
  return sizeX < 1e-300 ? 0.0 : real / sizeX;
}

double TDSpaceTransformation::DimMultiRealToDim1Real(const double* multi) const {
  double bin[3];
  RealToBin(bin, multi);
  bin[1] = bin[2] = 0.0;
  const double zero[3] = {0, 0, 0};
  TVector3 p0, p;
  BinToReal(zero, p0.data());
  BinToReal(bin, p.data());
  return Length(Subtract(p, p0));
}

void TDSpaceTransformation::Dim1RealToDimMultiReal(double one, double* multi) const {
  const double bin[3] = {Dim1RealToDim1Bin(one), 0.0, 0.0};
  BinToReal(bin, multi);
}

void TDSpaceTransformation::GetPixelSize(double& sizeX, double& sizeY) const {
  const double zero[3] = {0, 0, 0}, unitX[3] = {1, 0, 0}, unitY[3] = {0, 1, 0};
  TVector3 p0, px, py;
  BinToReal(zero, p0.data());
  BinToReal(unitX, px.data());
  BinToReal(unitY, py.data());
  sizeX = Length(Subtract(px, p0));
  sizeY = Length(Subtract(py, p0));
}

void TDSpaceTransformation::SetLineInformation(bool valid, const TVector3& start, const TVector3& stop,
                                               int32_t points) {
  FLineInformationValid = valid;
  FLineStart = start;
  FLineStop = stop;
  FNumberOfLinePoints = points;
}

void TDSpaceTransformation::CopyParametersFrom(const TDTransformation& source) {
  TDTransformation::CopyParametersFrom(source);
  if (const auto* space = dynamic_cast<const TDSpaceTransformation*>(&source)) {
    FViewPort = space->FViewPort;
    FLineInformationValid = space->FLineInformationValid;
    FLineStart = space->FLineStart;
    FLineStop = space->FLineStop;
    FNumberOfLinePoints = space->FNumberOfLinePoints;
  }
}

bool TDSpaceTransformation::IsEqualTo(const TDTransformation& other) const {
  if (!TDTransformation::IsEqualTo(other)) return false;
  const auto& space = static_cast<const TDSpaceTransformation&>(other);
  if (!FViewPort.IsEqual(space.FViewPort) || FLineInformationValid != space.FLineInformationValid)
    return false;
  return !FLineInformationValid || (FLineStart == space.FLineStart && FLineStop == space.FLineStop &&
                                    FNumberOfLinePoints == space.FNumberOfLinePoints);
}

TTagError TDSpaceTransformation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDTransformation::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, view, t;
  const TVector3& scale = FViewPort.GetScale();
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = view.WriteTag(file, "ViewPort3D", TTagKind::TagList)) < 1 ||
      (result = t.SaveDoubleTag(file, "ModelOrigin", FViewPort.GetModelOrigin().data(), 3)) < 1 ||
      (result = t.SaveDoubleTag(file, "WorldOrigin", FViewPort.GetWorldOrigin().data(), 3)) < 1 ||
      (result = t.SaveDoubleTag(file, "Scale", scale.data(), 3)) < 1 ||
      (result = t.SaveDoubleTag(file, "Rotation", FViewPort.GetRotationMatrix().data(), 9)) < 1 ||
      (result = view.CloseWriteTag(file)) < 1 ||
      (result = t.SaveBoolTag(file, "LineInformationValid", FLineInformationValid)) < 1 ||
      (result = t.SaveDoubleAndFloatTag(file, "LineStart", FLineStart.data(), 3)) < 1 ||
      (result = t.SaveDoubleAndFloatTag(file, "LineStop", FLineStop.data(), 3)) < 1 ||
      (result = t.SaveIntTag(file, "NumberOfLinePoints", FNumberOfLinePoints)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDSpaceTransformation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDTransformation::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, view, t;
  int32_t version = 0;
  TVector3 modelOrigin{}, worldOrigin{}, scale{};
  TMatrix3 rotation{};
  if ((result = own.FindTag(file, kClassName, parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = view.FindTag(file, "ViewPort3D", own)) < 1 ||
      (result = t.LoadDoubleTag(file, "ModelOrigin", view, modelOrigin.data(), 3)) < 1 ||
      (result = t.LoadDoubleTag(file, "WorldOrigin", view, worldOrigin.data(), 3)) < 1 ||
      (result = t.LoadDoubleTag(file, "Scale", view, scale.data(), 3)) < 1 ||
      (result = t.LoadDoubleTag(file, "Rotation", view, rotation.data(), 9)) < 1)
    return result;
  FViewPort.SetModelOrigin(modelOrigin);
  FViewPort.SetWorldOrigin(worldOrigin);
  FViewPort.SetScale(scale);
  FViewPort.SetRotationMatrix(rotation);
  t.LoadOrDefaultBoolTag(file, "LineInformationValid", own, &FLineInformationValid, 1, false);
  t.LoadOrDefaultDoubleOrFloatTag(file, "LineStart", own, FLineStart.data(), 3, 0.0);
  t.LoadOrDefaultDoubleOrFloatTag(file, "LineStop", own, FLineStop.data(), 3, 0.0);
  t.LoadOrDefaultIntTag(file, "NumberOfLinePoints", own, &FNumberOfLinePoints, 1, 0);
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TDLinearTransformation

TDLinearTransformation::TDLinearTransformation() {
  SetCaption("Linear Transformation");
}

void TDLinearTransformation::SetParameters(double worldOrigin, double modelOrigin, double scale) {
  FWorldOrigin = worldOrigin;
  FModelOrigin = modelOrigin;
  FScale = scale;
}

void TDLinearTransformation::BinToReal(const double* bin, double* real) const {
  real[0] = (bin[0] - FModelOrigin) * FScale + FWorldOrigin;
}

void TDLinearTransformation::RealToBin(double* bin, const double* real) const {
  bin[0] = std::fabs(FScale) > kTiny ? (real[0] - FWorldOrigin) / FScale + FModelOrigin : 0.0;
}

void TDLinearTransformation::CopyParametersFrom(const TDTransformation& source) {
  TDTransformation::CopyParametersFrom(source);
  if (const auto* linear = dynamic_cast<const TDLinearTransformation*>(&source))
    SetParameters(linear->FWorldOrigin, linear->FModelOrigin, linear->FScale);
}

bool TDLinearTransformation::IsEqualTo(const TDTransformation& other) const {
  if (!TDTransformation::IsEqualTo(other)) return false;
  const auto& linear = static_cast<const TDLinearTransformation&>(other);
  return FWorldOrigin == linear.FWorldOrigin && FModelOrigin == linear.FModelOrigin &&
         FScale == linear.FScale;
}

TTagError TDLinearTransformation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDTransformation::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveDoubleAndFloatTag(file, "WorldOrigin", &FWorldOrigin, 1)) < 1 ||
      (result = t.SaveDoubleAndFloatTag(file, "ModelOrigin", &FModelOrigin, 1)) < 1 ||
      (result = t.SaveDoubleAndFloatTag(file, "Scale", &FScale, 1)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDLinearTransformation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDTransformation::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0;
  if ((result = own.FindTag(file, kClassName, parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = t.LoadDoubleOrFloatTag(file, "WorldOrigin", own, &FWorldOrigin)) < 1 ||
      (result = t.LoadDoubleOrFloatTag(file, "ModelOrigin", own, &FModelOrigin)) < 1 ||
      (result = t.LoadDoubleOrFloatTag(file, "Scale", own, &FScale)) < 1)
    return result;
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TDSpectralTransformation

TDSpectralTransformation::TDSpectralTransformation() {
  FUnitKind = TUnitKind::Spectral;
  FStandardUnit = "nm";
  SetCaption("Spectral Transformation");
}

int32_t TDSpectralTransformation::MakeOrGetInterpretationID() {
  if (FUnitKind == TUnitKind::Spectral && FInterpretationID != 0) return FInterpretationID;
  return TDTransformation::MakeOrGetInterpretationID();
}

double TDSpectralTransformation::PixelToWaveLength(double pixel) const {
  switch (FType) {
  case TSpectralTransformationType::Polynomial:
    return PolynomialToWaveLength(pixel);
  case TSpectralTransformationType::Monochromator:
    return MonochromatorToWaveLength(pixel);
  case TSpectralTransformationType::FreePolynomial:
    return FreePolynomToWaveLength(pixel);
  }
  return 0.0;
}

double TDSpectralTransformation::WaveLengthToPixel(double wavelength) const {
  switch (FType) {
  case TSpectralTransformationType::Polynomial:
    return PolynomialToPixel(wavelength);
  case TSpectralTransformationType::Monochromator:
    return MonochromatorToPixel(wavelength);
  case TSpectralTransformationType::FreePolynomial:
    return FreePolynomToPixel(wavelength);
  }
  return 0.0;
}

double TDSpectralTransformation::PolynomialToWaveLength(double p) const {
  return FPolynom[0] + FPolynom[1] * p + FPolynom[2] * p * p;
}

double TDSpectralTransformation::PolynomialToPixel(double wavelength) const {
  const double a0 = FPolynom[0], a1 = FPolynom[1], a2 = FPolynom[2];
  if (std::fabs(a2) <= kTiny) return std::fabs(a1) <= kTiny ? 0.0 : (wavelength - a0) / a1;
  const double apexPixel = -a1 / (2.0 * a2);
  const double apexValue = a0 - a1 * a1 / (4.0 * a2);
  if ((a2 >= 0 && wavelength < apexValue) || (a2 < 0 && wavelength > apexValue)) return apexPixel;
  // Of the two roots the one on the side of pixel 0 is taken.
  const double sign = apexPixel >= 0 ? -1.0 : 1.0;
  const double h = a1 / a2 / 2.0;
  const double d = h * h - (a0 - wavelength) / a2;
  if (d < 0) return 0.0;
  return -h + sign * std::sqrt(d);
}

double TDSpectralTransformation::MonochromatorToWaveLength(double p) const {
  const auto& mo = FMonochromator;
  const double t = p - mo.nC;
  const double a0 = mo.d * std::cos(mo.Gamma / 2.0);
  if (std::fabs(mo.m) < kTiny || std::fabs(a0) < kTiny) return 0.0;
  const double q = mo.m * mo.LambdaC / 2.0 / a0;
  if (q < -1.0 || q > 1.0) return 0.0;
  const double a = std::asin(q);
  const double n = t * mo.x * std::sin(mo.Delta) + mo.f;
  if (std::fabs(n) < kTiny) return 0.0;
  const double s = std::atan(t * mo.x * std::cos(mo.Delta) / n);
  return mo.d / mo.m * (std::sin(a - mo.Gamma / 2.0) + std::sin(mo.Gamma / 2.0 + a + s));
}

double TDSpectralTransformation::MonochromatorToPixel(double wavelength) const {
  const auto& mo = FMonochromator;
  const double a0 = mo.d * std::cos(mo.Gamma / 2.0);
  if (std::fabs(a0) < kTiny || std::fabs(mo.d) < kTiny) return 0.0;
  const double q = mo.m * mo.LambdaC / 2.0 / a0;
  if (q < -1.0 || q > 1.0) return 0.0;
  const double a = std::asin(q);
  const double u = wavelength * mo.m / mo.d - std::sin(a - mo.Gamma / 2.0);
  if (u < -1.0 || u > 1.0) return 0.0;
  const double w = std::asin(u) - a - mo.Gamma / 2.0;
  if (std::fabs(w) > std::numbers::pi / 2.0) return 0.0;
  const double d = (std::cos(mo.Delta) - std::tan(w) * std::sin(mo.Delta)) * mo.x;
  if (std::fabs(d) < kTiny) return 0.0;
  return std::tan(w) * mo.f / d + mo.nC;
}

double TDSpectralTransformation::FreePolynomValue(double p) const {
  double value = 0.0;
  for (int32_t i = FFreePolynomOrder; i >= 0; --i) value = value * p + FFreePolynom[static_cast<size_t>(i)];
  return value;
}

double TDSpectralTransformation::FreePolynomToWaveLength(double pixel) const {
  if (FFreePolynomOrder < 0) return 0.0;
  return FreePolynomValue(std::clamp(pixel, FStartBin, FStopBin));
}

double TDSpectralTransformation::FreePolynomToPixel(double wavelength) const {
  if (FFreePolynomOrder < 0) return 0.0;
  // Newton from the middle of the range, at most ten turns, clamped to the range after each step.
  double p = 0.5 * (FStartBin + FStopBin);
  for (int turn = 0; turn < 10; ++turn) {
    double derivative = 0.0;
    for (int32_t i = FFreePolynomOrder; i >= 1; --i)
      derivative = derivative * p + i * FFreePolynom[static_cast<size_t>(i)];
    if (std::fabs(derivative) < 1e-30) return FStartBin;
    const double step = (FreePolynomValue(p) - wavelength) / derivative;
    p = std::clamp(p - step, FStartBin, FStopBin);
    if (std::fabs(step) < 1e-10) break;
  }
  return p;
}

bool TDSpectralTransformation::SetFreePolynomParameters(int32_t order, const double* coefficients,
                                                        double start, double stop) {
  const TSpectralTransformationType oldType = FType;
  if (order < 0 || !coefficients) {
    FFreePolynom.clear();
    FFreePolynomOrder = -1;
    FStartBin = FStopBin = 0.0;
    return false;
  }
  FFreePolynom.assign(coefficients, coefficients + order + 1);
  FFreePolynomOrder = order;
  FStartBin = std::min(start, stop);
  FStopBin = std::max(start, stop);
  FType = TSpectralTransformationType::FreePolynomial;
  // Walk the range in steps of 0.1: a curve that both rises and falls can't be inverted.
  bool rises = false, falls = false;
  double previous = FreePolynomValue(FStartBin);
  const auto steps = static_cast<int64_t>(std::floor((FStopBin - FStartBin) / 0.1));
  for (int64_t k = 1; k <= steps + 1 && !(rises && falls); ++k) {
    const double p = std::min(FStartBin + 0.1 * static_cast<double>(k), FStopBin);
    const double value = FreePolynomValue(p);
    rises |= value > previous;
    falls |= value < previous;
    previous = value;
  }
  if (rises && falls) {
    FFreePolynom.clear();
    FFreePolynomOrder = -1;
    FStartBin = FStopBin = 0.0;
    FType = oldType;
    return false;
  }
  return true;
}

void TDSpectralTransformation::CopyParametersFrom(const TDTransformation& source) {
  TDTransformation::CopyParametersFrom(source);
  if (const auto* spectral = dynamic_cast<const TDSpectralTransformation*>(&source)) {
    FType = spectral->FType;
    FPolynom = spectral->FPolynom;
    FMonochromator = spectral->FMonochromator;
    FFreePolynom = spectral->FFreePolynom;
    FFreePolynomOrder = spectral->FFreePolynomOrder;
    FStartBin = spectral->FStartBin;
    FStopBin = spectral->FStopBin;
  }
}

bool TDSpectralTransformation::IsEqualTo(const TDTransformation& other) const {
  if (GetClassNameA() != other.GetClassNameA()) return false;
  const auto& spectral = static_cast<const TDSpectralTransformation&>(other);
  if (FType != spectral.FType) return false;
  switch (FType) {
  case TSpectralTransformationType::Polynomial:
    return FPolynom == spectral.FPolynom;
  case TSpectralTransformationType::Monochromator:
    return FMonochromator == spectral.FMonochromator;
  case TSpectralTransformationType::FreePolynomial:
    return FFreePolynomOrder == spectral.FFreePolynomOrder && FFreePolynom == spectral.FFreePolynom &&
           FStartBin == spectral.FStartBin && FStopBin == spectral.FStopBin;
  }
  return false;
}

TTagError TDSpectralTransformation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDTransformation::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  const auto& mo = FMonochromator;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "SpectralTransformationType", static_cast<int32_t>(FType))) < 1 ||
      (result = t.SaveDoubleTag(file, "Polynom", FPolynom.data(), 3)) < 1 ||
      (result = t.SaveDoubleTag(file, "nC", mo.nC)) < 1 ||
      (result = t.SaveDoubleTag(file, "LambdaC", mo.LambdaC)) < 1 ||
      (result = t.SaveDoubleTag(file, "Gamma", mo.Gamma)) < 1 ||
      (result = t.SaveDoubleTag(file, "Delta", mo.Delta)) < 1 ||
      (result = t.SaveDoubleTag(file, "m", mo.m)) < 1 || (result = t.SaveDoubleTag(file, "d", mo.d)) < 1 ||
      (result = t.SaveDoubleTag(file, "x", mo.x)) < 1 || (result = t.SaveDoubleTag(file, "f", mo.f)) < 1 ||
      (result = t.SaveIntTag(file, "FreePolynomOrder", FFreePolynomOrder)) < 1 ||
      (result = t.SaveDoubleTag(file, "FreePolynomStartBin", FStartBin)) < 1 ||
      (result = t.SaveDoubleTag(file, "FreePolynomStopBin", FStopBin)) < 1)
    return result;
  if (FFreePolynomOrder != -1 &&
      (result = t.SaveDoubleTag(file, "FreePolynom", FFreePolynom.data(), FFreePolynomOrder + 1)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDSpectralTransformation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDTransformation::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0, type = 0;
  auto& mo = FMonochromator;
  if ((result = own.FindTag(file, kClassName, parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = t.LoadIntTag(file, "SpectralTransformationType", own, &type)) < 1 ||
      (result = t.LoadDoubleTag(file, "Polynom", own, FPolynom.data(), 3)) < 1 ||
      (result = t.LoadDoubleTag(file, "nC", own, &mo.nC)) < 1 ||
      (result = t.LoadDoubleTag(file, "LambdaC", own, &mo.LambdaC)) < 1 ||
      (result = t.LoadDoubleTag(file, "Gamma", own, &mo.Gamma)) < 1 ||
      (result = t.LoadDoubleTag(file, "Delta", own, &mo.Delta)) < 1 ||
      (result = t.LoadDoubleTag(file, "m", own, &mo.m)) < 1 ||
      (result = t.LoadDoubleTag(file, "d", own, &mo.d)) < 1 ||
      (result = t.LoadDoubleTag(file, "x", own, &mo.x)) < 1 ||
      (result = t.LoadDoubleTag(file, "f", own, &mo.f)) < 1)
    return result;
  FType = static_cast<TSpectralTransformationType>(type);
  t.LoadOrDefaultIntTag(file, "FreePolynomOrder", own, &FFreePolynomOrder, 1, -1);
  t.LoadOrDefaultDoubleTag(file, "FreePolynomStartBin", own, &FStartBin, 1, 0.0);
  t.LoadOrDefaultDoubleTag(file, "FreePolynomStopBin", own, &FStopBin, 1, 0.0);
  FFreePolynom.clear();
  if (FFreePolynomOrder >= 0) {
    // An order the tag can't hold is corrupt: refuse before allocating.
    if ((result = t.FindTag(file, "FreePolynom", own)) < 1) return result;
    if ((static_cast<int64_t>(FFreePolynomOrder) + 1) * 8 > t.End() - t.Begin()) return teReadFileError;
    FFreePolynom.resize(static_cast<size_t>(FFreePolynomOrder) + 1);
    if ((result = t.LoadDoubleTag(file, "FreePolynom", own, FFreePolynom.data(), FFreePolynomOrder + 1)) < 1)
      return result;
  } else {
    FFreePolynomOrder = -1;
  }
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TDLUTTransformation

TDLUTTransformation::TDLUTTransformation() {
  SetCaption("Look-Up-Table Transformation");
}

void TDLUTTransformation::SetLUT(const double* values, int32_t size) {
  if (size < 1) throw OrvexException("TDLUTTransformation::SetLUT(): LUTSize is < 1");
  FLUT.assign(values, values + size);
  FLUTIsIncreasing = size < 2 || FLUT[1] > FLUT[0];
  for (int32_t i = 1; i < size; ++i) {
    const double step = FLUT[static_cast<size_t>(i)] - FLUT[static_cast<size_t>(i) - 1];
    if (FLUTIsIncreasing ? !(step > 0) : !(step < 0)) {
      FLUT.clear();
      FLUTValid = false;
      throw OrvexException(
          "TDLUTTransformation::SetLUT(): Values in LUT are not strictly monotonic in-/decreasing");
    }
  }
  FLUTValid = true;
}

void TDLUTTransformation::BinToReal(const double* bin, double* real) const {
  if (!FLUTValid) throw OrvexException("TDLUTTransformation::BinToReal(): LUT is not set !");
  const auto last = static_cast<int64_t>(FLUT.size()) - 1;
  const double b = bin[0];
  if (b <= 0.0 || last == 0) {
    real[0] = FLUT.front();
    return;
  }
  if (b >= static_cast<double>(last)) {
    real[0] = FLUT.back();
    return;
  }
  const auto i = static_cast<size_t>(b);
  const double fraction = b - static_cast<double>(i);
  real[0] = FLUT[i] + fraction * (FLUT[i + 1] - FLUT[i]);
}

void TDLUTTransformation::RealToBin(double* bin, const double* real) const {
  if (!FLUTValid) throw OrvexException("TDLUTTransformation::BinToReal(): LUT is not set !");
  const auto n = static_cast<int64_t>(FLUT.size());
  // Position along the direction of the table: for a decreasing table all comparisons turn round.
  const double sign = FLUTIsIncreasing ? 1.0 : -1.0;
  const double value = real[0] * sign;
  auto entry = [&](int64_t i) { return FLUT[static_cast<size_t>(i)] * sign; };
  if (n == 1 || value <= entry(0)) {
    bin[0] = 0.0;
    return;
  }
  if (value >= entry(n - 1)) {
    bin[0] = static_cast<double>(n - 1);
    return;
  }
  int64_t lo = 0, hi = n - 1;
  while (hi - lo > 1) {
    const int64_t mid = (lo + hi) / 2;
    if (value >= entry(mid))
      lo = mid;
    else
      hi = mid;
  }
  const double difference = entry(hi) - entry(lo);
  const double fraction = std::fabs(difference) <= 1e-30 ? 0.0 : (value - entry(lo)) / difference;
  bin[0] = static_cast<double>(lo) + fraction;
}

void TDLUTTransformation::CopyParametersFrom(const TDTransformation& source) {
  TDTransformation::CopyParametersFrom(source);
  if (const auto* lut = dynamic_cast<const TDLUTTransformation*>(&source)) {
    FLUT = lut->FLUT;
    FLUTValid = lut->FLUTValid;
    FLUTIsIncreasing = lut->FLUTIsIncreasing;
  }
}

bool TDLUTTransformation::IsEqualTo(const TDTransformation& other) const {
  if (GetClassNameA() != other.GetClassNameA()) return false;
  return FLUT == static_cast<const TDLUTTransformation&>(other).FLUT;
}

TTagError TDLUTTransformation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDTransformation::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  const int32_t size = FLUTValid ? GetLUTSize() : 0;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "LUTSize", size)) < 1 ||
      (result = t.SaveDoubleTag(file, "LUT", FLUT.data(), size)) < 1 ||
      (result = t.SaveBoolTag(file, "LUTIsIncreasing", FLUTIsIncreasing)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDLUTTransformation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDTransformation::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0, size = 0;
  if ((result = own.FindTag(file, kClassName, parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = t.LoadIntTag(file, "LUTSize", own, &size)) < 1)
    return result;
  FLUT.clear();
  FLUTValid = false;
  if (size > 0) {
    if ((result = t.FindTag(file, "LUT", own)) < 1) return result;
    if (static_cast<int64_t>(size) * 8 > t.End() - t.Begin()) return teReadFileError;
    FLUT.resize(static_cast<size_t>(size));
    if ((result = t.LoadDoubleTag(file, "LUT", own, FLUT.data(), size)) < 1) return result;
    FLUTValid = true;
  }
  t.LoadOrDefaultBoolTag(file, "LUTIsIncreasing", own, &FLUTIsIncreasing, 1, true);
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// Helpers

namespace {

const TDTransformation* FindTransformation(const IDataProject& project, int32_t id) {
  return dynamic_cast<const TDTransformation*>(project.FindData(id));
}
const TDSpaceTransformation* FindSpaceTransformation(const IDataProject& project, int32_t id) {
  return dynamic_cast<const TDSpaceTransformation*>(project.FindData(id));
}

// Directions of the images of the x and the y axis, between bins 0 and 1000, normalised.
void ScanAxes(const TDSpaceTransformation& t, TVector3& origin, TVector3& xAxis, TVector3& yAxis) {
  const double zero[3] = {0, 0, 0}, farX[3] = {1000, 0, 0}, farY[3] = {0, 1000, 0};
  TVector3 px, py;
  t.BinToReal(zero, origin.data());
  t.BinToReal(farX, px.data());
  t.BinToReal(farY, py.data());
  xAxis = Unit(Subtract(px, origin));
  yAxis = Unit(Subtract(py, origin));
}

TVector3 ScanNormal(const TDSpaceTransformation& t) {
  TVector3 origin, x, y;
  ScanAxes(t, origin, x, y);
  return Unit(Cross(x, y));
}

constexpr double kGeometryTolerance = 1e-6;

} // namespace

bool IsTransformationEqual(const IDataProject& project, int32_t a, int32_t b) {
  if (a == b) return true;
  const TDTransformation* first = FindTransformation(project, a);
  const TDTransformation* second = FindTransformation(project, b);
  return first && second && first->IsEqualTo(*second);
}

int32_t SearchForEqualTransformation(const IDataProject& project, const TIntList& idList,
                                     int32_t transformationID) {
  for (int32_t id : idList)
    if (FindTransformation(project, id) && IsTransformationEqual(project, id, transformationID)) return id;
  return 0;
}

std::unique_ptr<TDTransformation> MakeAndCopyTransformation(IDataProject& project, TDataSaveMode saveMode,
                                                            const TDTransformation& source) {
  std::unique_ptr<TData> made = TData::CreateDataObjectByName(source.GetClassNameA());
  auto* raw = dynamic_cast<TDTransformation*>(made.get());
  if (!raw) {
    TMessageProxy::MsgProxySingleton()->IssueMessage(
        TBlockingNotification::CreateAndInit("DTransformation: MakeAndCopyTransformation(): Could not make "
                                             "Transformation !",
                                             "Error", kSeverityError),
        true);
    return nullptr;
  }
  made.release();
  std::unique_ptr<TDTransformation> copy(raw);
  copy->CopyParametersFrom(source);
  copy->SetCaption(source.GetCaption());
  copy->SetSaveMode(saveMode);
  copy->SetID(project.GetNewDataID());
  return copy;
}

int32_t MakeAndCopyTransformation(IDataProject& project, TDataSaveMode saveMode, int32_t sourceID) {
  const TDTransformation* source = FindTransformation(project, sourceID);
  if (!source) return 0;
  std::unique_ptr<TDTransformation> copy = MakeAndCopyTransformation(project, saveMode, *source);
  if (!copy) return 0;
  const int32_t id = copy->GetID();
  project.AddData(std::move(copy));
  return id;
}

bool CopyTransformation(IDataProject& project, int32_t sourceID, int32_t targetID) {
  const TDTransformation* source = FindTransformation(project, sourceID);
  auto* target = dynamic_cast<TDTransformation*>(project.FindData(targetID));
  if (!source || !target || source->GetClassNameA() != target->GetClassNameA()) return false;
  target->CopyParametersFrom(*source);
  target->DoDataChange(TDataChangeInfo::DataChanged);
  return true;
}

bool GetDeltaXYFromTransformation(const IDataProject& project, int32_t id, double& deltaX, double& deltaY) {
  deltaX = deltaY = 0.0;
  const TDSpaceTransformation* space = FindSpaceTransformation(project, id);
  if (!space) return false;
  space->GetPixelSize(deltaX, deltaY);
  return true;
}

bool IsImageTransformationParallelToImageTransformation(const IDataProject& project, int32_t a, int32_t b) {
  const TDSpaceTransformation* first = FindSpaceTransformation(project, a);
  const TDSpaceTransformation* second = FindSpaceTransformation(project, b);
  if (!first || !second) return false;
  return std::fabs(std::fabs(Dot(ScanNormal(*first), ScanNormal(*second))) - 1.0) <= kGeometryTolerance;
}

bool IsImageTransformationPerpendicularToImageTransformation(const IDataProject& project, int32_t a,
                                                             int32_t b) {
  const TDSpaceTransformation* first = FindSpaceTransformation(project, a);
  const TDSpaceTransformation* second = FindSpaceTransformation(project, b);
  if (!first || !second) return false;
  return std::fabs(Dot(ScanNormal(*first), ScanNormal(*second))) <= kGeometryTolerance;
}

bool IsPointTransformationPartOfImageTransformation(const IDataProject& project, int32_t a, int32_t b) {
  const TDSpaceTransformation* point = FindSpaceTransformation(project, a);
  const TDSpaceTransformation* image = FindSpaceTransformation(project, b);
  if (!point || !image) return false;
  TVector3 pointOrigin, x, y, imageOrigin;
  ScanAxes(*point, pointOrigin, x, y);
  ScanAxes(*image, imageOrigin, x, y);
  const TVector3 offset = Subtract(pointOrigin, imageOrigin);
  const double scale = std::max(1.0, Length(offset));
  return std::fabs(Dot(offset, Unit(Cross(x, y)))) <= kGeometryTolerance * scale;
}

bool IsLineTransformationParallelToImageTransformation(const IDataProject& project, int32_t a, int32_t b) {
  const TDSpaceTransformation* line = FindSpaceTransformation(project, a);
  const TDSpaceTransformation* image = FindSpaceTransformation(project, b);
  if (!line || !image) return false;
  TVector3 origin, lineX, lineY;
  ScanAxes(*line, origin, lineX, lineY);
  return std::fabs(Dot(lineX, ScanNormal(*image))) <= kGeometryTolerance;
}

bool IsImageBaseTransformationTheSameWithoutZ(const IDataProject& project, int32_t a, int32_t b,
                                              int32_t sizeX, int32_t sizeY) {
  const TDSpaceTransformation* first = FindSpaceTransformation(project, a);
  const TDSpaceTransformation* second = FindSpaceTransformation(project, b);
  if (!first || !second) return false;
  const double corners[3][3] = {{0, 0, 0}, {double(sizeX), 0, 0}, {double(sizeX), double(sizeY), 0}};
  for (const auto& corner : corners) {
    double real[3], back[3];
    first->BinToReal(corner, real);
    second->RealToBin(back, real);
    if (std::fabs(back[0] - corner[0]) > kGeometryTolerance ||
        std::fabs(back[1] - corner[1]) > kGeometryTolerance)
      return false;
  }
  return true;
}

TUnitKind GetUnitKindFromTransformationID(const IDataProject& project, int32_t id) {
  const TDTransformation* t = FindTransformation(project, id);
  return t ? t->GetUnitKind() : TUnitKind::None;
}

int32_t MakeOrGetCursorIDFromTransformationID(IDataProject& project, int32_t id) {
  auto* t = dynamic_cast<TDTransformation*>(project.FindData(id));
  return t ? t->MakeOrGetCursorID() : 0;
}

int32_t MakeOrGetInterpretationIDFromTransformationID(IDataProject& project, int32_t id) {
  auto* t = dynamic_cast<TDTransformation*>(project.FindData(id));
  return t ? t->MakeOrGetInterpretationID() : 0;
}

int32_t GetSpaceTransformationIDFromObject(const IDataProject& project, int32_t id) {
  const TData* data = project.FindData(id);
  if (!data ||
      !(data->InheritsFrom("TDImage") || data->InheritsFrom("TDGraph") || data->InheritsFrom("TDBitmap")))
    return 0;
  for (const auto& [name, referenced] : data->GetReferencedIDs())
    if (name == "SpaceTransformationID" || name == "PositionTransformationID") return referenced;
  return 0;
}

void PixelToWorld(const IDataProject& project, int32_t transformationID, double pixelX, double pixelY,
                  double& worldX, double& worldY) {
  const double bin[3] = {pixelX, pixelY, 0.0};
  double real[3] = {pixelX, pixelY, 0.0};
  if (const auto* space = dynamic_cast<const TDSpaceTransformation*>(project.FindData(transformationID)))
    space->BinToReal(bin, real);
  worldX = real[0];
  worldY = real[1];
}

bool WorldToPixel(const IDataProject& project, int32_t transformationID, double worldX, double worldY,
                  int32_t sizeX, int32_t sizeY, int32_t& pixelX, int32_t& pixelY) {
  const double real[3] = {worldX, worldY, 0.0};
  double bin[3] = {worldX, worldY, 0.0};
  if (const auto* space = dynamic_cast<const TDSpaceTransformation*>(project.FindData(transformationID)))
    space->RealToBin(bin, real);
  pixelX = pixelY = -1;
  if (!std::isfinite(bin[0]) || !std::isfinite(bin[1])) return false;
  const double x = std::round(bin[0]), y = std::round(bin[1]);
  if (x < 0 || y < 0 || x >= sizeX || y >= sizeY) return false;
  pixelX = static_cast<int32_t>(x);
  pixelY = static_cast<int32_t>(y);
  return true;
}

void RegisterTransformationClasses() {
  TData::RegisterDataObject(TDSpaceTransformation::kClassName, &TDSpaceTransformation::CreateDataObject);
  TData::RegisterDataObject(TDSpectralTransformation::kClassName,
                            &TDSpectralTransformation::CreateDataObject);
  TData::RegisterDataObject(TDLinearTransformation::kClassName, &TDLinearTransformation::CreateDataObject);
  TData::RegisterDataObject(TDLUTTransformation::kClassName, &TDLUTTransformation::CreateDataObject);
}

bool GetAxisValues(const IDataProject& project, int32_t transformationID, int32_t interpretationID,
                   int32_t count, int axis, std::vector<double>& values, std::string& unit) {
  const auto* transformation = dynamic_cast<const TDTransformation*>(project.FindData(transformationID));
  if (!transformation || count <= 0) return false;
  const TDInterpretation* interpretation = dynamic_cast<const TDInterpretation*>(
      project.FindData(interpretationID != 0 ? interpretationID : transformation->GetInterpretationID()));
  values.resize(static_cast<size_t>(count));
  const int dimension = std::max<int>(transformation->GetDim(), 1);
  std::vector<double> bin(static_cast<size_t>(std::max(dimension, 3)), 0.0), real(bin.size(), 0.0);
  for (int32_t i = 0; i < count; ++i) {
    std::fill(bin.begin(), bin.end(), 0.0);
    bin[static_cast<size_t>(std::min(axis, dimension - 1))] = i;
    transformation->BinToReal(bin.data(), real.data());
    const double standard = real[static_cast<size_t>(std::min(axis, dimension - 1))];
    values[static_cast<size_t>(i)] = interpretation ? interpretation->StandardTo(standard) : standard;
  }
  unit = interpretation ? interpretation->UnitString(interpretation->GetUnitIndex())
                        : transformation->GetStandardUnit();
  return true;
}
