// The synthetic confocal Raman map of the demo data set.
//
// Model of one spectrum at pixel (x, y): the sum of four component spectra weighted by smooth abundance
// maps, a broad fluorescence background whose strength varies across the map, a dark offset, Gaussian
// noise with the variance of shot noise, and a few cosmic-ray spikes. Every random number comes from a
// generator seeded by (seed, element), so the result doesn't depend on the number of threads.
#include "project/Demodataset.h"

#include "common/threads/Multicorecalc.h"
#include "common/threads/Progressandcancel.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtext.h"
#include "data/Dtransformation.h"
#include "project/Project.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDarkOffset = 600.0;
constexpr double kFieldOfViewMicrometer = 50.0;

// splitmix64: a small, good generator for per-element streams.
struct TRandom {
  uint64_t State;
  explicit TRandom(uint64_t seed) : State(seed) {}
  uint64_t Next() {
    uint64_t z = (State += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double Uniform() { return (Next() >> 11) * (1.0 / 9007199254740992.0); }
  double Gaussian() {
    const double u1 = std::max(Uniform(), 1e-300);
    const double u2 = Uniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2 * kPi * u2);
  }
};

uint64_t MixSeed(uint64_t seed, uint64_t stream) {
  return TRandom(seed * 0x100000001B3ull ^ stream).Next();
}

double RelativeWavenumber(double wavelength) {
  return 1e7 / kDemoExcitation - 1e7 / wavelength;
}

// Abundance of component c at normalised map position (u, v) in [0, 1].
double Abundance(int c, double u, double v) {
  auto blob = [](double u0, double v0, double radius, double cu, double cv) {
    const double du = cu - u0, dv = cv - v0;
    return std::exp(-(du * du + dv * dv) / (2 * radius * radius));
  };
  switch (c) {
  case 0: // substrate: a gradient from left to right
    return 0.25 + 0.65 * u;
  case 1: // polymer beads: three blobs
    return std::min(1.0, blob(0.3, 0.3, 0.09, u, v) + blob(0.7, 0.35, 0.07, u, v) +
                             0.8 * blob(0.45, 0.75, 0.11, u, v));
  case 2: { // carbon: a diagonal stripe
    const double d = (u - v) / std::sqrt(2.0);
    return std::exp(-d * d / (2 * 0.06 * 0.06));
  }
  default: // calcite grain: one large smooth blob with a soft edge
    return 0.9 / (1 + std::exp((std::hypot(u - 0.78, v - 0.78) - 0.16) / 0.03));
  }
}

} // namespace

const std::vector<TDemoComponent>& DemoComponents() {
  static const std::vector<TDemoComponent> components = {
      {"Silicon", {{520.7, 4.5, 900}, {302, 25, 60}, {965, 45, 90}}},
      {"Polystyrene",
       {{1001.4, 5, 700},
        {1031.8, 6, 180},
        {1583, 8, 90},
        {1602, 9, 260},
        {2904, 30, 150},
        {3054, 18, 420},
        {620, 7, 110}}},
      {"Amorphous carbon", {{1350, 120, 350}, {1585, 70, 420}, {2700, 160, 90}}},
      {"Calcite", {{1086, 6, 800}, {712, 7, 110}, {282, 9, 170}, {1436, 30, 40}}},
  };
  return components;
}

void DemoWavelengthPolynomial(int32_t sizeGraph, double& a0, double& a1, double& a2) {
  // About 100 to 3300 rel. 1/cm at 532 nm over the detector, slightly nonlinear as a real spectrograph.
  const double n = std::max(sizeGraph, 2);
  a0 = 534.5;
  a1 = 102.4 / n;
  a2 = 10.5 / (n * n);
}

TDemoModel MakeDemoModel(const TDemoOptions& options) {
  TDemoModel model;
  model.Options = options;
  const int32_t sx = options.SizeX, sy = options.SizeY, sg = options.SizeGraph;
  const auto& components = DemoComponents();

  // The detector axis through the same calibration the project's spectral transformation holds.
  TDSpectralTransformation spectral;
  double a0, a1, a2;
  DemoWavelengthPolynomial(sg, a0, a1, a2);
  spectral.SetSpectralTransformationType(TSpectralTransformationType::Polynomial);
  spectral.SetPolynom(a0, a1, a2);
  model.Shift.resize(static_cast<size_t>(sg));
  for (int32_t g = 0; g < sg; ++g) {
    const double bin = g;
    double wavelength = 0;
    spectral.BinToReal(&bin, &wavelength);
    model.Shift[static_cast<size_t>(g)] = RelativeWavenumber(wavelength);
  }

  // Component spectra on the detector axis.
  model.ComponentSpectra.assign(components.size(), std::vector<float>(static_cast<size_t>(sg)));
  for (size_t c = 0; c < components.size(); ++c)
    for (int32_t g = 0; g < sg; ++g) {
      double value = 0;
      for (const auto& band : components[c].Bands) {
        const double d = (model.Shift[static_cast<size_t>(g)] - band.Shift) / (band.Width / 2);
        value += band.Amplitude / (1 + d * d);
      }
      model.ComponentSpectra[c][static_cast<size_t>(g)] = static_cast<float>(value);
    }
  // Fluorescence: a broad hump rising towards the red end of the detector.
  model.Fluorescence.resize(static_cast<size_t>(sg));
  for (int32_t g = 0; g < sg; ++g) {
    const double t = double(g) / std::max(sg - 1, 1);
    model.Fluorescence[static_cast<size_t>(g)] =
        static_cast<float>(900.0 * std::exp(-(t - 0.75) * (t - 0.75) / 0.18));
  }

  // Cosmic rays: a few spikes, a handful per ten thousand spectra.
  const int64_t spectra = int64_t(sx) * sy;
  const int64_t spikes = 3 + spectra / 2500;
  TRandom spikeRandom(MixSeed(options.Seed, 0xC05111Cull));
  for (int64_t i = 0; i < spikes && sg > 0 && spectra > 0; ++i) {
    // Two statements, so that every compiler draws in the same order (the order of a call's arguments is
    // not fixed): the spectral pixel first, then the spectrum, as the first demo files were written.
    const auto pixel = static_cast<int32_t>(spikeRandom.Uniform() * sg);
    const auto element = static_cast<int64_t>(spikeRandom.Uniform() * spectra);
    model.Spikes.emplace_back(element, pixel);
  }
  return model;
}

void SynthesizeDemoSpectrum(const TDemoModel& model, int32_t x, int32_t y, float* spectrum) {
  const int32_t sx = model.Options.SizeX, sy = model.Options.SizeY, sg = model.Options.SizeGraph;
  const int nc = static_cast<int>(model.ComponentSpectra.size());
  const double u = sx > 1 ? double(x) / (sx - 1) : 0.5, v = sy > 1 ? double(y) / (sy - 1) : 0.5;
  double weights[8];
  for (int c = 0; c < nc; ++c) weights[c] = Abundance(c, u, v);
  const double fluorescenceLevel = 0.3 + 0.7 * (0.5 + 0.5 * std::sin(2 * kPi * (0.7 * u + 0.4 * v)));
  const int64_t element = x + int64_t(y) * sx;
  TRandom random(MixSeed(model.Options.Seed, static_cast<uint64_t>(element) + 1));
  for (int32_t g = 0; g < sg; ++g) {
    double signal = kDarkOffset + fluorescenceLevel * model.Fluorescence[static_cast<size_t>(g)];
    for (int c = 0; c < nc; ++c)
      signal += weights[c] * model.ComponentSpectra[static_cast<size_t>(c)][static_cast<size_t>(g)];
    // Shot noise plus read noise.
    signal += random.Gaussian() * std::sqrt(std::max(signal - kDarkOffset, 0.0) + 25.0);
    spectrum[g] = static_cast<float>(signal);
  }
  for (const auto& [spikeElement, spikePixel] : model.Spikes)
    if (spikeElement == element)
      spectrum[spikePixel] += 5000.0f + 3000.0f * static_cast<float>(random.Uniform());
}

int32_t SynthesizeDemoColumns(const TDemoModel& model, int32_t first, int32_t last,
                              const std::function<void(int32_t, int32_t, const float*)>& store,
                              IProgressAndCancel* progress) {
  std::vector<float> spectrum(static_cast<size_t>(model.Options.SizeGraph));
  int32_t done = 0;
  for (int32_t x = first; x <= last && !IsCancelled(progress); ++x) {
    for (int32_t y = 0; y < model.Options.SizeY; ++y) {
      SynthesizeDemoSpectrum(model, x, y, spectrum.data());
      store(x, y, spectrum.data());
    }
    if (progress) progress->AddProgress(model.Options.SizeY);
    ++done;
  }
  return done;
}

namespace {
double MapU(const TDemoModel& model, int32_t x) {
  return model.Options.SizeX > 1 ? double(x) / (model.Options.SizeX - 1) : 0.5;
}
double MapV(const TDemoModel& model, int32_t y) {
  return model.Options.SizeY > 1 ? double(y) / (model.Options.SizeY - 1) : 0.5;
}
} // namespace

void SynthesizeDemoAbundance(const TDemoModel& model, int c, float* values) {
  const int32_t sx = model.Options.SizeX;
  for (int32_t y = 0; y < model.Options.SizeY; ++y)
    for (int32_t x = 0; x < sx; ++x)
      values[x + int64_t(y) * sx] = static_cast<float>(Abundance(c, MapU(model, x), MapV(model, y)));
}

void SynthesizeDemoTopography(const TDemoModel& model, float* values) {
  // A tilted plane with the grains standing out and fine roughness.
  const int32_t sx = model.Options.SizeX;
  TRandom roughness(MixSeed(model.Options.Seed, 0x70b0ull));
  for (int32_t y = 0; y < model.Options.SizeY; ++y)
    for (int32_t x = 0; x < sx; ++x) {
      const double u = MapU(model, x), v = MapV(model, y);
      values[x + int64_t(y) * sx] =
          static_cast<float>(20.0 * u - 8.0 * v + 120.0 * Abundance(1, u, v) + 60.0 * Abundance(3, u, v) +
                             1.5 * roughness.Gaussian());
    }
}

std::string DemoDescription(const TDemoModel& model) {
  const auto& components = DemoComponents();
  const TDemoOptions& o = model.Options;
  std::string description = "Orvex demo data set\n\nA synthetic confocal Raman map of " +
                            std::to_string(o.SizeX) + " x " + std::to_string(o.SizeY) + " spectra with " +
                            std::to_string(o.SizeGraph) + " pixels each, excitation 532 nm, field of view " +
                            std::to_string(static_cast<int>(kFieldOfViewMicrometer)) +
                            " µm.\n\nComponents (bands in rel. 1/cm):\n";
  for (size_t c = 0; c < components.size(); ++c) {
    description += "  " + std::to_string(c + 1) + ". " + components[c].Name + ":";
    for (const auto& band : components[c].Bands)
      description += " " + std::to_string(static_cast<int>(std::lround(band.Shift)));
    description += "\n";
  }
  description +=
      "\nAbundances: silicon as a left-to-right gradient, polystyrene in three beads, amorphous carbon "
      "in a diagonal stripe, calcite in one grain at the lower right. On top: a fluorescence background "
      "that varies across the map, a dark offset of 600 counts, shot and read noise, and " +
      std::to_string(model.Spikes.size()) +
      " cosmic-ray spikes. The true component spectra and abundance maps are stored beside the map.\n";
  return description;
}

namespace {

// An image of the map's size and axes filled with values (row after row), all lines valid, statistics up to
// date.
TDImage* AddDemoImage(TProject& project, int32_t mapID, const std::vector<float>& values,
                      int32_t zInterpretation, const TResultInfo& info) {
  auto image = TDImage::CreateResultImage(project, mapID, TDataFieldKind::Float, info);
  if (zInterpretation != 0) image->SetZInterpretationID(zInterpretation);
  for (int32_t y = 0; y < image->GetSizeY(); ++y)
    image->SetLine(y, values.data() + int64_t(y) * image->GetSizeX());
  image->SetAllLinesValid(true);
  image->DoDataChange(TDataChangeInfo::DataChanged);
  return AddResultToProject(project, std::move(image));
}

TResultInfo DemoResult(const std::string& caption, const std::string& suffix = " (demo)",
                       const std::string& history = "") {
  TResultInfo info;
  info.Caption = caption;
  info.CaptionSuffix = suffix;
  info.HistoryText = history;
  return info;
}

} // namespace

TDemoIDs CreateDemoProject(TProject& project, const TDemoOptions& options) {
  const int32_t sx = options.SizeX, sy = options.SizeY, sg = options.SizeGraph;
  const auto& components = DemoComponents();
  const int nc = static_cast<int>(components.size());
  const TDemoModel model = MakeDemoModel(options);
  TDemoIDs ids;

  // Spectral axis: quadratic pixel -> wavelength, shown in rel. 1/cm against 532 nm.
  auto spectralInterpretation = std::make_unique<TDSpectralInterpretation>();
  spectralInterpretation->SetID(project.GetNewDataID());
  spectralInterpretation->SetExcitationWaveLength(kDemoExcitation);
  spectralInterpretation->SetUnitIndex(TDSpectralInterpretation::suRelativeWavenumber);
  spectralInterpretation->SetSaveMode(TDataSaveMode::WhileUsed);
  ids.SpectralInterpretation = spectralInterpretation->GetID();
  project.AddData(std::move(spectralInterpretation));

  auto spectral = std::make_unique<TDSpectralTransformation>();
  spectral->SetID(project.GetNewDataID());
  double a0, a1, a2;
  DemoWavelengthPolynomial(sg, a0, a1, a2);
  spectral->SetSpectralTransformationType(TSpectralTransformationType::Polynomial);
  spectral->SetPolynom(a0, a1, a2);
  spectral->SetInterpretationID(ids.SpectralInterpretation);
  spectral->SetCaption("Spectrograph calibration (demo)");
  ids.SpectralTransformation = spectral->GetID();
  project.AddData(std::move(spectral));

  // Space axes in µm.
  auto spaceInterpretation = std::make_unique<TDSpaceInterpretation>();
  spaceInterpretation->SetID(project.GetNewDataID());
  spaceInterpretation->SetSaveMode(TDataSaveMode::WhileUsed);
  ids.SpaceInterpretation = spaceInterpretation->GetID();
  project.AddData(std::move(spaceInterpretation));
  auto space = std::make_unique<TDSpaceTransformation>();
  space->SetID(project.GetNewDataID());
  const double pixel = kFieldOfViewMicrometer / std::max(sx, sy);
  space->ViewPort().SetScale({pixel, pixel, 1.0});
  space->SetInterpretationID(ids.SpaceInterpretation);
  space->SetCaption("Scan geometry (demo)");
  ids.SpaceTransformation = space->GetID();
  project.AddData(std::move(space));

  // The map has no template: it is the source every other object is made from.
  auto map = std::make_unique<TDGraph>();
  map->SetID(project.GetNewDataID());
  map->SetFieldSize(sx, sy, TDataFieldKind::Float, sg);
  map->SetXTransformationID(ids.SpectralTransformation);
  map->SetXInterpretationID(ids.SpectralInterpretation);
  map->SetSpaceTransformationID(ids.SpaceTransformation);
  ApplyResultInfo(*map, "Raman Map",
                  DemoResult("", " (demo)",
                             "Synthetic confocal Raman map, " + std::to_string(sx) + " x " +
                                 std::to_string(sy) + " x " + std::to_string(sg) + ", seed " +
                                 std::to_string(options.Seed)));
  TDGraph* mapRaw = map.get();
  const int64_t spectra = int64_t(sx) * sy;

  // Fill column by column (x major is the memory order of the field), on all allowed processors.
  TMCC mcc(
      "Demo Data Set",
      [&](TMCC* m, int thread) {
        if (thread == 0) m->OverallProgressMax = spectra;
        const int first = TMCC::GetFirstElementIndex(thread, m->GetNumberOfThreads(), sx);
        const int last = TMCC::GetLastElementIndex(thread, m->GetNumberOfThreads(), sx);
        SynthesizeDemoColumns(
            model, first, last,
            [mapRaw](int32_t x, int32_t y, const float* spectrum) { mapRaw->SetSpectrum(x, y, spectrum); },
            m);
      },
      -1);
  mcc.StartThreads(-1);
  mcc.WaitAndShowProgressOnDelay(100);
  mapRaw->SetAllLinesValid(true);
  ids.Map = mapRaw->GetID();
  AddResultToProject(project, std::move(map));

  // The truth: each component as a one-spectrum graph, each abundance as an image.
  for (int c = 0; c < nc; ++c) {
    const std::string& name = components[static_cast<size_t>(c)].Name;
    auto truth = TDGraph::CreateResultGraph(
        project, ids.Map, true, TDataFieldKind::Float,
        DemoResult("True Component " + std::to_string(c + 1) + ": " + name, " (demo truth)"));
    truth->SetSpectrum(0, 0, model.ComponentSpectra[static_cast<size_t>(c)].data());
    truth->SetAllLinesValid(true);
    ids.TrueComponents.push_back(AddResultToProject(project, std::move(truth))->GetID());
  }
  std::vector<float> values(static_cast<size_t>(spectra));
  for (int c = 0; c < nc; ++c) {
    SynthesizeDemoAbundance(model, c, values.data());
    const std::string caption =
        "True Abundance " + std::to_string(c + 1) + ": " + components[static_cast<size_t>(c)].Name;
    ids.TrueAbundances.push_back(
        AddDemoImage(project, ids.Map, values, 0, DemoResult(caption, " (demo truth)"))->GetID());
  }

  // A topography-like image in nm.
  auto height = std::make_unique<TDZInterpretation>();
  height->SetID(project.GetNewDataID());
  height->SetUnitName("nm");
  height->SetCaption("Height in nm (demo)");
  height->SetSaveMode(TDataSaveMode::WhileUsed);
  const int32_t heightID = height->GetID();
  project.AddData(std::move(height));
  SynthesizeDemoTopography(model, values.data());
  ids.Topography = AddDemoImage(project, ids.Map, values, heightID, DemoResult("Topography"))->GetID();

  // A text that says what the set is.
  auto text = std::make_unique<TDText>();
  text->SetID(project.GetNewDataID());
  text->SetCaption("About this data set (demo)");
  text->SetText(DemoDescription(model));
  ids.Description = text->GetID();
  project.AddData(std::move(text));
  // The shared space cursor stands at the centre pixel of the map, so that the viewers open on a spectrum
  // in the middle of the scan and the image shows where it comes from.
  const bool browsable = TVCustomForm::GetRegisteredViewer("TVMultiGraphForm") ||
                         TVCustomForm::GetRegisteredViewer("TVImageForm");
  if (auto* cursor = !browsable ? nullptr
                                : dynamic_cast<TDCursor*>(project.FindData(
                                      project.MakeOrGetFirstIDByClassName("TDSpaceCursor")))) {
    double worldX = 0.0, worldY = 0.0;
    PixelToWorld(project, ids.SpaceTransformation, model.Options.SizeX / 2, model.Options.SizeY / 2, worldX,
                 worldY);
    cursor->SetPosition(0, worldX);
    cursor->SetPosition(1, worldY);
  }
  // The description opens in a text viewer, the map in a graph viewer and the topography in an image viewer,
  // when the viewer classes are registered.
  const auto show = [&project](const char* className, int32_t id) {
    const TRegisteredViewer* viewer = TVCustomForm::GetRegisteredViewer(className);
    if (viewer && viewer->ShowViewer && viewer->IsInputIDListOkayForShowViewer &&
        viewer->IsInputIDListOkayForShowViewer(project, {id}))
      viewer->ShowViewer(project, {id});
  };
  show("TVTextForm", ids.Description);
  show("TVMultiGraphForm", ids.Map);
  show("TVImageForm", ids.Topography);
  return ids;
}
