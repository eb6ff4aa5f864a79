// Glyph atlases and text drawing.
#include "opengl/Openglfont.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <GL/gl.h>
#include <GL/glu.h>

std::u32string DecodeUTF8(const std::string& text) {
  std::u32string out;
  out.reserve(text.size());
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char b = s[i];
    int length = 0;
    char32_t c = 0;
    if (b < 0x80) {
      out.push_back(b);
      ++i;
      continue;
    }
    if ((b & 0xE0) == 0xC0) {
      length = 2;
      c = b & 0x1F;
    } else if ((b & 0xF0) == 0xE0) {
      length = 3;
      c = b & 0x0F;
    } else if ((b & 0xF8) == 0xF0) {
      length = 4;
      c = b & 0x07;
    }
    bool ok = length > 0 && i + static_cast<size_t>(length) <= n;
    for (int k = 1; ok && k < length; ++k) {
      const unsigned char t = s[i + static_cast<size_t>(k)];
      ok = (t & 0xC0) == 0x80;
      c = (c << 6) | (t & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not characters.
    static const char32_t kMinimum[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (ok && (c < kMinimum[length] || (c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF)) ok = false;
    if (ok) {
      out.push_back(c);
      i += static_cast<size_t>(length);
    } else {
      out.push_back(0xFFFD);
      ++i;
    }
  }
  return out;
}

// --- Atlas ---------------------------------------------------------------------------------------------

namespace {
constexpr int kAtlasWidth = 256;
constexpr int kAtlasStartHeight = 64;
constexpr int kPadding = 1;
} // namespace

TGlyphAtlas::TGlyphAtlas(std::string family, int pixelSize)
    : FFamily(std::move(family)), FPixelSize(pixelSize) {
  FTexture.SetSize(kAtlasWidth, kAtlasStartHeight);
  // White everywhere: the coverage sits in alpha, so the current colour shows through.
  for (size_t i = 0; i < FTexture.Pixels().size(); i += 4) std::memset(&FTexture.Pixels()[i], 255, 3);
}

void TGlyphAtlas::Grow() {
  const int w = FTexture.GetWidth(), h = FTexture.GetHeight();
  std::vector<uint8_t> old = std::move(FTexture.Pixels());
  FTexture.SetSize(w, h * 2);
  for (size_t i = 0; i < FTexture.Pixels().size(); i += 4) std::memset(&FTexture.Pixels()[i], 255, 3);
  // Rows are kept top-down in memory, so the old rows stay where they were.
  std::copy(old.begin(), old.end(), FTexture.Pixels().begin());
  FTexture.Invalidate();
}

bool TGlyphAtlas::Place(int width, int height, int& x, int& y) {
  if (width + 2 * kPadding > FTexture.GetWidth()) return false;
  if (FShelfX + width + kPadding > FTexture.GetWidth()) {
    FShelfY += FShelfHeight;
    FShelfX = 0;
    FShelfHeight = 0;
  }
  while (FShelfY + height + 2 * kPadding > FTexture.GetHeight()) {
    if (FTexture.GetHeight() >= 8192) return false;
    Grow();
  }
  x = FShelfX + kPadding;
  y = FShelfY + kPadding;
  FShelfX += width + kPadding;
  FShelfHeight = std::max(FShelfHeight, height + kPadding);
  return true;
}

const TAtlasGlyph* TGlyphAtlas::Glyph(char32_t c, IGlyphRasterizer* rasterizer) {
  if (const auto it = FGlyphs.find(c); it != FGlyphs.end()) return &it->second;
  if (!rasterizer || FMissing.count(c)) return nullptr;
  TGlyphBitmap bitmap;
  if (!rasterizer->RasterizeGlyph(FFamily, FPixelSize, c, bitmap) || bitmap.Width < 0 || bitmap.Height < 0 ||
      bitmap.Coverage.size() < static_cast<size_t>(bitmap.Width) * bitmap.Height) {
    FMissing[c] = true;
    return nullptr;
  }
  TAtlasGlyph glyph;
  glyph.Width = bitmap.Width;
  glyph.Height = bitmap.Height;
  glyph.BearingX = bitmap.BearingX;
  glyph.BearingY = bitmap.BearingY;
  glyph.Advance = bitmap.Advance;
  if (glyph.Width > 0 && glyph.Height > 0) {
    if (!Place(glyph.Width, glyph.Height, glyph.X, glyph.Y)) {
      FMissing[c] = true;
      return nullptr;
    }
    std::vector<uint8_t>& pixels = FTexture.Pixels();
    for (int row = 0; row < glyph.Height; ++row)
      for (int col = 0; col < glyph.Width; ++col)
        pixels[(static_cast<size_t>(glyph.Y + row) * FTexture.GetWidth() + glyph.X + col) * 4 + 3] =
            bitmap.Coverage[static_cast<size_t>(row) * bitmap.Width + col];
    FTexture.Invalidate();
  }
  return &FGlyphs.emplace(c, glyph).first->second;
}

std::vector<TGlyphQuad> TGlyphAtlas::Layout(const std::u32string& text, IGlyphRasterizer* rasterizer,
                                            double& width) {
  // Glyphs first: packing may grow the atlas, which changes every texture coordinate.
  for (char32_t c : text) Glyph(c, rasterizer);
  std::vector<TGlyphQuad> quads;
  double pen = 0;
  const double w = FTexture.GetWidth(), h = FTexture.GetHeight();
  for (char32_t c : text) {
    const TAtlasGlyph* g = Glyph(c, rasterizer);
    if (!g) continue;
    if (g->Width > 0 && g->Height > 0) {
      TGlyphQuad q;
      // Whole pixels: the pen is rounded so that glyphs stay on the pixel grid.
      const double x = std::round(pen) + g->BearingX;
      q.X0 = x;
      q.X1 = x + g->Width;
      q.Y1 = g->BearingY;
      q.Y0 = g->BearingY - g->Height;
      q.U0 = static_cast<float>(g->X / w);
      q.U1 = static_cast<float>((g->X + g->Width) / w);
      q.V0 = static_cast<float>((g->Y + g->Height) / h); // bottom edge of the glyph
      q.V1 = static_cast<float>(g->Y / h);
      quads.push_back(q);
    }
    pen += g->Advance;
  }
  width = pen;
  return quads;
}

TFontMetrics TGlyphAtlas::Metrics(IGlyphRasterizer* rasterizer) {
  if (!FHaveMetrics && rasterizer) {
    FMetrics = rasterizer->GetFontMetrics(FFamily, FPixelSize);
    FHaveMetrics = true;
  }
  return FHaveMetrics ? FMetrics : TFontMetrics{};
}

// --- Fonts ---------------------------------------------------------------------------------------------

TOpenGLFont::TOpenGLFont(std::string family, double size) : FFamily(std::move(family)), FSize(size) {}

TGlyphAtlas& TOpenGLFont::AtlasFor(int pixelSize) {
  pixelSize = std::clamp(pixelSize, 1, 512);
  auto& atlas = FAtlases[pixelSize];
  if (!atlas) atlas = std::make_unique<TGlyphAtlas>(FFamily, pixelSize);
  return *atlas;
}

void TOpenGLFont::ReleaseOpenGL() {
  for (auto& [size, atlas] : FAtlases) atlas->Texture().ReleaseOpenGL();
}

void TOpenGLFont::AlignmentOffset(const TTextExtent& e, THorizontalAlignment horizontal,
                                  TVerticalAlignment vertical, double& dx, double& dy) {
  dx = horizontal == THorizontalAlignment::Left     ? 0
       : horizontal == THorizontalAlignment::Center ? -e.Width / 2
                                                    : -e.Width;
  switch (vertical) {
  case TVerticalAlignment::Top:
    dy = -e.Ascent;
    break;
  case TVerticalAlignment::Center:
    dy = -(e.Ascent - e.Descent) / 2;
    break;
  case TVerticalAlignment::Baseline:
    dy = 0;
    break;
  case TVerticalAlignment::Bottom:
    dy = e.Descent;
    break;
  }
}

namespace {

TTextExtent MeasureInAtlas(TGlyphAtlas& atlas, const std::string& text, IGlyphRasterizer* rasterizer) {
  TTextExtent e;
  if (!rasterizer) return e;
  atlas.Layout(DecodeUTF8(text), rasterizer, e.Width);
  const TFontMetrics m = atlas.Metrics(rasterizer);
  e.Ascent = m.Ascent;
  e.Descent = m.Descent;
  return e;
}

void DrawQuads(const std::vector<TGlyphQuad>& quads, double dx, double dy, double scale) {
  glBegin(GL_QUADS);
  for (const TGlyphQuad& q : quads) {
    glTexCoord2f(q.U0, q.V0);
    glVertex2d(dx + q.X0 * scale, dy + q.Y0 * scale);
    glTexCoord2f(q.U1, q.V0);
    glVertex2d(dx + q.X1 * scale, dy + q.Y0 * scale);
    glTexCoord2f(q.U1, q.V1);
    glVertex2d(dx + q.X1 * scale, dy + q.Y1 * scale);
    glTexCoord2f(q.U0, q.V1);
    glVertex2d(dx + q.X0 * scale, dy + q.Y1 * scale);
  }
  glEnd();
}

bool InSelectMode() {
  GLint mode = GL_RENDER;
  glGetIntegerv(GL_RENDER_MODE, &mode);
  return mode == GL_SELECT;
}

} // namespace

TTextExtent TOpenGL2DFont::MeasureText(const std::string& text, double size) {
  const int pixels = static_cast<int>(std::lround(size > 0 ? size : FSize));
  return MeasureInAtlas(AtlasFor(pixels), text, FRasterizer);
}

void TOpenGL2DFont::RenderText(const TOpenGLVector& anchor, const std::string& text, double size,
                               THorizontalAlignment horizontal, TVerticalAlignment vertical,
                               double rotationDegrees, const std::shared_ptr<TOpenGLResourceBin>& bin,
                               double referenceScale) {
  // Screen text isn't picked: the pick matrix has no meaning in the pixel overlay.
  if (!FRasterizer || text.empty() || InSelectMode()) return;
  const int pixels = static_cast<int>(std::lround((size > 0 ? size : FSize) * referenceScale));
  TGlyphAtlas& atlas = AtlasFor(pixels);
  TTextExtent extent;
  const std::vector<TGlyphQuad> quads = atlas.Layout(DecodeUTF8(text), FRasterizer, extent.Width);
  if (quads.empty()) return;
  const TFontMetrics m = atlas.Metrics(FRasterizer);
  extent.Ascent = m.Ascent;
  extent.Descent = m.Descent;
  double dx, dy;
  AlignmentOffset(extent, horizontal, vertical, dx, dy);

  GLdouble modelView[16], projection[16];
  GLint viewport[4];
  glGetDoublev(GL_MODELVIEW_MATRIX, modelView);
  glGetDoublev(GL_PROJECTION_MATRIX, projection);
  glGetIntegerv(GL_VIEWPORT, viewport);
  GLdouble wx, wy, wz;
  if (gluProject(anchor.X, anchor.Y, anchor.Z, modelView, projection, viewport, &wx, &wy, &wz) != GL_TRUE)
    return;

  glPushAttrib(GL_ENABLE_BIT | GL_COLOR_BUFFER_BIT | GL_TEXTURE_BIT);
  glDisable(GL_DEPTH_TEST);
  glDisable(GL_LIGHTING);
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  glMatrixMode(GL_PROJECTION);
  glPushMatrix();
  glLoadIdentity();
  glOrtho(viewport[0], viewport[0] + viewport[2], viewport[1], viewport[1] + viewport[3], -1, 1);
  glMatrixMode(GL_MODELVIEW);
  glPushMatrix();
  glLoadIdentity();
  // The anchor on a whole pixel, the glyphs on whole pixels from there.
  glTranslated(std::round(wx), std::round(wy), 0);
  if (rotationDegrees != 0) glRotated(rotationDegrees, 0, 0, 1);
  glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_MODULATE);
  atlas.Texture().Bind(bin);
  DrawQuads(quads, std::round(dx), std::round(dy), 1.0);
  atlas.Texture().Release();
  glPopMatrix();
  glMatrixMode(GL_PROJECTION);
  glPopMatrix();
  glMatrixMode(GL_MODELVIEW);
  glPopAttrib();
}

TTextExtent TOpenGL3DFont::MeasureText(const std::string& text, double size) {
  TTextExtent e = MeasureInAtlas(AtlasFor(RasterPixelSize), text, FRasterizer);
  const double f = (size > 0 ? size : FSize) / RasterPixelSize;
  return {e.Width * f, e.Ascent * f, e.Descent * f};
}

void TOpenGL3DFont::RenderText(const TOpenGLVector& anchor, const std::string& text, double size,
                               THorizontalAlignment horizontal, TVerticalAlignment vertical,
                               double rotationDegrees, const std::shared_ptr<TOpenGLResourceBin>& bin,
                               double /*referenceScale*/) {
  if (!FRasterizer || text.empty()) return;
  TGlyphAtlas& atlas = AtlasFor(RasterPixelSize);
  TTextExtent extent;
  const std::vector<TGlyphQuad> quads = atlas.Layout(DecodeUTF8(text), FRasterizer, extent.Width);
  if (quads.empty()) return;
  const TFontMetrics m = atlas.Metrics(FRasterizer);
  extent.Ascent = m.Ascent;
  extent.Descent = m.Descent;
  double dx, dy;
  AlignmentOffset(extent, horizontal, vertical, dx, dy);
  const double scale = (size > 0 ? size : FSize) / RasterPixelSize;
  glPushAttrib(GL_ENABLE_BIT | GL_COLOR_BUFFER_BIT | GL_TEXTURE_BIT);
  glEnable(GL_BLEND);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  glPushMatrix();
  glTranslated(anchor.X, anchor.Y, anchor.Z);
  if (rotationDegrees != 0) glRotated(rotationDegrees, 0, 0, 1);
  glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_MODULATE);
  atlas.Texture().SetFilter(TOpenGLTextureFilter::Linear);
  atlas.Texture().Bind(bin);
  DrawQuads(quads, dx * scale, dy * scale, scale);
  atlas.Texture().Release();
  glPopMatrix();
  glPopAttrib();
}
