// Glyphs for the scene's text, rasterised with the toolkit's font engine. A family the system ships as a
// file (the default "DejaVu Sans" of the scene) is loaded from that file, so text looks alike on every
// machine; other families go through the desktop's font matching.
#pragma once

#include "opengl/Openglcontext.h"

#include <QRawFont>
#include <map>
#include <string>
#include <utility>

class TQtGlyphRasterizer : public IGlyphRasterizer {
public:
  /// The one rasteriser of the process.
  static TQtGlyphRasterizer& Instance();

  bool RasterizeGlyph(const std::string& family, int pixelSize, char32_t c, TGlyphBitmap& glyph) override;
  TFontMetrics GetFontMetrics(const std::string& family, int pixelSize) override;
  /// The font file a family is read from ("" when the desktop's matching is used).
  static std::string FontFileOf(const std::string& family);

private:
  QRawFont& FontFor(const std::string& family, int pixelSize);
  std::map<std::pair<std::string, int>, QRawFont> FFonts;
};
