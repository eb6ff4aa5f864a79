// The frame of the viewers that draw a scene (graph and image viewers): the viewer owns its TOpenGLView,
// the workbench's window hosts it (IOpenGLViewOwner), and the view's mouse, wheel and key input reaches
// the viewer through the virtual handlers below. Without a window (command line, tests) the scene is
// built all the same and can be inspected or drawn offscreen.
#pragma once

#include "opengl/Openglview.h"
#include "project/Viewerbase.h"

#include <memory>

class TVCustomGraphicForm : public TVCustomForm, public IOpenGLViewOwner {
public:
  TVCustomGraphicForm();
  ~TVCustomGraphicForm() override;

  TOpenGLView& GetOpenGLView() override { return *FView; }
  const TOpenGLView& GetOpenGLView() const { return *FView; }

protected:
  /// @{ Input from the view, in window pixels (y down). The defaults do nothing; a wheel turn or a key
  /// that a viewer doesn't use returns false (the view then moves its camera, the window takes the key).
  virtual void ViewMouseDown(int /*x*/, int /*y*/, TOpenGLMouseButton /*button*/,
                             TOpenGLShiftState /*shift*/) {}
  virtual void ViewMouseMove(int /*x*/, int /*y*/, TOpenGLShiftState /*shift*/) {}
  virtual void ViewMouseUp(int /*x*/, int /*y*/, TOpenGLMouseButton /*button*/, TOpenGLShiftState /*shift*/) {
  }
  virtual bool ViewMouseWheel(int /*x*/, int /*y*/, double /*steps*/, TOpenGLShiftState /*shift*/) {
    return false;
  }
  virtual bool ViewKeyDown(TOpenGLKey /*key*/, int /*character*/, TOpenGLShiftState /*shift*/) {
    return false;
  }
  /// @}

private:
  std::unique_ptr<TOpenGLView> FView;
  int FUpdateCount = 0;
  bool FAutoUpdateBefore = true;

public:
  /// Counts a multi-step change up: the view repaints once, when the outermost EndUpdate runs.
  void BeginUpdate();
  void EndUpdate();
  bool IsUpdating() const { return FUpdateCount > 0; }
};

/// Holds a viewer's view update counted up for a scope.
class TGraphicUpdateGuard {
public:
  explicit TGraphicUpdateGuard(TVCustomGraphicForm& viewer) : FViewer(viewer) { FViewer.BeginUpdate(); }
  ~TGraphicUpdateGuard() { FViewer.EndUpdate(); }
  TGraphicUpdateGuard(const TGraphicUpdateGuard&) = delete;
  TGraphicUpdateGuard& operator=(const TGraphicUpdateGuard&) = delete;

private:
  TVCustomGraphicForm& FViewer;
};
