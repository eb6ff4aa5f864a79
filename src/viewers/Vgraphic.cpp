// The frame of the viewers that draw a scene: the view and its input routing.
#include "viewers/Vgraphic.h"

TVCustomGraphicForm::TVCustomGraphicForm() : FView(std::make_unique<TOpenGLView>()) {
  FView->OnMouseDown = [this](int x, int y, TOpenGLMouseButton b, TOpenGLShiftState s) {
    ViewMouseDown(x, y, b, s);
  };
  FView->OnMouseMove = [this](int x, int y, TOpenGLShiftState s) { ViewMouseMove(x, y, s); };
  FView->OnMouseUp = [this](int x, int y, TOpenGLMouseButton b, TOpenGLShiftState s) {
    ViewMouseUp(x, y, b, s);
  };
  FView->OnMouseWheel = [this](int x, int y, double steps, TOpenGLShiftState s) {
    return ViewMouseWheel(x, y, steps, s);
  };
  FView->OnKeyDown = [this](TOpenGLKey key, int character, TOpenGLShiftState s) {
    return ViewKeyDown(key, character, s);
  };
}

TVCustomGraphicForm::~TVCustomGraphicForm() = default;

void TVCustomGraphicForm::BeginUpdate() {
  if (FUpdateCount++ == 0) {
    FAutoUpdateBefore = FView->GetAutoUpdate();
    FView->SetAutoUpdate(false);
  }
}

void TVCustomGraphicForm::EndUpdate() {
  if (FUpdateCount == 0) return;
  if (--FUpdateCount == 0) {
    FView->SetAutoUpdate(FAutoUpdateBefore);
    FView->RePaint();
  }
}
