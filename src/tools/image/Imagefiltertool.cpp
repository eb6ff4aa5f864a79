#include "tools/image/Imagefiltertool.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/Standardmessage.h"
#include "common/Tagcontrol.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Orvexdirectories.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

constexpr const char* kMode = "Mode";
constexpr const char* kMargin = "MarginalPixelsGroupBox";
constexpr const char* kAverageSize = "AverageFilterSizeEdit";
constexpr const char* kP1 = "AnisotropicP1Edit";
constexpr const char* kP2 = "AnisotropicP2Edit";
constexpr const char* kDeltaT = "AnisotropicDeltaTEdit";
constexpr const char* kSigma = "AnisotropicSigmaEdit";
constexpr const char* kIterations = "AnisotropicIterationsEdit";
constexpr const char* kMedianSize = "MedianFilterSizeEdit";
constexpr const char* kSobelGx = "SobelGxCheckBox";
constexpr const char* kSobelGy = "SobelGyCheckBox";
constexpr const char* kSobelG = "SobelGCheckBox";
constexpr const char* kSobelTheta = "SobelThetaCheckBox";
constexpr const char* kSobelUnit = "SobelUnitRadioGroup";
constexpr const char* kSobelThetaUnit = "SobelThetaUnitRadioGroup";
constexpr const char* kSobelPreview = "SobelPreviewComboBox";
constexpr const char* kKirschDirection = "KirschDirectionComboBox";
constexpr const char* kVarianceSize = "VarianceFilterSizeEdit";
constexpr const char* kLaplaceType = "LaplaceTypeRadioGroup";
constexpr const char* kSharpenRadius = "SharpenRadiusEdit";
constexpr const char* kSharpenAmount = "SharpenAmountEdit";
constexpr const char* kSharpenThreshold = "SharpenThresholdEdit";
constexpr const char* kCustomSize = "CustomFilterSizeEdit";
constexpr const char* kCustomFactor = "CustomFilterFactorEdit";
constexpr const char* kCustomCoefficients = "CustomFilterCoefficients";
constexpr const char* kCustomFile = "CustomFilterFile";

const char* const kSobelNames[] = {"Gx", "Gy", "G", "Theta"};

std::string Describe(const TDImage& image) {
  return "\"" + image.GetCaption() + "\" (ID " + std::to_string(image.GetID()) + ")";
}

// The kernel's margin: the window half width of the sized kinds, 1 for the fixed 3 x 3 kernels.
int BorderOf(const TImageFilterParameters& p) {
  switch (p.Kind) {
  case TImageFilterKind::Average:
  case TImageFilterKind::Median:
  case TImageFilterKind::Variance:
  case TImageFilterKind::Sharpen:
  case TImageFilterKind::Custom:
    return p.Size;
  default:
    return 1;
  }
}

std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// The centre coefficient 1, the others 0: the kernel of an empty coefficient text.
std::vector<double> IdentityKernel(int size) {
  const int n = 2 * size + 1;
  std::vector<double> k(static_cast<size_t>(n) * n, 0.0);
  k[static_cast<size_t>(size) * n + size] = 1.0;
  return k;
}

std::string CoefficientText(const std::vector<double>& values, int size) {
  std::ostringstream text;
  text.precision(17);
  const size_t n = static_cast<size_t>(2 * size + 1);
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) text << (i % n == 0 ? "; " : " ");
    text << values[i];
  }
  return text.str();
}

bool ValidCustomFilter(const TCustomImageFilter& f) {
  const auto count = static_cast<size_t>(2 * f.Size + 1) * static_cast<size_t>(2 * f.Size + 1);
  return f.Size >= 1 && f.Size <= 3 && f.Divisor != 0.0 && std::isfinite(f.Divisor) &&
         f.Buffer.size() == count;
}

} // namespace

// --- Custom filter files -----------------------------------------------------------------------------------

std::string SaveCustomImageFilter(const std::string& fileName, const TCustomImageFilter& filter) {
  if (!ValidCustomFilter(filter)) return kCustomImageFilterSaveFailed;
  TFileHandle file = CreateTagFile(fileName, kCustomImageFilterIdentification);
  if (file == kInvalidFileHandle) return kCustomImageFilterSaveFailed;
  TTagControl root, value;
  bool ok = root.WriteTag(file, kCustomImageFilterRootTag, TTagKind::TagList) == 1;
  ok = ok && value.SaveIntTag(file, "FilterSize", filter.Size) == 1;
  ok = ok && value.SaveDoubleTag(file, "Divisor", filter.Divisor) == 1;
  ok = ok && value.SaveDoubleTag(file, "FilterBuffer", filter.Buffer.data(),
                                 static_cast<int64_t>(filter.Buffer.size())) == 1;
  ok = ok && root.CloseWriteTag(file) == 1;
  CloseFile(file);
  if (!ok) {
    std::error_code error;
    std::filesystem::remove(fileName, error);
  }
  return ok ? std::string() : std::string(kCustomImageFilterSaveFailed);
}

std::string LoadCustomImageFilter(const std::string& fileName, TCustomImageFilter& filter) {
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  if (OpenTagFileForReading(fileName, {kCustomImageFilterIdentification}, file, root) != 1)
    return kCustomImageFilterLoadFailed;
  TCustomImageFilter read;
  TTagControl tag;
  // A file cut short ends before its root list does; a missing tag would otherwise be a silent default.
  std::error_code error;
  const auto size = std::filesystem::file_size(fileName, error);
  bool ok = !error && root.End() <= static_cast<int64_t>(size) && root.Name() == kCustomImageFilterRootTag &&
            tag.LoadIntTag(file, "FilterSize", root, &read.Size) == 1 &&
            tag.LoadDoubleTag(file, "Divisor", root, &read.Divisor) == 1 && read.Size >= 1 && read.Size <= 3;
  if (ok) {
    const int64_t count = int64_t(2 * read.Size + 1) * (2 * read.Size + 1);
    read.Buffer.assign(static_cast<size_t>(count), 0.0);
    // The tag must hold exactly the coefficients of the size: no fewer, no more.
    ok = tag.FindTag(file, "FilterBuffer", root) == 1 && tag.Kind() == TTagKind::Double &&
         tag.End() - tag.Begin() == count * 8 &&
         tag.LoadDoubleTag(file, "FilterBuffer", root, read.Buffer.data(), count) == 1;
    for (double v : read.Buffer) ok = ok && std::isfinite(v);
  }
  CloseFile(file);
  if (!ok || !ValidCustomFilter(read)) return kCustomImageFilterLoadFailed;
  filter = std::move(read);
  return {};
}

std::vector<std::string> ListCustomImageFilters(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (!entry.is_regular_file(error)) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    char identification[8] = {};
    if (in.read(identification, 8) && std::string(identification, 8) == kCustomImageFilterIdentification)
      files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool ParseFilterCoefficients(const std::string& text, std::vector<double>& values, std::string& problem) {
  values.clear();
  std::string token;
  auto flush = [&]() {
    if (token.empty()) return true;
    char* end = nullptr;
    const double v = std::strtod(token.c_str(), &end);
    if (end != token.c_str() + token.size() || !std::isfinite(v)) {
      problem = "\"" + token + "\" is not a finite number";
      return false;
    }
    values.push_back(v);
    token.clear();
    return true;
  };
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == ',' || c == ';' || c == '\n' || c == '\r') {
      if (!flush()) return false;
    } else {
      token += c;
    }
  }
  return flush();
}

// --- The tool ----------------------------------------------------------------------------------------------

TParameterTable& TImageFilterForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddList(kMode, "Filter", 0,
              {{"Average", 0},
               {"Anisotropic", 1},
               {"Median", 2},
               {"Sobel", 3},
               {"Kirsch", 4},
               {"Variance", 5},
               {"Laplace", 6},
               {"Sharpen", 7},
               {"Custom", 8}});
    t.AddList(kMargin, "Marginal Pixels", 0, {{"Mirror", 0}, {"Copy", 1}, {"Zero", 2}})
        .SetDescription("Mirror reflects the image at its edge pixels; Copy and Zero leave the margin out "
                        "and fill it with the nearest calculated pixel or 0");
    // "Average"
    t.AddInt(kAverageSize, "Average Filter Size:", 1)
        .SetLimits(0, 9)
        .SetDescription("Using Binomial Distribution for Filter Coefficients");
    // "Anisotropic"
    t.AddFloat(kP1, "P1:", 1.0).SetLimits(0.001, 1000).SetDescription("Smoothing strength along contour");
    t.AddFloat(kP2, "P2:", 1.2).SetLimits(0.001, 1000).SetDescription("Smoothing strength along gradient");
    t.AddFloat(kDeltaT, "DeltaT:", 5.0).SetLimits(0.1, 1e7).SetDescription("Smoothing Length");
    t.AddFloat(kSigma, "Sigma:", 1.0)
        .SetLimits(0.1, 10)
        .SetDescription("Smoothing for analyzing structure (gradient and contour)");
    t.AddInt(kIterations, "Iterations:", 1).SetLowerLimit(1).SetDescription("Number of iterations");
    // "Median"
    t.AddInt(kMedianSize, "Median Filter Size:", 1).SetLimits(0, 9);
    // "Sobel"
    t.AddBool(kSobelGx, "Gx", true);
    t.AddBool(kSobelGy, "Gy", true);
    t.AddBool(kSobelG, "G", true);
    t.AddBool(kSobelTheta, "Theta", true);
    t.AddList(kSobelUnit, "Unit", 0, {{"Pixel based", 0}, {"Space based", 1}})
        .SetDescription("Space based divides by the physical pixel step of the space transformation");
    t.AddList(kSobelThetaUnit, "Theta", 0, {{"Radian", 0}, {"Degree", 1}});
    t.AddList(kSobelPreview, "Preview", 2, {{"Gx", 0}, {"Gy", 1}, {"G", 2}, {"Theta", 3}});
    // "Kirsch"
    t.AddList(kKirschDirection, "Direction", 0,
              {{"GMax", 0},
               {"G1", 1},
               {"G2", 2},
               {"G3", 3},
               {"G4", 4},
               {"G5", 5},
               {"G6", 6},
               {"G7", 7},
               {"G8", 8}});
    // "Variance"
    t.AddInt(kVarianceSize, "Variance Filter Size:", 1).SetLimits(1, 9);
    // "Laplace"
    t.AddList(kLaplaceType, "Type", 1,
              {{"Type 1 [0,1,0][1,-4,1][0,1,0]", 1},
               {"Type 2 [1,1,1][1,-8,1][1,1,1]", 2},
               {"Type 3 [1,2,1][2,-12,2][1,2,1]", 3}});
    // "Sharpen"
    t.AddInt(kSharpenRadius, "Radius:", 1).SetLimits(1, 9);
    t.AddFloat(kSharpenAmount, "Amount:", 1.0).SetLimits(0, 1000);
    t.AddFloat(kSharpenThreshold, "Threshold:", 0.0).SetLimits(0, 1e37);
    // "Custom"
    t.AddInt(kCustomSize, "Filter Size:", 1).SetLimits(1, 3);
    t.AddFloat(kCustomFactor, "Factor:", 1.0)
        .SetDescription("The sum of coefficient times pixel is divided by it");
    t.AddString(kCustomCoefficients, "Coefficients", "")
        .SetDescription("(2 size + 1)^2 numbers, top row first, left first; empty: the centre 1, the rest 0");
    t.AddString(kCustomFile, "Custom Filter File", "")
        .SetDescription("A custom filter file; when named, its size, divisor and coefficients are used");
    t.AddTrigger(kSmallStructures, "Small Structures");
    t.AddTrigger(kLargeStructures, "Large Structures");
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    return t;
  }();
  return table;
}

TImageFilterForm::TImageFilterForm() : TProjectImageProcessingDialogForm("Image Filter", Declaration()) {
  MinNumberOfImages = 1;
  UseDataSetChanger = true;
}

TImageFilterForm::~TImageFilterForm() = default;

std::vector<std::string> TImageFilterForm::GetExtractCommands() const {
  std::vector<std::string> names;
  for (const std::string& name : TProjectImageProcessingDialogForm::GetExtractCommands())
    if (name != kSmallStructures && name != kLargeStructures) names.push_back(name);
  return names;
}

void TImageFilterForm::GetDialogParameters(TTagControl& tag) {
  TTagControl* group = tag.AddSubTag(kDialogTag, TTagKind::TagList);
  Parameters().SaveParameterValueTagsToTagControl(*group);
}

void TImageFilterForm::SetDialogParameters(const TTagControl& tag) {
  const TTagControl* group = tag.FindTagInList(kDialogTag);
  if (group) Parameters().LoadParameterValueTagsFromTagControl(*group);
}

void TImageFilterForm::ApplyAnisotropicPreset(const std::string& preset) {
  std::string p2, iterations;
  if (preset == kSmallStructures) {
    p2 = "1.5";
    iterations = "1";
  } else if (preset == kLargeStructures) {
    p2 = "5.0";
    iterations = "3";
  } else {
    throw OrvexException("TImageFilterForm::ApplyAnisotropicPreset(): no preset \"" + preset + "\"");
  }
  const TUserParameterProblems problems = Parameters().SetParameterValuesFromText(
      {std::string(kP1) + "=0.1", std::string(kP2) + "=" + p2, std::string(kDeltaT) + "=5.0",
       std::string(kSigma) + "=1.0", std::string(kIterations) + "=" + iterations});
  if (!problems.empty())
    throw OrvexException("TImageFilterForm::ApplyAnisotropicPreset(): " + problems.front().Message);
}

bool TImageFilterForm::DoCommand(const std::string& name) {
  if (name == kSmallStructures || name == kLargeStructures) {
    ApplyAnisotropicPreset(name);
    return true;
  }
  return TProjectImageProcessingDialogForm::DoCommand(name);
}

std::vector<TSobelOutput> TImageFilterForm::GetChosenSobelOutputs() const {
  std::vector<TSobelOutput> outputs;
  if (GetBoolParameter(kSobelGx)) outputs.push_back(TSobelOutput::Gx);
  if (GetBoolParameter(kSobelGy)) outputs.push_back(TSobelOutput::Gy);
  if (GetBoolParameter(kSobelG)) outputs.push_back(TSobelOutput::G);
  if (GetBoolParameter(kSobelTheta)) outputs.push_back(TSobelOutput::Theta);
  return outputs;
}

TImageFilterParameters TImageFilterForm::GetFilterParameters() const {
  TImageFilterParameters p;
  p.Kind = static_cast<TImageFilterKind>(GetIntParameter(kMode));
  p.Margin = static_cast<TMarginalPixels>(GetIntParameter(kMargin));
  switch (p.Kind) {
  case TImageFilterKind::Average:
    p.Size = GetIntParameter(kAverageSize);
    break;
  case TImageFilterKind::Median:
    p.Size = GetIntParameter(kMedianSize);
    break;
  case TImageFilterKind::Variance:
    p.Size = GetIntParameter(kVarianceSize);
    break;
  case TImageFilterKind::Sharpen:
    p.Size = GetIntParameter(kSharpenRadius);
    break;
  case TImageFilterKind::Custom: {
    const std::string file = GetStringParameter(kCustomFile);
    if (!file.empty()) {
      TCustomImageFilter filter;
      const std::string problem = LoadCustomImageFilter(file, filter);
      if (!problem.empty())
        throw OrvexException(GetDialogName() + ": " + kCustomFile + " '" + file + "': " + problem);
      p.Size = filter.Size;
      p.CustomFactor = filter.Divisor;
      p.CustomCoefficients = filter.Buffer;
      break;
    }
    p.Size = GetIntParameter(kCustomSize);
    p.CustomFactor = GetFloatParameter(kCustomFactor);
    const std::string text = GetStringParameter(kCustomCoefficients);
    std::string problem;
    if (!ParseFilterCoefficients(text, p.CustomCoefficients, problem))
      throw OrvexException(GetDialogName() + ": " + kCustomCoefficients + ": " + problem);
    if (p.CustomCoefficients.empty()) p.CustomCoefficients = IdentityKernel(p.Size);
    const size_t count = static_cast<size_t>(2 * p.Size + 1) * (2 * p.Size + 1);
    if (p.CustomCoefficients.size() != count)
      throw OrvexException(GetDialogName() + ": " + kCustomCoefficients + " holds " +
                           std::to_string(p.CustomCoefficients.size()) + " numbers, " + kCustomSize + " " +
                           std::to_string(p.Size) + " needs " + std::to_string(count));
    if (p.CustomFactor == 0.0)
      throw OrvexException(GetDialogName() + ": " + kCustomFactor + " is 0: the divisor must not be 0");
    break;
  }
  default:
    break;
  }
  p.SobelOutput = static_cast<TSobelOutput>(GetIntParameter(kSobelPreview));
  p.ThetaInDegree = GetIntParameter(kSobelThetaUnit) == 1;
  p.KirschDirection = GetIntParameter(kKirschDirection);
  p.LaplaceType = GetIntParameter(kLaplaceType);
  p.SharpenAmount = GetFloatParameter(kSharpenAmount);
  p.SharpenThreshold = GetFloatParameter(kSharpenThreshold);
  return p;
}

std::string TImageFilterForm::CaptionSuffix(const TImageFilterParameters& p) {
  const std::string size = std::to_string(p.Size);
  switch (p.Kind) {
  case TImageFilterKind::Average:
    return " (Average " + size + ")";
  case TImageFilterKind::Anisotropic:
    return " (AS)";
  case TImageFilterKind::Median:
    return " (Median " + size + ")";
  case TImageFilterKind::Sobel:
    return std::string(" (Sobel ") + kSobelNames[std::clamp(static_cast<int>(p.SobelOutput), 0, 3)] + ")";
  case TImageFilterKind::Kirsch:
    return "Kirsch " +
           (p.KirschDirection == 0 ? std::string("GMax") : "G" + std::to_string(p.KirschDirection));
  case TImageFilterKind::Variance:
    return " (Variance " + size + ")";
  case TImageFilterKind::Laplace:
    return "Laplace Type " + std::to_string(p.LaplaceType);
  case TImageFilterKind::Sharpen:
    return " (Sel.Sharpness " + size + ")";
  case TImageFilterKind::Custom:
    return " (Custom " + size + ")";
  }
  return " (Image Filter)";
}

bool TImageFilterForm::SaveCustomFilter(const std::string& fileName) {
  TCustomImageFilter filter;
  std::string problem;
  try {
    // The page's kernel as it stands; a named file is not what the user edits here.
    filter.Size = GetIntParameter(kCustomSize);
    filter.Divisor = GetFloatParameter(kCustomFactor);
    if (!ParseFilterCoefficients(GetStringParameter(kCustomCoefficients), filter.Buffer, problem))
      problem = kCustomImageFilterSaveFailed;
    else if (filter.Buffer.empty())
      filter.Buffer = IdentityKernel(filter.Size);
    if (problem.empty()) problem = SaveCustomImageFilter(fileName, filter);
  } catch (const std::exception&) {
    problem = kCustomImageFilterSaveFailed;
  }
  if (problem.empty()) return true;
  NotifyUser(problem, GetDialogName(), kSeverityError, false);
  return false;
}

std::string TImageFilterForm::UserFilterFolder() {
  return TOrvexDirectories::User.UserImageFilters;
}

std::vector<std::string> TImageFilterForm::GetUserFilterFiles() {
  const std::string folder = UserFilterFolder();
  return folder.empty() ? std::vector<std::string>{} : ListCustomImageFilters(folder);
}

bool TImageFilterForm::LoadCustomFilter(const std::string& fileName) {
  TCustomImageFilter filter;
  const std::string problem = LoadCustomImageFilter(fileName, filter);
  if (!problem.empty()) {
    NotifyUser(problem, GetDialogName(), kSeverityError, false);
    return false;
  }
  std::ostringstream factor;
  factor.precision(17);
  factor << filter.Divisor;
  const TUserParameterProblems problems = Parameters().SetParameterValuesFromText(
      {std::string(kCustomSize) + "=" + std::to_string(filter.Size),
       std::string(kCustomFactor) + "=" + factor.str(),
       std::string(kCustomCoefficients) + "=" + CoefficientText(filter.Buffer, filter.Size)});
  if (!problems.empty()) {
    NotifyUser(kCustomImageFilterLoadFailed, GetDialogName(), kSeverityError, false);
    return false;
  }
  return true;
}

void TImageFilterForm::SpaceSteps(const TDImage& image, double& stepX, double& stepY) {
  stepX = stepY = 1.0;
  const auto* space =
      dynamic_cast<const TDSpaceTransformation*>(GetProject()->FindData(image.GetSpaceTransformationID()));
  double x = 0, y = 0;
  if (space && space->GetIsCalibrated()) space->GetPixelSize(x, y);
  if (x > 0 && std::isfinite(x) && y > 0 && std::isfinite(y)) {
    stepX = x;
    stepY = y;
    return;
  }
  ++FUncalibratedWarnings;
  NotifyUser(std::string(kNotCalibrated) + "\n" + Describe(image) + " is filtered pixel based.",
             GetDialogName(), kSeverityWarning, true);
}

void TImageFilterForm::PrepareJob(TJob& job, const TImageFilterParameters& p,
                                  const std::vector<TSobelOutput>& outputs, TImageList& results) {
  TDImage& input = *job.Input;
  job.SizeX = input.GetSizeX();
  job.SizeY = input.GetSizeY();
  const size_t count = static_cast<size_t>(job.SizeX) * static_cast<size_t>(job.SizeY);
  // The window must fit into the image: with Mirror the reflected index stays inside, with Copy and Zero
  // at least one pixel is calculated.
  const bool anisotropic = p.Kind == TImageFilterKind::Anisotropic;
  const int border = BorderOf(p);
  const int need = anisotropic ? 2 : (p.Margin == TMarginalPixels::Mirror ? border + 1 : 2 * border + 1);
  if (job.SizeX < need || job.SizeY < need)
    throw OrvexException(GetDialogName() + ": " + Describe(input) + " has " + std::to_string(job.SizeX) +
                         " x " + std::to_string(job.SizeY) + " pixels, the filter window needs at least " +
                         std::to_string(need) + " x " + std::to_string(need));
  job.Values.resize(count);
  job.LineValid.reset(new bool[static_cast<size_t>(job.SizeY)]);
  for (int y = 0; y < job.SizeY; ++y) {
    float* line = job.Values.data() + static_cast<size_t>(y) * job.SizeX;
    input.GetFastLine(y, line);
    job.LineValid[y] = input.GetLineValid(y);
    if (!job.LineValid[y]) continue;
    for (int x = 0; x < job.SizeX; ++x)
      if (!std::isfinite(line[x]))
        throw OrvexException(GetDialogName() + ": " + Describe(input) + " holds NaN or Inf at pixel (" +
                             std::to_string(x) + ", " + std::to_string(y) + ")");
  }
  if (anisotropic) {
    job.Smoothing = std::make_unique<TAnisotropicImageSmoothing>();
    job.Smoothing->SetParameter(static_cast<float>(GetFloatParameter(kP1)),
                                static_cast<float>(GetFloatParameter(kP2)),
                                static_cast<float>(GetFloatParameter(kDeltaT)),
                                static_cast<float>(GetFloatParameter(kSigma)), GetIntParameter(kIterations));
    job.Smoothing->CreateArrays(job.SizeX, job.SizeY);
    job.Smoothing->SetImageData(job.Values.data());
  }
  TImageFilterParameters q = p;
  if (p.Kind == TImageFilterKind::Sobel && GetIntParameter(kSobelUnit) == 1)
    SpaceSteps(input, q.StepX, q.StepY);
  const std::vector<TSobelOutput> one{p.SobelOutput};
  // A Sobel preview shows the one image of the preview choice.
  const std::vector<TSobelOutput>& kinds =
      p.Kind == TImageFilterKind::Sobel && !GetIsPreview() ? outputs : one;
  for (TSobelOutput kind : kinds) {
    TOutput output;
    q.SobelOutput = kind;
    output.Values.assign(count, 0.0f);
    output.LineValid.reset(new bool[static_cast<size_t>(job.SizeY)]);
    std::fill(output.LineValid.get(), output.LineValid.get() + job.SizeY, false);
    if (!anisotropic) {
      try {
        output.Filter = std::make_unique<TImageFilter>(
            q, TConstFloatImage{job.Values.data(), job.LineValid.get(), job.SizeX, job.SizeY},
            TFloatImage{output.Values.data(), output.LineValid.get(), job.SizeX, job.SizeY});
      } catch (const OrvexExceptionImageFilter& e) {
        throw OrvexException(GetDialogName() + ": " + Describe(input) + ": " + e.Message());
      }
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
      info.CaptionSuffix = CaptionSuffix(q);
      result =
          OwnResult(TDImage::CreateResultImage(*GetProject(), input.GetID(), TDataFieldKind::Float, info));
    }
    if (!result) throw OrvexException(GetDialogName() + ": no image for the result of " + Describe(input));
    output.Result = result;
    results.push_back(result);
    job.Outputs.push_back(std::move(output));
  }
}

void TImageFilterForm::PreCalculate(TImageList& inputs, TImageList& results) {
  FJobs.clear();
  const TImageFilterParameters p = GetFilterParameters();
  FKind = p.Kind;
  const std::vector<TSobelOutput> outputs = GetChosenSobelOutputs();
  if (p.Kind == TImageFilterKind::Sobel && outputs.empty() && !GetIsPreview())
    throw OrvexException(GetDialogName() + ": no Sobel image is chosen (" + kSobelGx + ", " + kSobelGy +
                         ", " + kSobelG + ", " + kSobelTheta + " are all off)");
  FJobs.resize(inputs.size());
  for (size_t i = 0; i < inputs.size(); ++i) {
    FJobs[i].Input = inputs[i];
    PrepareJob(FJobs[i], p, outputs, results);
  }
}

void TImageFilterForm::CalculateThread(TMCC* mcc, int threadIndex, TImageList& /*inputs*/,
                                       TImageList& /*results*/) {
  const int threads = mcc->GetNumberOfThreads();
  for (TJob& job : FJobs) {
    if (job.Smoothing) {
      TThreadTeam team;
      team.NumberOfThreads = threads;
      team.WaitForNextStep = [mcc](int thread) { mcc->WaitForNextStep(thread); };
      team.Progress = mcc;
      job.Smoothing->Calculate(team, threadIndex);
      mcc->WaitForNextStep(threadIndex);
      if (threadIndex == 0) {
        TOutput& output = job.Outputs.front();
        job.Smoothing->GetImageData(output.Values.data());
        std::copy(job.LineValid.get(), job.LineValid.get() + job.SizeY, output.LineValid.get());
      }
    } else {
      const int first = TMCC::GetFirstElementIndex(threadIndex, threads, job.SizeY);
      const int last = TMCC::GetLastElementIndex(threadIndex, threads, job.SizeY);
      int passes = 0;
      for (const TOutput& output : job.Outputs) passes = std::max(passes, output.Filter->NumberOfPasses());
      for (int pass = 0; pass < passes; ++pass) {
        if (first <= last)
          for (TOutput& output : job.Outputs)
            if (pass < output.Filter->NumberOfPasses()) output.Filter->CalculateLines(pass, first, last);
        // The next pass (and the margin) reads lines of the other threads.
        mcc->WaitForNextStep(threadIndex);
      }
      if (threadIndex == 0)
        for (TOutput& output : job.Outputs) output.Filter->FinishImage();
    }
    if (mcc->IsCanceledSafeWait(threadIndex)) return;
    if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  }
}

void TImageFilterForm::PostCalculate(TImageList& /*inputs*/, TImageList& results) {
  std::vector<TJob> jobs = std::move(FJobs);
  FJobs.clear();
  if (GetLastRunCancelled()) {
    HandOverResults(results);
    return;
  }
  for (TJob& job : jobs)
    for (TOutput& output : job.Outputs) {
      for (int y = 0; y < job.SizeY; ++y) {
        if (!output.LineValid[y]) continue;
        const float* line = output.Values.data() + static_cast<size_t>(y) * job.SizeX;
        for (int x = 0; x < job.SizeX; ++x)
          if (!std::isfinite(line[x]))
            throw OrvexException(GetDialogName() + ": " + Describe(*job.Input) + ": " +
                                 OneLine(kCalculationError));
      }
      // The lines go in here, on one thread: an image keeps per-line flags that threads must not share.
      TDImage& result = *output.Result;
      for (int y = 0; y < job.SizeY; ++y) {
        result.SetLine(y, output.Values.data() + static_cast<size_t>(y) * job.SizeX);
        result.SetLineValid(y, output.LineValid[y]);
      }
      // A result of an image without interpretation gets the standard one of "a.u.".
      if (!GetIsPreview() && result.GetZInterpretationID() == 0)
        result.SetZInterpretationID(GetOrMakeStandardZInterpretation(*GetProject(), "a.u.", "a.u."));
    }
  HandOverResults(results);
}

void RegisterImageFilter(TToolRegistry& registry) {
  registry.Register(TImageFilterForm::kClassName, "Image Filter", "image",
                    [] { return std::make_unique<TImageFilterForm>(); });
}
