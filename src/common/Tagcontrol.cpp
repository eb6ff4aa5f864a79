// Tag files: writing, finding and reading tags, whole trees and the in-memory tree.
#include "common/Tagcontrol.h"

#include "common/OrvexException.h"
#include "common/Safewrite.h"

#include <cstring>
#include <vector>

namespace {
// Nesting deeper than this is taken for a corrupt file; real files nest a few dozen levels.
constexpr int kMaxTreeDepth = 1000;
// Size of Kind + Begin + End behind the name.
constexpr int64_t kHeaderTail = 20;

// The first of errors a and b, keeping "success" only when both succeeded.
TTagError FirstError(TTagError a, TTagError b) {
  return a < 1 ? a : b;
}
} // namespace

// ---------------------------------------------------------------------------------------------
// Construction

TTagControl::TTagControl(const std::string& name, TTagKind kind, const void* data, int64_t count)
    : FKind(kind), FName(name) {
  if (kind == TTagKind::TagList) {
    FChildren = std::make_unique<TChildren>();
    return;
  }
  if (!data) return;
  switch (kind) {
  case TTagKind::Double:
    SetDoubleTag(static_cast<const double*>(data), count);
    break;
  case TTagKind::Float:
    SetFloatTag(static_cast<const float*>(data), count);
    break;
  case TTagKind::Int:
    SetIntTag(static_cast<const int32_t*>(data), count);
    break;
  case TTagKind::Bool:
    SetBoolTag(static_cast<const bool*>(data), count);
    break;
  case TTagKind::Byte:
    SetByteTag(static_cast<const uint8_t*>(data), count);
    break;
  case TTagKind::AnsiString:
    SetAnsiStringTag(*static_cast<const std::string*>(data));
    break;
  default:
    throw OrvexException("Not Implemented");
  }
}

std::unique_ptr<TTagControl> TTagControl::CreateTag(const std::string& name, TTagKind kind, const void* data,
                                                    int64_t count) {
  return std::make_unique<TTagControl>(name, kind, data, count);
}

// ---------------------------------------------------------------------------------------------
// Writing

TTagError TTagControl::WriteTag(TFileHandle file, const std::string& name, TTagKind kind) {
  TTagError result = SaveAnsiStringToFile(file, name);
  if (result < 1) return result;
  const int64_t p = FilePosition(file);
  if (p < 0) return teWriteFileError;
  FBegin = FEnd = p + kHeaderTail;
  FKind = kind;
  result = SaveTagKindToFile(file, &kind, 1);
  if (result < 1) return result;
  result = SaveLargeIntegerToFile(file, FBegin);
  if (result < 1) return result;
  // The 8 bytes of End stay a gap until CloseWriteTag patches them.
  if (FileSeek(file, FBegin, TSeekOrigin::Begin) < 0) return teWriteFileError;
  return teNoError;
}

TTagError TTagControl::CloseWriteTag(TFileHandle file) {
  const int64_t endField = FEnd - 8;
  const int64_t position = FilePosition(file);
  if (position < 0) return teWriteFileError;
  FEnd = position;
  if (FileSeek(file, endField, TSeekOrigin::Begin) < 0) return teWriteFileError;
  const TTagError result = SaveLargeIntegerToFile(file, FEnd);
  if (FileSeek(file, 0, TSeekOrigin::End) < 0) return teWriteFileError;
  return result;
}

TTagError TTagControl::SaveValueTag(TFileHandle file, const std::string& name, TTagKind kind,
                                    const void* values, int64_t bytes) {
  // A small tag is put together in memory and written at once, the same bytes as header, values and the
  // patched end one after another: a project has thousands of them.
  constexpr int64_t kSmallTag = 4096;
  if (bytes >= 0 && bytes <= kSmallTag) {
    const std::string raw = Utf8ToCp1252(name);
    const int64_t position = FilePosition(file);
    if (position < 0) return teWriteFileError;
    const auto length = static_cast<int32_t>(raw.size());
    FKind = kind;
    FBegin = position + 4 + length + kHeaderTail;
    FEnd = FBegin + bytes;
    std::vector<char> tag(static_cast<size_t>(FEnd - position));
    char* at = tag.data();
    auto put = [&at](const void* data, size_t size) {
      if (size > 0) std::memcpy(at, data, size);
      at += size;
    };
    put(&length, 4);
    put(raw.data(), raw.size());
    put(&kind, 4);
    put(&FBegin, 8);
    put(&FEnd, 8);
    put(values, static_cast<size_t>(bytes));
    if (!WriteAllBytes(file, tag.data(), static_cast<int64_t>(tag.size()))) return teWriteFileError;
    return FileSeek(file, 0, TSeekOrigin::End) < 0 ? teWriteFileError : teNoError;
  }
  TTagError result = WriteTag(file, name, kind);
  if (result < 1) return result;
  if (bytes > 0 && !WriteAllBytes(file, values, bytes)) return teWriteFileError;
  return CloseWriteTag(file);
}

TTagError TTagControl::SaveIntTag(TFileHandle file, const std::string& name, const int32_t* values,
                                  int64_t count) {
  return SaveValueTag(file, name, TTagKind::Int, values, count * 4);
}
TTagError TTagControl::SaveInt64Tag(TFileHandle file, const std::string& name, const int64_t* values,
                                    int64_t count) {
  return SaveValueTag(file, name, TTagKind::Int64, values, count * 8);
}
TTagError TTagControl::SaveDoubleTag(TFileHandle file, const std::string& name, const double* values,
                                     int64_t count) {
  return SaveValueTag(file, name, TTagKind::Double, values, count * 8);
}
TTagError TTagControl::SaveFloatTag(TFileHandle file, const std::string& name, const float* values,
                                    int64_t count) {
  return SaveValueTag(file, name, TTagKind::Float, values, count * 4);
}
TTagError TTagControl::SaveWordTag(TFileHandle file, const std::string& name, const uint16_t* values,
                                   int64_t count) {
  return SaveValueTag(file, name, TTagKind::Word, values, count * 2);
}
TTagError TTagControl::SaveByteTag(TFileHandle file, const std::string& name, const uint8_t* values,
                                   int64_t count) {
  return SaveValueTag(file, name, TTagKind::Byte, values, count);
}
TTagError TTagControl::SaveBoolTag(TFileHandle file, const std::string& name, const bool* values,
                                   int64_t count) {
  return SaveValueTag(file, name, TTagKind::Bool, values, count);
}

TTagError TTagControl::SaveAnsiStringTag(TFileHandle file, const std::string& name, const std::string& text) {
  // The value as SaveAnsiStringToFile writes it: the length, then the Windows-1252 bytes.
  const std::string bytes = Utf8ToCp1252(text);
  const auto length = static_cast<int32_t>(bytes.size());
  std::string value(4, '\0');
  std::memcpy(value.data(), &length, 4);
  value += bytes;
  return SaveValueTag(file, name, TTagKind::AnsiString, value.data(), static_cast<int64_t>(value.size()));
}

TTagError TTagControl::SaveDoubleAndFloatTag(TFileHandle file, const std::string& name, const double* values,
                                             int64_t count) {
  TTagError result = SaveDoubleTag(file, name + "_D", values, count);
  if (result < 1) return result;
  std::vector<float> floats(static_cast<size_t>(count > 0 ? count : 0));
  for (int64_t i = 0; i < count; ++i) floats[i] = SafeDoubleToFloat(values[i]);
  return SaveFloatTag(file, name, floats.data(), count);
}

TTagError TTagControl::SaveStringList(TFileHandle file, const std::string& name,
                                      const std::vector<std::string>& strings) {
  TTagControl list;
  TTagError result = list.WriteTag(file, name, TTagKind::TagList);
  if (result < 1) return result;
  TTagControl tag;
  result = tag.SaveIntTag(file, "Count", static_cast<int32_t>(strings.size()));
  if (result < 1) return result;
  result = tag.WriteTag(file, "Strings", TTagKind::AnsiString);
  if (result < 1) return result;
  for (const auto& s : strings) {
    result = SaveAnsiStringToFile(file, s);
    if (result < 1) return result;
  }
  result = tag.CloseWriteTag(file);
  if (result < 1) return result;
  return list.CloseWriteTag(file);
}

TTagError TTagControl::SaveList(TFileHandle file, const std::string& name, const TIntList& list) {
  TTagControl listTag;
  TTagError result = listTag.WriteTag(file, name, TTagKind::TagList);
  if (result < 1) return result;
  TTagControl tag;
  result = tag.SaveIntTag(file, "Count", static_cast<int32_t>(list.size()));
  if (result < 1) return result;
  result = tag.SaveIntTag(file, "Data", list.data(), static_cast<int64_t>(list.size()));
  if (result < 1) return result;
  return listTag.CloseWriteTag(file);
}

// ---------------------------------------------------------------------------------------------
// Reading

TTagError TTagControl::ReadTagAt(TFileHandle file, int64_t position, std::string& name, int64_t& headerEnd) {
  // One read takes the name's length, the name and the rest of the header, unless the name is long: a
  // file of many tags is searched with one system call a tag.
  constexpr int64_t kShortHeader = 256;
  char buffer[kShortHeader];
  const int64_t got = ReadBytesAt(file, buffer, kShortHeader, position);
  if (got < 0) return teReadFileError;
  if (got < 4) return teTagNotFound;
  int32_t length = 0;
  std::memcpy(&length, buffer, 4);
  if (length < 0) return teTagNotFound;
  struct {
    int32_t kind;
    int64_t begin;
    int64_t end;
  } __attribute__((packed)) header{};
  static_assert(sizeof(header) == kHeaderTail);
  const int64_t needed = 4 + static_cast<int64_t>(length) + kHeaderTail;
  std::string bytes;
  if (needed <= got) {
    bytes.assign(buffer + 4, static_cast<size_t>(length));
    std::memcpy(&header, buffer + 4 + length, kHeaderTail);
  } else {
    if (got < kShortHeader) return teTagNotFound; // the file ends inside the header
    // The name and the rest of the header must fit in the file; refuse before allocating the name.
    const int64_t size = FileSize(file);
    if (size < 0 || needed > size - position) return teTagNotFound;
    bytes.resize(static_cast<size_t>(length));
    if (ReadBytesAt(file, bytes.data(), length, position + 4) != length ||
        ReadBytesAt(file, &header, kHeaderTail, position + 4 + length) != kHeaderTail)
      return teTagNotFound;
  }
  const size_t nul = bytes.find('\0');
  if (nul != std::string::npos) bytes.resize(nul);
  name = Cp1252ToUtf8(bytes);
  FKind = static_cast<TTagKind>(header.kind);
  FBegin = header.begin;
  FEnd = header.end;
  headerEnd = position + needed;
  return teNoError;
}

TTagError TTagControl::ReadTag(TFileHandle file, std::string& name) {
  const int64_t position = FilePosition(file);
  if (position < 0) return teReadFileError;
  int64_t headerEnd = 0;
  const TTagError result = ReadTagAt(file, position, name, headerEnd);
  if (result < 1) return result;
  return FileSeek(file, headerEnd, TSeekOrigin::Begin) < 0 ? teReadFileError : teNoError;
}

TTagError TTagControl::FindTag(TFileHandle file, const std::string& name, const TTagControl& parent) {
  int64_t pos = parent.FBegin;
  std::string found;
  while (pos >= parent.FBegin && pos < parent.FEnd) {
    int64_t headerEnd = 0;
    const TTagError result = ReadTagAt(file, pos, found, headerEnd);
    if (result < 1) return result;
    // Every walk must advance: a tag whose payload doesn't lie behind its own header ends it.
    if (FBegin <= pos || FEnd < FBegin) return teTagNotFound;
    if (found == name) {
      if (FileSeek(file, FBegin, TSeekOrigin::Begin) < 0) return teReadFileError;
      return teNoError;
    }
    pos = FEnd;
  }
  return teTagNotFound;
}

template <typename T>
TTagError TTagControl::LoadValueTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                    T* values, int64_t count) {
  const TTagError result = FindTag(file, name, parent);
  if (result != teNoError) return result;
  if constexpr (std::is_same_v<T, bool>)
    return LoadBoolFromFile(file, values, count);
  else
    return ReadAllBytes(file, values, count * static_cast<int64_t>(sizeof(T))) < 0 ? teReadFileError
                                                                                   : teNoError;
}

template <typename T>
TTagError TTagControl::LoadOrDefaultValueTag(TFileHandle file, const std::string& name,
                                             const TTagControl& parent, T* values, int64_t count,
                                             T defaultValue) {
  const TTagError result = FindTag(file, name, parent);
  if (result >= 1) {
    if constexpr (std::is_same_v<T, bool>)
      return LoadBoolFromFile(file, values, count);
    else
      return ReadAllBytes(file, values, count * static_cast<int64_t>(sizeof(T))) < 0 ? teReadFileError
                                                                                     : teNoError;
  }
  for (int64_t i = 0; i < count; ++i) values[i] = defaultValue;
  return teNoError;
}

TTagError TTagControl::LoadIntTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                  int32_t* values, int64_t count) {
  return LoadValueTag(file, name, parent, values, count);
}
TTagError TTagControl::LoadInt64Tag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                    int64_t* values, int64_t count) {
  return LoadValueTag(file, name, parent, values, count);
}
TTagError TTagControl::LoadDoubleTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                     double* values, int64_t count) {
  return LoadValueTag(file, name, parent, values, count);
}
TTagError TTagControl::LoadFloatTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                    float* values, int64_t count) {
  return LoadValueTag(file, name, parent, values, count);
}
TTagError TTagControl::LoadWordTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                   uint16_t* values, int64_t count) {
  return LoadValueTag(file, name, parent, values, count);
}
TTagError TTagControl::LoadByteTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                   uint8_t* values, int64_t count) {
  return LoadValueTag(file, name, parent, values, count);
}
TTagError TTagControl::LoadBoolTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                   bool* values, int64_t count) {
  return LoadValueTag(file, name, parent, values, count);
}

TTagError TTagControl::LoadAnsiStringTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                         std::string& text) {
  const TTagError result = FindTag(file, name, parent);
  if (result != teNoError) return result;
  return LoadAnsiStringFromFile(file, text);
}

TTagError TTagControl::LoadOrDefaultIntTag(TFileHandle file, const std::string& name,
                                           const TTagControl& parent, int32_t* values, int64_t count,
                                           int32_t defaultValue) {
  return LoadOrDefaultValueTag(file, name, parent, values, count, defaultValue);
}
TTagError TTagControl::LoadOrDefaultInt64Tag(TFileHandle file, const std::string& name,
                                             const TTagControl& parent, int64_t* values, int64_t count,
                                             int64_t defaultValue) {
  return LoadOrDefaultValueTag(file, name, parent, values, count, defaultValue);
}
TTagError TTagControl::LoadOrDefaultDoubleTag(TFileHandle file, const std::string& name,
                                              const TTagControl& parent, double* values, int64_t count,
                                              double defaultValue) {
  return LoadOrDefaultValueTag(file, name, parent, values, count, defaultValue);
}
TTagError TTagControl::LoadOrDefaultFloatTag(TFileHandle file, const std::string& name,
                                             const TTagControl& parent, float* values, int64_t count,
                                             float defaultValue) {
  return LoadOrDefaultValueTag(file, name, parent, values, count, defaultValue);
}
TTagError TTagControl::LoadOrDefaultWordTag(TFileHandle file, const std::string& name,
                                            const TTagControl& parent, uint16_t* values, int64_t count,
                                            uint16_t defaultValue) {
  return LoadOrDefaultValueTag(file, name, parent, values, count, defaultValue);
}
TTagError TTagControl::LoadOrDefaultByteTag(TFileHandle file, const std::string& name,
                                            const TTagControl& parent, uint8_t* values, int64_t count,
                                            uint8_t defaultValue) {
  return LoadOrDefaultValueTag(file, name, parent, values, count, defaultValue);
}
TTagError TTagControl::LoadOrDefaultBoolTag(TFileHandle file, const std::string& name,
                                            const TTagControl& parent, bool* values, int64_t count,
                                            bool defaultValue) {
  return LoadOrDefaultValueTag(file, name, parent, values, count, defaultValue);
}

TTagError TTagControl::LoadOrDefaultAnsiStringTag(TFileHandle file, const std::string& name,
                                                  const TTagControl& parent, std::string& text,
                                                  const std::string& defaultValue) {
  if (FindTag(file, name, parent) >= 1) return LoadAnsiStringFromFile(file, text);
  text = defaultValue;
  return teNoError;
}

TTagError TTagControl::LoadDoubleOrFloatTag(TFileHandle file, const std::string& name,
                                            const TTagControl& parent, double* values, int64_t count) {
  if (FindTag(file, name + "_D", parent) == teNoError) return LoadDoubleFromFile(file, values, count);
  const TTagError result = FindTag(file, name, parent);
  if (result != teNoError) return result;
  std::vector<float> floats(static_cast<size_t>(count > 0 ? count : 0));
  for (int64_t i = 0; i < count; ++i) floats[i] = static_cast<float>(values[i]);
  const TTagError readResult = LoadFloatFromFile(file, floats.data(), count);
  if (readResult < 1) return readResult;
  for (int64_t i = 0; i < count; ++i) values[i] = floats[i];
  return teNoError;
}

TTagError TTagControl::LoadOrDefaultDoubleOrFloatTag(TFileHandle file, const std::string& name,
                                                     const TTagControl& parent, double* values, int64_t count,
                                                     double defaultValue) {
  const TTagError result = LoadDoubleOrFloatTag(file, name, parent, values, count);
  if (result == teTagNotFound) {
    for (int64_t i = 0; i < count; ++i) values[i] = defaultValue;
    return teNoError;
  }
  return result;
}

TTagError TTagControl::LoadStringList(TFileHandle file, const std::string& name, const TTagControl& parent,
                                      std::vector<std::string>& strings) {
  strings.clear();
  TTagControl list;
  TTagError result = list.FindTag(file, name, parent);
  if (result != teNoError) return result;
  int32_t count = 0;
  TTagControl tag;
  result = tag.LoadIntTag(file, "Count", list, &count, 1);
  if (result != teNoError) return result;
  result = tag.FindTag(file, "Strings", list);
  if (result != teNoError) return count == 0 ? teNoError : result;
  // Each string needs at least its 4-byte length inside the tag: a corrupt count can't allocate wildly.
  for (int32_t i = 0; i < count; ++i) {
    if (FilePosition(file) + 4 > tag.FEnd) return teReadFileError;
    std::string s;
    result = LoadAnsiStringFromFile(file, s);
    if (result < 1) return result;
    strings.push_back(std::move(s));
  }
  return teNoError;
}

TTagError TTagControl::LoadList(TFileHandle file, const std::string& name, const TTagControl& parent,
                                TIntList& list) {
  TTagControl listTag;
  TTagError result = listTag.FindTag(file, name, parent);
  if (result != teNoError) return result;
  int32_t count = 0;
  TTagControl tag;
  result = tag.LoadIntTag(file, "Count", listTag, &count, 1);
  if (result != teNoError) return result;
  list.clear();
  if (count <= 0) return teNoError;
  result = tag.FindTag(file, "Data", listTag);
  if (result != teNoError) return result;
  // A count larger than the tag holds is corrupt: refuse it before allocating.
  if (static_cast<int64_t>(count) * 4 > tag.FEnd - tag.FBegin) return teReadFileError;
  list.resize(static_cast<size_t>(count));
  return LoadIntFromFile(file, list.data(), count);
}

TTagError TTagControl::MoveToTagBegin(TFileHandle file) const {
  FileSeek(file, FBegin, TSeekOrigin::Begin);
  return teNoError;
}

TTagError TTagControl::MoveToTagEnd(TFileHandle file) const {
  FileSeek(file, FEnd, TSeekOrigin::Begin);
  return teNoError;
}

bool TTagControl::IsFilePointerInsideTagArea(TFileHandle file) const {
  const int64_t position = FilePosition(file);
  return FBegin <= position && position < FEnd;
}

// ---------------------------------------------------------------------------------------------
// Whole trees

TTagError TTagControl::LoadTagListFromFile(TFileHandle file) {
  return LoadTagListFromFileAtDepth(file, FileSize(file), 0);
}

TTagError TTagControl::LoadTagListFromFileAtDepth(TFileHandle file, int64_t fileSize, int depth) {
  const int64_t headerPos = FilePosition(file);
  if (headerPos < 0) return teReadFileError;
  int64_t headerEnd = 0; // what follows is read at known places: the file position may stay where it is
  const TTagError result = ReadTagAt(file, headerPos, FName, headerEnd);
  if (result < 1) return result;
  // A payload that lies before its header, runs backwards or beyond the file is corrupt.
  if (FBegin <= headerPos || FEnd < FBegin || FEnd > fileSize || depth > kMaxTreeDepth) return teTagNotFound;
  if (FKind != TTagKind::TagList) {
    FChildren.reset();
    FData.assign(static_cast<size_t>(FEnd - FBegin), 0);
    FHasData = true;
    if (FileSeek(file, FBegin, TSeekOrigin::Begin) < 0 ||
        ReadAllBytes(file, FData.data(), FEnd - FBegin) != FEnd - FBegin)
      return teReadFileError;
    return teNoError;
  }
  FData.clear();
  FHasData = false;
  int64_t pos = FBegin;
  while (pos >= FBegin && pos < FEnd) {
    if (!FChildren) FChildren = std::make_unique<TChildren>();
    if (FileSeek(file, pos, TSeekOrigin::Begin) < 0) break;
    auto child = std::make_unique<TTagControl>();
    if (child->LoadTagListFromFileAtDepth(file, fileSize, depth + 1) < 1)
      break; // keep what was read before the damage
    // A child must advance and stay inside its parent.
    if (child->FEnd <= pos || child->FEnd > FEnd) break;
    pos = child->FEnd;
    FChildren->push_back(std::move(child));
  }
  return teNoError;
}

TTagError TTagControl::LoadTagListByTagName(TFileHandle file, const std::string& name,
                                            const TTagControl& parent) {
  const TTagError result = FindTag(file, name, parent);
  if (result != teNoError) return result;
  if (FKind != TTagKind::TagList) return teTagNotFound;
  // Re-read from the header so that the children are loaded as by LoadTagListFromFile.
  const int64_t headerPos = FBegin - kHeaderTail - 4 - static_cast<int64_t>(Utf8ToCp1252(name).size());
  if (FileSeek(file, headerPos, TSeekOrigin::Begin) < 0) return teReadFileError;
  DeleteAllChildren();
  return LoadTagListFromFile(file);
}

TTagError TTagControl::LoadTagListByFileName(const std::string& fileName, const std::string& identification) {
  const TFileHandle file = OpenFileForReading(fileName);
  if (file == kInvalidFileHandle) return teCreateFileForReadError;
  std::string found;
  TTagError result = LoadIdentificationFromFile(file, found);
  if (result >= 1 && found != identification) result = teWrongFileIdentification;
  if (result >= 1) result = LoadTagListFromFile(file);
  CloseFile(file);
  return result;
}

namespace {
TTagError SaveSubtree(TTagControl& node, TFileHandle file) {
  TTagError result = node.WriteTag(file, node.Name(), node.Kind());
  if (result < 1) return result;
  if (node.Kind() != TTagKind::TagList) {
    if (node.HasData() && node.DataSize() > 0 && !WriteAllBytes(file, node.Data().data(), node.DataSize()))
      result = teWriteFileError;
  } else if (node.Children()) {
    for (auto& child : *node.Children()) result = FirstError(result, SaveSubtree(*child, file));
  }
  return FirstError(result, node.CloseWriteTag(file));
}
} // namespace

TTagError TTagControl::SaveTagListToFile(TFileHandle file) {
  SaveSubtree(*this, file);
  return teNoError;
}

TTagError TTagControl::SaveTagListToFileByName(const std::string& fileName,
                                               const std::string& identification) {
  return WriteFileSafely(fileName, [&](TFileHandle file) {
    TTagError result = SaveIdentificationToFile(file, identification);
    if (result >= 1) result = SaveSubtree(*this, file);
    return result;
  });
}

// ---------------------------------------------------------------------------------------------
// The in-memory tree

TTagError TTagControl::SetBlock(TTagKind kind, const void* values, int64_t bytes) {
  if (FKind != kind) return teTagNotFound;
  FData.resize(static_cast<size_t>(bytes > 0 ? bytes : 0));
  if (bytes > 0) std::memcpy(FData.data(), values, static_cast<size_t>(bytes));
  FHasData = true;
  return teNoError;
}

TTagError TTagControl::GetBlock(TTagKind kind, void* values, int64_t bytes) const {
  if (FKind != kind || !FHasData || DataSize() != bytes) return teTagNotFound;
  if (bytes > 0) std::memcpy(values, FData.data(), static_cast<size_t>(bytes));
  return teNoError;
}

TTagError TTagControl::SetDoubleTag(const double* values, int64_t count) {
  return SetBlock(TTagKind::Double, values, count * 8);
}
TTagError TTagControl::SetFloatTag(const float* values, int64_t count) {
  return SetBlock(TTagKind::Float, values, count * 4);
}
TTagError TTagControl::SetIntTag(const int32_t* values, int64_t count) {
  return SetBlock(TTagKind::Int, values, count * 4);
}
TTagError TTagControl::SetBoolTag(const bool* values, int64_t count) {
  return SetBlock(TTagKind::Bool, values, count);
}
TTagError TTagControl::SetByteTag(const uint8_t* values, int64_t count) {
  return SetBlock(TTagKind::Byte, values, count);
}

TTagError TTagControl::SetAnsiStringTag(const std::string& text) {
  if (FKind != TTagKind::AnsiString) return teTagNotFound;
  // Stored as it stands on disk: 4-byte length, then the bytes.
  const std::string bytes = Utf8ToCp1252(text);
  const auto length = static_cast<int32_t>(bytes.size());
  FData.resize(4 + bytes.size());
  std::memcpy(FData.data(), &length, 4);
  std::memcpy(FData.data() + 4, bytes.data(), bytes.size());
  FHasData = true;
  return teNoError;
}

TTagError TTagControl::GetDoubleTag(double* values, int64_t count) const {
  return GetBlock(TTagKind::Double, values, count * 8);
}
TTagError TTagControl::GetFloatTag(float* values, int64_t count) const {
  return GetBlock(TTagKind::Float, values, count * 4);
}
TTagError TTagControl::GetIntTag(int32_t* values, int64_t count) const {
  return GetBlock(TTagKind::Int, values, count * 4);
}

TTagError TTagControl::GetBoolTag(bool* values, int64_t count) const {
  if (FKind != TTagKind::Bool || !FHasData || DataSize() != count) return teTagNotFound;
  for (int64_t i = 0; i < count; ++i) values[i] = FData[i] != 0;
  return teNoError;
}

TTagError TTagControl::GetAnsiStringTag(std::string& text) const {
  std::vector<std::string> strings;
  const TTagError result = GetAnsiStringsTag(strings);
  if (result < 1) return result;
  text = strings.empty() ? std::string() : strings.front();
  return teNoError;
}

TTagError TTagControl::GetAnsiStringsTag(std::vector<std::string>& strings) const {
  if (FKind != TTagKind::AnsiString || !FHasData) return teTagNotFound;
  strings.clear();
  size_t pos = 0;
  while (pos + 4 <= FData.size()) {
    int32_t length = 0;
    std::memcpy(&length, FData.data() + pos, 4);
    pos += 4;
    if (length < 0 || static_cast<size_t>(length) > FData.size() - pos) break;
    std::string bytes(reinterpret_cast<const char*>(FData.data() + pos), static_cast<size_t>(length));
    const size_t nul = bytes.find('\0');
    if (nul != std::string::npos) bytes.resize(nul);
    strings.push_back(Cp1252ToUtf8(bytes));
    pos += static_cast<size_t>(length);
  }
  return teNoError;
}

TTagControl* TTagControl::FindTagInList(const std::string& path) const {
  if (!FChildren) return nullptr;
  const size_t bar = path.find('|');
  const std::string head = bar == std::string::npos ? path : path.substr(0, bar);
  for (const auto& child : *FChildren) {
    if (child->FName == head) {
      // Only the first child of a name is followed: no backtracking.
      return bar == std::string::npos ? child.get() : child->FindTagInList(path.substr(bar + 1));
    }
  }
  return nullptr;
}

TTagError TTagControl::GetDoubleTagInList(const std::string& path, double& value) const {
  const TTagControl* tag = FindTagInList(path);
  return tag ? tag->GetDoubleTag(&value, 1) : teTagNotFound;
}
TTagError TTagControl::GetFloatTagInList(const std::string& path, float& value) const {
  const TTagControl* tag = FindTagInList(path);
  return tag ? tag->GetFloatTag(&value, 1) : teTagNotFound;
}
TTagError TTagControl::GetIntTagInList(const std::string& path, int32_t& value) const {
  const TTagControl* tag = FindTagInList(path);
  return tag ? tag->GetIntTag(&value, 1) : teTagNotFound;
}
TTagError TTagControl::GetBoolTagInList(const std::string& path, bool& value) const {
  const TTagControl* tag = FindTagInList(path);
  return tag ? tag->GetBoolTag(&value, 1) : teTagNotFound;
}
TTagError TTagControl::GetAnsiStringTagInList(const std::string& path, std::string& value) const {
  const TTagControl* tag = FindTagInList(path);
  return tag ? tag->GetAnsiStringTag(value) : teTagNotFound;
}

void TTagControl::GetDoubleTagInListOrDefault(const std::string& path, double& value,
                                              double defaultValue) const {
  if (GetDoubleTagInList(path, value) < 1) value = defaultValue;
}
void TTagControl::GetFloatTagInListOrDefault(const std::string& path, float& value,
                                             float defaultValue) const {
  if (GetFloatTagInList(path, value) < 1) value = defaultValue;
}
void TTagControl::GetIntTagInListOrDefault(const std::string& path, int32_t& value,
                                           int32_t defaultValue) const {
  if (GetIntTagInList(path, value) < 1) value = defaultValue;
}
void TTagControl::GetBoolTagInListOrDefault(const std::string& path, bool& value, bool defaultValue) const {
  if (GetBoolTagInList(path, value) < 1) value = defaultValue;
}
void TTagControl::GetAnsiStringTagInListOrDefault(const std::string& path, std::string& value,
                                                  const std::string& defaultValue) const {
  if (GetAnsiStringTagInList(path, value) < 1) value = defaultValue;
}

TTagControl* TTagControl::AddSubTag(const std::string& path, TTagKind kind, const void* data, int64_t count) {
  if (FKind != TTagKind::TagList || !FChildren)
    throw OrvexException("TTagControl::AddSubTag(): Not available for this Tag (must be TagList!)");
  const size_t bar = path.find('|');
  if (bar != std::string::npos) {
    const std::string head = path.substr(0, bar);
    const std::string tail = path.substr(bar + 1);
    for (auto& child : *FChildren)
      if (child->FName == head) return child->AddSubTag(tail, kind, data, count);
    FChildren->push_back(CreateTag(head, TTagKind::TagList));
    return FChildren->back()->AddSubTag(tail, kind, data, count);
  }
  for (auto& child : *FChildren)
    if (child->FName == path)
      throw OrvexException("TTagControl::AddSubTag(): Tag already existing with this name");
  FChildren->push_back(CreateTag(path, kind, data, count));
  return FChildren->back().get();
}

void TTagControl::DeleteAllChildren() {
  if (FChildren) FChildren->clear();
}

void TTagControl::CopyFrom(const TTagControl& source) {
  if (&source == this) return;
  FBegin = source.FBegin;
  FEnd = source.FEnd;
  FKind = source.FKind;
  FName = source.FName;
  if (FKind != TTagKind::TagList) {
    if (!source.FData.empty()) {
      FData = source.FData;
      FHasData = true;
    }
    return;
  }
  if (!FChildren) FChildren = std::make_unique<TChildren>();
  FChildren->clear();
  if (source.FChildren) {
    for (const auto& child : *source.FChildren) {
      auto copy = std::make_unique<TTagControl>();
      copy->CopyFrom(*child);
      FChildren->push_back(std::move(copy));
    }
  }
}

TTagError OpenTagFileForReading(const std::string& fileName, const std::vector<std::string>& accepted,
                                TFileHandle& file, TTagControl& root, std::string* foundIdentification) {
  const TFileHandle handle = OpenFileForReading(fileName);
  if (handle == kInvalidFileHandle) return teCreateFileForReadError;
  std::string identification;
  TTagError result = LoadIdentificationFromFile(handle, identification);
  if (foundIdentification) *foundIdentification = identification;
  if (result >= 1) {
    bool known = false;
    for (const auto& id : accepted) known = known || id == identification;
    if (!known) result = teWrongFileIdentification;
  }
  if (result >= 1) {
    std::string rootName;
    result = root.ReadTag(handle, rootName);
    if (result >= 1) {
      root.SetName(rootName);
      if (root.Begin() <= kTagFileRootOffset || root.End() < root.Begin()) result = teTagNotFound;
    }
  }
  if (result < 1) {
    CloseFile(handle);
    return result;
  }
  file = handle;
  return teNoError;
}
