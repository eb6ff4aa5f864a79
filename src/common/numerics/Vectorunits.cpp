// Run-time choice between the plain and the vector-unit forms of the numeric kernels.
#include "common/numerics/Vectorunits.h"

bool HasVectorFMA() {
#if defined(__x86_64__) || defined(__i386__)
  // __builtin_cpu_supports also checks that the operating system saves the wide registers (XSAVE/OSXSAVE).
  static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  return has;
#else
  return false;
#endif
}
