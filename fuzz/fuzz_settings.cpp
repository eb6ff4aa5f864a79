// Fuzz target: the readers of the settings files (memory options, system options, the project's settings
// file) on arbitrary bytes must end cleanly, whatever the file claims.
#include "Fuzzsupport.h"
#include "common/OrvexException.h"
#include "project/Project.h"
#include "project/Systemoptions.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  oxfuzz::InitializeLoading();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const oxfuzz::TMemoryFile input("fuzz_settings", data, size);
  if (!input.IsOpen()) return 0;
  const std::string path = input.Path();
  try {
    // The values read are checked when a strategy is made from them; here the readers must only end cleanly.
    TMemoryManagement::MemoryOptionsFileName = path;
    TMemoryManagement::LoadOptionsFromFile();
    TSystemOptionsHelper::FileName = path;
    TSystemOptionsHelper::LoadSystemOptions();
    TProject project;
    const TFileHandle file = OpenFileForReading(path);
    if (file != kInvalidFileHandle) {
      project.LoadProjectSettingsFromTagFile(file, TSaveProjectSettingsKind::Both);
      CloseFile(file);
    }
  } catch (const OrvexExceptionMemoryAllocation&) {
    // A size the memory strategy refuses is a clean failure, not a finding.
  }
  return 0;
}
