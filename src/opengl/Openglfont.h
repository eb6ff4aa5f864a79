// Text in the scene: a glyph atlas per font and pixel size. The characters a text uses are rasterised by
// the host's IGlyphRasterizer when first met, packed into one texture per size, and drawn as textured
// quads: in screen pixels, aligned to whole pixels, by TOpenGL2DFont; in model units by TOpenGL3DFont.
// Without a rasteriser every text is 0 wide and draws nothing.
#pragma once

#include "opengl/Openglbase.h"
#include "opengl/Openglcontext.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

/// The characters of UTF-8 text; a byte that starts no valid sequence reads as U+FFFD.
std::u32string DecodeUTF8(const std::string& text);

/// Where a glyph lies in its atlas and how it stands on the baseline, in pixels.
struct TAtlasGlyph {
  int X = 0;
  int Y = 0; ///< top row of the glyph in the atlas, rows counted from the top
  int Width = 0;
  int Height = 0;
  int BearingX = 0;
  int BearingY = 0;
  double Advance = 0;
};

/// One quad of laid-out text: the rectangle relative to the pen start on the baseline (y up, pixels) and
/// its texture coordinates in the atlas.
struct TGlyphQuad {
  double X0 = 0, Y0 = 0, X1 = 0, Y1 = 0;
  float U0 = 0, V0 = 0, U1 = 0, V1 = 0;
};

/// The glyphs of one font at one pixel size, packed in rows (shelves) into a texture whose height grows
/// by doubling as glyphs arrive.
class TGlyphAtlas {
public:
  TGlyphAtlas(std::string family, int pixelSize);

  /// The glyph of c, rasterised and packed on first use; null without a rasteriser or when the font has
  /// no such character.
  const TAtlasGlyph* Glyph(char32_t c, IGlyphRasterizer* rasterizer);
  /// Quads of the text from a pen at 0 on the baseline; width gets the advance of the whole text.
  std::vector<TGlyphQuad> Layout(const std::u32string& text, IGlyphRasterizer* rasterizer, double& width);
  TFontMetrics Metrics(IGlyphRasterizer* rasterizer);

  int GetPixelSize() const { return FPixelSize; }
  /// The atlas picture: white, coverage in alpha.
  TOpenGLTexture& Texture() { return FTexture; }
  int GlyphCount() const { return static_cast<int>(FGlyphs.size()); }

private:
  bool Place(int width, int height, int& x, int& y);
  void Grow();

  std::string FFamily;
  int FPixelSize;
  std::map<char32_t, TAtlasGlyph> FGlyphs;
  std::map<char32_t, bool> FMissing;
  TOpenGLTexture FTexture;
  int FShelfX = 0;
  int FShelfY = 0;
  int FShelfHeight = 0;
  bool FHaveMetrics = false;
  TFontMetrics FMetrics;
};

/// How a text stands at its anchor.
enum class THorizontalAlignment { Left, Center, Right };
enum class TVerticalAlignment { Top, Center, Baseline, Bottom };

/// Size of a laid-out text: width and the extent above and below the baseline (in the font's units).
struct TTextExtent {
  double Width = 0;
  double Ascent = 0;
  double Descent = 0;
};

/// A font of the scene: a family and a size, with an atlas per pixel size in use.
class TOpenGLFont {
public:
  TOpenGLFont(std::string family, double size);
  virtual ~TOpenGLFont() = default;

  const std::string& GetFamily() const { return FFamily; }
  /// The default size of texts in this font (pixels for 2D, model units for 3D).
  double GetSize() const { return FSize; }
  void SetSize(double size) { FSize = size; }
  void SetRasterizer(IGlyphRasterizer* rasterizer) { FRasterizer = rasterizer; }
  IGlyphRasterizer* GetRasterizer() const { return FRasterizer; }

  /// The extent of text at size (0: the font's size), in the font's units.
  virtual TTextExtent MeasureText(const std::string& text, double size = 0) = 0;
  /// Draws text at anchor (model coordinates of the current matrix) with the current colour.
  virtual void RenderText(const TOpenGLVector& anchor, const std::string& text, double size,
                          THorizontalAlignment horizontal, TVerticalAlignment vertical,
                          double rotationDegrees, const std::shared_ptr<struct TOpenGLResourceBin>& bin,
                          double referenceScale) = 0;
  /// Deletes the atlas textures (context current).
  void ReleaseOpenGL();

protected:
  TGlyphAtlas& AtlasFor(int pixelSize);
  /// Offset of the pen start from the anchor for an aligned text.
  static void AlignmentOffset(const TTextExtent& extent, THorizontalAlignment horizontal,
                              TVerticalAlignment vertical, double& dx, double& dy);

  std::string FFamily;
  double FSize;
  IGlyphRasterizer* FRasterizer = nullptr;
  std::map<int, std::unique_ptr<TGlyphAtlas>> FAtlases;
};

/// Text in screen pixels: the anchor is projected to the window and the glyphs are drawn on whole pixels,
/// upright (or rotated about the anchor), whatever the camera does. Sizes are pixels; an export at a
/// higher resolution scales them by the reference scale.
class TOpenGL2DFont : public TOpenGLFont {
public:
  using TOpenGLFont::TOpenGLFont;
  TTextExtent MeasureText(const std::string& text, double size = 0) override;
  void RenderText(const TOpenGLVector& anchor, const std::string& text, double size,
                  THorizontalAlignment horizontal, TVerticalAlignment vertical, double rotationDegrees,
                  const std::shared_ptr<TOpenGLResourceBin>& bin, double referenceScale) override;
};

/// Text in model space: sizes are model units; glyphs are rasterised at RasterPixelSize and scaled.
class TOpenGL3DFont : public TOpenGLFont {
public:
  using TOpenGLFont::TOpenGLFont;
  int RasterPixelSize = 48;
  TTextExtent MeasureText(const std::string& text, double size = 0) override;
  void RenderText(const TOpenGLVector& anchor, const std::string& text, double size,
                  THorizontalAlignment horizontal, TVerticalAlignment vertical, double rotationDegrees,
                  const std::shared_ptr<TOpenGLResourceBin>& bin, double referenceScale) override;
};
