// Scenes drawn without a window.
#include "frame/Offscreenview.h"

#include "frame/Qtglyphrasterizer.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Viewexport.h"
#include "imaging/Rasterfile.h"
#include "opengl/Openglview.h"

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <algorithm>

TOffscreenOpenGLContext::TOffscreenOpenGLContext(int width, int height)
    : FWidth(std::max(1, width)), FHeight(std::max(1, height)) {
  const QSurfaceFormat format = OpenGLViewSurfaceFormat();
  FSurface = std::make_unique<QOffscreenSurface>();
  FSurface->setFormat(format);
  FSurface->create();
  FContext = std::make_unique<QOpenGLContext>();
  FContext->setFormat(format);
  if (!FSurface->isValid() || !FContext->create()) FContext.reset();
}

TOffscreenOpenGLContext::~TOffscreenOpenGLContext() {
  if (FContext && FTarget && MakeCurrent()) {
    FTarget.reset();
    DoneCurrent();
  }
  FTarget.reset();
  FContext.reset();
  FSurface.reset();
}

bool TOffscreenOpenGLContext::IsValid() const {
  return FContext && FContext->isValid();
}

bool TOffscreenOpenGLContext::MakeCurrent() {
  return IsValid() && FContext->makeCurrent(FSurface.get());
}

void TOffscreenOpenGLContext::DoneCurrent() {
  if (IsValid()) FContext->doneCurrent();
}

bool TOffscreenOpenGLContext::BeginOffscreen(int width, int height) {
  if (!MakeCurrent()) return false;
  QOpenGLFramebufferObjectFormat format;
  format.setAttachment(QOpenGLFramebufferObject::CombinedDepthStencil);
  format.setInternalTextureFormat(GL_RGBA8);
  format.setSamples(0);
  FTarget = std::make_unique<QOpenGLFramebufferObject>(width, height, format);
  if (!FTarget->isValid() || !FTarget->bind()) {
    FTarget.reset();
    DoneCurrent();
    return false;
  }
  return true;
}

void TOffscreenOpenGLContext::EndOffscreen() {
  if (FTarget) {
    FTarget->release();
    FTarget.reset();
  }
  DoneCurrent();
}

IGlyphRasterizer* TOffscreenOpenGLContext::GetGlyphRasterizer() {
  return &TQtGlyphRasterizer::Instance();
}

bool RenderViewOffscreen(TOpenGLView& view, int width, int height, TOpenGLBitmap& bitmap,
                         std::string& error) {
  if (width < 1 || height < 1 || width > 16384 || height > 16384) {
    error = "the picture size " + std::to_string(width) + "x" + std::to_string(height) +
            " lies outside 1x1 … 16384x16384";
    return false;
  }
  if (view.GetContext()) {
    error = "the view is shown in a window";
    return false;
  }
  TOffscreenOpenGLContext context(width, height);
  if (!context.IsValid()) {
    error = "no OpenGL context could be made for drawing offscreen";
    return false;
  }
  const int oldWidth = view.GetWidth(), oldHeight = view.GetHeight();
  context.MakeCurrent();
  view.InitOpenGL(&context);
  view.SetViewportSize(width, height); // the viewer lays its scene out for this size
  view.Activate();
  const bool drawn = view.ExportBitmap(1.0, bitmap);
  context.MakeCurrent();
  view.ReleaseOpenGL();
  view.Deactivate();
  context.DoneCurrent();
  view.SetViewportSize(oldWidth, oldHeight);
  if (!drawn) error = "the view could not be drawn offscreen";
  return drawn;
}

bool ExportViewOffscreen(TOpenGLView& view, int width, int height, const std::string& fileName,
                         std::string& error) {
  if (RasterFormatFromFileName(fileName) == TRasterFormat::Unknown) {
    error = "unknown picture format of \"" + fileName + "\" (use .png, .jpg, .tif)";
    return false;
  }
  TOpenGLBitmap bitmap;
  if (!RenderViewOffscreen(view, width, height, bitmap, error)) return false;
  return WriteRasterFile(fileName, RasterImageFromBitmap(bitmap), error);
}
