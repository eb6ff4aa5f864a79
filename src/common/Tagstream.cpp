// Tag reading over a read-only byte stream.
#include "common/Tagstream.h"

#include <cstring>
#include <limits>

namespace {
// Reads exactly size bytes; a short read is a failure on this path.
TStreamResult ReadExact(IReadStream* stream, void* buffer, int64_t size) {
  auto* p = static_cast<char*>(buffer);
  while (size > 0) {
    const auto chunk = static_cast<uint32_t>(std::min<int64_t>(size, std::numeric_limits<int32_t>::max()));
    uint32_t got = 0;
    const TStreamResult result = stream->Read(p, chunk, &got);
    if (result != kStreamOk) return result;
    if (got == 0) return kStreamFail;
    p += got;
    size -= got;
  }
  return kStreamOk;
}

// Bytes from the current position to the end; restores the position. -1 when unknown.
int64_t RemainingBytes(IReadStream* stream) {
  uint64_t here = 0, end = 0;
  if (stream->Seek(0, TSeekOrigin::Current, &here) != kStreamOk) return -1;
  if (stream->Seek(0, TSeekOrigin::End, &end) != kStreamOk) return -1;
  stream->Seek(static_cast<int64_t>(here), TSeekOrigin::Begin, nullptr);
  return static_cast<int64_t>(end) - static_cast<int64_t>(here);
}
} // namespace

TStreamResult LoadIdentificationFromStream(IReadStream* stream, std::string& identification) {
  char buffer[12] = {};
  const TStreamResult result = ReadExact(stream, buffer, 8);
  if (result == kStreamOk) identification.assign(buffer, ::strnlen(buffer, 8));
  return result;
}

TStreamResult LoadAnsiStringFromStream(IReadStream* stream, std::string& text) {
  int32_t length = 0;
  TStreamResult result = ReadExact(stream, &length, 4);
  if (result != kStreamOk) return result;
  if (length < 0) return kStreamFail;
  if (length == 0) {
    text.clear();
    return kStreamOk;
  }
  const int64_t remaining = RemainingBytes(stream);
  if (remaining >= 0 && length > remaining) return kStreamFail;
  std::string bytes(static_cast<size_t>(length), '\0');
  result = ReadExact(stream, bytes.data(), length);
  if (result != kStreamOk) return result;
  const size_t nul = bytes.find('\0');
  if (nul != std::string::npos) bytes.resize(nul);
  text = Cp1252ToUtf8(bytes);
  return kStreamOk;
}

TStreamResult LoadIntFromStream(IReadStream* stream, int32_t* values, int64_t count) {
  return ReadExact(stream, values, count * 4);
}

TStreamResult LoadByteFromStream(IReadStream* stream, uint8_t* values, int64_t count) {
  return ReadExact(stream, values, count);
}

TStreamResult LoadLargeIntegerFromStream(IReadStream* stream, int64_t& value) {
  return ReadExact(stream, &value, 8);
}

TStreamResult LoadTagKindFromStream(IReadStream* stream, TTagKind& kind) {
  int32_t raw = 0;
  const TStreamResult result = ReadExact(stream, &raw, 4);
  if (result == kStreamOk) kind = static_cast<TTagKind>(raw);
  return result;
}

TStreamResult ReadTagFromStream(IReadStream* stream, TTagControl& tag, std::string& name) {
  TStreamResult result = LoadAnsiStringFromStream(stream, name);
  if (result != kStreamOk) return result;
  TTagKind kind{};
  int64_t begin = 0, end = 0;
  if ((result = LoadTagKindFromStream(stream, kind)) != kStreamOk ||
      (result = LoadLargeIntegerFromStream(stream, begin)) != kStreamOk ||
      (result = LoadLargeIntegerFromStream(stream, end)) != kStreamOk)
    return result;
  tag.SetKind(kind);
  tag.SetRange(begin, end);
  return kStreamOk;
}

TStreamResult FindTagFromStream(IReadStream* stream, TTagControl& tag, const std::string& name,
                                const TTagControl& parent) {
  int64_t pos = parent.Begin();
  std::string found;
  while (pos >= parent.Begin() && pos < parent.End()) {
    TStreamResult result = stream->Seek(pos, TSeekOrigin::Begin, nullptr);
    if (result != kStreamOk) return result;
    result = ReadTagFromStream(stream, tag, found);
    if (result != kStreamOk) return result;
    // Every walk must advance, as on the file path.
    if (tag.Begin() <= pos || tag.End() < tag.Begin()) return kStreamFail;
    if (found == name) return stream->Seek(tag.Begin(), TSeekOrigin::Begin, nullptr);
    pos = tag.End();
  }
  return kStreamFail;
}

TStreamResult LoadByteTagFromStream(IReadStream* stream, TTagControl& tag, const std::string& name,
                                    const TTagControl& parent, uint8_t* values, int64_t count) {
  const TStreamResult result = FindTagFromStream(stream, tag, name, parent);
  if (result != kStreamOk) return result;
  return LoadByteFromStream(stream, values, count);
}

TStreamResult LoadOrDefaultIntTagFromStream(IReadStream* stream, TTagControl& tag, const std::string& name,
                                            const TTagControl& parent, int32_t* values, int64_t count,
                                            int32_t defaultValue) {
  const TStreamResult result = FindTagFromStream(stream, tag, name, parent);
  if (result != kStreamOk) {
    for (int64_t i = 0; i < count; ++i) values[i] = defaultValue;
    return result;
  }
  return LoadIntFromStream(stream, values, count);
}
