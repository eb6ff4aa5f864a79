// The window side of a scene: a QOpenGLWidget that gives a TOpenGLView its rendering context (compatibility
// profile, depth 24, stencil 8, no multisampling, so that a scene gives the same pixels on every run),
// repaints it when asked, passes mouse input on, and offers an offscreen framebuffer for exports.
#pragma once

#include "opengl/Openglcontext.h"

#include <QOpenGLWidget>
#include <QSurfaceFormat>
#include <QTimer>
#include <memory>

class TOpenGLView;
class QOpenGLFramebufferObject;

/// The surface format every scene is drawn with.
QSurfaceFormat OpenGLViewSurfaceFormat();

class TQtOpenGLWidget : public QOpenGLWidget, public IOpenGLContext {
public:
  /// Hosts view (not owned). A view that goes first tells the widget (ViewDestroyed); the widget then
  /// draws the background alone.
  TQtOpenGLWidget(TOpenGLView* view, QWidget* parent = nullptr);
  ~TQtOpenGLWidget() override;

  TOpenGLView* View() const { return FView; }
  /// Releases the view's GL names and forgets the view (the widget then draws nothing).
  void DetachView();
  /// Number of frames drawn so far.
  int FrameCount() const { return FFrames; }

  // IOpenGLContext
  bool MakeCurrent() override;
  void DoneCurrent() override;
  int GetWidth() const override;
  int GetHeight() const override;
  void ScheduleRepaint(int delayMs) override;
  void SetContinuousRepaint(bool on) override;
  bool BeginOffscreen(int width, int height) override;
  void EndOffscreen() override;
  IGlyphRasterizer* GetGlyphRasterizer() override;
  void ViewDestroyed() override;

protected:
  void initializeGL() override;
  void resizeGL(int w, int h) override;
  void paintGL() override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;

private:
  void ReleaseContextResources();

  TOpenGLView* FView;
  QTimer FRepaintTimer;
  QTimer FContinuousTimer;
  std::unique_ptr<QOpenGLFramebufferObject> FOffscreen;
  int FFrames = 0;
};
