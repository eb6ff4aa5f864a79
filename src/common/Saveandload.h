// Primitive readers and writers of tag files: files, values, strings, identifications, byte streams.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Result of every file operation: 1 or more is success, negative values are errors.
using TTagError = int;

inline constexpr TTagError teNoError = 1;
inline constexpr TTagError teUnspecificError = 0;
inline constexpr TTagError teTagNotFound = -1;
inline constexpr TTagError teWriteFileError = -2;
inline constexpr TTagError teReadFileError = -3;
inline constexpr TTagError teWrongFileIdentification = -4;
inline constexpr TTagError teCreateFileForWriteError = -5;
inline constexpr TTagError teCreateFileForReadError = -6;
inline constexpr TTagError teWrongFileVersion = -7;

/// The words of a tag error, e.g. "Tag Not Found"; unknown values give "Error Number = " and the number.
std::string GetTagErrorName(TTagError error);

/// Kind of a tag; the value is what stands in the file.
enum class TTagKind : int32_t {
  TagList = 0,
  Reserved = 1,
  Double = 2,
  Float = 3,
  Int64 = 4,
  Int = 5,
  Word = 6,
  Byte = 7,
  Bool = 8,
  AnsiString = 9,
};

/// Bytes of one element of a value kind; 0 for lists, strings and unknown kinds.
int TagKindElementSize(TTagKind kind);
/// The kind's name as the tag tools print it ("TagList", "Int", ...); "Kind <n>" for unknown values.
std::string TagKindName(TTagKind kind);

// ---------------------------------------------------------------------------------------------
// Files

/// An open file: a POSIX descriptor. All offsets are 64-bit.
using TFileHandle = int;
inline constexpr TFileHandle kInvalidFileHandle = -1;

/// Opens an existing file for shared reading; kInvalidFileHandle on failure.
TFileHandle OpenFileForReading(const std::string& fileName);
/// Creates or truncates a file for exclusive writing; kInvalidFileHandle on failure.
TFileHandle CreateFileForWriting(const std::string& fileName);
/// Opens an existing file for writing without truncation (exclusive); kInvalidFileHandle on failure.
TFileHandle OpenFileForWriting(const std::string& fileName);
void CloseFile(TFileHandle file);

enum class TSeekOrigin { Begin, Current, End };
/// Moves the file position; returns the new position or -1.
int64_t FileSeek(TFileHandle file, int64_t offset, TSeekOrigin origin);
int64_t FilePosition(TFileHandle file);
/// Size of the open file in bytes, or -1.
int64_t FileSize(TFileHandle file);

bool FileExists(const std::string& fileName);
bool DeleteFileByName(const std::string& fileName);
bool RenameFileByName(const std::string& from, const std::string& to);

/// Writes all bytes (looping over partial writes); false on failure, and after the process's writes were
/// aborted (a termination signal during a save).
bool WriteAllBytes(TFileHandle file, const void* data, int64_t size);
/// Reads up to size bytes (looping over partial reads); returns bytes read, or -1 on a read error.
int64_t ReadAllBytes(TFileHandle file, void* data, int64_t size);
/// Reads up to size bytes at offset, leaving the file position alone; returns bytes read, or -1.
int64_t ReadBytesAt(TFileHandle file, void* data, int64_t size, int64_t offset);

/// The system's reason of the last failed open, read or write of any thread (errno), 0 when none since
/// ClearLastFileError. Only for the words of a message: the result codes decide.
int LastFileError();
void ClearLastFileError();
void SetLastFileError(int errorNumber);
/// The reason in a user's words: "no such file", "is a folder", "permission denied",
/// "no space left on device", ...; the system's text for the rest.
std::string FileErrorReason(int errorNumber);
/// Makes every further WriteAllBytes fail (async-signal-safe), or lets them succeed again.
void SetFileWritesAborted(bool aborted);
bool FileWritesAborted();

// ---------------------------------------------------------------------------------------------
// Text encoding: strings in tag files are 8-bit Windows-1252, in memory UTF-8.

/// Converts 8-bit Windows-1252 bytes to UTF-8 (undefined bytes map to the C1 code points).
std::string Cp1252ToUtf8(const std::string& bytes);
/// Converts UTF-8 to Windows-1252 bytes; characters outside the code page become '?', stray bytes pass
/// through.
std::string Utf8ToCp1252(const std::string& text);

// ---------------------------------------------------------------------------------------------
// Value primitives: count elements in one call. Result 1, -2 when writing fails, -3 when reading fails.

TTagError SaveBoolToFile(TFileHandle file, const bool* values, int64_t count);
TTagError LoadBoolFromFile(TFileHandle file, bool* values, int64_t count);
TTagError SaveByteToFile(TFileHandle file, const uint8_t* values, int64_t count);
TTagError LoadByteFromFile(TFileHandle file, uint8_t* values, int64_t count);
TTagError SaveWordToFile(TFileHandle file, const uint16_t* values, int64_t count);
TTagError LoadWordFromFile(TFileHandle file, uint16_t* values, int64_t count);
TTagError SaveIntToFile(TFileHandle file, const int32_t* values, int64_t count);
TTagError LoadIntFromFile(TFileHandle file, int32_t* values, int64_t count);
TTagError SaveFloatToFile(TFileHandle file, const float* values, int64_t count);
TTagError LoadFloatFromFile(TFileHandle file, float* values, int64_t count);
TTagError SaveInt64ToFile(TFileHandle file, const int64_t* values, int64_t count);
TTagError LoadInt64FromFile(TFileHandle file, int64_t* values, int64_t count);
TTagError SaveDoubleToFile(TFileHandle file, const double* values, int64_t count);
TTagError LoadDoubleFromFile(TFileHandle file, double* values, int64_t count);
TTagError SaveTagKindToFile(TFileHandle file, const TTagKind* values, int64_t count);
TTagError LoadTagKindFromFile(TFileHandle file, TTagKind* values, int64_t count);
TTagError SaveLargeIntegerToFile(TFileHandle file, int64_t value);
TTagError LoadLargeIntegerFromFile(TFileHandle file, int64_t& value);

/// Writes the 4-byte length and the bytes of the string (converted to Windows-1252).
TTagError SaveAnsiStringToFile(TFileHandle file, const std::string& text);
/// Reads a length and that many bytes; a stored NUL cuts the string. A length that can't fit in the rest
/// of the file is refused with -3 before anything is allocated.
TTagError LoadAnsiStringFromFile(TFileHandle file, std::string& text);
/// Writes at most 8 characters, zero-padded to 8 bytes.
TTagError SaveIdentificationToFile(TFileHandle file, const std::string& identification);
/// Reads 8 bytes; the result stops at the first NUL.
TTagError LoadIdentificationFromFile(TFileHandle file, std::string& identification);

/// Creates or truncates fileName for exclusive writing and writes the identification.
TFileHandle CreateTagFile(const std::string& fileName, const std::string& identification);

/// Opens fileName for writing, or, when it exists, a free temporary name beside it
/// (fileName + ".yyyymmdd_hhnnss.temp", then "_0", "_1", ...) stored in tempName, so that the old file
/// survives until DeleteAndRenameFiles. tempName is left as it came when fileName doesn't exist.
/// Returns kInvalidFileHandle when no name is free after ten attempts or creation fails.
TFileHandle CreateFileSafeOverWrite(const std::string& fileName, std::string& tempName);
/// When the names differ: deletes target and renames temp to target. Equal names: nothing happens.
bool DeleteAndRenameFiles(const std::string& target, const std::string& temp);

// ---------------------------------------------------------------------------------------------
// Byte streams

/// Result convention of the read-only stream path: 0 is success; failures are non-zero.
using TStreamResult = uint32_t;
inline constexpr TStreamResult kStreamOk = 0;
inline constexpr TStreamResult kStreamFail = 0x80004005u;

/// A read-only byte stream that offers only Read and Seek.
class IReadStream {
public:
  virtual ~IReadStream() = default;
  /// Reads up to size bytes; bytesRead (may be null) receives the count. 0 on success.
  virtual TStreamResult Read(void* buffer, uint32_t size, uint32_t* bytesRead) = 0;
  /// Moves the position; newPosition (may be null) receives it. 0 on success.
  virtual TStreamResult Seek(int64_t offset, TSeekOrigin origin, uint64_t* newPosition) = 0;
};

/// A growable byte stream in memory, with size, position, read and write.
class TMemoryByteStream : public IReadStream {
public:
  TMemoryByteStream() = default;
  explicit TMemoryByteStream(std::vector<uint8_t> bytes) : FBytes(std::move(bytes)) {}

  int64_t Size() const { return static_cast<int64_t>(FBytes.size()); }
  void SetSize(int64_t size);
  int64_t Position() const { return FPosition; }
  void SetPosition(int64_t position) { FPosition = position; }
  /// Reads up to size bytes from the position; returns bytes read.
  int64_t ReadBytes(void* buffer, int64_t size);
  /// Writes bytes at the position, growing the stream; returns bytes written.
  int64_t WriteBytes(const void* buffer, int64_t size);
  const std::vector<uint8_t>& Bytes() const { return FBytes; }

  TStreamResult Read(void* buffer, uint32_t size, uint32_t* bytesRead) override;
  TStreamResult Seek(int64_t offset, TSeekOrigin origin, uint64_t* newPosition) override;

private:
  std::vector<uint8_t> FBytes;
  int64_t FPosition = 0;
};

/// A read-only stream over an open file (the stream path reads the same bytes as the file path).
class TFileReadStream : public IReadStream {
public:
  explicit TFileReadStream(TFileHandle file) : FFile(file) {}
  TStreamResult Read(void* buffer, uint32_t size, uint32_t* bytesRead) override;
  TStreamResult Seek(int64_t offset, TSeekOrigin origin, uint64_t* newPosition) override;

private:
  TFileHandle FFile;
};

/// Copies the whole stream to the file in chunks of 4096 bytes; the stream's position is restored.
TTagError SaveStreamToFile(TFileHandle file, TMemoryByteStream& stream);
/// Sets the stream's size and fills it from the file; -3 on a short read, 0 when the stream took fewer
/// bytes than given. The stream's position is 0 on return.
TTagError LoadStreamFromFile(TFileHandle file, TMemoryByteStream& stream, int64_t size);

// ---------------------------------------------------------------------------------------------

/// Keeps a double inside the float range: magnitudes above 1e36 become +-1e36, non-zero magnitudes below
/// 1e-36 become +-1e-36, 0 stays 0; everything else is rounded to float.
float SafeDoubleToFloat(double x);
