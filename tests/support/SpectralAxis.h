// The spectral axis most graph tests need: a spectral interpretation with its laser line and unit, and a
// polynomial spectral transformation (wavelength in nm = a0 + a1 i + a2 i^2 at pixel i) over it, added to
// the project.
#pragma once

#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Project.h"

#include <cstdint>
#include <memory>

namespace oxtest {

struct TSpectralAxisIDs {
  int32_t Interpretation = 0;
  int32_t Transformation = 0;
};

/// Adds the interpretation (excitation in nm, unit index) and the transformation; returns both IDs.
inline TSpectralAxisIDs AddSpectralAxis(TProject& project, double excitation, double a0, double a1,
                                        double a2 = 0.0,
                                        int32_t unit = TDSpectralInterpretation::suRelativeWavenumber) {
  TSpectralAxisIDs ids;
  auto interpretation = std::make_unique<TDSpectralInterpretation>();
  interpretation->SetID(project.GetNewDataID());
  interpretation->SetExcitationWaveLength(excitation);
  interpretation->SetUnitIndex(unit);
  ids.Interpretation = interpretation->GetID();
  project.AddData(std::move(interpretation));
  auto spectral = std::make_unique<TDSpectralTransformation>();
  spectral->SetID(project.GetNewDataID());
  spectral->SetSpectralTransformationType(TSpectralTransformationType::Polynomial);
  spectral->SetPolynom(a0, a1, a2);
  spectral->SetInterpretationID(ids.Interpretation);
  ids.Transformation = spectral->GetID();
  project.AddData(std::move(spectral));
  return ids;
}

} // namespace oxtest
