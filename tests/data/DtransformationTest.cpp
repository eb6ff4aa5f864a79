// Axis transformations: viewport matrices, the spectral models against known values, look-up tables,
// exact file round trips of every class, and the helpers that work through a project.
#include "data/Dtransformation.h"

#include "common/OrvexException.h"
#include "common/Standardmessage.h"
#include "data/Dcursor.h"
#include "project/Project.h"
#include "support/DataRoundTrip.h"
#include "support/TestSupport.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

namespace {

using oxtest::RoundTrip;

double Determinant(const TMatrix3& m) {
  return m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
         m[2] * (m[3] * m[7] - m[4] * m[6]);
}

// Rows of a rotation are orthonormal and form a right-handed system.
void ExpectRotation(const TMatrix3& r) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      const double dot = r[i * 3] * r[j * 3] + r[i * 3 + 1] * r[j * 3 + 1] + r[i * 3 + 2] * r[j * 3 + 2];
      EXPECT_NEAR(dot, i == j ? 1.0 : 0.0, 1e-12) << i << "," << j;
    }
  EXPECT_NEAR(Determinant(r), 1.0, 1e-12);
}

TEST(DtransformationTest, ViewPortMapsAndInvertsWithRotationScaleAndOrigins) {
  TViewPort3D view;
  view.SetModelOrigin({10, 20, 0});
  view.SetWorldOrigin({-5, 3, 7});
  view.SetScale({0.25, 0.5, 2.0});
  view.SetRotation(30, -20, 75);
  ExpectRotation(view.GetRotationMatrix());
  const TMatrix3 identity = MultiplyMatrix(view.GetMatrix(), view.GetInverseMatrix());
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(identity[i], i % 4 == 0 ? 1.0 : 0.0, 1e-12);

  const double bin[3] = {13.5, -4.0, 2.25};
  double real[3], back[3];
  view.BinToReal(bin, real);
  view.RealToBin(back, real);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(back[i], bin[i], 1e-12);

  // Without rotation the map is the plain affine one.
  TViewPort3D plain;
  plain.SetModelOrigin({1, 1, 1});
  plain.SetWorldOrigin({100, 200, 300});
  plain.SetScale({2, 3, 4});
  plain.BinToReal(bin, real);
  EXPECT_DOUBLE_EQ(real[0], 100 + 2 * 12.5);
  EXPECT_DOUBLE_EQ(real[1], 200 + 3 * -5.0);
  EXPECT_DOUBLE_EQ(real[2], 300 + 4 * 1.25);
}

TEST(DtransformationTest, ViewPortRotationFromPoints) {
  TViewPort3D view;
  view.SetRotationBy2Points({1, 1, 1}, {4, 5, 1});
  ExpectRotation(view.GetRotationMatrix());
  EXPECT_NEAR(view.GetRotationMatrix()[0], 0.6, 1e-12);
  EXPECT_NEAR(view.GetRotationMatrix()[1], 0.8, 1e-12);
  // Along z the first helper fails and the next one is taken.
  view.SetRotationBy2Points({0, 0, 0}, {0, 0, 3});
  ExpectRotation(view.GetRotationMatrix());
  EXPECT_NEAR(view.GetRotationMatrix()[2], 1.0, 1e-12);

  view.SetRotationByPoints({0, 0, 0}, {2, 0, 0}, {1, 5, 0});
  const TMatrix3& r = view.GetRotationMatrix();
  ExpectRotation(r);
  EXPECT_NEAR(r[4], 1.0, 1e-12); // second row along y: the plane of the points
  EXPECT_NEAR(r[8], 1.0, 1e-12); // third row its normal
  view.SetRotationByPoints2({0, 0, 0}, {3, 1, 0}, {0, 0, -2});
  ExpectRotation(view.GetRotationMatrix());
  EXPECT_NEAR(view.GetRotationMatrix()[5], -1.0, 1e-12);
}

TEST(DtransformationTest, SpaceTransformationOneAxisViewsAndPixelSize) {
  TDSpaceTransformation space;
  EXPECT_EQ(space.GetDim(), 3);
  EXPECT_EQ(space.GetStandardUnit(), "µm");
  EXPECT_EQ(space.GetSaveMode(), TDataSaveMode::Always);
  space.ViewPort().SetScale({0.5, 0.25, 1});
  space.ViewPort().SetRotation(0, 0, 90);
  space.ViewPort().SetWorldOrigin({7, 8, 9});
  double sizeX = 0, sizeY = 0;
  space.GetPixelSize(sizeX, sizeY);
  EXPECT_NEAR(sizeX, 0.5, 1e-12);
  EXPECT_NEAR(sizeY, 0.25, 1e-12);
  EXPECT_NEAR(space.Dim1BinToDim1Real(4), 2.0, 1e-12);
  EXPECT_NEAR(space.Dim1BinToDim1Real(-4), -2.0, 1e-12);
  EXPECT_NEAR(space.Dim1RealToDim1Bin(3.0), 6.0, 1e-12);
  double multi[3];
  space.Dim1RealToDimMultiReal(1.5, multi);
  EXPECT_NEAR(space.DimMultiRealToDim1Real(multi), 1.5, 1e-12);
  EXPECT_EQ(space.GetDataCategory(), 7);
  space.SetLineInformation(true, {0, 0, 0}, {1, 1, 0}, 20);
  EXPECT_EQ(space.GetDataCategory(), 8);
}

TEST(DtransformationTest, BaseOneAxisViewsNeedDimensionOne) {
  TDTransformation base;
  EXPECT_DOUBLE_EQ(base.Dim1BinToDim1Real(2.5), 2.5);
  base.SetDim(3);
  EXPECT_THROW(base.Dim1BinToDim1Real(1), OrvexException);
  EXPECT_THROW(base.Dim1RealToDim1Bin(1), OrvexException);
  const double multi[3] = {1, 2, 3};
  EXPECT_THROW(base.DimMultiRealToDim1Real(multi), OrvexException);
  try {
    base.Dim1RealToDimMultiReal(1, nullptr);
    FAIL();
  } catch (const OrvexException& e) {
    EXPECT_STREQ(e.what(), "Wrong Implementation of TDTransformation::Dim1RealToDimMultiReal()!");
  }
}

TEST(DtransformationTest, LinearTransformation) {
  TDLinearTransformation linear;
  linear.SetParameters(100.0, 10.0, 0.5);
  EXPECT_DOUBLE_EQ(linear.Dim1BinToDim1Real(14), 102.0);
  EXPECT_DOUBLE_EQ(linear.Dim1RealToDim1Bin(102.0), 14.0);
  linear.SetParameters(100.0, 10.0, 0.0);
  EXPECT_EQ(linear.Dim1RealToDim1Bin(55.0), 0.0);
}

TEST(DtransformationTest, SpectralPolynomialInverseTakesTheRootOnTheSideOfPixelZero) {
  TDSpectralTransformation spectral;
  spectral.SetPolynom(500.0, 0.1, -2e-5); // apex far right of the detector
  for (double p : {0.0, 1.5, 300.0, 1023.0})
    EXPECT_NEAR(spectral.WaveLengthToPixel(spectral.PixelToWaveLength(p)), p, 1e-7);
  spectral.SetPolynom(500.0, -1.0, 0.001); // apex at pixel 500, value 250
  EXPECT_NEAR(spectral.PixelToWaveLength(100), 500 - 100 + 10, 1e-12);
  EXPECT_NEAR(spectral.WaveLengthToPixel(410.0), 100.0, 1e-9); // not the mirror root 900
  EXPECT_DOUBLE_EQ(spectral.WaveLengthToPixel(200.0), 500.0);  // beyond the apex: the apex pixel
  spectral.SetPolynom(400.0, 0.0, 0.0);
  EXPECT_EQ(spectral.WaveLengthToPixel(500.0), 0.0);
  spectral.SetPolynom(400.0, 0.25, 0.0);
  EXPECT_DOUBLE_EQ(spectral.WaveLengthToPixel(500.0), 400.0);
}

TEST(DtransformationTest, SpectralMonochromatorGratingEquation) {
  TDSpectralTransformation spectral;
  spectral.SetSpectralTransformationType(TSpectralTransformationType::Monochromator);
  TMonochromatorParameters mo;
  mo.nC = 512;
  mo.LambdaC = 633.0;
  mo.Gamma = 0.4;
  mo.Delta = 0.05;
  mo.m = 1;
  mo.d = 1e6 / 600.0; // 600 lines per mm, in nm
  mo.x = 0.026;
  mo.f = 300;
  spectral.SetMonochromatorParameters(mo);
  // At the centre pixel the grating equation gives the centre wavelength: 2 d sin(a) cos(G/2) / m.
  EXPECT_NEAR(spectral.PixelToWaveLength(512), 633.0, 1e-9);
  // Independently: lambda = d/m (sin(a - G/2) + sin(a + G/2 + atan(t x cos D / (t x sin D + f)))).
  const double a = std::asin(mo.m * mo.LambdaC / 2 / (mo.d * std::cos(mo.Gamma / 2)));
  const double t = 100 - mo.nC;
  const double s = std::atan(t * mo.x * std::cos(mo.Delta) / (t * mo.x * std::sin(mo.Delta) + mo.f));
  EXPECT_NEAR(spectral.PixelToWaveLength(100),
              mo.d / mo.m * (std::sin(a - mo.Gamma / 2) + std::sin(mo.Gamma / 2 + a + s)), 1e-9);
  for (double p = 0; p < 1024; p += 73.25)
    EXPECT_NEAR(spectral.WaveLengthToPixel(spectral.PixelToWaveLength(p)), p, 1e-8);
  // Guards: diffraction order 0 gives 0 everywhere, an impossible centre wavelength too.
  mo.m = 0;
  spectral.SetMonochromatorParameters(mo);
  for (double p : {0.0, 512.0, 1000.0}) EXPECT_EQ(spectral.PixelToWaveLength(p), 0.0);
  mo.m = 1;
  mo.LambdaC = 1e5;
  spectral.SetMonochromatorParameters(mo);
  EXPECT_EQ(spectral.PixelToWaveLength(10), 0.0);
  EXPECT_EQ(spectral.WaveLengthToPixel(600), 0.0);
}

TEST(DtransformationTest, SpectralFreePolynomial) {
  TDSpectralTransformation spectral;
  const double rising[4] = {500.0, 0.2, -1e-5, 2e-9};
  ASSERT_TRUE(spectral.SetFreePolynomParameters(3, rising, 1023, 0)); // start and stop in either order
  EXPECT_EQ(spectral.GetSpectralTransformationType(), TSpectralTransformationType::FreePolynomial);
  EXPECT_EQ(spectral.GetFreePolynomStartBin(), 0.0);
  EXPECT_EQ(spectral.GetFreePolynomStopBin(), 1023.0);
  const double p = 300.0;
  EXPECT_NEAR(spectral.PixelToWaveLength(p), 500 + 0.2 * p - 1e-5 * p * p + 2e-9 * p * p * p, 1e-9);
  EXPECT_DOUBLE_EQ(spectral.PixelToWaveLength(-50), spectral.PixelToWaveLength(0)); // clamped
  for (double q : {0.0, 17.5, 511.0, 1023.0})
    EXPECT_NEAR(spectral.WaveLengthToPixel(spectral.PixelToWaveLength(q)), q, 1e-6);

  // A curve that turns inside the range isn't invertible: refused, the old type stays.
  TDSpectralTransformation other;
  const double turning[3] = {500.0, 1.0, -0.001}; // apex at pixel 500
  EXPECT_FALSE(other.SetFreePolynomParameters(2, turning, 0, 1023));
  EXPECT_EQ(other.GetSpectralTransformationType(), TSpectralTransformationType::Polynomial);
  EXPECT_EQ(other.GetFreePolynomOrder(), -1);
  EXPECT_TRUE(other.GetFreePolynom().empty());
}

TEST(DtransformationTest, LookUpTable) {
  TDLUTTransformation lut;
  double bin = 1, real = 0;
  EXPECT_THROW(lut.BinToReal(&bin, &real), OrvexException);
  EXPECT_THROW(lut.SetLUT(nullptr, 0), OrvexException);
  const double equal[4] = {1, 2, 2, 3};
  try {
    lut.SetLUT(equal, 4);
    FAIL();
  } catch (const OrvexException& e) {
    EXPECT_STREQ(e.what(),
                 "TDLUTTransformation::SetLUT(): Values in LUT are not strictly monotonic in-/decreasing");
  }
  EXPECT_FALSE(lut.IsLUTValid());
  EXPECT_EQ(lut.GetLUTSize(), 0);
  EXPECT_THROW(lut.RealToBin(&bin, &real), OrvexException);

  const double one = 42.0;
  lut.SetLUT(&one, 1);
  for (double b : {-3.0, 0.0, 0.7, 100.0}) EXPECT_EQ(lut.Dim1BinToDim1Real(b), 42.0);

  const double increasing[4] = {10, 20, 40, 80};
  lut.SetLUT(increasing, 4);
  EXPECT_DOUBLE_EQ(lut.Dim1BinToDim1Real(1.5), 30.0);
  EXPECT_DOUBLE_EQ(lut.Dim1BinToDim1Real(-1), 10.0);
  EXPECT_DOUBLE_EQ(lut.Dim1BinToDim1Real(9), 80.0);
  EXPECT_DOUBLE_EQ(lut.Dim1RealToDim1Bin(60.0), 2.5);
  EXPECT_DOUBLE_EQ(lut.Dim1RealToDim1Bin(5.0), 0.0);
  EXPECT_DOUBLE_EQ(lut.Dim1RealToDim1Bin(80.0), 3.0);

  const double decreasing[3] = {9, 5, 1};
  lut.SetLUT(decreasing, 3);
  EXPECT_FALSE(lut.IsLUTIncreasing());
  EXPECT_DOUBLE_EQ(lut.Dim1BinToDim1Real(0.5), 7.0);
  EXPECT_DOUBLE_EQ(lut.Dim1RealToDim1Bin(3.0), 1.5);
  EXPECT_DOUBLE_EQ(lut.Dim1RealToDim1Bin(10.0), 0.0);
}

TEST(DtransformationTest, EveryClassRoundTripsExactly) {
  oxtest::TempDir dir;
  TDSpaceTransformation space;
  space.SetID(4);
  space.SetInterpretationID(9);
  space.SetIsCalibrated(false);
  space.ViewPort().SetModelOrigin({1.25, -2.5, 0.1});
  space.ViewPort().SetWorldOrigin({1e-7, 3.3, -8});
  space.ViewPort().SetScale({0.1, 0.2, 0.3});
  space.ViewPort().SetRotation(12.3, 45.6, 78.9);
  space.SetLineInformation(true, {0.1, 0.2, 0.3}, {1.1, 1.2, 1.3}, 77);
  auto spaceBack = RoundTrip<TDSpaceTransformation>(space, dir);
  EXPECT_TRUE(spaceBack->IsEqualTo(space));
  EXPECT_EQ(spaceBack->ViewPort().GetRotationMatrix(), space.ViewPort().GetRotationMatrix());
  EXPECT_EQ(spaceBack->ViewPort().GetInverseMatrix(), space.ViewPort().GetInverseMatrix());
  EXPECT_EQ(spaceBack->GetLineStop(), space.GetLineStop());
  EXPECT_EQ(spaceBack->GetNumberOfLinePoints(), 77);
  EXPECT_EQ(spaceBack->GetInterpretationID(), 9);
  EXPECT_FALSE(spaceBack->GetIsCalibrated());
  EXPECT_EQ(spaceBack->GetUnitKind(), TUnitKind::Space);
  EXPECT_EQ(spaceBack->GetStandardUnit(), "µm");

  TDLinearTransformation linear;
  linear.SetParameters(1.0 / 3.0, -7.25, 1e-9);
  linear.SetStandardUnit("ms");
  linear.SetUnitKind(TUnitKind::Time);
  auto linearBack = RoundTrip<TDLinearTransformation>(linear, dir);
  EXPECT_TRUE(linearBack->IsEqualTo(linear));
  EXPECT_EQ(linearBack->GetWorldOrigin(), 1.0 / 3.0);
  EXPECT_EQ(linearBack->GetStandardUnit(), "ms");

  TDSpectralTransformation spectral;
  spectral.SetPolynom(532.1, 0.0123, -1.5e-6);
  TMonochromatorParameters mo{512, 633, 0.4, 0.05, 1, 1666.6, 0.026, 300};
  spectral.SetMonochromatorParameters(mo);
  const double coefficients[3] = {500, 0.1, 1e-6};
  ASSERT_TRUE(spectral.SetFreePolynomParameters(2, coefficients, 0, 1339));
  auto spectralBack = RoundTrip<TDSpectralTransformation>(spectral, dir);
  EXPECT_TRUE(spectralBack->IsEqualTo(spectral));
  EXPECT_EQ(spectralBack->GetPolynom(), spectral.GetPolynom());
  EXPECT_EQ(spectralBack->GetMonochromatorParameters(), mo);
  EXPECT_EQ(spectralBack->GetFreePolynom(), spectral.GetFreePolynom());

  TDLUTTransformation lut;
  const double values[5] = {0.5, 0.25, 0.125, -1, -1e10};
  lut.SetLUT(values, 5);
  auto lutBack = RoundTrip<TDLUTTransformation>(lut, dir);
  EXPECT_TRUE(lutBack->IsEqualTo(lut));
  EXPECT_TRUE(lutBack->IsLUTValid());
  EXPECT_FALSE(lutBack->IsLUTIncreasing());
  TDLUTTransformation emptyLut;
  EXPECT_FALSE(RoundTrip<TDLUTTransformation>(emptyLut, dir)->IsLUTValid());
}

TEST(DtransformationTest, FreePolynomialTagOnlyWithAnOrder) {
  oxtest::TempDir dir;
  TDSpectralTransformation spectral;
  const auto name = dir.File("spectral.oxt");
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_EQ(spectral.SaveDataToTagFile(f), 1);
  root.CloseWriteTag(f);
  CloseFile(f);
  TTagControl tree;
  ASSERT_EQ(tree.LoadTagListByFileName(name, "ORX_TEST"), 1);
  EXPECT_TRUE(tree.IsTagInList("TDSpectralTransformation|FreePolynomOrder"));
  EXPECT_FALSE(tree.IsTagInList("TDSpectralTransformation|FreePolynom"));
  auto back = RoundTrip<TDSpectralTransformation>(spectral, dir);
  EXPECT_EQ(back->GetFreePolynomOrder(), -1);
}

TEST(DtransformationTest, CorruptFreePolynomialOrderIsRefused) {
  oxtest::TempDir dir;
  const auto name = dir.File("corrupt.oxt");
  TDSpectralTransformation spectral;
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root, own, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_EQ(spectral.TDTransformation::SaveDataToTagFile(f), 1);
  own.WriteTag(f, "TDSpectralTransformation", TTagKind::TagList);
  t.SaveIntTag(f, "Version", 0);
  t.SaveIntTag(f, "SpectralTransformationType", 2);
  const double polynom[3] = {0, 1, 0};
  t.SaveDoubleTag(f, "Polynom", polynom, 3);
  for (const char* tag : {"nC", "LambdaC", "Gamma", "Delta", "m", "d", "x", "f"})
    t.SaveDoubleTag(f, tag, 0.0);
  t.SaveIntTag(f, "FreePolynomOrder", INT32_MAX); // far more than the tag holds
  t.SaveDoubleTag(f, "FreePolynom", polynom, 3);
  own.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  TDSpectralTransformation back;
  EXPECT_LT(back.LoadDataFromTagFile(in, readRoot), 1);
  CloseFile(in);
}

class DtransformationProjectTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterCursorClasses();
    RegisterTransformationClasses();
    RegisterInterpretationClasses();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerOk));
  }
  template <class T>
  T* Add() {
    auto object = std::make_unique<T>();
    object->SetID(FProject.GetNewDataID());
    T* raw = object.get();
    FProject.AddData(std::move(object));
    return raw;
  }
  TProject FProject;
};

TEST_F(DtransformationProjectTest, CursorsAndInterpretationsAreSharedByUnitKind) {
  auto* first = Add<TDSpectralTransformation>();
  auto* second = Add<TDSpectralTransformation>();
  auto* space = Add<TDSpaceTransformation>();
  const int32_t cursor = MakeOrGetCursorIDFromTransformationID(FProject, first->GetID());
  ASSERT_NE(cursor, 0);
  EXPECT_EQ(FProject.GetClassNameByID(cursor), "TDSpectralCursor");
  EXPECT_EQ(MakeOrGetCursorIDFromTransformationID(FProject, second->GetID()), cursor);
  const int32_t spaceCursor = MakeOrGetCursorIDFromTransformationID(FProject, space->GetID());
  EXPECT_EQ(FProject.GetClassNameByID(spaceCursor), "TDSpaceCursor");
  EXPECT_EQ(MakeOrGetCursorIDFromTransformationID(FProject, 999), 0);

  const int32_t spaceInterpretation = MakeOrGetInterpretationIDFromTransformationID(FProject, space->GetID());
  EXPECT_EQ(FProject.GetClassNameByID(spaceInterpretation), "TDSpaceInterpretation");
  // A spectral transformation keeps its own interpretation (each has its excitation).
  first->SetInterpretationID(space->GetID());
  EXPECT_EQ(first->MakeOrGetInterpretationID(), space->GetID());

  auto* linear = Add<TDLinearTransformation>();
  linear->SetUnitKind(TUnitKind::ZValue);
  linear->SetStandardUnit("counts");
  const int32_t z = linear->MakeOrGetInterpretationID();
  ASSERT_NE(z, 0);
  EXPECT_EQ(GetStandardZInterpretation(FProject, "counts"), z);
  EXPECT_EQ(FProject.FindData(z)->GetCaption(), "ZInterpretation counts");
  EXPECT_EQ(linear->MakeOrGetInterpretationID(), z);
  linear->SetUnitKind(TUnitKind::None);
  EXPECT_EQ(linear->MakeOrGetInterpretationID(), 0);
  EXPECT_EQ(linear->MakeOrGetCursorID(), 0);
}

TEST_F(DtransformationProjectTest, EqualityCopiesAndReferences) {
  auto* a = Add<TDLinearTransformation>();
  auto* b = Add<TDLinearTransformation>();
  auto* c = Add<TDLUTTransformation>();
  a->SetParameters(1, 2, 3);
  b->SetParameters(1, 2, 3);
  EXPECT_TRUE(IsTransformationEqual(FProject, a->GetID(), b->GetID()));
  EXPECT_FALSE(IsTransformationEqual(FProject, a->GetID(), c->GetID()));
  EXPECT_TRUE(IsTransformationEqual(FProject, 77, 77)); // equal IDs
  EXPECT_FALSE(IsTransformationEqual(FProject, a->GetID(), 77));
  b->SetParameters(1, 2, 3.0000001);
  EXPECT_FALSE(IsTransformationEqual(FProject, a->GetID(), b->GetID()));
  EXPECT_EQ(SearchForEqualTransformation(FProject, {c->GetID(), b->GetID(), a->GetID()}, a->GetID()),
            a->GetID());
  EXPECT_EQ(SearchForEqualTransformation(FProject, {c->GetID(), b->GetID()}, a->GetID()), 0);

  const int32_t copy = MakeAndCopyTransformation(FProject, TDataSaveMode::Never, a->GetID());
  ASSERT_NE(copy, 0);
  EXPECT_NE(copy, a->GetID());
  EXPECT_TRUE(IsTransformationEqual(FProject, a->GetID(), copy));
  EXPECT_EQ(FProject.FindData(copy)->GetSaveMode(), TDataSaveMode::Never);
  EXPECT_TRUE(CopyTransformation(FProject, a->GetID(), b->GetID()));
  EXPECT_TRUE(IsTransformationEqual(FProject, a->GetID(), b->GetID()));
  EXPECT_FALSE(CopyTransformation(FProject, a->GetID(), c->GetID()));

  // The interpretation reference: used, shifted, exchanged, and cleared when its object goes.
  auto* interpretation = Add<TDTimeInterpretation>();
  a->SetInterpretationID(interpretation->GetID());
  EXPECT_TRUE(FProject.IsDataUsed(interpretation->GetID()));
  a->ExchangeID(interpretation->GetID(), 500);
  EXPECT_EQ(a->GetInterpretationID(), 500);
  a->CleanWrongDataConnections();
  EXPECT_EQ(a->GetInterpretationID(), 0);
  a->AddToID(10);
  EXPECT_EQ(a->GetInterpretationID(), 0);
  a->SetInterpretationID(interpretation->GetID());
  ASSERT_TRUE(FProject.DeleteData(interpretation->GetID()));
  EXPECT_EQ(a->GetInterpretationID(), 0);
}

TEST_F(DtransformationProjectTest, GeometricRelationsOfScanPlanes) {
  auto* xy = Add<TDSpaceTransformation>();
  auto* shiftedXY = Add<TDSpaceTransformation>();
  auto* xz = Add<TDSpaceTransformation>();
  shiftedXY->ViewPort().SetWorldOrigin({0, 0, 5});
  shiftedXY->ViewPort().SetScale({0.1, 0.3, 1});
  xz->ViewPort().SetRotation(90, 0, 0);
  EXPECT_TRUE(IsImageTransformationParallelToImageTransformation(FProject, xy->GetID(), shiftedXY->GetID()));
  EXPECT_FALSE(
      IsImageTransformationPerpendicularToImageTransformation(FProject, xy->GetID(), shiftedXY->GetID()));
  EXPECT_TRUE(IsImageTransformationPerpendicularToImageTransformation(FProject, xy->GetID(), xz->GetID()));
  EXPECT_FALSE(IsPointTransformationPartOfImageTransformation(FProject, shiftedXY->GetID(), xy->GetID()));
  EXPECT_TRUE(IsPointTransformationPartOfImageTransformation(FProject, xz->GetID(), xy->GetID()));
  EXPECT_TRUE(IsLineTransformationParallelToImageTransformation(FProject, xz->GetID(), xy->GetID()));
  EXPECT_TRUE(IsImageBaseTransformationTheSameWithoutZ(FProject, xy->GetID(), xy->GetID(), 100, 50));
  EXPECT_FALSE(IsImageBaseTransformationTheSameWithoutZ(FProject, xy->GetID(), shiftedXY->GetID(), 100, 50));
  double dx = 0, dy = 0;
  EXPECT_TRUE(GetDeltaXYFromTransformation(FProject, shiftedXY->GetID(), dx, dy));
  EXPECT_NEAR(dx, 0.1, 1e-15);
  EXPECT_NEAR(dy, 0.3, 1e-15);

  // The arrow keys move the space cursor by whole pixels.
  const int32_t cursorID = shiftedXY->MakeOrGetCursorID();
  auto* cursor = dynamic_cast<TDSpaceCursor*>(FProject.FindData(cursorID));
  ASSERT_NE(cursor, nullptr);
  SendSpaceCursorByArrowKeys(FProject, cursorID, shiftedXY->GetID(), 2, -1);
  EXPECT_NEAR(cursor->GetPosition(0), 0.2, 1e-12);
  EXPECT_NEAR(cursor->GetPosition(1), -0.3, 1e-12);
  EXPECT_NEAR(cursor->GetPosition(2), 0.0, 1e-12);
}

TEST_F(DtransformationProjectTest, ProjectFileKeepsUsedTransformations) {
  oxtest::TempDir dir;
  auto* space = Add<TDSpaceTransformation>(); // always saved
  space->ViewPort().SetScale({0.5, 0.5, 1});
  auto* unused = Add<TDLinearTransformation>(); // saved only while used: dropped
  auto* interpretation = Add<TDSpaceInterpretation>();
  space->SetInterpretationID(interpretation->GetID());
  ASSERT_EQ(FProject.SaveProjectToFile(dir.File("p.oxp")), 1);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(dir.File("p.oxp")), 1);
  EXPECT_EQ(loaded.GetClassNameByID(space->GetID()), "TDSpaceTransformation");
  EXPECT_EQ(loaded.GetClassNameByID(interpretation->GetID()), "TDSpaceInterpretation");
  EXPECT_FALSE(loaded.DataIDExists(unused->GetID()));
  EXPECT_TRUE(IsTransformationEqual(loaded, space->GetID(), space->GetID()));
  const auto* back = dynamic_cast<const TDSpaceTransformation*>(loaded.FindData(space->GetID()));
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(back->IsEqualTo(*space));
}

} // namespace

TEST_F(DtransformationProjectTest, PixelAndWorldMeetAtPixelCentres) {
  auto* space = Add<TDSpaceTransformation>();
  space->ViewPort().SetScale({0.5, 0.25, 1});
  space->ViewPort().SetWorldOrigin({10, -3, 0});
  double worldX = 0, worldY = 0;
  PixelToWorld(FProject, space->GetID(), 4, 2, worldX, worldY);
  EXPECT_DOUBLE_EQ(worldX, 12.0);
  EXPECT_DOUBLE_EQ(worldY, -2.5);
  int32_t x = 0, y = 0;
  // Anywhere inside a pixel (less than half a pixel from its centre) finds that pixel.
  ASSERT_TRUE(WorldToPixel(FProject, space->GetID(), 12.0 + 0.24, -2.5 - 0.12, 8, 8, x, y));
  EXPECT_EQ(x, 4);
  EXPECT_EQ(y, 2);
  ASSERT_TRUE(WorldToPixel(FProject, space->GetID(), 10.0 - 0.2, -3.0 - 0.1, 8, 8, x, y));
  EXPECT_EQ(x, 0);
  EXPECT_EQ(y, 0);
  // Past the last pixel, before the first, or not a number: no pixel.
  EXPECT_FALSE(WorldToPixel(FProject, space->GetID(), 10.0 + 0.5 * 7.6, -3.0, 8, 8, x, y));
  EXPECT_EQ(x, -1);
  EXPECT_FALSE(WorldToPixel(FProject, space->GetID(), 10.0 - 0.3, -3.0, 8, 8, x, y));
  EXPECT_FALSE(WorldToPixel(FProject, space->GetID(), std::nan(""), -3.0, 8, 8, x, y));
  // Without a space transformation the world is the pixel grid.
  PixelToWorld(FProject, 0, 3, 5, worldX, worldY);
  EXPECT_EQ(worldX, 3.0);
  ASSERT_TRUE(WorldToPixel(FProject, 0, 2.6, 4.4, 8, 8, x, y));
  EXPECT_EQ(x, 3);
  EXPECT_EQ(y, 4);
}
