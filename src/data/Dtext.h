// Streams and texts: an opaque block of bytes kept with the project, and a text document held in one.
#pragma once

#include "common/Saveandload.h"
#include "data/Dcustom.h"

#include <memory>
#include <string>

/// A data object that owns a memory stream of bytes, or none.
class TDStream : public TData {
  ORVEX_DATA_CLASS(TDStream, TData)
public:
  TDStream();
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return 10; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;

  /// The stream, null when there is none.
  TMemoryByteStream* GetStream() const { return FStream.get(); }
  /// Replaces the stream (null drops it) and reports a data change.
  void SetStream(std::unique_ptr<TMemoryByteStream> stream);
  /// Makes an empty stream when there is none.
  TMemoryByteStream& MakeStream();

private:
  std::unique_ptr<TMemoryByteStream> FStream;
};

/// A text document, rich or plain, as the text viewer wrote it.
class TDText : public TDStream {
  ORVEX_DATA_CLASS(TDText, TDStream)
public:
  TDText();
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return 10; }
  /// After the stream's tags, a "TDText" list with its "Version", as every class writes its own. It holds
  /// nothing else yet, so loading needs it not: files written without it load as well.
  TTagError SaveDataToTagFile(TFileHandle file) override;
  /// The whole document as bytes.
  std::string GetText() const;
  /// Replaces the document and reports a data change.
  void SetText(const std::string& text);
  /// True for a rich-text document.
  bool IsRichText() const;
};

/// Registers the text class (streams aren't created by name).
void RegisterTextClasses();
