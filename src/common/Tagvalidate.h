// Structural check of a tag file: identification, headers in bounds, children back to back.
#pragma once

#include <cstdint>
#include <string>

struct TTagValidationResult {
  bool Readable = true; ///< false: the file could not be opened or read at all
  bool Valid = false;
  std::string Identification;
  int64_t TagCount = 0;
  std::string Problem; ///< first violation, in words
  int64_t Offset = -1; ///< byte offset of the violation
  std::string Path;    ///< tag path of the violation, components joined by "|"
};

/// Walks the whole file once and reports the first violation of the container's invariants:
/// identification zero-padded ASCII, one root list to the end of the file, Begin = offset of Kind + 20,
/// End not below Begin, children back to back with the last child's End equal to the parent's End,
/// known kinds, value payloads a whole number of elements, string payloads a whole number of strings.
TTagValidationResult ValidateTagFile(const std::string& fileName);
