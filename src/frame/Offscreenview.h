// Drawing a viewer's scene without a window: a rendering context on an offscreen surface of the same pixel
// format as the windows' (compatibility profile, depth 24, stencil 8, no multisampling), so that a picture
// drawn here equals the one on screen at the same size. Needs a display connection (Xvfb will do).
#pragma once

#include "opengl/Openglcontext.h"

#include <memory>
#include <string>

class QOffscreenSurface;
class QOpenGLContext;
class QOpenGLFramebufferObject;
class TOpenGLView;
struct TOpenGLBitmap;

class TOffscreenOpenGLContext : public IOpenGLContext {
public:
  /// A context whose drawing area is width × height pixels.
  TOffscreenOpenGLContext(int width, int height);
  ~TOffscreenOpenGLContext() override;
  /// False when no context could be made (no display, no OpenGL).
  bool IsValid() const;

  bool MakeCurrent() override;
  void DoneCurrent() override;
  int GetWidth() const override { return FWidth; }
  int GetHeight() const override { return FHeight; }
  /// Nothing is drawn by itself here: a picture is drawn when asked for.
  void ScheduleRepaint(int /*delayMs*/) override {}
  void SetContinuousRepaint(bool /*on*/) override {}
  bool BeginOffscreen(int width, int height) override;
  void EndOffscreen() override;
  IGlyphRasterizer* GetGlyphRasterizer() override;
  void ViewDestroyed() override {}

private:
  int FWidth;
  int FHeight;
  std::unique_ptr<QOffscreenSurface> FSurface;
  std::unique_ptr<QOpenGLContext> FContext;
  std::unique_ptr<QOpenGLFramebufferObject> FTarget;
};

/// Draws view, which no window hosts, at width × height pixels into bitmap: the view takes the context for
/// the drawing (its scene is laid out for that size) and gives it up after. False with the reason in error.
bool RenderViewOffscreen(TOpenGLView& view, int width, int height, TOpenGLBitmap& bitmap, std::string& error);
/// The same, written as a picture file (PNG, JPEG or TIFF by the name).
bool ExportViewOffscreen(TOpenGLView& view, int width, int height, const std::string& fileName,
                         std::string& error);
