// Shared set-up of the Advanced Fitting Tool tests: a project with the data classes registered, stacks
// filled spectrum by spectrum, the results looked up by caption, and the Gauss stack most tests fit.
#pragma once

#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "tools/spectral/Advancedfittingpreview.h"
#include "tools/spectral/Advancedfittingtool.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace oxtest {

/// True parameters of the Gauss at pixel (x, y) of the test stacks, over the point index.
struct TGaussTruth {
  double Offset, Center, Sigma, Amp;
};
inline TGaussTruth GaussTruthAt(int x, int y) {
  return {4.0 + 0.5 * y, 50.0 + 3.0 * x, 4.0 + 0.5 * y, 80.0 + 5.0 * x + 2.0 * y};
}
inline double GaussValue(const TGaussTruth& t, int g) {
  const double d = (g - t.Center) / t.Sigma;
  return t.Offset + t.Amp * std::exp(-0.5 * d * d);
}

class AdvancedFittingFixture : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    EnsureMemoryStrategy();
  }

  /// A stack of sx × sy spectra of `length` points; fill(x, y, spectrum) writes each one.
  template <class Fill>
  TDGraph* AddStack(int sx, int sy, int length, const std::string& caption, Fill fill) {
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(FProject.GetNewDataID());
    graph->SetCaption(caption);
    graph->SetFieldSize(sx, sy, TDataFieldKind::Float, length);
    std::vector<float> s(static_cast<size_t>(length));
    for (int y = 0; y < sy; ++y)
      for (int x = 0; x < sx; ++x) {
        fill(x, y, s);
        graph->SetSpectrum(x, y, s.data());
      }
    graph->SetAllLinesValid();
    TDGraph* raw = graph.get();
    FProject.AddData(std::move(graph));
    return raw;
  }

  template <class T>
  T* Result(const TIntList& ids, const std::string& caption) {
    for (int32_t id : ids)
      if (TData* d = FProject.FindData(id); d && d->GetCaption() == caption) return dynamic_cast<T*>(d);
    return nullptr;
  }

  size_t ObjectCount() const { return FProject.GetIDListOfAllData().size(); }

  TProject FProject;
};

/// The demo project with a map of sx × sy spectra of 512 points, and the tool opened on that map the way a
/// window opens it.
class AdvancedFittingDemoFixture : public AdvancedFittingFixture {
protected:
  void CreateDemo(int sx, int sy) {
    TDemoOptions options;
    options.SizeX = sx;
    options.SizeY = sy;
    options.SizeGraph = 512;
    FIDs = CreateDemoProject(FProject, options);
  }

  /// Sets the function and a fit mask over the silicon band, then the settings given, and opens the tool.
  TAdvancedFittingPreview& Open(TAdvancedFittingToolForm& tool, const std::vector<std::string>& settings,
                                const std::string& function = "Lorentz") {
    std::vector<std::string> all{"Function=" + function, "Fit Mask=480:560"};
    all.insert(all.end(), settings.begin(), settings.end());
    EXPECT_TRUE(tool.Parameters().SetParameterValuesFromText(all).empty());
    const TIntList ids{FIDs.Map};
    tool.Init(&ids, nullptr, &FProject);
    TAdvancedFittingPreview* preview = tool.GetPreview();
    EXPECT_NE(preview, nullptr);
    return *preview;
  }

  TDemoIDs FIDs;
};

} // namespace oxtest
