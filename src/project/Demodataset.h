// The built-in demo data set: a synthetic confocal Raman map with calibrated axes, written into a project,
// together with the truth it was made from (component spectra and abundance maps), so that analysis tools
// can be checked against it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

class IProgressAndCancel;
class TProject;

struct TDemoOptions {
  int32_t SizeX = 128;
  int32_t SizeY = 128;
  int32_t SizeGraph = 1024;
  uint64_t Seed = 1;
};

/// One Lorentzian band of a component spectrum.
struct TDemoBand {
  double Shift;     ///< position in rel. 1/cm
  double Width;     ///< full width at half maximum in rel. 1/cm
  double Amplitude; ///< peak height in counts at abundance 1
};

struct TDemoComponent {
  std::string Name;
  std::vector<TDemoBand> Bands;
};

/// The four components of the demo map.
const std::vector<TDemoComponent>& DemoComponents();

/// IDs of what CreateDemoProject made.
struct TDemoIDs {
  int32_t Map = 0;
  int32_t SpectralTransformation = 0;
  int32_t SpectralInterpretation = 0;
  int32_t SpaceTransformation = 0;
  int32_t SpaceInterpretation = 0;
  int32_t Topography = 0;
  int32_t Description = 0;
  std::vector<int32_t> TrueComponents;
  std::vector<int32_t> TrueAbundances;
};

/// The excitation wavelength of the demo (nm) and the quadratic pixel -> wavelength polynomial for N pixels.
inline constexpr double kDemoExcitation = 532.0;
void DemoWavelengthPolynomial(int32_t sizeGraph, double& a0, double& a1, double& a2);

/// What the synthesis needs, worked out once from the options: the detector axis in rel. 1/cm, the component
/// spectra and the fluorescence on it, and the cosmic-ray spikes.
struct TDemoModel {
  TDemoOptions Options;
  std::vector<double> Shift; ///< rel. 1/cm of each detector pixel
  std::vector<std::vector<float>> ComponentSpectra;
  std::vector<float> Fluorescence;
  /// (element x + y·SizeX, detector pixel) of each spike.
  std::vector<std::pair<int64_t, int32_t>> Spikes;
};
TDemoModel MakeDemoModel(const TDemoOptions& options);

/// The synthesis kernel: plain functions of the model into caller-owned arrays, the same values on any
/// thread and in any order.
/// The spectrum at pixel (x, y): SizeGraph values.
void SynthesizeDemoSpectrum(const TDemoModel& model, int32_t x, int32_t y, float* spectrum);
/// Map columns first…last, each pixel's spectrum handed to store(x, y, spectrum). Adds SizeY to progress
/// after every column and stops between columns when it is cancelled. Returns the columns done.
int32_t SynthesizeDemoColumns(const TDemoModel& model, int32_t first, int32_t last,
                              const std::function<void(int32_t, int32_t, const float*)>& store,
                              IProgressAndCancel* progress);
/// Abundance of component c (0-based) row after row: SizeX·SizeY values.
void SynthesizeDemoAbundance(const TDemoModel& model, int c, float* values);
/// The topography in nm row after row: SizeX·SizeY values.
void SynthesizeDemoTopography(const TDemoModel& model, float* values);
/// The text that says what the set is.
std::string DemoDescription(const TDemoModel& model);

/// Adds the demo objects to project (which should be empty) on all allowed processors. Throws the memory
/// exception when the map doesn't fit. The same options always give the same values.
TDemoIDs CreateDemoProject(TProject& project, const TDemoOptions& options);
