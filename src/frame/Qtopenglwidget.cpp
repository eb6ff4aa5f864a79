// The rendering widget of a scene.
#include "frame/Qtopenglwidget.h"

#include "frame/Qtglyphrasterizer.h"
#include "opengl/Openglview.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <QWheelEvent>
#include <cmath>

QSurfaceFormat OpenGLViewSurfaceFormat() {
  QSurfaceFormat format;
  format.setRenderableType(QSurfaceFormat::OpenGL);
  format.setProfile(QSurfaceFormat::CompatibilityProfile);
  format.setVersion(2, 1);
  format.setDepthBufferSize(24);
  format.setStencilBufferSize(8);
  format.setSamples(0);
  format.setRedBufferSize(8);
  format.setGreenBufferSize(8);
  format.setBlueBufferSize(8);
  format.setAlphaBufferSize(8);
  return format;
}

TQtOpenGLWidget::TQtOpenGLWidget(TOpenGLView* view, QWidget* parent) : QOpenGLWidget(parent), FView(view) {
  setFormat(OpenGLViewSurfaceFormat());
  setMouseTracking(true);
  setFocusPolicy(Qt::StrongFocus);
  setMinimumSize(50, 50);
  // Changes within the delay make one repaint.
  FRepaintTimer.setSingleShot(true);
  QObject::connect(&FRepaintTimer, &QTimer::timeout, this, [this] { update(); });
  FContinuousTimer.setInterval(16);
  QObject::connect(&FContinuousTimer, &QTimer::timeout, this, [this] { update(); });
}

TQtOpenGLWidget::~TQtOpenGLWidget() {
  ReleaseContextResources();
  // The base class destroys the context after this part of the widget is gone: no call back into it then.
  if (context()) QObject::disconnect(context(), nullptr, this, nullptr);
}

void TQtOpenGLWidget::ReleaseContextResources() {
  if (!FView) return;
  if (context() && context()->isValid()) {
    makeCurrent();
    FOffscreen.reset();
    if (FView->GetContext() == this) FView->ReleaseOpenGL();
    doneCurrent();
  } else if (FView->GetContext() == this) {
    FView->Deactivate();
  }
}

void TQtOpenGLWidget::DetachView() {
  ReleaseContextResources();
  FView = nullptr;
  update();
}

void TQtOpenGLWidget::initializeGL() {
  // The context goes before the widget in some cases (reparenting, closing): give up its names then.
  QObject::connect(context(), &QOpenGLContext::aboutToBeDestroyed, this,
                   [this] { ReleaseContextResources(); });
  if (!FView) return;
  FView->InitOpenGL(this);
  FView->SetViewportSize(GetWidth(), GetHeight());
  FView->Activate();
}

void TQtOpenGLWidget::resizeGL(int, int) {
  if (FView) FView->SetViewportSize(GetWidth(), GetHeight());
}

void TQtOpenGLWidget::paintGL() {
  ++FFrames;
  if (!FView) {
    QOpenGLFunctions* f = context()->functions();
    f->glClearColor(1, 1, 1, 1);
    f->glClear(GL_COLOR_BUFFER_BIT);
    return;
  }
  FView->SetViewportSize(GetWidth(), GetHeight());
  FView->Paint();
}

bool TQtOpenGLWidget::MakeCurrent() {
  if (!context() || !context()->isValid()) return false;
  makeCurrent();
  return true;
}

void TQtOpenGLWidget::DoneCurrent() {
  doneCurrent();
}

int TQtOpenGLWidget::GetWidth() const {
  return std::max(1, static_cast<int>(std::lround(width() * devicePixelRatioF())));
}

int TQtOpenGLWidget::GetHeight() const {
  return std::max(1, static_cast<int>(std::lround(height() * devicePixelRatioF())));
}

void TQtOpenGLWidget::ScheduleRepaint(int delayMs) {
  if (FRepaintTimer.isActive()) return;
  FRepaintTimer.start(std::max(0, delayMs));
}

void TQtOpenGLWidget::SetContinuousRepaint(bool on) {
  on ? FContinuousTimer.start() : FContinuousTimer.stop();
}

bool TQtOpenGLWidget::BeginOffscreen(int width, int height) {
  if (!MakeCurrent()) return false;
  QOpenGLFramebufferObjectFormat format;
  format.setAttachment(QOpenGLFramebufferObject::CombinedDepthStencil);
  format.setInternalTextureFormat(GL_RGBA8);
  format.setSamples(0);
  FOffscreen = std::make_unique<QOpenGLFramebufferObject>(width, height, format);
  if (!FOffscreen->isValid() || !FOffscreen->bind()) {
    FOffscreen.reset();
    doneCurrent();
    return false;
  }
  return true;
}

void TQtOpenGLWidget::EndOffscreen() {
  if (FOffscreen) {
    FOffscreen->release();
    FOffscreen.reset();
  }
  context()->functions()->glBindFramebuffer(GL_FRAMEBUFFER, defaultFramebufferObject());
  doneCurrent();
}

void TQtOpenGLWidget::ViewDestroyed() {
  FView = nullptr;
  FOffscreen.reset();
  update();
}

IGlyphRasterizer* TQtOpenGLWidget::GetGlyphRasterizer() {
  return &TQtGlyphRasterizer::Instance();
}

namespace {

TOpenGLMouseButton ButtonOf(Qt::MouseButton button) {
  switch (button) {
  case Qt::RightButton:
    return TOpenGLMouseButton::Right;
  case Qt::MiddleButton:
    return TOpenGLMouseButton::Middle;
  default:
    return TOpenGLMouseButton::Left;
  }
}

TOpenGLShiftState ShiftOf(Qt::KeyboardModifiers m) {
  return {m.testFlag(Qt::ShiftModifier), m.testFlag(Qt::ControlModifier), m.testFlag(Qt::AltModifier)};
}

} // namespace

void TQtOpenGLWidget::mousePressEvent(QMouseEvent* event) {
  if (!FView) return;
  const qreal r = devicePixelRatioF();
  FView->MouseDown(static_cast<int>(event->position().x() * r), static_cast<int>(event->position().y() * r),
                   ButtonOf(event->button()), ShiftOf(event->modifiers()));
}

void TQtOpenGLWidget::mouseMoveEvent(QMouseEvent* event) {
  if (!FView) return;
  const qreal r = devicePixelRatioF();
  FView->MouseMove(static_cast<int>(event->position().x() * r), static_cast<int>(event->position().y() * r),
                   ShiftOf(event->modifiers()));
}

void TQtOpenGLWidget::mouseReleaseEvent(QMouseEvent* event) {
  if (!FView) return;
  const qreal r = devicePixelRatioF();
  FView->MouseUp(static_cast<int>(event->position().x() * r), static_cast<int>(event->position().y() * r),
                 ButtonOf(event->button()), ShiftOf(event->modifiers()));
}

void TQtOpenGLWidget::wheelEvent(QWheelEvent* event) {
  if (!FView) return;
  const qreal r = devicePixelRatioF();
  FView->MouseWheel(static_cast<int>(event->position().x() * r), static_cast<int>(event->position().y() * r),
                    event->angleDelta().y() / 120.0, ShiftOf(event->modifiers()));
}

void TQtOpenGLWidget::keyPressEvent(QKeyEvent* event) {
  if (!FView) return QOpenGLWidget::keyPressEvent(event);
  TOpenGLKey key = TOpenGLKey::Character;
  switch (event->key()) {
  case Qt::Key_Left:
    key = TOpenGLKey::Left;
    break;
  case Qt::Key_Right:
    key = TOpenGLKey::Right;
    break;
  case Qt::Key_Up:
    key = TOpenGLKey::Up;
    break;
  case Qt::Key_Down:
    key = TOpenGLKey::Down;
    break;
  case Qt::Key_PageUp:
    key = TOpenGLKey::PageUp;
    break;
  case Qt::Key_PageDown:
    key = TOpenGLKey::PageDown;
    break;
  case Qt::Key_Home:
    key = TOpenGLKey::Home;
    break;
  case Qt::Key_End:
    key = TOpenGLKey::End;
    break;
  case Qt::Key_F5:
    key = TOpenGLKey::F5;
    break;
  case Qt::Key_F6:
    key = TOpenGLKey::F6;
    break;
  case Qt::Key_Delete:
    key = TOpenGLKey::Delete;
    break;
  case Qt::Key_Escape:
    key = TOpenGLKey::Escape;
    break;
  case Qt::Key_Return:
  case Qt::Key_Enter:
    key = TOpenGLKey::Return;
    break;
  default:
    break;
  }
  const QString text = event->text();
  const int character = key == TOpenGLKey::Character ? (text.isEmpty() ? 0 : text.at(0).unicode()) : 0;
  if (key == TOpenGLKey::Character && character == 0) return QOpenGLWidget::keyPressEvent(event);
  if (!FView->KeyDown(key, character, ShiftOf(event->modifiers()))) QOpenGLWidget::keyPressEvent(event);
}
