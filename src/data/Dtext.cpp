// Streams and texts with their file form.
#include "data/Dtext.h"

TDStream::TDStream() {
  SetImageIndex(0);
}

void TDStream::SetStream(std::unique_ptr<TMemoryByteStream> stream) {
  FStream = std::move(stream);
  DoDataChange(TDataChangeInfo::DataChanged);
}

TMemoryByteStream& TDStream::MakeStream() {
  if (!FStream) FStream = std::make_unique<TMemoryByteStream>();
  return *FStream;
}

TTagError TDStream::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TData::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, "TDStream", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1)
    return result;
  if (FStream) {
    const auto& bytes = FStream->Bytes();
    if ((result = t.SaveIntTag(file, "StreamSize", static_cast<int32_t>(bytes.size()))) < 1 ||
        (result = t.SaveByteTag(file, "StreamData", bytes.data(), static_cast<int64_t>(bytes.size()))) < 1)
      return result;
  }
  return own.CloseWriteTag(file);
}

TTagError TDStream::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TData::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.FindTag(file, "TDStream", parent)) < 1) return result;
  int32_t size = 0;
  if (t.LoadIntTag(file, "StreamSize", own, &size) < 1) {
    FStream.reset(); // no stream in the file
    return teNoError;
  }
  if ((result = t.FindTag(file, "StreamData", own)) < 1) return result;
  // The data are exactly the stream's bytes: a size that differs from them is damage (a zeroed size would
  // otherwise drop the text without a word, a larger one is refused before allocating).
  if (size < 0 || size != t.End() - t.Begin()) return teReadFileError;
  auto stream = std::make_unique<TMemoryByteStream>();
  if ((result = LoadStreamFromFile(file, *stream, size)) < 1) return result;
  FStream = std::move(stream);
  return teNoError;
}

TDText::TDText() {
  MakeStream();
  SetCaption("Text");
}

TTagError TDText::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDStream::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, "TDText", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

std::string TDText::GetText() const {
  if (!GetStream()) return {};
  const auto& bytes = GetStream()->Bytes();
  return std::string(bytes.begin(), bytes.end());
}

void TDText::SetText(const std::string& text) {
  auto stream = std::make_unique<TMemoryByteStream>();
  stream->WriteBytes(text.data(), static_cast<int64_t>(text.size()));
  stream->SetPosition(0);
  SetStream(std::move(stream));
}

bool TDText::IsRichText() const {
  return GetText().rfind("{\\rtf", 0) == 0;
}

void RegisterTextClasses() {
  TData::RegisterDataObject(TDText::kClassName, &TDText::CreateDataObject);
}
