// Interpretations: spectral conversions against independent physical relations, the factor tables, number
// formatting, change notifications, file round trips and the Z interpretation helpers.
#include "data/Dinterpretation.h"

#include "project/Project.h"
#include "support/DataRoundTrip.h"
#include "support/TestSupport.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

namespace {

using oxtest::RoundTrip;

void ExpectRelative(double actual, double expected, double tolerance = 1e-9) {
  EXPECT_LE(std::fabs(actual - expected), tolerance * std::fabs(expected)) << actual << " vs " << expected;
}

// h c in eV m, the value the program works with.
constexpr double kHC = 1.2398424468024267e-06;

TEST(DinterpretationTest, SpectralUnitsAgreeWithPhysicalRelations) {
  TDSpectralInterpretation s;
  using S = TDSpectralInterpretation;
  for (double excitation : {532.0, 785.0, 325.0}) {
    s.SetExcitationWaveLength(excitation);
    for (double w : {300.0, 532.0, 633.0, 800.0, 1064.0}) {
      const double wavenumber = s.StandardTo(w, S::suWavenumber);
      const double shift = s.StandardTo(w, S::suRelativeWavenumber);
      const double energy = s.StandardTo(w, S::suElectronVolt);
      // A wavenumber is the reciprocal wavelength in cm: 1 / (w * 1e-7 cm).
      ExpectRelative(wavenumber, 1.0 / (w * 1e-7));
      ExpectRelative(s.StandardTo(w, S::suMicrometer), w / 1000.0);
      // Photon energy E = h c nu~: eV from 1/cm through h c in eV m times 100 cm per m.
      ExpectRelative(energy, wavenumber * kHC * 100.0);
      ExpectRelative(s.StandardTo(w, S::suMilliElectronVolt), energy * 1000.0);
      // Raman shift: excitation minus scattered wavenumber; the relative energy has the opposite sign.
      const double expectedShift = 1.0 / (excitation * 1e-7) - 1.0 / (w * 1e-7);
      if (w != excitation) {
        ExpectRelative(shift, expectedShift);
        ExpectRelative(s.StandardTo(w, S::suRelativeElectronVolt), -expectedShift * kHC * 100.0);
        ExpectRelative(s.StandardTo(w, S::suRelativeMilliElectronVolt), -expectedShift * kHC * 1e5);
      }
      // And every unit converts back to the wavelength.
      for (int32_t unit = 0; unit < s.GetNumberOfUnits(); ++unit)
        ExpectRelative(s.ToStandard(s.StandardTo(w, unit), unit), w);
    }
  }
  // A chain nm -> 1/cm -> rel. 1/cm -> eV -> nm, each step through the standard unit.
  s.SetExcitationWaveLength(532.0);
  const double nm = 580.0;
  const double wn = s.StandardTo(nm, S::suWavenumber);
  const double rel = s.StandardTo(s.ToStandard(wn, S::suWavenumber), S::suRelativeWavenumber);
  ExpectRelative(rel, 1e7 / 532.0 - 1e7 / 580.0);
  const double ev = s.StandardTo(s.ToStandard(rel, S::suRelativeWavenumber), S::suElectronVolt);
  ExpectRelative(s.ToStandard(ev, S::suElectronVolt), nm);
}

TEST(DinterpretationTest, SpectralEdgeCases) {
  TDSpectralInterpretation s;
  EXPECT_EQ(s.GetExcitationWaveLength(), 532.0);
  EXPECT_EQ(s.GetImageIndex(), 1);
  EXPECT_EQ(s.StandardTo(532.0, 3), 0.0);
  EXPECT_EQ(s.StandardTo(0.0, 2), 0.0); // not infinity: the value passes unchanged
  EXPECT_EQ(s.ToStandard(0.0, 4), 0.0);
  EXPECT_EQ(s.ToStandard(1e7 / 532.0, 3), 1e7 / 532.0); // K1 - u e vanishes
  EXPECT_EQ(s.StandardTo(123.0, 42), 123.0);
  // -1 means the current unit.
  s.SetUnitIndex(2);
  EXPECT_DOUBLE_EQ(s.StandardTo(500.0), 20000.0);
  EXPECT_DOUBLE_EQ(s.ToStandard(20000.0), 500.0);
  EXPECT_EQ(s.ValueUnitString(20000.0), "20000 1/cm");
}

TEST(DinterpretationTest, FactorTablesConvertBothWays) {
  TDSpaceInterpretation space;
  EXPECT_EQ(space.GetUnitIndex(), 2);
  EXPECT_DOUBLE_EQ(space.StandardTo(1.5, 0), 1.5e-6);
  EXPECT_DOUBLE_EQ(space.StandardTo(1.5, 4), 15000.0);
  EXPECT_DOUBLE_EQ(space.ToStandard(2.0, 1), 2000.0);
  TDTimeInterpretation time;
  EXPECT_DOUBLE_EQ(time.ToStandard(1.0, 0), 3600.0);
  EXPECT_DOUBLE_EQ(time.StandardTo(90.0, 1), 1.5);
  TDPhaseInterpretation phase;
  EXPECT_EQ(phase.GetUnitIndex(), 0);
  EXPECT_NEAR(phase.ToStandard(180.0, 2), std::numbers::pi, 1e-14);
  EXPECT_NEAR(phase.StandardTo(std::numbers::pi, 3), 200.0, 1e-12);
  TDFrequencyInterpretation frequency;
  EXPECT_DOUBLE_EQ(frequency.ToStandard(3.0, 3), 3000.0);
  TDInverseSpaceInterpretation inverse;
  EXPECT_DOUBLE_EQ(inverse.StandardTo(2.0, 0), 2e6);

  std::vector<std::unique_ptr<TDInterpretation>> all;
  all.push_back(std::make_unique<TDSpaceInterpretation>());
  all.push_back(std::make_unique<TDInverseSpaceInterpretation>());
  all.push_back(std::make_unique<TDTimeInterpretation>());
  all.push_back(std::make_unique<TDFrequencyInterpretation>());
  all.push_back(std::make_unique<TDPhaseInterpretation>());
  for (const auto& interpretation : all) {
    EXPECT_EQ(interpretation->StandardTo(7.0, interpretation->GetStandardUnitIndex()), 7.0);
    for (int32_t unit = 0; unit < interpretation->GetNumberOfUnits(); ++unit)
      ExpectRelative(interpretation->ToStandard(interpretation->StandardTo(3.7, unit), unit), 3.7, 1e-14);
    EXPECT_EQ(interpretation->StandardTo(3.7, 99), 3.7);
    EXPECT_EQ(interpretation->GetSaveMode(), TDataSaveMode::WhileUsed);
  }
  TDZInterpretation z;
  EXPECT_EQ(z.StandardTo(3.0, 0), 3.0);
  EXPECT_EQ(z.ToStandard(-3.0), -3.0);
}

TEST(DinterpretationTest, UnitIndexAndExcitationNotify) {
  TDSpaceInterpretation space;
  int changes = 0;
  space.SetOnDataChange(
      [&](TData*, TDataChangeInfo info) { changes += info == TDataChangeInfo::DataChanged; });
  space.SetUnitIndex(2);
  EXPECT_EQ(changes, 0);
  space.SetUnitIndex(99); // refused, yet announced
  EXPECT_EQ(space.GetUnitIndex(), 2);
  EXPECT_EQ(changes, 1);
  space.ChangeUnitsClick(3);
  EXPECT_EQ(space.GetUnitIndex(), 3);
  EXPECT_EQ(changes, 2);
  EXPECT_EQ(space.UnitString(-1), "a.u.");
  EXPECT_EQ(space.UnitString(99), "a.u.");
  EXPECT_EQ(space.UnitString(4), "Å");

  TDSpectralInterpretation s;
  int spectralChanges = 0;
  s.SetOnDataChange([&](TData*, TDataChangeInfo) { ++spectralChanges; });
  s.SetExcitationWaveLength(532.0);
  s.SetExcitationWaveLength(633.0);
  EXPECT_EQ(spectralChanges, 1);
}

TEST(DinterpretationTest, FloatStyleFormatting) {
  TFloatStyle style; // precision 5, 1 digit, general
  EXPECT_EQ(style.FormatValue(0.0), "0");
  EXPECT_EQ(style.FormatValue(1234.5678), "1234.6");
  EXPECT_EQ(style.FormatValue(-2.5), "-2.5");
  EXPECT_EQ(style.FormatValue(123456.0), "1.2346E5");
  EXPECT_EQ(style.FormatValue(0.0000012345), "1.2345E-6");
  EXPECT_EQ(style.FormatValue(0.000012345), "0.000012345"); // from 1e-5 on the fixed form
  EXPECT_EQ(style.FormatValue(0.00012345), "0.00012345");
  EXPECT_EQ(style.FormatValue(99999.9), "1E5");
  style.Format = TFloatFormat::Fixed;
  style.Digits = 2;
  EXPECT_EQ(style.FormatValue(3.14159), "3.14");
  style.Format = TFloatFormat::Exponent;
  style.Precision = 3;
  EXPECT_EQ(style.FormatValue(1234.0), "1.23E+03");

  struct TCounting : TDTimeInterpretation {
    int Calls = 0;
    void FloatStyleChange(TDInterpretation*) override { ++Calls; }
  } time;
  time.SetFloatStyle(TFloatStyle{});
  EXPECT_EQ(time.Calls, 0);
  time.SetFloatStyle(TFloatStyle{3, 1, TFloatFormat::General});
  EXPECT_EQ(time.Calls, 1);
  EXPECT_EQ(time.ValueUnitString(12.3456, 3), "12.3 ms");
}

TEST(DinterpretationTest, RoundTrips) {
  oxtest::TempDir dir;
  TDSpectralInterpretation s;
  s.SetUnitIndex(3);
  s.SetExcitationWaveLength(632.816);
  auto sBack = RoundTrip<TDSpectralInterpretation>(s, dir);
  EXPECT_EQ(sBack->GetUnitIndex(), 3);
  EXPECT_EQ(sBack->GetExcitationWaveLength(), 632.816);

  TDZInterpretation z;
  z.SetUnitName("counts µ");
  z.SetCaption("Intensity");
  auto zBack = RoundTrip<TDZInterpretation>(z, dir);
  EXPECT_EQ(zBack->GetUnitName(), "counts µ");
  EXPECT_EQ(zBack->GetCaption(), "Intensity");

  TDTimeInterpretation t;
  t.SetUnitIndex(6);
  EXPECT_EQ(RoundTrip<TDTimeInterpretation>(t, dir)->GetUnitIndex(), 6);
}

TEST(DinterpretationTest, ProjectHelpers) {
  RegisterInterpretationClasses();
  oxtest::TempDir dir;
  TProject project;
  auto z = std::make_unique<TDZInterpretation>();
  z->SetUnitName("counts");
  z->SetID(project.GetNewDataID());
  z->SetSaveMode(TDataSaveMode::Always);
  const int32_t zID = z->GetID();
  project.AddData(std::move(z));
  ASSERT_EQ(project.SaveProjectToFile(dir.File("p.oxp")), 1);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(dir.File("p.oxp")), 1);
  EXPECT_EQ(GetStandardZInterpretation(loaded, "counts"), zID);
  EXPECT_EQ(GetStandardZInterpretation(loaded, "Counts"), 0); // exact match only

  EXPECT_EQ(GetOrMakeStandardZInterpretation(project, "ZInterpretation counts", "counts"), zID);
  const int32_t made = GetOrMakeStandardZInterpretation(project, "Height", "nm");
  ASSERT_NE(made, 0);
  EXPECT_NE(made, zID);
  EXPECT_EQ(project.FindData(made)->GetCaption(), "Height");
  EXPECT_EQ(GetStandardZInterpretation(project, "nm"), made);
  EXPECT_FALSE(IsInterpretationEqualWithoutUnitIndex(project, zID, made));

  auto s = std::make_unique<TDSpectralInterpretation>();
  s->SetID(project.GetNewDataID());
  s->SetExcitationWaveLength(785.0);
  s->SetUnitIndex(2);
  const int32_t sID = s->GetID();
  project.AddData(std::move(s));
  const int32_t copy = MakeAndCopyInterpretation(project, TDataSaveMode::Never, sID);
  ASSERT_NE(copy, 0);
  const auto* copied = dynamic_cast<const TDSpectralInterpretation*>(project.FindData(copy));
  ASSERT_NE(copied, nullptr);
  EXPECT_EQ(copied->GetExcitationWaveLength(), 785.0);
  EXPECT_EQ(copied->GetUnitIndex(), 2);
  EXPECT_TRUE(IsInterpretationEqualWithoutUnitIndex(project, sID, copy));
  dynamic_cast<TDSpectralInterpretation*>(project.FindData(copy))->SetUnitIndex(0);
  EXPECT_TRUE(IsInterpretationEqualWithoutUnitIndex(project, sID, copy));
  dynamic_cast<TDSpectralInterpretation*>(project.FindData(copy))->SetExcitationWaveLength(532.0);
  EXPECT_FALSE(IsInterpretationEqualWithoutUnitIndex(project, sID, copy));
  EXPECT_EQ(MakeAndCopyInterpretation(project, TDataSaveMode::Never, 999), 0);
}

TEST(DinterpretationTest, UnitKindTexts) {
  EXPECT_EQ(GetUnitKindString(TUnitKind::InverseSpace), "Inverse Space");
  EXPECT_EQ(GetUnitKindString(TUnitKind::ZValue), "ZValue");
  EXPECT_EQ(GetUnitKindString(static_cast<TUnitKind>(12)), "Unknown Unitkind");
  EXPECT_EQ(GetCursorClassNameForUnitKind(TUnitKind::ZValue), "TDZCursor");
  EXPECT_EQ(GetInterpretationClassNameForUnitKind(TUnitKind::None), "");
}

} // namespace
