// Axis transformations: the maps from pixel index ("bin") to physical value ("real") and back, for space
// (a 3-D viewport), spectra (the spectrograph models), linear axes and look-up tables, with their file forms.
#pragma once

#include "data/Dcustom.h"
#include "data/Dinterpretation.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using TVector3 = std::array<double, 3>;
/// A 3 x 3 matrix, by rows.
using TMatrix3 = std::array<double, 9>;

/// Scan geometry: model origin, world origin, a diagonal scale S and a rotation R. Keeps M = R * S and its
/// inverse ready, so that the maps are read-only and may run on calculation threads.
class TViewPort3D {
public:
  TViewPort3D();

  /// real = M * (bin - model origin) + world origin.
  void BinToReal(const double* bin, double* real) const;
  /// bin = inverse(M) * (real - world origin) + model origin.
  void RealToBin(double* bin, const double* real) const;

  void SetModelOrigin(const TVector3& origin) { FModelOrigin = origin; }
  void SetWorldOrigin(const TVector3& origin) { FWorldOrigin = origin; }
  const TVector3& GetModelOrigin() const { return FModelOrigin; }
  const TVector3& GetWorldOrigin() const { return FWorldOrigin; }
  void SetScale(const TVector3& scale);
  const TVector3& GetScale() const { return FScale; }
  void SetRotationMatrix(const TMatrix3& rotation);
  const TMatrix3& GetRotationMatrix() const { return FRotation; }
  /// Rotation about x, then y, then z, angles in degrees.
  void SetRotation(double xDegrees, double yDegrees, double zDegrees);
  /// First row the direction from a to b; the other rows complete a right-handed orthonormal system.
  void SetRotationBy2Points(const TVector3& a, const TVector3& b);
  /// First row along p0 -> p1, second row in the plane of the three points, third row their normal.
  void SetRotationByPoints(const TVector3& p0, const TVector3& p1, const TVector3& p2);
  /// Second row along p0 -> p2, third row the normal of the plane, first row completing the system.
  void SetRotationByPoints2(const TVector3& p0, const TVector3& p1, const TVector3& p2);
  const TMatrix3& GetMatrix() const { return FMatrix; }
  const TMatrix3& GetInverseMatrix() const { return FInverse; }
  /// Origins, scale and rotation equal within 1e-12 relative.
  bool IsEqual(const TViewPort3D& other) const;

private:
  void UpdateMatrices();

  TVector3 FModelOrigin{0, 0, 0};
  TVector3 FWorldOrigin{0, 0, 0};
  TVector3 FScale{1, 1, 1};
  TMatrix3 FRotation{1, 0, 0, 0, 1, 0, 0, 0, 1};
  TMatrix3 FMatrix{1, 0, 0, 0, 1, 0, 0, 0, 1};
  TMatrix3 FInverse{1, 0, 0, 0, 1, 0, 0, 0, 1};
};

/// A rotation by angles in radians about x, then y, then z: Rz * Ry * Rx.
TMatrix3 MakeRotationMatrix(double x, double y, double z);
/// Inverse by cofactors; the zero matrix when the determinant vanishes.
TMatrix3 InverseMatrix(const TMatrix3& m);
TMatrix3 MultiplyMatrix(const TMatrix3& a, const TMatrix3& b);

/// Base of the transformations: unit kind, interpretation, calibration flag, standard unit, dimension.
/// The base map is the identity.
class TDTransformation : public TData {
  ORVEX_DATA_CLASS(TDTransformation, TData)
public:
  TDTransformation();
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return 7; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  bool IsDataUsed(int32_t id) const override { return id != 0 && id == FInterpretationID; }
  void AddToID(int32_t delta) override;
  void CleanWrongDataConnections() override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* sender, TDataChangeInfo info) override;
  std::vector<std::pair<std::string, int32_t>> GetReferencedIDs() const override {
    return {{"InterpretationID", FInterpretationID}};
  }

  /// Both take vectors of GetDim() doubles.
  virtual void BinToReal(const double* bin, double* real) const;
  virtual void RealToBin(double* bin, const double* real) const;
  /// The one-axis views; the base works only for dimension 1 and raises otherwise.
  virtual double Dim1BinToDim1Real(double bin) const;
  virtual double Dim1RealToDim1Bin(double real) const;
  virtual double DimMultiRealToDim1Real(const double* multi) const;
  virtual void Dim1RealToDimMultiReal(double one, double* multi) const;
  /// The interpretation of this axis in the project, made when needed; 0 without project or unit kind.
  virtual int32_t MakeOrGetInterpretationID();
  /// The cursor of this axis's unit kind in the project, made when needed.
  virtual int32_t MakeOrGetCursorID();
  /// Takes over the parameters of source (same class); ID, caption and history stay.
  virtual void CopyParametersFrom(const TDTransformation& source);
  /// Same class and the same mapping parameters.
  virtual bool IsEqualTo(const TDTransformation& other) const;

  void SetDim(int32_t dimension) { FDimension = dimension; }
  int32_t GetDim() const { return FDimension; }
  TUnitKind GetUnitKind() const { return FUnitKind; }
  void SetUnitKind(TUnitKind kind) { FUnitKind = kind; }
  int32_t GetInterpretationID() const { return FInterpretationID; }
  void SetInterpretationID(int32_t id) { FInterpretationID = id; }
  bool GetIsCalibrated() const { return FIsCalibrated; }
  void SetIsCalibrated(bool calibrated) { FIsCalibrated = calibrated; }
  const std::string& GetStandardUnit() const { return FStandardUnit; }
  void SetStandardUnit(const std::string& unit) { FStandardUnit = unit; }

protected:
  TUnitKind FUnitKind = TUnitKind::None;
  int32_t FInterpretationID = 0;
  bool FIsCalibrated = true;
  std::string FStandardUnit = "a.u.";
  int32_t FDimension = 1;
};

/// Pixels of a scan to positions in space, through a TViewPort3D; optionally the geometry of a line scan.
class TDSpaceTransformation : public TDTransformation {
  ORVEX_DATA_CLASS(TDSpaceTransformation, TDTransformation)
public:
  TDSpaceTransformation();
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return FLineInformationValid ? 8 : 7; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void BinToReal(const double* bin, double* real) const override { FViewPort.BinToReal(bin, real); }
  void RealToBin(double* bin, const double* real) const override { FViewPort.RealToBin(bin, real); }
  /// Distance from T(0, 0, 0) to T(bin, 0, 0), negative for negative bins.
  double Dim1BinToDim1Real(double bin) const override;
  double Dim1RealToDim1Bin(double real) const override;
  double DimMultiRealToDim1Real(const double* multi) const override;
  void Dim1RealToDimMultiReal(double one, double* multi) const override;
  void CopyParametersFrom(const TDTransformation& source) override;
  bool IsEqualTo(const TDTransformation& other) const override;

  /// Lengths of the images of the unit steps in x and in y.
  void GetPixelSize(double& sizeX, double& sizeY) const;
  TViewPort3D& ViewPort() { return FViewPort; }
  const TViewPort3D& ViewPort() const { return FViewPort; }
  void SetLineInformation(bool valid, const TVector3& start, const TVector3& stop, int32_t points);
  bool GetLineInformationValid() const { return FLineInformationValid; }
  const TVector3& GetLineStart() const { return FLineStart; }
  const TVector3& GetLineStop() const { return FLineStop; }
  int32_t GetNumberOfLinePoints() const { return FNumberOfLinePoints; }

private:
  TViewPort3D FViewPort;
  bool FLineInformationValid = false;
  TVector3 FLineStart{0, 0, 0};
  TVector3 FLineStop{0, 0, 0};
  int32_t FNumberOfLinePoints = 0;
};

/// real = (bin - model origin) * scale + world origin.
class TDLinearTransformation : public TDTransformation {
  ORVEX_DATA_CLASS(TDLinearTransformation, TDTransformation)
public:
  TDLinearTransformation();
  static constexpr int32_t ThisVersion = 0;

  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void BinToReal(const double* bin, double* real) const override;
  /// 0 when the scale is (almost) 0.
  void RealToBin(double* bin, const double* real) const override;
  void CopyParametersFrom(const TDTransformation& source) override;
  bool IsEqualTo(const TDTransformation& other) const override;

  void SetParameters(double worldOrigin, double modelOrigin, double scale);
  double GetWorldOrigin() const { return FWorldOrigin; }
  double GetModelOrigin() const { return FModelOrigin; }
  double GetScale() const { return FScale; }

private:
  double FWorldOrigin = 0.0;
  double FModelOrigin = 0.0;
  double FScale = 1.0;
};

/// Kinds of spectral calibration.
enum class TSpectralTransformationType : int32_t { Polynomial = 0, Monochromator = 1, FreePolynomial = 2 };

/// The parameters of the grating equation: centre pixel, centre wavelength (nm), included angle, detector
/// tilt (radians), diffraction order, grating constant (nm), pixel pitch and focal length (same unit).
struct TMonochromatorParameters {
  double nC = 0, LambdaC = 0, Gamma = 0, Delta = 0, m = 0, d = 0, x = 0, f = 0;
  bool operator==(const TMonochromatorParameters&) const = default;
};

/// Detector pixel to wavelength in nm: a quadratic, the spectrograph's grating equation, or a free
/// polynomial.
class TDSpectralTransformation : public TDTransformation {
  ORVEX_DATA_CLASS(TDSpectralTransformation, TDTransformation)
public:
  TDSpectralTransformation();
  static constexpr int32_t ThisVersion = 0;

  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void BinToReal(const double* bin, double* real) const override { real[0] = PixelToWaveLength(bin[0]); }
  void RealToBin(double* bin, const double* real) const override { bin[0] = WaveLengthToPixel(real[0]); }
  /// The stored interpretation; without one the first spectral interpretation of the project.
  int32_t MakeOrGetInterpretationID() override;
  void CopyParametersFrom(const TDTransformation& source) override;
  bool IsEqualTo(const TDTransformation& other) const override;

  /// Wavelength in nm of a (fractional) pixel; 0 when a guard of the model fails.
  virtual double PixelToWaveLength(double pixel) const;
  virtual double WaveLengthToPixel(double wavelength) const;

  void SetSpectralTransformationType(TSpectralTransformationType type) { FType = type; }
  TSpectralTransformationType GetSpectralTransformationType() const { return FType; }
  /// Type 0: a0 + a1 p + a2 p^2 (the type itself is set separately).
  void SetPolynom(double a0, double a1, double a2) { FPolynom = {a0, a1, a2}; }
  const std::array<double, 3>& GetPolynom() const { return FPolynom; }
  void SetMonochromatorParameters(const TMonochromatorParameters& parameters) { FMonochromator = parameters; }
  const TMonochromatorParameters& GetMonochromatorParameters() const { return FMonochromator; }
  /// Sets a free polynomial (order + 1 coefficients, c0 first) over [start, stop] and type 2; false, with
  /// the old type and no polynomial, when the curve isn't monotonic over the range.
  bool SetFreePolynomParameters(int32_t order, const double* coefficients, double start, double stop);
  int32_t GetFreePolynomOrder() const { return FFreePolynomOrder; }
  const std::vector<double>& GetFreePolynom() const { return FFreePolynom; }
  double GetFreePolynomStartBin() const { return FStartBin; }
  double GetFreePolynomStopBin() const { return FStopBin; }

private:
  double PolynomialToWaveLength(double pixel) const;
  double PolynomialToPixel(double wavelength) const;
  double MonochromatorToWaveLength(double pixel) const;
  double MonochromatorToPixel(double wavelength) const;
  double FreePolynomValue(double pixel) const;
  double FreePolynomToWaveLength(double pixel) const;
  double FreePolynomToPixel(double wavelength) const;

  TSpectralTransformationType FType = TSpectralTransformationType::Polynomial;
  std::array<double, 3> FPolynom{0.0, 1.0, 0.0};
  TMonochromatorParameters FMonochromator;
  std::vector<double> FFreePolynom;
  int32_t FFreePolynomOrder = -1;
  double FStartBin = 0.0;
  double FStopBin = 0.0;
};

/// A table of strictly monotonic values, interpolated linearly between the entries.
class TDLUTTransformation : public TDTransformation {
  ORVEX_DATA_CLASS(TDLUTTransformation, TDTransformation)
public:
  TDLUTTransformation();
  static constexpr int32_t ThisVersion = 0;

  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  /// Raises when no table is set.
  void BinToReal(const double* bin, double* real) const override;
  void RealToBin(double* bin, const double* real) const override;
  void CopyParametersFrom(const TDTransformation& source) override;
  bool IsEqualTo(const TDTransformation& other) const override;

  /// Copies size values; raises for size < 1 or values that aren't strictly monotonic (no table is left).
  void SetLUT(const double* values, int32_t size);
  int32_t GetLUTSize() const { return static_cast<int32_t>(FLUT.size()); }
  const std::vector<double>& GetLUT() const { return FLUT; }
  bool IsLUTValid() const { return FLUTValid; }
  bool IsLUTIncreasing() const { return FLUTIsIncreasing; }

private:
  std::vector<double> FLUT;
  bool FLUTValid = false;
  bool FLUTIsIncreasing = true;
};

// --- Helpers (all with a project) ------------------------------------------------------------------

/// True for equal IDs; otherwise both must exist, be transformations of the same class and map alike.
bool IsTransformationEqual(const IDataProject& project, int32_t a, int32_t b);
/// The first ID of the list whose transformation equals transformationID's, else 0.
int32_t SearchForEqualTransformation(const IDataProject& project, const TIntList& idList,
                                     int32_t transformationID);
/// A new object of the source's class with its parameters and a new ID, not added to the project. On
/// failure the user is told and null comes back.
std::unique_ptr<TDTransformation> MakeAndCopyTransformation(IDataProject& project, TDataSaveMode saveMode,
                                                            const TDTransformation& source);
/// The same by ID; the copy is added to the project and its ID returned (0 on failure).
int32_t MakeAndCopyTransformation(IDataProject& project, TDataSaveMode saveMode, int32_t sourceID);
/// Copies the parameters of source into target (both IDs, same class); false otherwise.
bool CopyTransformation(IDataProject& project, int32_t sourceID, int32_t targetID);
/// Pixel size of a space transformation; false (and 0, 0) for other IDs.
bool GetDeltaXYFromTransformation(const IDataProject& project, int32_t id, double& deltaX, double& deltaY);
/// Scan planes of two space transformations are parallel.
bool IsImageTransformationParallelToImageTransformation(const IDataProject& project, int32_t a, int32_t b);
/// Scan planes of two space transformations stand at right angles.
bool IsImageTransformationPerpendicularToImageTransformation(const IDataProject& project, int32_t a,
                                                             int32_t b);
/// The origin point of transformation a lies in the scan plane of b.
bool IsPointTransformationPartOfImageTransformation(const IDataProject& project, int32_t a, int32_t b);
/// The x axis of line transformation a runs parallel to the scan plane of b.
bool IsLineTransformationParallelToImageTransformation(const IDataProject& project, int32_t a, int32_t b);
/// The corners (0, 0), (sizeX, 0), (sizeX, sizeY) mapped through a and back through b land where they
/// started (x and y within 1e-6 pixels); z is ignored.
bool IsImageBaseTransformationTheSameWithoutZ(const IDataProject& project, int32_t a, int32_t b,
                                              int32_t sizeX, int32_t sizeY);
TUnitKind GetUnitKindFromTransformationID(const IDataProject& project, int32_t id);
int32_t MakeOrGetCursorIDFromTransformationID(IDataProject& project, int32_t id);
int32_t MakeOrGetInterpretationIDFromTransformationID(IDataProject& project, int32_t id);
/// The space transformation of an image, graph or bitmap (by the reference it lists), else 0.
int32_t GetSpaceTransformationIDFromObject(const IDataProject& project, int32_t id);

/// World position (x, y) of the centre of pixel (x, y) through the space transformation transformationID;
/// without one the world is the pixel grid. Viewers and tools showing one map all use this pair, so a click
/// on an image pixel and the spectrum shown for the shared cursor always agree.
void PixelToWorld(const IDataProject& project, int32_t transformationID, double pixelX, double pixelY,
                  double& worldX, double& worldY);
/// The pixel whose centre is nearest to a world position (x, y); false (and -1, -1) when it lies outside a
/// field of sizeX x sizeY pixels or is not finite.
bool WorldToPixel(const IDataProject& project, int32_t transformationID, double worldX, double worldY,
                  int32_t sizeX, int32_t sizeY, int32_t& pixelX, int32_t& pixelY);

/// Registers the transformation classes in the fixed order of the registry.
void RegisterTransformationClasses();

/// The values of an axis (0 x, 1 y of a space transformation; 0 of a one-dimensional one) at pixels
/// 0 .. count-1, in the current unit of its interpretation (interpretationID, or the transformation's own
/// when 0), and that unit's name. False without transformation.
bool GetAxisValues(const IDataProject& project, int32_t transformationID, int32_t interpretationID,
                   int32_t count, int axis, std::vector<double>& values, std::string& unit);
