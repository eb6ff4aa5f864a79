#include "tools/image/Imagebackgroundsubtraction.h"

#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dimage.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

namespace {

// The kernel's failure as the tool's, naming the image.
void Check(const TImageBackgroundStatus& status, const TDImage& image, const std::string& dialogName) {
  if (!status.Ok())
    throw OrvexException(dialogName + ": \"" + image.GetCaption() + "\" (ID " +
                         std::to_string(image.GetID()) + "): " + status.Text());
}

} // namespace

TParameterTable& TImageBackgroundSubtractionForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddList("Mode", "Mode", 0, {{"Surface", 0}, {"Lines", 1}})
        .SetDescription(
            "Surface: one polynomial in x and y over all valid lines; Lines: one polynomial in x per line");
    t.AddInt("Order", "Order", 1).SetLimits(0, TImageBackgroundSubtraction::kMaximumOrder);
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    return t;
  }();
  return table;
}

TImageBackgroundSubtractionForm::TImageBackgroundSubtractionForm()
    : TProjectImageProcessingDialogForm("Image Background Subtraction", Declaration()) {
  MinNumberOfImages = 1;
}

void TImageBackgroundSubtractionForm::PreCalculate(TImageList& inputs, TImageList& results) {
  const auto mode = static_cast<TImageBackgroundMode>(GetIntParameter("Mode"));
  const int order = GetIntParameter("Order");
  FJobs.clear();
  FJobs.resize(inputs.size());
  for (size_t i = 0; i < inputs.size(); ++i) {
    const TDImage& input = *inputs[i];
    std::unique_ptr<bool[]> flags(new bool[static_cast<size_t>(input.GetSizeY())]);
    for (int32_t y = 0; y < input.GetSizeY(); ++y) flags[static_cast<size_t>(y)] = input.GetLineValid(y);
    TJob& job = FJobs[i];
    Check(job.Kernel.Prepare(mode, order, input.GetSizeX(), input.GetSizeY(), flags.get()), input,
          GetDialogName());
    job.Values.resize(static_cast<size_t>(input.GetSizeX()) * static_cast<size_t>(input.GetSizeY()));
    // The thread count is known only once the run starts: room for the most there can be.
    job.Sums.assign(TMCC::MaxNumberOfThreads, TImageBackgroundSums());
    TDImage* result = nullptr;
    if (GetIsPreview()) {
      result = PreviewImages().empty()
                   ? nullptr
                   : dynamic_cast<TDImage*>(GetProject()->FindData(PreviewImages().front().ID));
      if (result && (result->GetSizeX() != input.GetSizeX() || result->GetSizeY() != input.GetSizeY()))
        result->SetFieldSize(input.GetSizeX(), input.GetSizeY());
    } else {
      TResultInfo info;
      info.CaptionSuffix = kCaptionSuffix;
      result =
          OwnResult(TDImage::CreateResultImage(*GetProject(), input.GetID(), TDataFieldKind::Float, info));
    }
    if (!result)
      throw OrvexException(GetDialogName() + ": no image for the result of \"" + input.GetCaption() + "\"");
    for (int32_t y = 0; y < input.GetSizeY(); ++y) result->SetLineValid(y, input.GetLineValid(y));
    results.push_back(result);
  }
}

void TImageBackgroundSubtractionForm::CalculateThread(TMCC* mcc, int threadIndex, TImageList& inputs,
                                                      TImageList& results) {
  const int threads = mcc->GetNumberOfThreads();
  for (size_t i = 0; i < inputs.size(); ++i) {
    const TDImage& input = *inputs[i];
    TJob& job = FJobs[i];
    const int sizeX = input.GetSizeX(), sizeY = input.GetSizeY();
    const int first = TMCC::GetFirstElementIndex(threadIndex, threads, sizeY);
    const int last = TMCC::GetLastElementIndex(threadIndex, threads, sizeY);
    float* values = job.Values.data();
    for (int y = first; y <= last; ++y)
      if (job.Kernel.IsLineValid(y)) input.GetFastLine(y, values + static_cast<size_t>(y) * sizeX);
    if (job.Kernel.Mode() == TImageBackgroundMode::Surface) {
      if (first <= last)
        Check(job.Kernel.Accumulate(values, first, last, job.Sums[threadIndex]), input, GetDialogName());
      // All sums are in: one thread solves, the others wait for the coefficients.
      mcc->WaitForNextStep(threadIndex);
      if (threadIndex == 0) {
        TImageBackgroundSums total;
        for (const TImageBackgroundSums& sums : job.Sums) total.Add(sums);
        Check(job.Kernel.Solve(total), input, GetDialogName());
      }
      mcc->WaitForNextStep(threadIndex);
    }
    if (mcc->GetCancel()) return;
    if (first <= last) Check(job.Kernel.Subtract(values, values, first, last), input, GetDialogName());
    for (int y = first; y <= last; ++y)
      if (job.Kernel.IsLineValid(y)) results[i]->SetLine(y, values + static_cast<size_t>(y) * sizeX);
    if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  }
}

void TImageBackgroundSubtractionForm::PostCalculate(TImageList& /*inputs*/, TImageList& results) {
  FJobs.clear();
  HandOverResults(results);
}

void RegisterImageBackgroundSubtraction(TToolRegistry& registry) {
  registry.Register(TImageBackgroundSubtractionForm::kClassName, "Image Background Subtraction", "image",
                    [] { return std::make_unique<TImageBackgroundSubtractionForm>(); });
}
