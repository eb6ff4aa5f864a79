// The process's one pseudo-random generator: uniform, integer and normal values for noise and shuffles.
#pragma once

/// A pseudo-random value in 0..1 from the process's one generator (thread-safe in memory).
double Rnd();
/// A pseudo-random integer in 0..range-1 from the same generator.
int RandomRange(int range);
/// A normally distributed value (mean 0, deviation 1) from the same generator.
double RndGauss();
/// Restarts the process's generator (tests use it for reproducible noise).
void RandomSeed(unsigned seed);
