// Image Background Subtraction: a least-squares polynomial background removed from each image, as one
// surface over the valid lines or as one polynomial per line.
#pragma once

#include "common/numerics/Imagebackground.h"
#include "project/Processingdialogforms.h"

#include <vector>

class TToolRegistry;

class TImageBackgroundSubtractionForm : public TProjectImageProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TImageBackgroundSubtractionForm";
  static constexpr const char* kCaptionSuffix = " (Background Subtracted)";

  TImageBackgroundSubtractionForm();
  std::string GetClassNameA() const override { return kClassName; }
  static TParameterTable& Declaration();

protected:
  void PreCalculate(TImageList& inputs, TImageList& results) override;
  void CalculateThread(TMCC* mcc, int threadIndex, TImageList& inputs, TImageList& results) override;
  void PostCalculate(TImageList& inputs, TImageList& results) override;

private:
  // One input's work: its values, the fit, and the sums of each thread.
  struct TJob {
    std::vector<float> Values;
    TImageBackgroundSubtraction Kernel;
    std::vector<TImageBackgroundSums> Sums;
  };
  std::vector<TJob> FJobs;
};

void RegisterImageBackgroundSubtraction(TToolRegistry& registry);
