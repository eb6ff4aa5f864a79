#include "tools/image/Imagefourierfilter.h"

#include "common/Logfile.h"
#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

#include <algorithm>
#include <cmath>

namespace {

// Columns move through the plane in blocks of this many: every row segment of a block is one read and
// one write, so each page of the plane is touched once per block rather than once per column.
constexpr int kColumnBlock = 16;

constexpr const char* kScale = "Scale";
constexpr const char* kFrequency = "FilterFrequency";
constexpr const char* kFilterType = "FilterTypeComboBox";
constexpr const char* kAutoPreview = "AutoPreviewCheckBox";
constexpr const char* kShowOriginal = "ShowOriginalCheckBox";

// Position of frequency index i (−floor(n/2) .. ceil(n/2)−1) in the display order.
inline size_t DisplayIndex(int i, int j, int n) {
  const int half = n / 2;
  return static_cast<size_t>(j + half) * static_cast<size_t>(n) + static_cast<size_t>(i + half);
}

// A line of the result from a calculation thread. TDImage::SetLine also flags the line as changed, in a bit
// array shared by neighbouring lines; threads write the values only and the flags are set after the run.
void StoreLine(TDImage& image, int32_t y, const float* values) {
  TDataField* field = image.GetDataField();
  if (image.IsInverted()) {
    const int32_t index[2] = {y, 0};
    field->SetValueArray(index, values, image.GetSizeX());
  } else {
    for (int32_t x = 0; x < image.GetSizeX(); ++x) {
      const int32_t index[2] = {x, y};
      field->SetValue(index, values[x]);
    }
  }
}

std::string Describe(const TDImage& image) {
  return "\"" + image.GetCaption() + "\" (ID " + std::to_string(image.GetID()) + ")";
}

} // namespace

// --- Kernels -------------------------------------------------------------------------------------------

void CalculateFourierDrawField(TFourierFilterType type, double frequency, double stepX, double stepY, int n,
                               uint8_t* field) {
  if (type == TFourierFilterType::FreeHand) return;
  const int low = -(n / 2), high = (n + 1) / 2; // indices low .. high - 1
  const double f2 = frequency * frequency;
  if (type == TFourierFilterType::RemoveHarmonics) {
    // Every harmonic of the fundamental that the frequency names, in x, for all rows; never the
    // constant part and never closer than every second index.
    const double ratio = std::fabs(frequency / stepX);
    const int step = ratio >= 2.0 && ratio < 2147483647.0 ? static_cast<int>(ratio) : 2;
    for (int j = low; j < high; ++j)
      for (int i = low; i < high; ++i) field[DisplayIndex(i, j, n)] = i != 0 && i % step == 0;
    return;
  }
  for (int j = low; j < high; ++j) {
    const double fy = j * stepY;
    for (int i = low; i < high; ++i) {
      const double fx = i * stepX;
      bool marked;
      switch (type) {
      case TFourierFilterType::LowPassLine:
        marked = f2 < fx * fx;
        break;
      case TFourierFilterType::LowPass:
        marked = f2 < fx * fx + fy * fy;
        break;
      case TFourierFilterType::HighPassLine:
        marked = fx * fx < f2;
        break;
      case TFourierFilterType::HighPass:
        marked = fx * fx + fy * fy < f2;
        break;
      default:
        throw OrvexException("CalculateFourierDrawField(): filter type " +
                             std::to_string(static_cast<int>(type)) + ": Not implemented");
      }
      field[DisplayIndex(i, j, n)] = marked;
    }
  }
}

void SampleFourierRow(const float* line0, const float* line1, double fy, int sizeX, double stepX, int n,
                      TComplex* out) {
  for (int x = 0; x < n; ++x) {
    const double position = std::clamp(x * stepX, 0.0, double(sizeX - 1));
    const auto i = static_cast<int>(position);
    const double fx = position - i;
    const int i1 = i < sizeX - 1 ? i + 1 : i;
    const double a = (1 - fx) * line0[i] + fx * line0[i1];
    const double b = (1 - fx) * line1[i] + fx * line1[i1];
    out[x] = TComplex((1 - fy) * a + fy * b, 0.0);
  }
}

double ScaleFourierAmplitude(double amplitude, TFourierScaleType scale) {
  switch (scale) {
  case TFourierScaleType::Log:
    return std::log(std::max(amplitude, 1e-36));
  case TFourierScaleType::Sqrt:
    return std::sqrt(amplitude);
  default:
    return amplitude;
  }
}

// --- Update delay ---------------------------------------------------------------------------------------

void TUpdateDelay::Changed(TClock::time_point now) {
  FDue = now + FWait;
  FPending = true;
}

std::chrono::milliseconds TUpdateDelay::Remaining(TClock::time_point now) const {
  if (!FPending || now >= FDue) return std::chrono::milliseconds(0);
  // Rounded up, so that a timer started with the rest never fires before the change is due.
  return std::chrono::ceil<std::chrono::milliseconds>(FDue - now);
}

bool TUpdateDelay::TakeIfDue(TClock::time_point now) {
  if (!FPending || now < FDue) return false;
  FPending = false;
  return true;
}

// --- The tool ------------------------------------------------------------------------------------------

TParameterTable& TImageFourierFilterForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddList(kScale, "Scale", 0, {{"Linear", 0}, {"Log", 1}, {"Sqrt", 2}})
        .SetDescription("How the amplitude image shows the amplitudes");
    t.AddFloat(kFrequency, "Frequency [1/µm]:", 1.0)
        .SetLowerLimit(0.0)
        .SetUnit("1/µm")
        .SetDescription(
            "The frequency of the low and high pass patterns, or the fundamental whose harmonics go");
    t.AddList(kFilterType, "Filter Type", 0,
              {{"Free Hand", 0},
               {"Low Pass Line", 1},
               {"Low Pass", 2},
               {"High Pass Line", 3},
               {"High Pass", 4},
               {"Remove Harmonics", 5}})
        .SetDescription(
            "Free Hand removes the frequencies marked in the amplitude image; the others a pattern");
    t.AddBool(kAutoPreview, "Auto Preview", true);
    t.AddBool(kShowOriginal, "Show Original", false);
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAmplitude, "Extract Amplitude");
    return t;
  }();
  return table;
}

TImageFourierFilterForm::TImageFourierFilterForm()
    : TProjectDialogForm("Image Fourier Filter", Declaration()) {}

TImageFourierFilterForm::~TImageFourierFilterForm() {
  if (GetIsActive()) {
    try {
      CleanUp();
    } catch (...) {
    }
  }
}

bool TImageFourierFilterForm::IsInputIDListOkay(TProject* project, const TIntList* ids,
                                                const TIntList* /*extra*/, std::string* reason) {
  auto refuse = [&](const std::string& text) {
    if (reason) *reason = text;
    return false;
  };
  if (!project) return refuse("no project");
  if (!ids || ids->size() != 1)
    return refuse("the tool takes exactly one image, " + std::to_string(ids ? ids->size() : 0) + " given");
  const TData* data = project->FindData(ids->front());
  if (!data) return refuse("no object has the ID " + std::to_string(ids->front()));
  const auto* image = dynamic_cast<const TDImage*>(data);
  if (!image)
    return refuse("ID " + std::to_string(ids->front()) + " is a " + data->GetClassNameA() +
                  ", the tool takes a TDImage");
  if (image->GetSizeX() < 2 || image->GetSizeY() < 2)
    return refuse(Describe(*image) + " has " + std::to_string(image->GetSizeX()) + " x " +
                  std::to_string(image->GetSizeY()) + " pixels, the tool needs at least 2 x 2");
  return true;
}

void TImageFourierFilterForm::Init(const TIntList* ids, const TIntList* extra, TProject* project) {
  TProjectDialogForm::Init(ids, extra, project);
  FSourceID = ids && !ids->empty() ? ids->front() : 0;
  FSpectrumValid = false;
  FN = 0;
  FPreviewCount = 0;
  FUpdateDelay.Cancel();
  FMCC = std::make_unique<TMCC>(
      GetDialogName(),
      [this](TMCC* mcc, int thread) {
        if (FPass == TPass::Forward)
          DoFFT(mcc, thread);
        else
          DoBackFFT(mcc, thread);
      },
      NumberOfThreads);
  FMCC->PrepareThreads();
  if (!Interactive || ConfigurationOnly || FSourceID == 0) return;
  // The preview and the amplitude image stay in the project while the tool is open.
  auto preview = TDImage::CreateNewImage(GetProject(), FSourceID, TDataFieldKind::Float,
                                         TDataSaveMode::HardwareOwned, "Preview");
  auto amplitude = TDImage::CreateNewImage(GetProject(), FSourceID, TDataFieldKind::Float,
                                           TDataSaveMode::HardwareOwned, "Fourier Amplitude");
  if (preview && amplitude) {
    FPreviewID = preview->GetID();
    FAmplitudeID = amplitude->GetID();
    AddDataToProject(std::move(preview));
    AddDataToProject(std::move(amplitude));
    if (IToolViewerFactory* factory = IToolViewerFactory::GetFactory()) {
      AddCustomForm(factory->CreateImageViewer(*GetProject(), FAmplitudeID, false));
      AddCustomForm(factory->CreateImageViewer(*GetProject(), FPreviewID, true));
    }
  }
  if (GetBoolParameter(kAutoPreview)) UpdatePreview();
  if (OnViewersOpened) OnViewersOpened();
}

void TImageFourierFilterForm::CleanUp() {
  FMCC.reset();
  FSpectrum.reset();
  FWork.reset();
  FThreadWork.clear();
  FSpectrumValid = false;
  FN = 0;
  FSourceID = 0;
  FPreviewID = FAmplitudeID = 0;
  FUpdateDelay.Cancel();
  TProjectDialogForm::CleanUp();
}

void TImageFourierFilterForm::DoRemoveData(TData* data) {
  if (data && data->GetID() == FSourceID && GetIsActive()) CleanUp();
}

void TImageFourierFilterForm::DoDataChange(TData* data) {
  if (!data || data->GetID() != FSourceID || FInCalculation) return;
  FSpectrumValid = false;
  RequestPreviewUpdate();
}

bool TImageFourierFilterForm::IsDataUsed(int32_t id) const {
  return GetIsActive() && id != 0 && id == FSourceID;
}

void TImageFourierFilterForm::DoParameterChanged(const TUserParameterList& /*changed*/) {
  RequestPreviewUpdate();
}

void TImageFourierFilterForm::RequestPreviewUpdate(TUpdateDelay::TClock::time_point now) {
  if (!GetIsActive() || !Interactive || ConfigurationOnly || !GetBoolParameter(kAutoPreview)) return;
  if (!FStartUpdateTimer) {
    UpdatePreview();
    return;
  }
  FUpdateDelay.Changed(now);
  FStartUpdateTimer(static_cast<int>(FUpdateDelay.GetWait().count()));
}

void TImageFourierFilterForm::UpdateTimerElapsed(TUpdateDelay::TClock::time_point now) {
  if (FUpdateDelay.TakeIfDue(now)) {
    UpdatePreview();
    return;
  }
  // Fired early (a change after the timer was started): wait for the rest.
  if (FUpdateDelay.IsPending() && FStartUpdateTimer)
    FStartUpdateTimer(static_cast<int>(std::max<int64_t>(1, FUpdateDelay.Remaining(now).count())));
}

bool TImageFourierFilterForm::SetDrawField(const std::vector<uint8_t>& flags,
                                           TUpdateDelay::TClock::time_point now) {
  if (FN == 0 || flags.size() != FDrawField.size()) return false;
  bool same = true;
  for (size_t k = 0; k < flags.size() && same; ++k) same = (flags[k] != 0) == (FDrawField[k] != 0);
  if (same) return false;
  for (size_t k = 0; k < flags.size(); ++k) FDrawField[k] = flags[k] != 0;
  // The marks count only for "Free Hand"; the patterns ignore them.
  if (GetFilterType() == TFourierFilterType::FreeHand) RequestPreviewUpdate(now);
  return true;
}

TFourierFilterType TImageFourierFilterForm::GetFilterType() const {
  return static_cast<TFourierFilterType>(GetIntParameter(kFilterType));
}

bool TImageFourierFilterForm::DoCommand(const std::string& name) {
  if (name == kCalculatePreview) {
    UpdatePreview();
    return true;
  }
  if (name == kExtractAmplitude) {
    PrepareTransform();
    if (!FSpectrumValid && !CalculateFFTMultiCore()) return false;
    ExtractFFTAmplitudeImage();
    return true;
  }
  if (name != kExtract) return false;
  PrepareTransform();
  if (!FSpectrumValid && !CalculateFFTMultiCore()) return false;
  TResultInfo info;
  info.CaptionSuffix = kCaptionSuffix;
  std::unique_ptr<TDImage> result =
      TDImage::CreateResultImage(*GetProject(), FSourceID, TDataFieldKind::Float, info);
  if (!result) throw OrvexException(GetDialogName() + ": no image for the result of " + Describe(Source()));
  result->SetFieldSize(FSizeX, FSizeY);
  if (!CalculateBackFFTMultiCore(*result)) return false;
  result->DoDataChange(TDataChangeInfo::DataChanged); // line statistics
  AddResult(std::move(result));
  return true;
}

void TImageFourierFilterForm::UpdatePreview() {
  if (!GetIsActive() || FSourceID == 0) return;
  FUpdateDelay.Cancel();
  PrepareTransform();
  if (!FSpectrumValid && !CalculateFFTMultiCore()) return;
  if (auto* amplitude = dynamic_cast<TDImage*>(GetProject()->FindData(FAmplitudeID))) {
    amplitude->SetAutoDataChange(false);
    FillFFTImage(*amplitude);
    amplitude->SetAutoDataChange(true);
    amplitude->DoDataChange(TDataChangeInfo::DataChanged); // its viewer redraws once
  }
  auto* preview = dynamic_cast<TDImage*>(GetProject()->FindData(FPreviewID));
  if (!preview) return;
  preview->SetFieldSize(FSizeX, FSizeY);
  if (GetBoolParameter(kShowOriginal)) {
    // The source as it is, for comparison; the marks stay and apply again when the box is cleared.
    CalculateDrawField();
    preview->CopyFieldValuesFrom(Source());
    preview->DoDataChange(TDataChangeInfo::DataChanged);
    ++FPreviewCount;
    if (OnPreviewUpdated) OnPreviewUpdated();
    return;
  }
  preview->SetAutoDataChange(false);
  const bool done = CalculateBackFFTMultiCore(*preview);
  preview->SetAutoDataChange(true);
  if (!done) return;
  preview->DoDataChange(TDataChangeInfo::DataChanged);
  ++FPreviewCount;
  if (OnPreviewUpdated) OnPreviewUpdated();
}

TDImage& TImageFourierFilterForm::Source() const {
  auto* image = GetProject() ? dynamic_cast<TDImage*>(GetProject()->FindData(FSourceID)) : nullptr;
  if (!image)
    throw OrvexException("TImageFourierFilterForm::Source(): no image with the ID " +
                         std::to_string(FSourceID));
  return *image;
}

void TImageFourierFilterForm::PrepareTransform() {
  const TDImage& source = Source();
  const int sizeX = source.GetSizeX(), sizeY = source.GetSizeY();
  if (sizeX < 2 || sizeY < 2)
    throw OrvexException(GetDialogName() + ": " + Describe(source) + " is smaller than 2 x 2 pixels");
  const int n = std::max(sizeX, sizeY);
  if (n != FN || !FSpectrum || !FWork) {
    // A failed allocation leaves the tool without planes; the memory strategy's message goes up.
    FSpectrum.reset();
    FWork.reset();
    FN = 0;
    FSpectrum = std::make_unique<TPlane>(n, n);
    FWork = std::make_unique<TPlane>(n, n);
    FN = n;
    FDrawField.assign(static_cast<size_t>(n) * n, 0);
    FSpectrumValid = false;
  }
  if (sizeX != FSizeX || sizeY != FSizeY) FSpectrumValid = false;
  FSizeX = sizeX;
  FSizeY = sizeY;
  FStepX = double(sizeX) / n;
  FStepY = double(sizeY) / n;
  // One index step is one period over the sampled width: 1 / (N step pixel size) = 1 / (size pixel size).
  double pixelX = 0, pixelY = 0;
  const auto* space =
      dynamic_cast<const TDSpaceTransformation*>(GetProject()->FindData(source.GetSpaceTransformationID()));
  if (space) space->GetPixelSize(pixelX, pixelY);
  if (!(pixelX > 0 && std::isfinite(pixelX) && pixelY > 0 && std::isfinite(pixelY))) {
    pixelX = pixelY = 1.0;
    if (GlobalLogFile)
      GlobalLogFile->AddLog(GetDialogName() + ": " + Describe(source) +
                            " has no space transformation; the frequencies count 1 µm per pixel");
  }
  FFrequencyStepX = 1.0 / (sizeX * pixelX);
  FFrequencyStepY = 1.0 / (sizeY * pixelY);
}

void TImageFourierFilterForm::RunThreads(TPass pass, TDImage* result) {
  if (!FMCC) throw OrvexException("TImageFourierFilterForm::RunThreads(): the tool is not open");
  FPass = pass;
  FRunResult = result;
  FRunSource = &Source();
  FNonFinite.store(false);
  FThreadWork.clear();
  FThreadWork.resize(TMCC::MaxNumberOfThreads);
  FInCalculation = true;
  FLastRunCancelled = false;
  try {
    FMCC->OverallProgressMax.store(pass == TPass::Forward ? 2 : 3);
    FMCC->OverallProgress.store(0);
    FMCC->StopCancel();
    FMCC->StartThreads(0);
    FMCC->WaitAndShowProgressOnDelay(100);
  } catch (...) {
    FMCC->WaitForThreadsFinished(~0UL);
    FInCalculation = false;
    FRunResult = nullptr;
    FThreadWork.clear();
    throw;
  }
  FInCalculation = false;
  FRunResult = nullptr;
  FThreadWork.clear();
  FLastRunCancelled = FMCC->GetCancel();
}

bool TImageFourierFilterForm::CalculateFFTMultiCore() {
  const TDImage& source = Source();
  FSpectrumValid = false;
  RunThreads(TPass::Forward, nullptr);
  if (FNonFinite.load())
    throw OrvexException(GetDialogName() + ": " + Describe(source) +
                         " holds NaN or infinite values; the Fourier transform needs finite ones");
  if (FLastRunCancelled) return false;
  FSpectrumValid = true;
  return true;
}

bool TImageFourierFilterForm::CalculateBackFFTMultiCore(TDImage& result) {
  CalculateDrawField();
  RunThreads(TPass::Backward, &result);
  if (FLastRunCancelled) return false;
  const TDImage& source = Source();
  for (int32_t y = 0; y < FSizeY; ++y) {
    result.SetLineChanged(y, true);
    result.SetLineValid(y, source.GetLineValid(y));
  }
  return true;
}

void TImageFourierFilterForm::CalculateDrawField() {
  const TFourierFilterType type = GetFilterType();
  FAppliedField = FDrawField;
  CalculateFourierDrawField(type, GetFloatParameter(kFrequency), FFrequencyStepX, FFrequencyStepY, FN,
                            FAppliedField.data());
}

void TImageFourierFilterForm::TransformColumnBlocks(TThreadWork& work, const TPlane& from, TPlane& to,
                                                    int threadIndex, int threads, bool inverse,
                                                    bool applyMask) {
  const int n = FN;
  const int blocks = (n + kColumnBlock - 1) / kColumnBlock;
  const int first = TMCC::GetFirstElementIndex(threadIndex, threads, blocks);
  const int last = TMCC::GetLastElementIndex(threadIndex, threads, blocks);
  work.Block.resize(static_cast<size_t>(n) * kColumnBlock);
  work.Column.resize(static_cast<size_t>(n));
  TComplex* block = work.Block.data();
  TComplex* column = work.Column.data();
  const int half = n / 2;
  for (int b = first; b <= last && !FMCC->GetCancel(); ++b) {
    const int x0 = b * kColumnBlock;
    const int width = std::min(kColumnBlock, n - x0);
    for (int y = 0; y < n; ++y)
      from.GetValueArray(static_cast<uint64_t>(y) * n + x0, block + static_cast<size_t>(y) * width, width);
    for (int c = 0; c < width; ++c) {
      const int i = FourierFrequencyIndex(x0 + c, n);
      for (int y = 0; y < n; ++y) {
        TComplex value = block[static_cast<size_t>(y) * width + c];
        if (applyMask &&
            FAppliedField[static_cast<size_t>(FourierFrequencyIndex(y, n) + half) * n + (i + half)] != 0)
          value = TComplex(0.0, 0.0);
        column[y] = value;
      }
      if (inverse)
        work.FFT->Inverse(column);
      else
        work.FFT->Forward(column);
      for (int y = 0; y < n; ++y) block[static_cast<size_t>(y) * width + c] = column[y];
    }
    for (int y = 0; y < n; ++y)
      to.SetValueArray(static_cast<uint64_t>(y) * n + x0, block + static_cast<size_t>(y) * width, width);
  }
}

void TImageFourierFilterForm::DoFFT(TMCC* mcc, int threadIndex) {
  const int threads = mcc->GetNumberOfThreads();
  const int n = FN;
  TThreadWork& work = FThreadWork[static_cast<size_t>(threadIndex)];
  if (!work.FFT) work.FFT = std::make_unique<TFFT>(n);
  const TDImage& source = *FRunSource;
  // Step 1: rows sampled from the image and transformed.
  {
    const int first = TMCC::GetFirstElementIndex(threadIndex, threads, n);
    const int last = TMCC::GetLastElementIndex(threadIndex, threads, n);
    work.Line0.resize(static_cast<size_t>(FSizeX));
    work.Line1.resize(static_cast<size_t>(FSizeX));
    work.Column.resize(static_cast<size_t>(n));
    int read0 = -1, read1 = -1;
    bool finite = true;
    auto read = [&](int line, std::vector<float>& into, int& held) {
      if (held == line) return;
      source.GetLine(line, into.data());
      for (float v : into) finite = finite && std::isfinite(v);
      held = line;
    };
    for (int y = first; y <= last && !mcc->GetCancel(); ++y) {
      const double position = std::clamp(y * FStepY, 0.0, double(FSizeY - 1));
      const auto j = static_cast<int>(position);
      const int j1 = j < FSizeY - 1 ? j + 1 : j;
      if (read1 == j) { // the lower line of the last row is the upper one now
        std::swap(work.Line0, work.Line1);
        std::swap(read0, read1);
      }
      read(j, work.Line0, read0);
      read(j1, work.Line1, read1);
      SampleFourierRow(work.Line0.data(), work.Line1.data(), position - j, FSizeX, FStepX, n,
                       work.Column.data());
      work.FFT->Forward(work.Column.data());
      FSpectrum->SetValueArrayDim1(static_cast<uint64_t>(y), work.Column.data());
    }
    if (!finite) FNonFinite.store(true);
  }
  if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  mcc->WaitForNextStep(threadIndex);
  // Step 2: columns, in blocks, in place. Step 3 (frequency 0 in the middle) is done by addressing.
  TransformColumnBlocks(work, *FSpectrum, *FSpectrum, threadIndex, threads, false, false);
  if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
}

void TImageFourierFilterForm::DoBackFFT(TMCC* mcc, int threadIndex) {
  const int threads = mcc->GetNumberOfThreads();
  const int n = FN;
  TThreadWork& work = FThreadWork[static_cast<size_t>(threadIndex)];
  if (!work.FFT) work.FFT = std::make_unique<TFFT>(n);
  TDImage& result = *FRunResult;
  const bool direct = FSizeX == n && FSizeY == n;
  // Step 1: the spectrum without the marked frequencies, columns back.
  TransformColumnBlocks(work, *FSpectrum, *FWork, threadIndex, threads, true, true);
  if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  mcc->WaitForNextStep(threadIndex);
  // Step 2: rows back; a square image takes the real part as it is.
  {
    const int first = TMCC::GetFirstElementIndex(threadIndex, threads, n);
    const int last = TMCC::GetLastElementIndex(threadIndex, threads, n);
    work.Column.resize(static_cast<size_t>(n));
    work.Out.resize(static_cast<size_t>(n));
    for (int y = first; y <= last && !mcc->GetCancel(); ++y) {
      FWork->GetValueArrayDim1(static_cast<uint64_t>(y), work.Column.data());
      work.FFT->Inverse(work.Column.data());
      if (direct) {
        for (int x = 0; x < n; ++x)
          work.Out[static_cast<size_t>(x)] = static_cast<float>(work.Column[x].real());
        StoreLine(result, y, work.Out.data());
      } else {
        FWork->SetValueArrayDim1(static_cast<uint64_t>(y), work.Column.data());
      }
    }
  }
  if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  if (direct) return;
  mcc->WaitForNextStep(threadIndex);
  // Step 3: the real part sampled back to the size of the source.
  const int first = TMCC::GetFirstElementIndex(threadIndex, threads, FSizeY);
  const int last = TMCC::GetLastElementIndex(threadIndex, threads, FSizeY);
  work.Line0.resize(static_cast<size_t>(n));
  work.Line1.resize(static_cast<size_t>(n));
  work.Out.resize(static_cast<size_t>(FSizeX));
  std::vector<TComplex>& row = work.Column;
  row.resize(static_cast<size_t>(std::max(n, FSizeX)));
  auto readReal = [&](int line, std::vector<float>& into) {
    FWork->GetValueArrayDim1(static_cast<uint64_t>(line), row.data());
    for (int x = 0; x < n; ++x) into[static_cast<size_t>(x)] = static_cast<float>(row[x].real());
  };
  for (int v = first; v <= last && !mcc->GetCancel(); ++v) {
    const double position = std::clamp(v / FStepY, 0.0, double(n - 1));
    const auto j = static_cast<int>(position);
    const int j1 = j < n - 1 ? j + 1 : j;
    readReal(j, work.Line0);
    readReal(j1, work.Line1);
    SampleFourierRow(work.Line0.data(), work.Line1.data(), position - j, n, 1.0 / FStepX, FSizeX, row.data());
    for (int u = 0; u < FSizeX; ++u) work.Out[static_cast<size_t>(u)] = static_cast<float>(row[u].real());
    StoreLine(result, v, work.Out.data());
  }
  if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
}

void TImageFourierFilterForm::FillFFTImage(TDImage& image) const {
  const int n = FN, half = n / 2;
  const auto scale = static_cast<TFourierScaleType>(GetIntParameter(kScale));
  image.SetFieldSize(n, n);
  std::vector<TComplex> row(static_cast<size_t>(n));
  std::vector<float> line(static_cast<size_t>(n));
  for (int py = 0; py < n; ++py) {
    const int j = py - half;
    FSpectrum->GetValueArrayDim1(static_cast<uint64_t>((j + n) % n), row.data());
    for (int px = 0; px < n; ++px)
      line[static_cast<size_t>(px)] = static_cast<float>(
          ScaleFourierAmplitude(std::abs(row[static_cast<size_t>((px - half + n) % n)]), scale));
    image.SetLine(py, line.data());
    image.SetLineValid(py, true);
  }
}

void TImageFourierFilterForm::ExtractFFTAmplitudeImage() {
  TProject& project = *GetProject();
  const TDImage& source = Source();
  TResultInfo info;
  info.CaptionSuffix = kAmplitudeCaptionSuffix;
  std::unique_ptr<TDImage> image =
      TDImage::CreateResultImage(project, FSourceID, TDataFieldKind::Float, info);
  if (!image) throw OrvexException(GetDialogName() + ": no image for the amplitude of " + Describe(source));
  image->SetAutoDataChange(false);
  FillFFTImage(*image);
  // Axes in 1/µm: index i of the plane at pixel i + N/2 stands for i times the frequency step.
  auto inverse = std::make_unique<TDSpaceTransformation>();
  inverse->SetID(project.GetNewDataID());
  inverse->SetCaption("Inverse Spatial Transformation");
  inverse->SetUnitKind(TUnitKind::InverseSpace);
  inverse->SetStandardUnit("1/µm");
  const std::string interpretation = GetInterpretationClassNameForUnitKind(TUnitKind::InverseSpace);
  if (!interpretation.empty())
    inverse->SetInterpretationID(project.MakeOrGetFirstIDByClassName(interpretation));
  const double half = FN / 2;
  inverse->ViewPort().SetScale({FFrequencyStepX, FFrequencyStepY, 1.0});
  inverse->ViewPort().SetModelOrigin({half, half, 0.0});
  inverse->ViewPort().SetWorldOrigin({0.0, 0.0, 0.0});
  image->SetSpaceTransformationID(inverse->GetID());
  image->SetZInterpretationID(GetOrMakeStandardZInterpretation(project, "Amplitude", "Amplitude"));
  image->SetAutoDataChange(true);
  image->DoDataChange(TDataChangeInfo::DataChanged);
  AddResult(std::move(image));
  AddResult(std::move(inverse));
}

void RegisterImageFourierFilter(TToolRegistry& registry) {
  registry.Register(TImageFourierFilterForm::kClassName, "Image Fourier Filter", "image",
                    [] { return std::make_unique<TImageFourierFilterForm>(); });
}
