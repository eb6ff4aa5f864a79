// Fuzz target: the project loader on arbitrary bytes (every registered class, data fields, viewers kept
// as stored tags) must end cleanly, whatever the file claims.
#include "Fuzzsupport.h"
#include "common/OrvexException.h"
#include "project/Project.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  oxfuzz::InitializeLoading();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const oxfuzz::TMemoryFile input("fuzz_project", data, size);
  if (!input.IsOpen()) return 0;
  const std::string path = input.Path();
  try {
    TProject project;
    project.LoadProjectFromFile(path);
    TProject other;
    const TFileHandle file = OpenFileForReading(path);
    if (file != kInvalidFileHandle) {
      std::vector<std::unique_ptr<TData>> list;
      other.LoadDataListFromTagFile(file, list);
      CloseFile(file);
    }
  } catch (const OrvexExceptionMemoryAllocation&) {
    // A size the memory strategy refuses is a clean failure, not a finding.
  }
  return 0;
}
