// Run-time choice between the plain and the vector-unit forms of the numeric kernels.
#pragma once

/// Which form of a kernel runs: Auto takes the best vector form the processor has, Plain always takes the
/// portable loops, Vector16 the vector form that needs no more than 16 vector registers (tests use the
/// last two to compare every form on one machine).
enum class TKernelPath { Auto, Plain, Vector16 };

/// True when the processor and the operating system support 256-bit vectors with fused multiply-add
/// (AVX2 and FMA on x86-64). Asked once; false on other architectures.
bool HasVectorFMA();

/// True when a kernel asked for the given path will run its vector form.
inline bool UseVectorPath(TKernelPath path) {
  return path != TKernelPath::Plain && HasVectorFMA();
}
