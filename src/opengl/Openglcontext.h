// What a scene needs of the window system, as two small interfaces that the workbench implements with its
// toolkit: a rendering context (make current, size, repaint scheduling, an offscreen target for exports)
// and a glyph rasteriser for text. Tests implement them without a toolkit.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The pixel format a host asks for: a compatibility profile with these buffers and no multisampling, so
/// that the same scene gives the same pixels on every run.
struct TOpenGLPixelFormat {
  int DepthBits = 24;
  int StencilBits = 8;
  int Samples = 0;
  bool Compatibility = true;
};

/// A glyph as a coverage bitmap: rows top-down, one byte per pixel (0 empty, 255 covered).
struct TGlyphBitmap {
  int Width = 0;
  int Height = 0;
  /// Offset of the bitmap's left edge from the pen position, in pixels.
  int BearingX = 0;
  /// Offset of the bitmap's top edge above the baseline, in pixels.
  int BearingY = 0;
  /// How far the pen moves after the glyph, in pixels.
  double Advance = 0;
  std::vector<uint8_t> Coverage;
};

/// Metrics of a font at one pixel size.
struct TFontMetrics {
  double Ascent = 0;
  double Descent = 0;
  double LineHeight = 0;
};

/// Turns characters into bitmaps. The workbench supplies one; without it text has no width and draws
/// nothing.
class IGlyphRasterizer {
public:
  virtual ~IGlyphRasterizer() = default;
  /// The glyph of character c of family at pixelSize; false when the font has none.
  virtual bool RasterizeGlyph(const std::string& family, int pixelSize, char32_t c, TGlyphBitmap& glyph) = 0;
  virtual TFontMetrics GetFontMetrics(const std::string& family, int pixelSize) = 0;
};

/// The rendering context of one view, owned by the host window.
class IOpenGLContext {
public:
  virtual ~IOpenGLContext() = default;
  /// Makes the context current on this thread; false when there is none (yet).
  virtual bool MakeCurrent() = 0;
  virtual void DoneCurrent() = 0;
  /// Size of the drawing area in device pixels.
  virtual int GetWidth() const = 0;
  virtual int GetHeight() const = 0;
  /// Asks for a repaint after delayMs; requests within the delay make one repaint. Never paints at once.
  virtual void ScheduleRepaint(int delayMs) = 0;
  /// Keeps repainting as fast as the display allows while on.
  virtual void SetContinuousRepaint(bool on) = 0;
  /// Makes the context current and directs drawing into an offscreen target of width × height with the
  /// same buffers as the window; false when it can't be made.
  virtual bool BeginOffscreen(int width, int height) = 0;
  /// Ends offscreen drawing: drawing goes to the window again.
  virtual void EndOffscreen() = 0;
  /// The glyph rasteriser of this host (null: no text).
  virtual IGlyphRasterizer* GetGlyphRasterizer() = 0;
  /// The view is being destroyed (it has given up its GL names): the host must not touch it any more.
  virtual void ViewDestroyed() = 0;
};
