// Glyph bitmaps from the toolkit's font engine.
#include "frame/Qtglyphrasterizer.h"

#include <QFile>
#include <QFont>
#include <QGlyphRun>
#include <QImage>
#include <QPainter>
#include <cmath>

TQtGlyphRasterizer& TQtGlyphRasterizer::Instance() {
  static TQtGlyphRasterizer instance;
  return instance;
}

std::string TQtGlyphRasterizer::FontFileOf(const std::string& family) {
  static const std::pair<const char*, const char*> kFiles[] = {
      {"DejaVu Sans", "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"},
      {"DejaVu Sans Mono", "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf"},
      {"DejaVu Serif", "/usr/share/fonts/truetype/dejavu/DejaVuSerif.ttf"},
  };
  for (const auto& [name, file] : kFiles)
    if (family == name && QFile::exists(file)) return file;
  return "";
}

QRawFont& TQtGlyphRasterizer::FontFor(const std::string& family, int pixelSize) {
  const auto key = std::make_pair(family, pixelSize);
  auto it = FFonts.find(key);
  if (it != FFonts.end()) return it->second;
  QRawFont font;
  const std::string file = FontFileOf(family);
  if (!file.empty()) font.loadFromFile(QString::fromStdString(file), pixelSize, QFont::PreferFullHinting);
  if (!font.isValid()) {
    QFont matched(QString::fromStdString(family));
    matched.setPixelSize(pixelSize);
    font = QRawFont::fromFont(matched);
  }
  return FFonts.emplace(key, font).first->second;
}

bool TQtGlyphRasterizer::RasterizeGlyph(const std::string& family, int pixelSize, char32_t c,
                                        TGlyphBitmap& glyph) {
  QRawFont& font = FontFor(family, pixelSize);
  if (!font.isValid() || !font.supportsCharacter(static_cast<uint>(c))) return false;
  const QString text = QString::fromUcs4(&c, 1);
  const QList<quint32> indexes = font.glyphIndexesForString(text);
  if (indexes.size() != 1) return false;
  const QList<QPointF> advances = font.advancesForGlyphIndexes(indexes);
  glyph.Advance = advances.isEmpty() ? 0 : advances.front().x();
  // Draw the glyph on a transparent picture with room around it, then keep the covered part: its offset
  // from the pen is the bearing.
  const int ascent = static_cast<int>(std::ceil(font.ascent()));
  const int descent = static_cast<int>(std::ceil(font.descent()));
  const int pad = std::max(2, pixelSize / 2);
  const int w = static_cast<int>(std::ceil(std::max(glyph.Advance, 1.0))) + 2 * pad + pixelSize;
  const int h = ascent + descent + 2 * pad;
  QImage image(w, h, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  {
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setPen(Qt::white);
    QGlyphRun run;
    run.setRawFont(font);
    run.setGlyphIndexes(indexes);
    run.setPositions({QPointF(0, 0)});
    painter.drawGlyphRun(QPointF(pad, pad + ascent), run);
  }
  int left = w, right = -1, top = h, bottom = -1;
  for (int y = 0; y < h; ++y) {
    const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
    for (int x = 0; x < w; ++x)
      if (qAlpha(line[x]) != 0) {
        left = std::min(left, x);
        right = std::max(right, x);
        top = std::min(top, y);
        bottom = std::max(bottom, y);
      }
  }
  if (right < 0) { // a blank: only its advance
    glyph.Width = glyph.Height = 0;
    glyph.Coverage.clear();
    return true;
  }
  glyph.Width = right - left + 1;
  glyph.Height = bottom - top + 1;
  glyph.BearingX = left - pad;
  glyph.BearingY = pad + ascent - top;
  glyph.Coverage.resize(static_cast<size_t>(glyph.Width) * glyph.Height);
  for (int y = 0; y < glyph.Height; ++y) {
    const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(top + y));
    for (int x = 0; x < glyph.Width; ++x)
      glyph.Coverage[static_cast<size_t>(y) * glyph.Width + x] = static_cast<uint8_t>(qAlpha(line[left + x]));
  }
  return true;
}

TFontMetrics TQtGlyphRasterizer::GetFontMetrics(const std::string& family, int pixelSize) {
  QRawFont& font = FontFor(family, pixelSize);
  if (!font.isValid()) return {};
  return {font.ascent(), font.descent(), font.ascent() + font.descent() + font.leading()};
}
