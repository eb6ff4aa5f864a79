// What the fuzz targets share: the process set up as the loader needs it, and the input as a file.
#pragma once

#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "data/Registerdata.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace oxfuzz {

/// Heap strategy, every data class, and questions (a newer version) answered so that readers go on.
inline void InitializeLoading() {
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy());
}

/// The fuzzer's bytes as a file in memory, readable by name until the object goes.
class TMemoryFile {
public:
  TMemoryFile(const char* name, const uint8_t* data, size_t size) : FFd(memfd_create(name, 0)) {
    if (FFd >= 0 && write(FFd, data, size) != static_cast<ssize_t>(size)) {
      close(FFd);
      FFd = -1;
    }
  }
  ~TMemoryFile() {
    if (FFd >= 0) close(FFd);
  }
  TMemoryFile(const TMemoryFile&) = delete;
  TMemoryFile& operator=(const TMemoryFile&) = delete;

  bool IsOpen() const { return FFd >= 0; }
  std::string Path() const { return "/proc/self/fd/" + std::to_string(FFd); }

private:
  int FFd;
};

} // namespace oxfuzz
