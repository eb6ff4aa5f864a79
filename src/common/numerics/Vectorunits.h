// Run-time choice between the plain and the vector-unit forms of the numeric kernels.
#pragma once

/// Which form of a kernel runs: Auto takes the vector form when the processor has it, Plain always takes
/// the portable loops (tests use it to compare both forms on one machine).
enum class TKernelPath { Auto, Plain };

/// True when the processor and the operating system support 256-bit vectors with fused multiply-add
/// (AVX2 and FMA on x86-64). Asked once; false on other architectures.
bool HasVectorFMA();

/// True when a kernel asked for the given path will run its vector form.
inline bool UseVectorPath(TKernelPath path) {
  return path == TKernelPath::Auto && HasVectorFMA();
}
