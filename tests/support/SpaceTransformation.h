// The space transformation most tests need: pixels of a given size in world units, pixel (0, 0) at a
// given world position, added to the project.
#pragma once

#include "data/Dtransformation.h"
#include "project/Project.h"

#include <memory>

namespace oxtest {

/// Adds a space transformation with scale (world units per pixel along x, y, z) and world origin (the
/// world position of pixel (0, 0)); returns its ID.
inline int32_t AddSpaceTransformation(TProject& project, const TVector3& scale = {1, 1, 1},
                                      const TVector3& origin = {0, 0, 0}) {
  auto space = std::make_unique<TDSpaceTransformation>();
  space->SetID(project.GetNewDataID());
  space->ViewPort().SetScale(scale);
  space->ViewPort().SetWorldOrigin(origin);
  const int32_t id = space->GetID();
  project.AddData(std::move(space));
  return id;
}

} // namespace oxtest
