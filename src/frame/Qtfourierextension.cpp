// The Image Fourier Filter's window: the amplitude image in an image viewer whose draw field is the tool's
// draw field (the pen marks the frequencies that "Free Hand" removes), the filtered preview beside it, and
// the timer that recalculates the preview a moment after the last change.
#include "frame/Qttoolwindow.h"
#include "tools/image/Imagefourierfilter.h"
#include "viewers/Vimage.h"

#include <QPointer>
#include <QTimer>
#include <memory>

namespace {

TVImageForm* ViewerOfImage(TProjectDialogForm& tool, int32_t imageID) {
  for (TVCustomForm* form : tool.GetCustomForms())
    if (auto* viewer = dynamic_cast<TVImageForm*>(form); viewer && viewer->GetImageColorID() == imageID)
      return viewer;
  return nullptr;
}

// The marks the amplitude viewer shows: the hand-drawn ones for "Free Hand", the pattern's otherwise.
void ShowMarks(TImageFourierFilterForm& tool, TVImageForm& viewer) {
  const int n = tool.GetN();
  if (n <= 0) return;
  const std::vector<uint8_t>& marks =
      tool.GetFilterType() == TFourierFilterType::FreeHand ? tool.DrawField() : tool.GetAppliedField();
  if (marks.size() != static_cast<size_t>(n) * static_cast<size_t>(n)) return;
  if (viewer.DrawField().GetSizeX() == n && viewer.DrawField().GetSizeY() == n &&
      viewer.DrawField().Flags() == marks)
    return;
  const std::unique_ptr<bool[]> flags(new bool[marks.size()]);
  for (size_t k = 0; k < marks.size(); ++k) flags[k] = marks[k] != 0;
  viewer.DrawField().SetFromLinearArray(n, n, flags.get());
  viewer.DrawFieldChanged();
}

// The user's strokes go to the tool while "Free Hand" is chosen; the tool waits for the end of a series.
void TakeOverStrokes(TImageFourierFilterForm& tool, TVImageForm& viewer) {
  if (tool.GetFilterType() != TFourierFilterType::FreeHand) return;
  if (viewer.DrawField().GetSizeX() != tool.GetN() || viewer.DrawField().GetSizeY() != tool.GetN()) return;
  tool.SetDrawField(viewer.DrawField().Flags());
}

// The viewer's own mouse handling first (it paints the draw field), then the strokes to the tool.
void LinkStrokes(TImageFourierFilterForm& tool, TVImageForm& viewer) {
  TOpenGLView& view = viewer.GetOpenGLView();
  auto down = view.OnMouseDown;
  auto move = view.OnMouseMove;
  auto up = view.OnMouseUp;
  TVImageForm* shown = &viewer;
  view.OnMouseDown = [down, &tool, shown](int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) {
    if (down) down(x, y, button, shift);
    TakeOverStrokes(tool, *shown);
  };
  view.OnMouseMove = [move, &tool, shown](int x, int y, TOpenGLShiftState shift) {
    if (move) move(x, y, shift);
    TakeOverStrokes(tool, *shown);
  };
  view.OnMouseUp = [up, &tool, shown](int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) {
    if (up) up(x, y, button, shift);
    TakeOverStrokes(tool, *shown);
  };
}

} // namespace

void RegisterImageFourierFilterWindowExtension() {
  RegisterToolWindowExtension("ImageFourierFilter", [](TQtToolWindow& window, TProjectDialogForm& form) {
    auto* tool = dynamic_cast<TImageFourierFilterForm*>(&form);
    if (!tool) return;
    auto* timer = new QTimer(&window);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, &window, [tool] { tool->UpdateTimerElapsed(); });
    tool->SetUpdateTimer([timer](int milliseconds) { timer->start(milliseconds); });
    QPointer<QWidget> guard(&window);
    tool->OnViewersOpened = [tool, guard] {
      if (!guard) return;
      if (TVImageForm* amplitude = ViewerOfImage(*tool, tool->GetAmplitudeImageID())) {
        amplitude->MakeDrawFieldImage();
        amplitude->SetImageMouseMode(TImageMouseMode::DrawPen);
        ShowMarks(*tool, *amplitude);
        LinkStrokes(*tool, *amplitude);
      }
      static_cast<TQtToolWindow*>(guard.data())->ShowToolViewers([](TVCustomForm*) {
        return QSize(600, 520);
      });
    };
    tool->OnPreviewUpdated = [tool] {
      if (TVImageForm* amplitude = ViewerOfImage(*tool, tool->GetAmplitudeImageID()))
        ShowMarks(*tool, *amplitude);
    };
  });
}
