// Fuzz target: the project loader on arbitrary bytes (every registered class, data fields, viewers kept
// as stored tags) must end cleanly, whatever the file claims.
#include "common/OrvexException.h"
#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "data/Registerdata.h"
#include "project/Project.h"

#include <cstdint>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  // Questions (a newer version) are answered with Yes, so the loader goes as far as it can.
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = memfd_create("fuzz_project", 0);
  if (fd < 0) return 0;
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
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
  close(fd);
  return 0;
}
