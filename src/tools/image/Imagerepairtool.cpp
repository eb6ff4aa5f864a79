#include "tools/image/Imagerepairtool.h"

#include "common/OrvexException.h"
#include "common/Tagcontrol.h"
#include "common/numerics/Imagerepair.h"
#include "common/numerics/Inpainting.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

constexpr const char* kMode = "Mode";
constexpr const char* kReplace = "SimpleFillingReplaceCheckBox";
constexpr const char* kValue = "SimpleFillingValueEdit";
constexpr const char* kNoise = "SimpleFillingNoiseCheckBox";
constexpr const char* kNoiseAmplitude = "SimpleFillingNoiseEdit";
constexpr const char* kDistribution = "SimpleFillingDistributionRadioGroup";
constexpr const char* kDirection = "SimpleFillingDirectionRadioGroup";
constexpr const char* kSeed = "SimpleFillingSeedEdit";
constexpr const char* kIterations = "SimpleInterpolationIterationsEdit";
constexpr const char* kWindow = "InpaintingTextureAnalysisWindowSizeEdit";
constexpr const char* kRotations = "InpaintingTextureNumberOfRotationsEdit";
constexpr const char* kMaskImage = "MaskImage";
constexpr const char* kMaskRectangles = "MaskRectangles";

std::string Describe(const TDImage& image) {
  return "\"" + image.GetCaption() + "\" (ID " + std::to_string(image.GetID()) + ")";
}

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// "a:b" of two integers.
bool ParseRange(const std::string& text, int& lo, int& hi) {
  const std::string t = Trim(text);
  const size_t colon = t.find(':');
  if (colon == std::string::npos) return false;
  const std::string a = Trim(t.substr(0, colon)), b = Trim(t.substr(colon + 1));
  if (a.empty() || b.empty()) return false;
  char* end = nullptr;
  const long x = std::strtol(a.c_str(), &end, 10);
  if (*end != '\0') return false;
  const long y = std::strtol(b.c_str(), &end, 10);
  if (*end != '\0') return false;
  if (x < -1000000000L || x > 1000000000L || y < -1000000000L || y > 1000000000L) return false;
  lo = static_cast<int>(x);
  hi = static_cast<int>(y);
  return true;
}

} // namespace

bool ParsePixelRectangles(const std::string& text, std::vector<TPixelRectangle>& rectangles,
                          std::string& problem) {
  rectangles.clear();
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find(';', start), text.size());
    const std::string part = Trim(text.substr(start, end - start));
    start = end + 1;
    if (part.empty()) continue;
    const size_t comma = part.find(',');
    TPixelRectangle r;
    if (comma == std::string::npos || !ParseRange(part.substr(0, comma), r.X0, r.X1) ||
        !ParseRange(part.substr(comma + 1), r.Y0, r.Y1)) {
      problem = "\"" + part + "\" is not of the form x0:x1,y0:y1";
      return false;
    }
    if (r.X0 > r.X1 || r.Y0 > r.Y1) {
      problem = "\"" + part + "\": a lower bound lies above the upper one";
      return false;
    }
    rectangles.push_back(r);
  }
  return true;
}

TParameterTable& TImageRepairForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddList(kMode, "Method", 0,
              {{"Line Interpolation", 0},
               {"Simple Filling", 1},
               {"Simple Interpolation", 2},
               {"Texture Analysis", 3}});
    // "Simple Filling"
    t.AddBool(kReplace, "Replace Value:", true);
    t.AddFloat(kValue, "Value", 0.0);
    t.AddBool(kNoise, "Noise:", false);
    t.AddFloat(kNoiseAmplitude, "Amplitude", 0.0)
        .SetLowerLimit(0.0)
        .SetDescription("Box: values up to the amplitude; Gaussian: the amplitude is the standard deviation");
    t.AddList(kDistribution, "Distribution", 0, {{"Box", 0}, {"Gaussian", 1}});
    t.AddList(kDirection, "Direction", 2, {{"Add", 0}, {"Subtract", 1}, {"Symmetric", 2}});
    t.AddInt(kSeed, "Noise Seed", 1).SetLowerLimit(0).SetDescription("The same seed gives the same noise");
    // "Simple Interpolation"
    t.AddInt(kIterations, "Iterations:", 100).SetLimits(1, 1000000);
    // "Texture Analysis"
    t.AddInt(kWindow, "Window Size:", 4).SetLimits(1, 20);
    t.AddInt(kRotations, "Number of Rotations:", 1).SetLimits(1, 120);
    // The mask besides the pixels that are not finite and the drawn ones.
    t.AddInt(kMaskImage, "Mask Image", 0)
        .SetLowerLimit(0)
        .SetDescription("ID of an image of the same size whose non-zero pixels are repaired; 0: none");
    t.AddString(kMaskRectangles, "Mask Rectangles", "")
        .SetDescription("Pixel rectangles to repair, x0:x1,y0:y1 (inclusive), separated by ';'");
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    return t;
  }();
  return table;
}

TImageRepairForm::TImageRepairForm() : TProjectImageProcessingDialogForm("Image Repair", Declaration()) {
  MinNumberOfImages = 1;
  UseDataSetChanger = true;
}

TImageRepairForm::~TImageRepairForm() = default;

std::string TImageRepairForm::CaptionSuffix(TImageRepairMode mode) {
  switch (mode) {
  case TImageRepairMode::LineInterpolation:
    return " (Repaired Line Interp.)";
  case TImageRepairMode::SimpleFilling:
    return " (Repaired Simple Filling)";
  case TImageRepairMode::SimpleInterpolation:
    return " (Repaired Simple Interp.)";
  case TImageRepairMode::TextureAnalysis:
    return " (Repaired Inpainting)";
  }
  return " (Repaired)";
}

void TImageRepairForm::GetDialogParameters(TTagControl& tag) {
  TTagControl* group = tag.AddSubTag(kDialogTag, TTagKind::TagList);
  Parameters().SaveParameterValueTagsToTagControl(*group);
}

void TImageRepairForm::SetDialogParameters(const TTagControl& tag) {
  const TTagControl* group = tag.FindTagInList(kDialogTag);
  if (group) Parameters().LoadParameterValueTagsFromTagControl(*group);
}

void TImageRepairForm::CopySelectedImageToPreviewImageDrawField() {
  const auto* image =
      GetIsActive() ? dynamic_cast<const TDImage*>(GetProject()->FindData(GetCurrentID())) : nullptr;
  if (!image) {
    FDrawField.clear();
    FDrawFieldImageID = 0;
    return;
  }
  const size_t count = static_cast<size_t>(image->GetSizeX()) * static_cast<size_t>(image->GetSizeY());
  if (FDrawField.size() != count) FDrawField.assign(count, 0);
  FDrawFieldImageID = image->GetID();
}

void TImageRepairForm::Init(const TIntList* ids, const TIntList* extra, TProject* project) {
  FDrawField.clear();
  FDrawFieldImageID = 0;
  TProjectImageProcessingDialogForm::Init(ids, extra, project);
  CopySelectedImageToPreviewImageDrawField();
}

void TImageRepairForm::OnDataSetChangerChange(int32_t id) {
  TProjectImageProcessingDialogForm::OnDataSetChangerChange(id);
  CopySelectedImageToPreviewImageDrawField();
}

std::vector<bool> TImageRepairForm::BuildMask(const TDImage& image) const {
  const int sizeX = image.GetSizeX(), sizeY = image.GetSizeY();
  std::vector<bool> mask(static_cast<size_t>(sizeX) * static_cast<size_t>(sizeY), false);
  std::vector<float> line(static_cast<size_t>(sizeX));
  for (int y = 0; y < sizeY; ++y) {
    image.GetFastLine(y, line.data());
    for (int x = 0; x < sizeX; ++x)
      if (!std::isfinite(line[x])) mask[static_cast<size_t>(y) * sizeX + x] = true;
  }
  if (const int32_t maskID = GetIntParameter(kMaskImage); maskID != 0) {
    const TData* data = GetProject() ? GetProject()->FindData(maskID) : nullptr;
    const auto* maskImage = dynamic_cast<const TDImage*>(data);
    if (!maskImage)
      throw OrvexException(GetDialogName() + ": " + kMaskImage + " " + std::to_string(maskID) +
                           (data ? " is a " + data->GetClassNameA() + ", not an image" : " names no object"));
    if (maskImage->GetSizeX() != sizeX || maskImage->GetSizeY() != sizeY)
      throw OrvexException(GetDialogName() + ": " + kMaskImage + " " + Describe(*maskImage) + " has " +
                           std::to_string(maskImage->GetSizeX()) + " x " +
                           std::to_string(maskImage->GetSizeY()) + " pixels, " + Describe(image) + " has " +
                           std::to_string(sizeX) + " x " + std::to_string(sizeY));
    for (int y = 0; y < sizeY; ++y) {
      if (!maskImage->GetLineValid(y)) continue;
      maskImage->GetFastLine(y, line.data());
      for (int x = 0; x < sizeX; ++x)
        if (line[x] != 0.0f) mask[static_cast<size_t>(y) * sizeX + x] = true;
    }
  }
  std::vector<TPixelRectangle> rectangles;
  std::string problem;
  if (!ParsePixelRectangles(GetStringParameter(kMaskRectangles), rectangles, problem))
    throw OrvexException(GetDialogName() + ": " + kMaskRectangles + ": " + problem);
  for (const TPixelRectangle& r : rectangles) {
    if (r.X0 < 0 || r.Y0 < 0 || r.X1 >= sizeX || r.Y1 >= sizeY)
      throw OrvexException(GetDialogName() + ": " + kMaskRectangles + ": " + std::to_string(r.X0) + ":" +
                           std::to_string(r.X1) + "," + std::to_string(r.Y0) + ":" + std::to_string(r.Y1) +
                           " reaches beyond " + Describe(image) + " of " + std::to_string(sizeX) + " x " +
                           std::to_string(sizeY) + " pixels");
    for (int y = r.Y0; y <= r.Y1; ++y)
      for (int x = r.X0; x <= r.X1; ++x) mask[static_cast<size_t>(y) * sizeX + x] = true;
  }
  if (image.GetID() == FDrawFieldImageID && FDrawField.size() == mask.size())
    for (size_t i = 0; i < mask.size(); ++i)
      if (FDrawField[i] != 0) mask[i] = true;
  return mask;
}

void TImageRepairForm::PreCalculate(TImageList& inputs, TImageList& results) {
  FJobs.clear();
  const auto mode = static_cast<TImageRepairMode>(GetIntParameter(kMode));
  FJobs.resize(inputs.size());
  for (size_t i = 0; i < inputs.size(); ++i) {
    TJob& job = FJobs[i];
    TDImage& input = *inputs[i];
    job.Input = &input;
    job.SizeX = input.GetSizeX();
    job.SizeY = input.GetSizeY();
    const long pixels = static_cast<long>(job.SizeX) * job.SizeY;
    if (mode == TImageRepairMode::TextureAnalysis && pixels >= TInpainting::kMaximumPixels)
      throw OrvexException(GetDialogName() + ": " + Describe(input) + ": " + kTooLargeForTextureAnalysis);
    if (mode == TImageRepairMode::SimpleInterpolation && (job.SizeX < 2 || job.SizeY < 2))
      throw OrvexException(GetDialogName() + ": " + Describe(input) +
                           " needs at least 2 x 2 pixels for the simple interpolation");
    const std::vector<bool> mask = BuildMask(input);
    // A preview before anything is drawn shows the image as it is.
    if (!GetIsPreview() && std::none_of(mask.begin(), mask.end(), [](bool b) { return b; }))
      throw OrvexException(GetDialogName() + ": the repair mask of " + Describe(input) + " is empty");
    job.Mask.reset(new bool[mask.size()]);
    std::copy(mask.begin(), mask.end(), job.Mask.get());
    job.Values.resize(static_cast<size_t>(pixels));
    job.LineValid.resize(static_cast<size_t>(job.SizeY));
    for (int y = 0; y < job.SizeY; ++y) {
      input.GetFastLine(y, job.Values.data() + static_cast<size_t>(y) * job.SizeX);
      job.LineValid[static_cast<size_t>(y)] = input.GetLineValid(y) ? 1 : 0;
    }
    TDImage* result = nullptr;
    if (GetIsPreview()) {
      result = PreviewImages().empty()
                   ? nullptr
                   : dynamic_cast<TDImage*>(GetProject()->FindData(PreviewImages().front().ID));
      if (result && (result->GetSizeX() != job.SizeX || result->GetSizeY() != job.SizeY))
        result->SetFieldSize(job.SizeX, job.SizeY);
    } else {
      TResultInfo info;
      info.CaptionSuffix = CaptionSuffix(mode);
      result =
          OwnResult(TDImage::CreateResultImage(*GetProject(), input.GetID(), TDataFieldKind::Float, info));
    }
    if (!result) throw OrvexException(GetDialogName() + ": no image for the result of " + Describe(input));
    job.Result = result;
    results.push_back(result);
  }
}

void TImageRepairForm::Repair(TJob& job, TMCC* mcc) const {
  const TFloatImage image{job.Values.data(), nullptr, job.SizeX, job.SizeY};
  switch (static_cast<TImageRepairMode>(GetIntParameter(kMode))) {
  case TImageRepairMode::LineInterpolation:
    RepairLineInterpolation(image, job.Mask.get());
    break;
  case TImageRepairMode::SimpleFilling: {
    TSimpleFillingParameters p;
    p.ReplaceValue = GetBoolParameter(kReplace);
    p.Value = GetFloatParameter(kValue);
    p.AddNoise = GetBoolParameter(kNoise);
    p.NoiseAmplitude = GetFloatParameter(kNoiseAmplitude);
    p.Distribution = static_cast<TNoiseDistribution>(GetIntParameter(kDistribution));
    p.Direction = static_cast<TNoiseDirection>(GetIntParameter(kDirection));
    p.Seed = static_cast<std::uint32_t>(GetIntParameter(kSeed));
    RepairSimpleFilling(image, job.Mask.get(), p);
    break;
  }
  case TImageRepairMode::SimpleInterpolation:
    RepairSimpleInterpolation(image, job.Mask.get(), GetIntParameter(kIterations));
    break;
  case TImageRepairMode::TextureAnalysis: {
    TInpainting inpainting;
    inpainting.Init(job.Values.data(), job.Mask.get(), job.SizeX, job.SizeY, GetIntParameter(kWindow),
                    GetIntParameter(kRotations));
    while (!mcc->GetCancel() && inpainting.Process()) {
    }
    if (!mcc->GetCancel() && inpainting.RemainingTargetPixels() > 0)
      job.Problem = "the texture analysis found no patch for " +
                    std::to_string(inpainting.RemainingTargetPixels()) + " pixels of " + Describe(*job.Input);
    break;
  }
  }
}

void TImageRepairForm::CalculateThread(TMCC* mcc, int threadIndex, TImageList& /*inputs*/,
                                       TImageList& /*results*/) {
  // Each repair works on a whole image: the images are dealt out to the threads.
  const int threads = mcc->GetNumberOfThreads();
  for (size_t i = static_cast<size_t>(threadIndex); i < FJobs.size(); i += static_cast<size_t>(threads)) {
    if (mcc->GetCancel()) return;
    Repair(FJobs[i], mcc);
    mcc->OverallProgress.fetch_add(1);
  }
}

void TImageRepairForm::PostCalculate(TImageList& /*inputs*/, TImageList& results) {
  std::vector<TJob> jobs = std::move(FJobs);
  FJobs.clear();
  if (GetLastRunCancelled()) {
    HandOverResults(results);
    return;
  }
  for (TJob& job : jobs) {
    if (!job.Problem.empty()) throw OrvexException(GetDialogName() + ": " + job.Problem);
    for (int y = 0; y < job.SizeY; ++y) {
      if (!job.LineValid[static_cast<size_t>(y)]) continue;
      const float* line = job.Values.data() + static_cast<size_t>(y) * job.SizeX;
      for (int x = 0; x < job.SizeX; ++x)
        if (!std::isfinite(line[x]))
          throw OrvexException(GetDialogName() + ": " + Describe(*job.Input) +
                               ": Calculation Error. Possible reason: images contain extreme large/small "
                               "values.");
    }
    TDImage& result = *job.Result;
    for (int y = 0; y < job.SizeY; ++y) {
      result.SetLine(y, job.Values.data() + static_cast<size_t>(y) * job.SizeX);
      result.SetLineValid(y, job.LineValid[static_cast<size_t>(y)] != 0);
    }
    if (!GetIsPreview() && result.GetZInterpretationID() == 0)
      result.SetZInterpretationID(GetOrMakeStandardZInterpretation(*GetProject(), "a.u.", "a.u."));
  }
  HandOverResults(results);
}

void RegisterImageRepair(TToolRegistry& registry) {
  registry.Register(TImageRepairForm::kClassName, "Image Repair", "image",
                    [] { return std::make_unique<TImageRepairForm>(); });
}
