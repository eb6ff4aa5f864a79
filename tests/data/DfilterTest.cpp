// Filter data objects: known answers of every class on synthetic spectra, the background cases, the file
// form (also with fewer inputs), links to targets, registration, and clones on several threads.
#include "data/Dfilter.h"

#include "common/OrvexException.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Graphfilter.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/DataRoundTrip.h"
#include "support/TestDataObjects.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct TSpectrum {
  std::vector<double> X;
  std::vector<float> Y;
};

TSpectrum Make(int n, double x0, double step, const std::function<double(double)>& f) {
  TSpectrum s;
  for (int i = 0; i < n; ++i) {
    s.X.push_back(x0 + step * i);
    s.Y.push_back(static_cast<float>(f(s.X.back())));
  }
  return s;
}

void Prepare(TDFilter& filter, const TSpectrum& s, int start, int stop) {
  filter.SetFieldSize(static_cast<int32_t>(s.X.size()));
  for (size_t i = 0; i < s.X.size(); ++i) filter.SetXPosition(static_cast<int32_t>(i), s.X[i]);
  filter.PrepareCalculation(start, stop, "CCD cts", "rel. 1/cm");
}

std::vector<double> Outputs(TDFilter& filter, const TSpectrum& s, int start, int stop) {
  Prepare(filter, s, start, stop);
  filter.Calculation(s.Y.data());
  std::vector<double> out;
  for (int32_t i = 0; i < filter.GetParameterCount(); ++i) out.push_back(filter.GetParameter(i));
  filter.PostpareCalculation();
  return out;
}

void NoBackground(TDFilter& filter) {
  filter.SetInputInteger(TDFilter::kLowerBackgroundInput, 0);
  filter.SetInputInteger(TDFilter::kUpperBackgroundInput, 0);
}

double Gauss(double x, double c, double sigma) {
  return std::exp(-0.5 * (x - c) * (x - c) / (sigma * sigma));
}

// Every class, made fresh.
std::vector<std::unique_ptr<TDFilter>> AllFilters() {
  std::vector<std::unique_ptr<TDFilter>> list;
  list.push_back(std::make_unique<TDSumFilter>());
  list.push_back(std::make_unique<TDAverageFilter>());
  list.push_back(std::make_unique<TDMinMaxFilter>());
  list.push_back(std::make_unique<TDCenterOfMassFilter>());
  list.push_back(std::make_unique<TDWidthFilter>());
  list.push_back(std::make_unique<TDParabolicFilter>());
  list.push_back(std::make_unique<TDGaussFilter>());
  list.push_back(std::make_unique<TDExponentialFilter>());
  list.push_back(std::make_unique<TDLorentzFilter>());
  list.push_back(std::make_unique<TDLinearRegressionFilter>());
  return list;
}

// A Raman band on a sloped background over a falling axis.
const TSpectrum& BandOnSlope() {
  static const TSpectrum s = Make(400, 700, -0.5, [](double x) {
    return 300 + 0.8 * (x - 500) + 900 * Gauss(x, 600, 5) + 200 * Gauss(x, 560, 3);
  });
  return s;
}

} // namespace

TEST(DfilterTest, ClassesNamesInputsAndOutputs) {
  const std::vector<std::string> names = {"Sum",     "Average",          "Min & Max", "Center of mass",
                                          "Width",   "Parabolic",        "Gauss",     "Exponential",
                                          "Lorentz", "Linear Regression"};
  const std::vector<int> outputs = {1, 1, 4, 1, 1, 4, 5, 4, 5, 3};
  const std::vector<int> inputs = {2, 2, 2, 2, 3, 3, 4, 4, 4, 2};
  auto list = AllFilters();
  for (size_t k = 0; k < list.size(); ++k) {
    TDFilter& f = *list[k];
    EXPECT_EQ(f.GetCaption(), names[k]);
    EXPECT_EQ(f.GetParameterCount(), outputs[k]) << names[k];
    EXPECT_EQ(f.GetInputParameterCount(), inputs[k]) << names[k];
    EXPECT_EQ(f.GetInput(0).Caption, "Lower BG Ave. [Pixels]:");
    EXPECT_EQ(f.GetInput(1).Caption, "Upper BG Ave. [Pixels]:");
    EXPECT_EQ(f.GetInput(1).FIPInteger, 4);
    EXPECT_EQ(f.GetInput(1).FIPMaxInteger, 16);
    EXPECT_EQ(f.GetUnitIndex(), -1);
    EXPECT_TRUE(f.InheritsFrom("TDFilter"));
    EXPECT_EQ(f.GetDataCategory(), kFilterDataCategory);
  }
  TDGaussFilter gauss;
  EXPECT_EQ(gauss.GetInput(2).Caption, "Tolerance:");
  EXPECT_DOUBLE_EQ(gauss.GetInput(2).FIPFloat, 1e-4);
  EXPECT_EQ(gauss.GetInput(3).FIPInteger, 200);
  EXPECT_EQ(gauss.GetParameterCaption(2), "Width (FWHM)");
  TDLorentzFilter lorentz;
  EXPECT_EQ(lorentz.GetParameterCaption(0), "Area");
  TDMinMaxFilter minmax;
  EXPECT_EQ(minmax.GetParameterCaption(3), "Position of Maximum");
  EXPECT_EQ(minmax.GetParameterCaption(4), "");

  // Inputs are clamped into their limits; a wrong kind is a programming error.
  TDWidthFilter width;
  width.SetInputFloat(2, 150);
  EXPECT_DOUBLE_EQ(width.GetInput(2).FIPFloat, 99);
  width.SetInputInteger(0, -3);
  EXPECT_EQ(width.GetInput(0).FIPInteger, 0);
  EXPECT_THROW(width.SetInputInteger(2, 1), OrvexException);
  EXPECT_THROW(width.SetInputFloat(7, 1), OrvexException);
}

TEST(DfilterTest, ZUnitsFollowTheLabelsOfTheRun) {
  TDParabolicFilter parabolic;
  TDMinMaxFilter minmax;
  TSpectrum s = Make(10, 0, 1, [](double x) { return x; });
  Prepare(parabolic, s, 2, 5);
  Prepare(minmax, s, 2, 5);
  EXPECT_EQ(parabolic.GetZUnit(0), "CCD cts");
  EXPECT_EQ(parabolic.GetZUnit(1), "rel. 1/cm");
  EXPECT_EQ(parabolic.GetZUnit(3), "%");
  EXPECT_EQ(minmax.GetZUnit(0), "CCD cts");
  EXPECT_EQ(minmax.GetZUnit(1), "rel. 1/cm");
  EXPECT_EQ(minmax.GetZUnit(9), "");
  TDLorentzFilter lorentz;
  Prepare(lorentz, s, 2, 5);
  EXPECT_EQ(lorentz.GetZUnit(0), "CCD cts*rel. 1/cm"); // an area
  EXPECT_EQ(lorentz.GetZUnit(2), "rel. 1/cm");
}

TEST(DfilterTest, PrepareClampsAndOrdersTheRangeAndPostpareFreesTheField) {
  TDSumFilter sum;
  TSpectrum s = Make(20, 0, 1, [](double x) { return x; });
  EXPECT_THROW(sum.PrepareCalculation(0, 5, "", ""), OrvexException); // no field yet
  EXPECT_THROW(sum.Calculation(s.Y.data()), OrvexException);          // not prepared
  Prepare(sum, s, 30, -4);
  EXPECT_EQ(sum.GetStartIndex(), 0);
  EXPECT_EQ(sum.GetStopIndex(), 19);
  Prepare(sum, s, 12, 7);
  EXPECT_EQ(sum.GetStartIndex(), 7);
  EXPECT_EQ(sum.GetStopIndex(), 12);
  sum.SetRange(1, 2);
  EXPECT_TRUE(sum.IsChanged());
  sum.PostpareCalculation();
  EXPECT_EQ(sum.GetFieldSize(), 0);
  EXPECT_FALSE(sum.IsChanged());
  sum.SetRange(1, 2); // the same values: no change
  EXPECT_FALSE(sum.IsChanged());
  sum.SetRange(1, 3);
  EXPECT_TRUE(sum.IsChanged());
}

TEST(DfilterTest, SumAndAverageOverALinearBackground) {
  // Band at pixel 200 (x = 600) of area 900 * 5 * sqrt(2 pi) in x, 2 pixels per unit of x.
  const TSpectrum& s = BandOnSlope();
  const double areaPerPixel = 2 * 900 * 5 * std::sqrt(2 * M_PI);
  TDSumFilter sum;
  TDAverageFilter average;
  const double total = Outputs(sum, s, 150, 250)[0];
  EXPECT_NEAR(total, areaPerPixel, 2e-3 * areaPerPixel);
  EXPECT_NEAR(Outputs(average, s, 150, 250)[0], total / 101, 1e-9 * total);
  EXPECT_EQ(sum.GetBackground().Sides, 2);
}

TEST(DfilterTest, BackgroundCasesAtTheFieldEndAndWithoutPixels) {
  TSpectrum s = Make(30, 0, 1, [](double x) { return 10 + x; });
  TDAverageFilter average;
  // Range at the start: only the side beyond the stop has pixels, and its mean is subtracted.
  EXPECT_DOUBLE_EQ(Outputs(average, s, 0, 9)[0], 14.5 - 21.5);
  EXPECT_EQ(average.GetBackground().Sides, 1);
  // The same range inside the field with both sides: the line through them cancels the slope.
  EXPECT_NEAR(Outputs(average, s, 10, 19)[0], 0.0, 1e-9);
  NoBackground(average);
  EXPECT_DOUBLE_EQ(Outputs(average, s, 10, 19)[0], 24.5);
  EXPECT_EQ(average.GetBackground().Sides, 0);
}

TEST(DfilterTest, MinMaxAndCenterOfMassOfASymmetricPeak) {
  // One band on a slope, the range symmetric about its pixel.
  const TSpectrum s =
      Make(400, 700, -0.5, [](double x) { return 300 + 0.8 * (x - 500) + 900 * Gauss(x, 600, 5); });
  TDCenterOfMassFilter com;
  EXPECT_NEAR(Outputs(com, s, 145, 255)[0], 600, 1e-4);
  TDMinMaxFilter minmax;
  const auto m = Outputs(minmax, s, 145, 255);
  EXPECT_DOUBLE_EQ(m[3], 600);  // position of the maximum
  EXPECT_NEAR(m[2], 900, 0.5);  // its height over the line
  EXPECT_NEAR(m[0], 0.0, 0.01); // the band's far wing
  EXPECT_NE(m[1], 600);
}

TEST(DfilterTest, WidthOfAGaussianAndOfAConstant) {
  const double sigma = 5;
  const TSpectrum& s = BandOnSlope();
  TDWidthFilter width;
  EXPECT_NEAR(Outputs(width, s, 145, 255)[0], 2.3548200450309493 * sigma, 0.01);
  width.SetInputFloat(2, 100 * std::exp(-2.0));
  EXPECT_NEAR(Outputs(width, s, 145, 255)[0], 4 * sigma, 0.02);
  TSpectrum flat = Make(50, 0, 1, [](double) { return 7.0; });
  EXPECT_EQ(Outputs(width, flat, 10, 40)[0], 0.0);
  TDParabolicFilter parabolic;
  for (double v : Outputs(parabolic, flat, 10, 40)) EXPECT_EQ(v, 0.0);
}

TEST(DfilterTest, ParabolicRecoversAnExactParabola) {
  TSpectrum s = Make(120, 1100, -0.75, [](double x) { return 400 - 3 * (x - 1060.3) * (x - 1060.3); });
  TDParabolicFilter parabolic;
  NoBackground(parabolic);
  parabolic.SetInputFloat(2, 8);
  const auto p = Outputs(parabolic, s, 40, 70);
  EXPECT_NEAR(p[0], 400, 1e-3);
  EXPECT_NEAR(p[1], 1060.3, 1e-6);
  EXPECT_NEAR(p[2], -3, 1e-6);
  EXPECT_NEAR(p[3], 0, 1e-4);
}

TEST(DfilterTest, NoiselessGaussLorentzAndExponentialRecoverTheirParameters) {
  TSpectrum gs = Make(300, 450, 0.5, [](double x) { return 12 + 500 * Gauss(x, 521.3, 4); });
  TDGaussFilter gauss;
  NoBackground(gauss);
  gauss.SetInputFloat(2, 1e-8);
  auto g = Outputs(gauss, gs, 80, 220);
  EXPECT_NEAR(g[0], 500, 1e-3);
  EXPECT_NEAR(g[1], 521.3, 1e-5);
  EXPECT_NEAR(g[2], 2.3548200450309493 * 4, 1e-5);
  EXPECT_NEAR(g[3], 12, 1e-3);
  EXPECT_LT(g[4], 1e-3);

  const double area = 3000, fwhm = 6;
  TSpectrum ls = Make(300, 1050, -0.4, [&](double x) {
    return 20 + 2 * area / M_PI * fwhm / (4 * (x - 1001) * (x - 1001) + fwhm * fwhm);
  });
  TDLorentzFilter lorentz;
  NoBackground(lorentz);
  lorentz.SetInputFloat(2, 1e-8);
  auto l = Outputs(lorentz, ls, 20, 280);
  EXPECT_NEAR(l[0], area, 0.05);
  EXPECT_NEAR(l[1], 1001, 1e-5);
  EXPECT_NEAR(l[2], fwhm, 1e-4);
  EXPECT_NEAR(l[3], 20, 1e-3);

  TSpectrum es = Make(200, 0, 0.5, [](double x) { return 5 + 100 * std::exp(-x / 20); });
  TDExponentialFilter exponential;
  NoBackground(exponential);
  exponential.SetInputFloat(2, 1e-8);
  exponential.SetValidOutput(true);
  auto e = Outputs(exponential, es, 0, 199);
  EXPECT_NEAR(e[0], 100, 1e-3);
  EXPECT_NEAR(e[1], 20, 1e-4);
  EXPECT_NEAR(e[2], 5, 1e-3);
  EXPECT_LT(e[3], 1e-3);
  EXPECT_EQ(e[4], 1.0);
  EXPECT_EQ(exponential.GetParameterCaption(4), "Valid");
}

TEST(DfilterTest, FitsOnFewerPixelsThanParametersGiveZeros) {
  TSpectrum s = Make(50, 0, 1, [](double x) { return 1 + 10 * Gauss(x, 25, 2); });
  TDGaussFilter gauss;
  TDLorentzFilter lorentz;
  for (TDFilter* f : std::initializer_list<TDFilter*>{&gauss, &lorentz})
    for (double v : Outputs(*f, s, 24, 26)) EXPECT_EQ(v, 0.0);
  TDExponentialFilter exponential;
  exponential.SetValidOutput(true);
  const auto e = Outputs(exponential, s, 24, 25);
  for (double v : e) EXPECT_EQ(v, 0.0);
}

TEST(DfilterTest, LinearRegressionOfALineAndAParabola) {
  TSpectrum line = Make(40, 200, 2.5, [](double x) { return -7 + 0.125 * x; });
  TDLinearRegressionFilter regression;
  NoBackground(regression);
  auto r = Outputs(regression, line, 5, 30);
  EXPECT_NEAR(r[0], -7, 1e-9);
  EXPECT_NEAR(r[1], 0.125, 1e-12);
  EXPECT_NEAR(r[2], 1, 1e-12);
  // Symmetric about the range's centre: slope 0 and no correlation with x.
  TSpectrum bowl = Make(41, -20, 1, [](double x) { return x * x; });
  r = Outputs(regression, bowl, 0, 40);
  EXPECT_NEAR(r[1], 0, 1e-9);
  EXPECT_NEAR(r[2], 0, 1e-9);
  EXPECT_NEAR(r[0], 140, 1e-9); // mean of x^2 over -20..20
}

TEST(DfilterTest, TagRoundTripKeepsRangeUnitInputsAndTargets) {
  oxtest::TempDir dir;
  TDGaussFilter gauss;
  gauss.SetID(5);
  gauss.SetRange(510.5, 530.25);
  gauss.SetUnitIndex(3);
  gauss.SetInputInteger(0, 7);
  gauss.SetInputInteger(1, 0);
  gauss.SetInputFloat(2, 3e-6);
  gauss.SetInputInteger(3, 55);
  for (int i = 0; i < 5; ++i) gauss.SetTargetID(i, 20 + i);
  auto back = oxtest::RoundTrip<TDGaussFilter>(gauss, dir);
  EXPECT_EQ(back->GetRange(0), 510.5);
  EXPECT_EQ(back->GetRange(1), 530.25);
  EXPECT_EQ(back->GetUnitIndex(), 3);
  EXPECT_EQ(back->GetInput(0).FIPInteger, 7);
  EXPECT_EQ(back->GetInput(1).FIPInteger, 0);
  EXPECT_DOUBLE_EQ(back->GetInput(2).FIPFloat, 3e-6);
  EXPECT_EQ(back->GetInput(3).FIPInteger, 55);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(back->GetTargetID(i), 20 + i);

  TDExponentialFilter exponential;
  exponential.SetValidOutput(true);
  exponential.SetTargetID(4, 9);
  auto e = oxtest::RoundTrip<TDExponentialFilter>(exponential, dir);
  EXPECT_TRUE(e->HasValidOutput());
  EXPECT_EQ(e->GetTargetID(4), 9);
}

TEST(DfilterTest, AFileWithFewerInputsLoadsAndKeepsTheClassDefaults) {
  oxtest::TempDir dir;
  const auto name = dir.File("old.oxt");
  TDGaussFilter written;
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root, own, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_EQ(written.TData::SaveDataToTagFile(f), 1);
  own.WriteTag(f, "TDFilter", TTagKind::TagList);
  t.SaveIntTag(f, "Version", 0);
  const double range[2] = {100, 200};
  t.SaveDoubleTag(f, "Range", range, 2);
  t.SaveIntTag(f, "UnitIndex", 1);
  t.SaveIntTag(f, "ParameterCount", 2);
  const int32_t targets[2] = {11, 12};
  t.SaveIntTag(f, "TargetIDs", targets, 2);
  t.SaveIntTag(f, "InputParameterCount", 1);
  t.SaveIntTag(f, "FIPType", 1);
  t.SaveDoubleTag(f, "FIPFloat", 0.0);
  t.SaveIntTag(f, "FIPInteger", 99); // beyond the limit of 16
  own.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);

  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  TDGaussFilter back;
  EXPECT_EQ(back.LoadDataFromTagFile(in, readRoot), 1);
  CloseFile(in);
  EXPECT_EQ(back.GetInputParameterCount(), 4);
  EXPECT_EQ(back.GetInput(0).FIPInteger, 16);
  EXPECT_EQ(back.GetInput(1).FIPInteger, 4);
  EXPECT_DOUBLE_EQ(back.GetInput(2).FIPFloat, 1e-4);
  EXPECT_EQ(back.GetInput(3).FIPInteger, 200);
  EXPECT_EQ(back.GetParameterCount(), 5);
  EXPECT_EQ(back.GetTargetID(1), 12);
  EXPECT_EQ(back.GetTargetID(2), 0);
  EXPECT_EQ(back.GetRange(1), 200);
}

TEST(DfilterTest, RegisteredAfterTheInterpretationsWithoutTheLinearRegression) {
  RegisterDataClasses();
  const auto names = TData::RegisteredDataObjectNames();
  const auto first = std::find(names.begin(), names.end(), "TDSumFilter");
  const auto interpretation = std::find(names.begin(), names.end(), "TDPhaseInterpretation");
  ASSERT_NE(first, names.end());
  ASSERT_LT(interpretation, first);
  const std::vector<std::string> expected = {
      "TDSumFilter",       "TDAverageFilter", "TDMinMaxFilter",      "TDCenterOfMassFilter", "TDWidthFilter",
      "TDParabolicFilter", "TDGaussFilter",   "TDExponentialFilter", "TDLorentzFilter"};
  EXPECT_EQ(std::vector<std::string>(first, first + static_cast<long>(expected.size())), expected);
  EXPECT_EQ(TData::CreateDataObjectByName("TDLinearRegressionFilter"), nullptr);
  for (const auto& name : expected) EXPECT_EQ(TData::CreateDataObjectByName(name)->GetClassNameA(), name);
}

TEST(DfilterTest, FiltersLoadedFromAProjectCalculateAsTheSavedOnes) {
  oxtest::EnsureMemoryStrategy();
  RegisterDataClasses();
  const TSpectrum& s = BandOnSlope();
  TProject project;
  std::vector<std::vector<double>> before;
  for (auto& filter : AllFilters()) {
    if (filter->GetClassNameA() == "TDLinearRegressionFilter") continue; // not made by name
    filter->SetID(project.GetNewDataID());
    filter->SetInputInteger(0, 3);
    filter->SetInputInteger(1, 6);
    if (auto* e = dynamic_cast<TDExponentialFilter*>(filter.get())) e->SetValidOutput(true);
    if (filter->GetInputParameterCount() > 2 && filter->GetInput(2).FIPType == TFIPType::Float)
      filter->SetInputFloat(2, filter->GetClassNameA() == "TDWidthFilter" ? 30 : 12);
    before.push_back(Outputs(*filter, s, 160, 240));
    project.AddData(std::move(filter));
  }
  oxtest::TempDir dir;
  ASSERT_EQ(project.SaveProjectToFile(dir.File("filters.oxp")), 1);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(dir.File("filters.oxp")), 1);
  ASSERT_EQ(loaded.DataList().size(), before.size());
  for (size_t k = 0; k < before.size(); ++k) {
    auto* filter = dynamic_cast<TDFilter*>(loaded.DataList()[k].get());
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(Outputs(*filter, s, 160, 240), before[k]) << filter->GetClassNameA();
  }
  // Saved again, the file is the same but for the system information.
  ASSERT_EQ(loaded.SaveProjectToFile(dir.File("again.oxp")), 1);
  auto withoutSystemInformation = [&](const std::string& fileName) {
    TTagControl tree;
    EXPECT_EQ(tree.LoadTagListByFileName(fileName, TProject::kProjectIdentification), 1);
    std::erase_if(*tree.Children(), [](const auto& child) { return child->Name() == "SystemInformation"; });
    const auto copy = dir.File("stripped.tmp");
    tree.SaveTagListToFileByName(copy, TProject::kProjectIdentification);
    return oxtest::ReadFileBytes(copy);
  };
  EXPECT_EQ(withoutSystemInformation(dir.File("filters.oxp")),
            withoutSystemInformation(dir.File("again.oxp")));
}

TEST(DfilterTest, TargetLinksFollowRemovalRenumberingAndTheMenuCommand) {
  oxtest::EnsureMemoryStrategy();
  RegisterDataClasses();
  TProject project;
  auto image = TData::CreateDataObjectByName("TDImage");
  const int32_t imageID = project.GetNewDataID();
  image->SetID(imageID);
  project.AddData(std::move(image));
  auto text = TData::CreateDataObjectByName("TDText");
  const int32_t textID = project.GetNewDataID();
  text->SetID(textID);
  project.AddData(std::move(text));
  auto owned = std::make_unique<TDMinMaxFilter>();
  TDMinMaxFilter* filter = owned.get();
  filter->SetID(project.GetNewDataID());
  project.AddData(std::move(owned));
  filter->SetTargetID(0, imageID);
  filter->SetTargetID(1, textID);
  filter->SetTargetID(2, imageID);
  filter->SetTargetID(3, 999); // nothing of that ID
  filter->SetIDs(textID, imageID);
  EXPECT_EQ(filter->GetLinkedFilterData(), (TIntList{imageID, imageID}));
  const auto references = filter->GetReferencedIDs();
  ASSERT_EQ(references.size(), 4u);
  EXPECT_EQ(references[1], (std::pair<std::string, int32_t>{"TargetID1", textID}));
  EXPECT_TRUE(filter->IsDataUsed(textID));
  filter->CleanWrongDataConnections();
  EXPECT_EQ(filter->GetTargetID(3), 0);

  EXPECT_TRUE(filter->RemoveFilterDataLink(imageID));
  EXPECT_FALSE(filter->RemoveFilterDataLink(imageID));
  EXPECT_EQ(filter->GetTargetID(0), 0);
  EXPECT_EQ(filter->GetTargetID(2), 0);
  EXPECT_EQ(filter->GetTargetID(1), textID);

  ASSERT_TRUE(project.DeleteData(textID));
  EXPECT_EQ(filter->GetTargetID(1), 0);
  int32_t input = -1, source = -1;
  filter->GetIDs(input, source);
  EXPECT_EQ(input, 0);
  EXPECT_EQ(source, imageID);

  filter->SetTargetID(0, imageID);
  filter->AddToID(100);
  EXPECT_EQ(filter->GetTargetID(0), imageID + 100);
  EXPECT_EQ(filter->GetTargetID(1), 0); // a missing link stays missing
  filter->CleanOutputIDs();
  EXPECT_EQ(filter->GetTargetID(0), 0);
}

TEST(DfilterTest, ClonesOnSeveralThreadsCalculateAsTheOriginal) {
  // Spectra with bands at varying places; every class, each thread with its own clone.
  const int n = 256, count = 64;
  std::vector<TSpectrum> spectra;
  for (int k = 0; k < count; ++k)
    spectra.push_back(Make(n, 1200, -1.5, [k](double x) {
      return 50 + 0.1 * x + 400 * Gauss(x, 1050 - k * 0.4, 4 + k % 5) + 30 * std::sin(x / 17.0);
    }));
  for (auto& filter : AllFilters()) {
    Prepare(*filter, spectra[0], 60, 140);
    std::vector<std::vector<double>> expected(count);
    for (int k = 0; k < count; ++k) {
      filter->Calculation(spectra[static_cast<size_t>(k)].Y.data());
      for (int32_t i = 0; i < filter->GetParameterCount(); ++i)
        expected[k].push_back(filter->GetParameter(i));
    }
    const int threads = 4;
    std::vector<std::vector<std::vector<double>>> got(threads, std::vector<std::vector<double>>(count));
    std::vector<std::unique_ptr<TDFilter>> clones;
    for (int t = 0; t < threads; ++t) clones.push_back(filter->CloneForCalculation());
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([&, t] {
        TDFilter& clone = *clones[static_cast<size_t>(t)];
        for (int k = t; k < count; k += threads) {
          clone.Calculation(spectra[static_cast<size_t>(k)].Y.data());
          for (int32_t i = 0; i < clone.GetParameterCount(); ++i) got[t][k].push_back(clone.GetParameter(i));
        }
      });
    for (auto& thread : pool) thread.join();
    for (int k = 0; k < count; ++k)
      EXPECT_EQ(got[k % threads][k], expected[k]) << filter->GetClassNameA() << " spectrum " << k;
    filter->PostpareCalculation();
  }
}

TEST(DfilterTest, PreparedForAGraphTheRangeSelectsByTheAxisAndALoadedFilterCalculatesAlike) {
  oxtest::EnsureMemoryStrategy();
  RegisterDataClasses();
  TProject project;
  auto interpretation = std::make_unique<TDSpectralInterpretation>();
  interpretation->SetID(project.GetNewDataID());
  interpretation->SetExcitationWaveLength(532);
  interpretation->SetUnitIndex(TDSpectralInterpretation::suRelativeWavenumber);
  const int32_t interpretationID = interpretation->GetID();
  project.AddData(std::move(interpretation));
  auto transformation = std::make_unique<TDSpectralTransformation>();
  transformation->SetID(project.GetNewDataID());
  transformation->SetPolynom(538, 0.07, 2e-5);
  transformation->SetInterpretationID(interpretationID);
  const TDSpectralTransformation* axis = transformation.get();
  project.AddData(std::move(transformation));
  const int n = 200;
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(project.GetNewDataID());
  graph->SetFieldSize(2, 1, TDataFieldKind::Float, n);
  graph->SetXTransformationID(axis->GetID());
  graph->SetXInterpretationID(interpretationID);
  for (int x = 0; x < 2; ++x) {
    std::vector<float> y(n);
    for (int i = 0; i < n; ++i) y[i] = static_cast<float>(40 + 0.2 * i + 700 * Gauss(i, 90 + 20 * x, 4));
    graph->SetSpectrum(x, 0, y.data());
  }
  graph->SetAllLinesValid();
  const TDGraph* graphPointer = graph.get();
  const int32_t graphID = graph->GetID();
  project.AddData(std::move(graph));

  // A sum over a range in nm on an axis shown in rel. 1/cm: the pixels whose wavelength lies inside.
  auto sum = std::make_unique<TDSumFilter>();
  sum->SetID(project.GetNewDataID());
  sum->SetUnitIndex(TDSpectralInterpretation::suNanometer);
  const double lo = axis->PixelToWaveLength(80.4), hi = axis->PixelToWaveLength(101.6);
  sum->SetRange(hi, lo); // either order
  ASSERT_EQ(sum->PrepareCalculationForGraph(*graphPointer), TGraphFilterRangeStatus::Inside);
  EXPECT_EQ(sum->GetStartIndex(), 81);
  EXPECT_EQ(sum->GetStopIndex(), 101);
  EXPECT_EQ(sum->GetZUnit(0), "Unknown"); // the graph has no value interpretation
  int32_t input = 0, source = 0;
  sum->GetIDs(input, source);
  EXPECT_EQ(input, graphID);

  // A centre of mass in the axis's current unit, and one whose range lies off the axis.
  auto com = std::make_unique<TDCenterOfMassFilter>();
  com->SetID(project.GetNewDataID());
  TGraphAxisPositions positions;
  ASSERT_TRUE(GetGraphAxisPositions(*graphPointer, 0, -1, positions));
  com->SetRange(positions.X[60], positions.X[140]);
  ASSERT_EQ(com->PrepareCalculationForGraph(*graphPointer), TGraphFilterRangeStatus::Inside);
  EXPECT_EQ(com->GetZUnit(0), "rel. 1/cm");
  TDAverageFilter off;
  off.SetRange(positions.X[n - 1] + 50, positions.X[n - 1] + 80);
  EXPECT_EQ(off.PrepareCalculationForGraph(*graphPointer), TGraphFilterRangeStatus::OffAxis);
  EXPECT_THROW(off.Calculation(std::vector<float>(n).data()), OrvexException);
  TDAverageFilter badUnit;
  badUnit.SetUnitIndex(40);
  EXPECT_EQ(badUnit.PrepareCalculationForGraph(*graphPointer), TGraphFilterRangeStatus::BadUnit);

  auto results = [&](TDFilter& filter, const TDGraph& g) {
    std::vector<double> out;
    std::vector<float> y(n);
    EXPECT_EQ(filter.PrepareCalculationForGraph(g), TGraphFilterRangeStatus::Inside);
    for (int x = 0; x < 2; ++x) {
      g.GetSpectrum(x, 0, y.data());
      filter.Calculation(y.data());
      out.push_back(filter.GetParameter(0));
    }
    filter.PostpareCalculation();
    return out;
  };
  const auto sumBefore = results(*sum, *graphPointer), comBefore = results(*com, *graphPointer);
  EXPECT_NEAR(comBefore[0], positions.X[90], 0.5);
  EXPECT_NEAR(comBefore[1], positions.X[110], 0.5);
  project.AddData(std::move(sum));
  project.AddData(std::move(com));
  oxtest::TempDir dir;
  ASSERT_EQ(project.SaveProjectToFile(dir.File("graph.oxp")), 1);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(dir.File("graph.oxp")), 1);
  const auto* loadedGraph = dynamic_cast<const TDGraph*>(loaded.FindData(graphID));
  ASSERT_NE(loadedGraph, nullptr);
  std::vector<TDFilter*> filters;
  for (const auto& object : loaded.DataList())
    if (auto* f = dynamic_cast<TDFilter*>(object.get())) filters.push_back(f);
  ASSERT_EQ(filters.size(), 2u);
  EXPECT_EQ(results(*filters[0], *loadedGraph), sumBefore);
  EXPECT_EQ(results(*filters[1], *loadedGraph), comBefore);
}
