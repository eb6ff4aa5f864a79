// Raw little-endian arrays for the numpy cross-checks: the dump programs write them, the scripts read them.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

/// Writes the values as they stand in memory; false if the file can't be written whole.
template <typename T>
bool WriteRawArray(const std::string& path, const std::vector<T>& data) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(data.data(), sizeof(T), data.size(), f) == data.size();
  return std::fclose(f) == 0 && ok;
}
