// Primitive readers and writers of tag files on POSIX file descriptors.
#include "common/Saveandload.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

std::string GetTagErrorName(TTagError error) {
  switch (error) {
  case teNoError:
    return "No Error";
  case teUnspecificError:
    return "Unspecific Error";
  case teTagNotFound:
    return "Tag Not Found";
  case teWriteFileError:
    return "WriteFile Error";
  case teReadFileError:
    return "ReadFile Error";
  case teWrongFileIdentification:
    return "Wrong File Identification";
  case teCreateFileForWriteError:
    return "CreateFile for Write Error";
  case teCreateFileForReadError:
    return "CreateFile for Read Error";
  case teWrongFileVersion:
    return "Wrong File Version";
  default:
    return "Error Number = " + std::to_string(error);
  }
}

int TagKindElementSize(TTagKind kind) {
  switch (kind) {
  case TTagKind::Double:
  case TTagKind::Int64:
    return 8;
  case TTagKind::Float:
  case TTagKind::Int:
    return 4;
  case TTagKind::Word:
    return 2;
  case TTagKind::Byte:
  case TTagKind::Bool:
    return 1;
  default:
    return 0;
  }
}

std::string TagKindName(TTagKind kind) {
  switch (kind) {
  case TTagKind::TagList:
    return "TagList";
  case TTagKind::Reserved:
    return "Reserved";
  case TTagKind::Double:
    return "Double";
  case TTagKind::Float:
    return "Float";
  case TTagKind::Int64:
    return "Int64";
  case TTagKind::Int:
    return "Int";
  case TTagKind::Word:
    return "Word";
  case TTagKind::Byte:
    return "Byte";
  case TTagKind::Bool:
    return "Bool";
  case TTagKind::AnsiString:
    return "AnsiString";
  }
  return "Kind " + std::to_string(static_cast<int32_t>(kind));
}

// ---------------------------------------------------------------------------------------------
// Files

namespace {
std::atomic<int> gLastFileError{0};
std::atomic<bool> gWritesAborted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from signal handlers");
} // namespace

int LastFileError() {
  return gLastFileError.load(std::memory_order_relaxed);
}
void ClearLastFileError() {
  gLastFileError.store(0, std::memory_order_relaxed);
}
void SetLastFileError(int errorNumber) {
  gLastFileError.store(errorNumber, std::memory_order_relaxed);
}

std::string FileErrorReason(int errorNumber) {
  switch (errorNumber) {
  case 0:
    return "unknown reason";
  case ENOENT:
    return "no such file";
  case EISDIR:
    return "is a folder";
  case ENOTDIR:
    return "a part of the path is not a folder";
  case EACCES:
  case EPERM:
    return "permission denied";
  case ENOSPC:
    return "no space left on device";
  case EDQUOT:
    return "disk quota exceeded";
  case EROFS:
    return "read-only file system";
  case ECANCELED:
    return "cancelled";
  case EPIPE:
    return "the reader of the output has gone";
  case EIO:
    return "input/output error";
  case ESTALE:
    return "a file the data was still to be read from was changed since it was loaded";
  default: {
    char buffer[256];
    const char* text = ::strerror_r(errorNumber, buffer, sizeof buffer);
    std::string reason = text ? text : "error " + std::to_string(errorNumber);
    if (!reason.empty()) reason[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(reason[0])));
    return reason;
  }
  }
}

void SetFileWritesAborted(bool aborted) {
  gWritesAborted.store(aborted);
}
bool FileWritesAborted() {
  return gWritesAborted.load();
}

TFileHandle OpenFileForReading(const std::string& fileName) {
  const int fd = ::open(fileName.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    SetLastFileError(errno);
    return kInvalidFileHandle;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    SetLastFileError(EISDIR);
    ::close(fd);
    return kInvalidFileHandle;
  }
  return fd;
}

static TFileHandle OpenExclusive(const std::string& fileName, int flags) {
  const int fd = ::open(fileName.c_str(), flags | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) return kInvalidFileHandle;
  // Exclusive writing: a second writer of the same file is refused.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return kInvalidFileHandle;
  }
  return fd;
}

TFileHandle CreateFileForWriting(const std::string& fileName) {
  // Truncate only after the lock is held, so that a file in use by another writer stays whole.
  const TFileHandle fd = OpenExclusive(fileName, O_CREAT);
  if (fd == kInvalidFileHandle) return fd;
  if (::ftruncate(fd, 0) != 0) {
    ::close(fd);
    return kInvalidFileHandle;
  }
  return fd;
}

TFileHandle OpenFileForWriting(const std::string& fileName) {
  return OpenExclusive(fileName, 0);
}

void CloseFile(TFileHandle file) {
  if (file != kInvalidFileHandle) ::close(file);
}

int64_t FileSeek(TFileHandle file, int64_t offset, TSeekOrigin origin) {
  const int whence = origin == TSeekOrigin::Begin     ? SEEK_SET
                     : origin == TSeekOrigin::Current ? SEEK_CUR
                                                      : SEEK_END;
  const off_t result = ::lseek(file, static_cast<off_t>(offset), whence);
  return result < 0 ? -1 : static_cast<int64_t>(result);
}

int64_t FilePosition(TFileHandle file) {
  return FileSeek(file, 0, TSeekOrigin::Current);
}

int64_t FileSize(TFileHandle file) {
  struct stat st {};
  if (::fstat(file, &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

bool FileExists(const std::string& fileName) {
  struct stat st {};
  return ::stat(fileName.c_str(), &st) == 0;
}

bool DeleteFileByName(const std::string& fileName) {
  return ::unlink(fileName.c_str()) == 0;
}

bool RenameFileByName(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

bool WriteAllBytes(TFileHandle file, const void* data, int64_t size) {
  if (size < 0) return false;
  const auto* p = static_cast<const char*>(data);
  while (size > 0) {
    if (FileWritesAborted()) {
      SetLastFileError(ECANCELED);
      return false;
    }
    const size_t chunk = static_cast<size_t>(std::min<int64_t>(size, int64_t(1) << 30));
    const ssize_t n = ::write(file, p, chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      SetLastFileError(errno);
      return false;
    }
    if (n == 0) {
      SetLastFileError(ENOSPC);
      return false;
    }
    p += n;
    size -= n;
  }
  return true;
}

int64_t ReadAllBytes(TFileHandle file, void* data, int64_t size) {
  if (size < 0) return -1;
  auto* p = static_cast<char*>(data);
  int64_t total = 0;
  while (total < size) {
    const size_t chunk = static_cast<size_t>(std::min<int64_t>(size - total, int64_t(1) << 30));
    const ssize_t n = ::read(file, p + total, chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      SetLastFileError(errno);
      return -1;
    }
    if (n == 0) break;
    total += n;
  }
  return total;
}

int64_t ReadBytesAt(TFileHandle file, void* data, int64_t size, int64_t offset) {
  if (size < 0 || offset < 0) return -1;
  auto* p = static_cast<char*>(data);
  int64_t total = 0;
  while (total < size) {
    const size_t chunk = static_cast<size_t>(std::min<int64_t>(size - total, int64_t(1) << 30));
    const ssize_t n = ::pread(file, p + total, chunk, static_cast<off_t>(offset + total));
    if (n < 0) {
      if (errno == EINTR) continue;
      SetLastFileError(errno);
      return -1;
    }
    if (n == 0) break;
    total += n;
  }
  return total;
}

// ---------------------------------------------------------------------------------------------
// Windows-1252 <-> UTF-8

namespace {
// Code points of the bytes 0x80..0x9F; the five bytes the code page leaves undefined keep their C1 value.
constexpr char32_t kCp1252High[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                      0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                      0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                      0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

int Cp1252ByteOf(char32_t cp) {
  if (cp < 0x80 || (cp >= 0xA0 && cp <= 0xFF)) return static_cast<int>(cp);
  for (int i = 0; i < 32; ++i)
    if (kCp1252High[i] == cp) return 0x80 + i;
  return -1;
}
} // namespace

std::string Cp1252ToUtf8(const std::string& bytes) {
  // Fast path: pure ASCII needs no conversion.
  if (std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
    return bytes;
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 2);
  for (char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    if (b < 0x80)
      out.push_back(c);
    else if (b < 0xA0)
      AppendUtf8(out, kCp1252High[b - 0x80]);
    else
      AppendUtf8(out, b);
  }
  return out;
}

std::string Utf8ToCp1252(const std::string& text) {
  if (std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
    return text;
  std::string out;
  out.reserve(text.size());
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const auto b = static_cast<unsigned char>(text[i]);
    if (b < 0x80) {
      out.push_back(static_cast<char>(b));
      ++i;
      continue;
    }
    int len = 0;
    char32_t cp = 0;
    if ((b & 0xE0) == 0xC0) {
      len = 2;
      cp = b & 0x1F;
    } else if ((b & 0xF0) == 0xE0) {
      len = 3;
      cp = b & 0x0F;
    } else if ((b & 0xF8) == 0xF0) {
      len = 4;
      cp = b & 0x07;
    }
    bool valid = len > 0 && i + static_cast<size_t>(len) <= n;
    for (int k = 1; valid && k < len; ++k) {
      const auto cb = static_cast<unsigned char>(text[i + k]);
      if ((cb & 0xC0) != 0x80)
        valid = false;
      else
        cp = (cp << 6) | (cb & 0x3F);
    }
    if (!valid) {
      // A stray byte that is no UTF-8 passes through as it stands.
      out.push_back(static_cast<char>(b));
      ++i;
      continue;
    }
    const int mapped = Cp1252ByteOf(cp);
    out.push_back(mapped >= 0 ? static_cast<char>(mapped) : '?');
    i += static_cast<size_t>(len);
  }
  return out;
}

// ---------------------------------------------------------------------------------------------
// Value primitives

static TTagError SaveRaw(TFileHandle file, const void* values, int64_t bytes) {
  return WriteAllBytes(file, values, bytes) ? teNoError : teWriteFileError;
}

// A short read at the end of a file is no error: truncated files show up as tags that are not found.
static TTagError LoadRaw(TFileHandle file, void* values, int64_t bytes) {
  return ReadAllBytes(file, values, bytes) < 0 ? teReadFileError : teNoError;
}

TTagError SaveBoolToFile(TFileHandle file, const bool* values, int64_t count) {
  static_assert(sizeof(bool) == 1);
  return SaveRaw(file, values, count);
}
TTagError LoadBoolFromFile(TFileHandle file, bool* values, int64_t count) {
  // Any non-zero byte is true; read as bytes so that no invalid bool value is ever formed.
  std::vector<uint8_t> raw(static_cast<size_t>(std::max<int64_t>(count, 0)));
  for (int64_t i = 0; i < count; ++i) raw[i] = values[i] ? 1 : 0;
  const int64_t got = ReadAllBytes(file, raw.data(), count);
  if (got < 0) return teReadFileError;
  for (int64_t i = 0; i < got; ++i) values[i] = raw[i] != 0;
  return teNoError;
}
TTagError SaveByteToFile(TFileHandle file, const uint8_t* values, int64_t count) {
  return SaveRaw(file, values, count);
}
TTagError LoadByteFromFile(TFileHandle file, uint8_t* values, int64_t count) {
  return LoadRaw(file, values, count);
}
TTagError SaveWordToFile(TFileHandle file, const uint16_t* values, int64_t count) {
  return SaveRaw(file, values, count * 2);
}
TTagError LoadWordFromFile(TFileHandle file, uint16_t* values, int64_t count) {
  return LoadRaw(file, values, count * 2);
}
TTagError SaveIntToFile(TFileHandle file, const int32_t* values, int64_t count) {
  return SaveRaw(file, values, count * 4);
}
TTagError LoadIntFromFile(TFileHandle file, int32_t* values, int64_t count) {
  return LoadRaw(file, values, count * 4);
}
TTagError SaveFloatToFile(TFileHandle file, const float* values, int64_t count) {
  return SaveRaw(file, values, count * 4);
}
TTagError LoadFloatFromFile(TFileHandle file, float* values, int64_t count) {
  return LoadRaw(file, values, count * 4);
}
TTagError SaveInt64ToFile(TFileHandle file, const int64_t* values, int64_t count) {
  return SaveRaw(file, values, count * 8);
}
TTagError LoadInt64FromFile(TFileHandle file, int64_t* values, int64_t count) {
  return LoadRaw(file, values, count * 8);
}
TTagError SaveDoubleToFile(TFileHandle file, const double* values, int64_t count) {
  return SaveRaw(file, values, count * 8);
}
TTagError LoadDoubleFromFile(TFileHandle file, double* values, int64_t count) {
  return LoadRaw(file, values, count * 8);
}
TTagError SaveTagKindToFile(TFileHandle file, const TTagKind* values, int64_t count) {
  static_assert(sizeof(TTagKind) == 4);
  return SaveRaw(file, values, count * 4);
}
TTagError LoadTagKindFromFile(TFileHandle file, TTagKind* values, int64_t count) {
  return LoadRaw(file, values, count * 4);
}
TTagError SaveLargeIntegerToFile(TFileHandle file, int64_t value) {
  return SaveRaw(file, &value, 8);
}
TTagError LoadLargeIntegerFromFile(TFileHandle file, int64_t& value) {
  return LoadRaw(file, &value, 8);
}

TTagError SaveAnsiStringToFile(TFileHandle file, const std::string& text) {
  const std::string bytes = Utf8ToCp1252(text);
  const auto length = static_cast<int32_t>(bytes.size());
  TTagError result = SaveIntToFile(file, &length, 1);
  if (result < 1 || length == 0) return result;
  return SaveRaw(file, bytes.data(), length);
}

TTagError LoadAnsiStringFromFile(TFileHandle file, std::string& text) {
  int32_t length = 0;
  if (ReadAllBytes(file, &length, 4) != 4) return teReadFileError;
  if (length < 0) return teReadFileError;
  if (length == 0) {
    text.clear();
    return teNoError;
  }
  // Refuse a length that cannot fit in the rest of the file before allocating anything.
  const int64_t pos = FilePosition(file);
  const int64_t size = FileSize(file);
  if (pos < 0 || size < 0 || length > size - pos) return teReadFileError;
  std::string bytes(static_cast<size_t>(length), '\0');
  if (ReadAllBytes(file, bytes.data(), length) != length) return teReadFileError;
  // A stored NUL cuts the string, although the position has passed all bytes.
  const size_t nul = bytes.find('\0');
  if (nul != std::string::npos) bytes.resize(nul);
  text = Cp1252ToUtf8(bytes);
  return teNoError;
}

TTagError SaveIdentificationToFile(TFileHandle file, const std::string& identification) {
  char buffer[8] = {};
  std::memcpy(buffer, identification.data(), std::min<size_t>(identification.size(), 8));
  return SaveRaw(file, buffer, 8);
}

TTagError LoadIdentificationFromFile(TFileHandle file, std::string& identification) {
  char buffer[12] = {};
  if (ReadAllBytes(file, buffer, 8) < 0) return teReadFileError;
  identification.assign(buffer, ::strnlen(buffer, 8));
  return teNoError;
}

TFileHandle CreateTagFile(const std::string& fileName, const std::string& identification) {
  const TFileHandle file = CreateFileForWriting(fileName);
  if (file != kInvalidFileHandle) SaveIdentificationToFile(file, identification);
  return file;
}

static std::string TimeStampForTempName() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y%m%d_%H%M%S", &local);
  return buffer;
}

TFileHandle CreateFileSafeOverWrite(const std::string& fileName, std::string& tempName) {
  if (!FileExists(fileName)) return CreateFileForWriting(fileName);
  const std::string base = fileName + "." + TimeStampForTempName() + ".temp";
  std::string candidate = base;
  int attempt = 0;
  while (FileExists(candidate)) {
    if (attempt >= 10) return kInvalidFileHandle;
    candidate = fileName + "." + TimeStampForTempName() + "_" + std::to_string(attempt) + ".temp";
    ++attempt;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  tempName = candidate;
  return CreateFileForWriting(candidate);
}

bool DeleteAndRenameFiles(const std::string& target, const std::string& temp) {
  if (target == temp || temp.empty()) return true;
  // rename() replaces the target atomically: at no moment is there no file of that name.
  return RenameFileByName(temp, target);
}

// ---------------------------------------------------------------------------------------------
// Byte streams

void TMemoryByteStream::SetSize(int64_t size) {
  FBytes.resize(static_cast<size_t>(std::max<int64_t>(size, 0)));
}

int64_t TMemoryByteStream::ReadBytes(void* buffer, int64_t size) {
  if (FPosition < 0 || FPosition >= Size() || size <= 0) return 0;
  const int64_t n = std::min(size, Size() - FPosition);
  std::memcpy(buffer, FBytes.data() + FPosition, static_cast<size_t>(n));
  FPosition += n;
  return n;
}

int64_t TMemoryByteStream::WriteBytes(const void* buffer, int64_t size) {
  if (FPosition < 0 || size <= 0) return 0;
  if (FPosition + size > Size()) FBytes.resize(static_cast<size_t>(FPosition + size));
  std::memcpy(FBytes.data() + FPosition, buffer, static_cast<size_t>(size));
  FPosition += size;
  return size;
}

TStreamResult TMemoryByteStream::Read(void* buffer, uint32_t size, uint32_t* bytesRead) {
  const int64_t n = ReadBytes(buffer, size);
  if (bytesRead) *bytesRead = static_cast<uint32_t>(n);
  return kStreamOk;
}

TStreamResult TMemoryByteStream::Seek(int64_t offset, TSeekOrigin origin, uint64_t* newPosition) {
  const int64_t base = origin == TSeekOrigin::Begin ? 0 : origin == TSeekOrigin::Current ? FPosition : Size();
  if (base + offset < 0) return kStreamFail;
  FPosition = base + offset;
  if (newPosition) *newPosition = static_cast<uint64_t>(FPosition);
  return kStreamOk;
}

TStreamResult TFileReadStream::Read(void* buffer, uint32_t size, uint32_t* bytesRead) {
  const int64_t n = ReadAllBytes(FFile, buffer, size);
  if (bytesRead) *bytesRead = n < 0 ? 0 : static_cast<uint32_t>(n);
  return n < 0 ? kStreamFail : kStreamOk;
}

TStreamResult TFileReadStream::Seek(int64_t offset, TSeekOrigin origin, uint64_t* newPosition) {
  const int64_t pos = FileSeek(FFile, offset, origin);
  if (pos < 0) return kStreamFail;
  if (newPosition) *newPosition = static_cast<uint64_t>(pos);
  return kStreamOk;
}

TTagError SaveStreamToFile(TFileHandle file, TMemoryByteStream& stream) {
  const int64_t oldPosition = stream.Position();
  stream.SetPosition(0);
  char chunk[4096];
  int64_t total = 0;
  TTagError result = teNoError;
  for (;;) {
    const int64_t n = stream.ReadBytes(chunk, sizeof chunk);
    if (n <= 0) break;
    if (!WriteAllBytes(file, chunk, n)) {
      result = teWriteFileError;
      break;
    }
    total += n;
  }
  if (result == teNoError && total != stream.Size()) result = teWriteFileError;
  stream.SetPosition(oldPosition);
  return result;
}

TTagError LoadStreamFromFile(TFileHandle file, TMemoryByteStream& stream, int64_t size) {
  // Refuse a size that cannot be in the rest of the file before allocating it.
  const int64_t pos = FilePosition(file);
  const int64_t fileSize = FileSize(file);
  if (size < 0 || pos < 0 || fileSize < 0 || size > fileSize - pos) {
    stream.SetSize(0);
    stream.SetPosition(0);
    return teReadFileError;
  }
  stream.SetSize(size);
  stream.SetPosition(0);
  char chunk[4096];
  int64_t total = 0;
  TTagError result = teNoError;
  while (total < size) {
    const int64_t want = std::min<int64_t>(sizeof chunk, size - total);
    if (ReadAllBytes(file, chunk, want) != want) {
      result = teReadFileError;
      break;
    }
    const int64_t taken = stream.WriteBytes(chunk, want);
    total += taken;
    if (taken != want) {
      result = teUnspecificError;
      break;
    }
  }
  if (result == teNoError && total != size) result = teUnspecificError;
  stream.SetPosition(0);
  return result;
}

float SafeDoubleToFloat(double x) {
  if (x > 1e36) return 1e36f;
  if (x < -1e36) return -1e36f;
  if (x > 0 && x < 1e-36) return 1e-36f;
  if (x < 0 && x > -1e-36) return -1e-36f;
  return static_cast<float>(x);
}
