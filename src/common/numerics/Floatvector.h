// Four floats as one value, for the few kernels whose inner loops must run on the processor's vector
// registers whatever the optimisation level: plain compiler vector types, no instruction-set intrinsics.
#pragma once

#include <cstring>

namespace oxvec {

using TFloat4 = float __attribute__((vector_size(16)));

inline TFloat4 Load(const float* p) {
  TFloat4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void Store(float* p, TFloat4 v) {
  std::memcpy(p, &v, sizeof v);
}
inline TFloat4 Splat(float v) {
  return TFloat4{v, v, v, v};
}
/// Lane by lane: the smaller and the larger value (for equal values either).
inline TFloat4 Min(TFloat4 a, TFloat4 b) {
  return a < b ? a : b;
}
inline TFloat4 Max(TFloat4 a, TFloat4 b) {
  return a < b ? b : a;
}

} // namespace oxvec
