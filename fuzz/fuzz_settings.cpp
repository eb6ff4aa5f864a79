// Fuzz target: the readers of the settings files (memory options, system options, the project's settings
// file) on arbitrary bytes must end cleanly, whatever the file claims.
#include "common/OrvexException.h"
#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "project/Systemoptions.h"

#include <cstdint>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = memfd_create("fuzz_settings", 0);
  if (fd < 0) return 0;
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
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
  close(fd);
  return 0;
}
