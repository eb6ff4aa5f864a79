// Structural check of a tag file.
#include "common/Tagvalidate.h"

#include "common/Saveandload.h"

#include <vector>

namespace {

constexpr int kMaxDepth = 1000;

class TValidator {
public:
  TValidator(TFileHandle file, int64_t size, TTagValidationResult& result)
      : FFile(file), FSize(size), FResult(result) {}

  // Checks the tag whose header starts at pos and must end at or before limit; returns its End, or -1.
  int64_t CheckTag(int64_t pos, int64_t limit, std::vector<std::string>& path) {
    if (static_cast<int>(path.size()) > kMaxDepth)
      return Fail("tags nested deeper than " + std::to_string(kMaxDepth) + " levels", pos, path);
    int32_t nameLength = 0;
    if (limit - pos < 4 || !ReadAt(pos, &nameLength, 4))
      return Fail("tag header does not fit in its parent", pos, path);
    if (nameLength < 0) return Fail("negative name length " + std::to_string(nameLength), pos, path);
    if (static_cast<int64_t>(nameLength) + 24 > limit - pos)
      return Fail("tag header does not fit in its parent (name length " + std::to_string(nameLength) + ")",
                  pos, path);
    std::string name(static_cast<size_t>(nameLength), '\0');
    struct {
      int32_t kind;
      int64_t begin;
      int64_t end;
    } __attribute__((packed)) header{};
    if (!ReadAt(pos + 4, name.data(), nameLength) || !ReadAt(pos + 4 + nameLength, &header, 20))
      return Fail("tag header can't be read", pos, path);
    path.push_back(Cp1252ToUtf8(name));
    ++FResult.TagCount;
    const int64_t kindOffset = pos + 4 + nameLength;
    int64_t result = -1;
    if (header.begin != kindOffset + 20)
      result = Fail("Begin " + std::to_string(header.begin) + " is not the offset of Kind + 20 (" +
                        std::to_string(kindOffset + 20) + ")",
                    kindOffset + 4, path);
    else if (header.end < header.begin)
      result = Fail("End " + std::to_string(header.end) + " lies before Begin", kindOffset + 12, path);
    else if (header.end > limit)
      result =
          Fail("End " + std::to_string(header.end) + " lies beyond the parent's End " + std::to_string(limit),
               kindOffset + 12, path);
    else
      result = CheckPayload(static_cast<TTagKind>(header.kind), header.begin, header.end, kindOffset, path);
    path.pop_back();
    return result;
  }

  bool Failed() const { return FFailed; }

private:
  int64_t CheckPayload(TTagKind kind, int64_t begin, int64_t end, int64_t kindOffset,
                       std::vector<std::string>& path) {
    const int64_t length = end - begin;
    switch (kind) {
    case TTagKind::TagList: {
      int64_t pos = begin;
      while (pos < end) {
        const int64_t childEnd = CheckTag(pos, end, path);
        if (childEnd < 0) return -1;
        pos = childEnd;
      }
      return end; // children back to back, the last one ending at the parent's End
    }
    case TTagKind::AnsiString: {
      int64_t pos = begin;
      while (pos < end) {
        int32_t len = 0;
        if (end - pos < 4 || !ReadAt(pos, &len, 4))
          return Fail("string payload is not a whole number of strings", pos, path);
        if (len < 0 || len > end - pos - 4)
          return Fail("string length " + std::to_string(len) + " does not fit in the tag", pos, path);
        pos += 4 + len;
      }
      return end;
    }
    case TTagKind::Double:
    case TTagKind::Float:
    case TTagKind::Int64:
    case TTagKind::Int:
    case TTagKind::Word:
    case TTagKind::Byte:
    case TTagKind::Bool: {
      const int size = TagKindElementSize(kind);
      if (length % size != 0)
        return Fail("payload of " + std::to_string(length) + " bytes is not a whole number of " +
                        TagKindName(kind) + " values",
                    begin, path);
      return end;
    }
    default:
      return Fail("unknown tag kind " + std::to_string(static_cast<int32_t>(kind)), kindOffset, path);
    }
  }

  bool ReadAt(int64_t offset, void* buffer, int64_t size) {
    if (offset < 0 || size < 0 || offset + size > FSize) return false;
    if (FileSeek(FFile, offset, TSeekOrigin::Begin) != offset) return false;
    return ReadAllBytes(FFile, buffer, size) == size;
  }

  int64_t Fail(const std::string& problem, int64_t offset, const std::vector<std::string>& path) {
    if (!FFailed) {
      FFailed = true;
      FResult.Problem = problem;
      FResult.Offset = offset;
      std::string joined;
      for (size_t i = 0; i < path.size(); ++i) joined += (i ? "|" : "") + path[i];
      FResult.Path = joined;
    }
    return -1;
  }

  TFileHandle FFile;
  int64_t FSize;
  TTagValidationResult& FResult;
  bool FFailed = false;
};

} // namespace

TTagValidationResult ValidateTagFile(const std::string& fileName) {
  TTagValidationResult result;
  const TFileHandle file = OpenFileForReading(fileName);
  if (file == kInvalidFileHandle) {
    result.Readable = false;
    result.Problem = GetTagErrorName(teCreateFileForReadError);
    return result;
  }
  const int64_t size = FileSize(file);
  char id[8] = {};
  if (size < 8 || ReadAllBytes(file, id, 8) != 8) {
    result.Problem = "file shorter than its 8-byte identification";
    result.Offset = 0;
    CloseFile(file);
    return result;
  }
  bool padding = false;
  for (int i = 0; i < 8; ++i) {
    const auto c = static_cast<unsigned char>(id[i]);
    if (c == 0) {
      padding = true;
    } else if (padding || c < 0x20 || c > 0x7e) {
      result.Problem = "identification is not ASCII zero-padded on the right";
      result.Offset = i;
      CloseFile(file);
      return result;
    } else {
      result.Identification.push_back(static_cast<char>(c));
    }
  }
  TValidator validator(file, size, result);
  std::vector<std::string> path;
  const int64_t rootEnd = validator.CheckTag(8, size, path);
  if (!validator.Failed()) {
    int32_t kind = -1;
    // Kind of the root: at 8 + 4 + name length.
    int32_t nameLength = 0;
    FileSeek(file, 8, TSeekOrigin::Begin);
    ReadAllBytes(file, &nameLength, 4);
    FileSeek(file, 12 + nameLength, TSeekOrigin::Begin);
    ReadAllBytes(file, &kind, 4);
    if (kind != static_cast<int32_t>(TTagKind::TagList)) {
      result.Problem = "the root tag is not a list";
      result.Offset = 12 + nameLength;
    } else if (rootEnd != size) {
      result.Problem = "the root tag ends at " + std::to_string(rootEnd) + ", not at the end of the file (" +
                       std::to_string(size) + ")";
      result.Offset = rootEnd;
    } else {
      result.Valid = true;
    }
  }
  CloseFile(file);
  return result;
}
