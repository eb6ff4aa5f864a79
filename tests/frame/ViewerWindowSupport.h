// Helpers of the tests of viewer windows: finding a viewer's window, a fresh picture of its view, keeping
// it as a screenshot, and the window point of an image pixel's centre.
#pragma once

#include "FrameTestSupport.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qtviewerwindow.h"
#include "project/Project.h"
#include "viewers/Vimage.h"

#include <QApplication>
#include <QImage>
#include <QPoint>
#include <filesystem>
#include <string>

namespace oxframetest {

/// The window that shows viewer, null when it has none.
inline TQtViewerWindow* WindowOfViewer(TVCustomForm* viewer) {
  return TQtViewerWindow::WindowOf(viewer);
}

/// The widget's picture after a fresh frame.
inline QImage Grab(TQtOpenGLWidget* widget) {
  const int before = widget->FrameCount();
  widget->update();
  WaitFor([&] { return widget->FrameCount() > before; });
  return widget->grabFramebuffer().convertToFormat(QImage::Format_RGB888);
}

/// Keeps a picture as a screenshot, name.png in the test's screenshot folder.
inline void Keep(const QImage& image, const std::string& name) {
  std::filesystem::create_directories(ORVEX_SCREENSHOT_DIR);
  image.save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/" + name + ".png"));
}

/// Window pixel (column, row from the top) at the centre of image pixel (x, y) under a space transformation.
inline QPoint WindowPointOfPixel(TProject& project, int32_t transformation, TVImageForm& viewer, int32_t x,
                                 int32_t y) {
  double wx, wy;
  PixelToWorld(project, transformation, x, y, wx, wy);
  TOpenGLView& view = viewer.GetOpenGLView();
  const TOpenGLVector p = view.ProjectPoint(TVImageForm::WorldToModel(wx, wy));
  return {static_cast<int>(p.X), static_cast<int>(view.GetHeight() - p.Y)};
}

/// The same for a pixel of image.
inline QPoint WindowPointOfPixel(TProject& project, const TDImage& image, TVImageForm& viewer, int32_t x,
                                 int32_t y) {
  return WindowPointOfPixel(project, image.GetSpaceTransformationID(), viewer, x, y);
}

} // namespace oxframetest
