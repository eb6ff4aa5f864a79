// The process's one pseudo-random generator.
#include "common/numerics/Randomnumbers.h"

#include <mutex>
#include <random>

namespace {
std::mutex& RandomMutex() {
  static std::mutex m;
  return m;
}
std::mt19937& RandomGenerator() {
  static std::mt19937 g(4711u);
  return g;
}
} // namespace

double Rnd() {
  std::lock_guard<std::mutex> lock(RandomMutex());
  return static_cast<double>(RandomGenerator()() % 2000000000u) * 5e-10;
}

int RandomRange(int range) {
  if (range <= 1) return 0;
  std::lock_guard<std::mutex> lock(RandomMutex());
  return static_cast<int>(RandomGenerator()() % static_cast<unsigned>(range));
}

double RndGauss() {
  std::lock_guard<std::mutex> lock(RandomMutex());
  std::normal_distribution<double> dist(0.0, 1.0);
  return dist(RandomGenerator());
}

void RandomSeed(unsigned seed) {
  std::lock_guard<std::mutex> lock(RandomMutex());
  RandomGenerator().seed(seed);
}
