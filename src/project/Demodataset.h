// The built-in demo data set: a synthetic confocal Raman map with calibrated axes, written into a project,
// together with the truth it was made from (component spectra and abundance maps), so that analysis tools
// can be checked against it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

/// Adds the demo objects to project (which should be empty) on all allowed processors. Throws the memory
/// exception when the map doesn't fit. The same options always give the same values.
TDemoIDs CreateDemoProject(TProject& project, const TDemoOptions& options);
