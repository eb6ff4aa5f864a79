// The image repair window's own widget: "Draw your Mask here", an image viewer on the current image whose
// draw field is the repair mask. Each stroke hands the field to the tool and recalculates the preview; a
// change of the current image points the viewer at it with a fresh field.
#include "frame/Qtopenglwidget.h"
#include "frame/Qttoolwindow.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "tools/image/Imagerepairtool.h"
#include "viewers/Vimage.h"

#include <QComboBox>
#include <QEvent>
#include <QLabel>
#include <QVBoxLayout>
#include <memory>

namespace {

/// Points the viewer at the tool's current image, with an empty draw field of its size, the pen ready.
void ShowCurrentImage(TVImageForm& viewer, TImageRepairForm& repair) {
  if (!repair.GetProject()) return;
  viewer.SetProject(repair.GetProject());
  viewer.DeleteDrawField();
  if (repair.GetCurrentID() == 0 || !viewer.SetImageID(repair.GetCurrentID())) return;
  viewer.MakeDrawFieldImage();
  viewer.SetImageMouseMode(TImageMouseMode::DrawPen);
  viewer.SetAll();
}

/// The viewer's draw field becomes the tool's mask over its current image; the preview follows.
void HandOverMask(TVImageForm& viewer, TImageRepairForm& repair) {
  repair.CopySelectedImageToPreviewImageDrawField();
  std::vector<uint8_t>& mask = repair.DrawField();
  const TImageDrawField& field = viewer.DrawField();
  if (!field.Exists() || static_cast<int64_t>(mask.size()) != int64_t(field.GetSizeX()) * field.GetSizeY())
    return;
  for (int32_t y = 0; y < field.GetSizeY(); ++y)
    for (int32_t x = 0; x < field.GetSizeX(); ++x)
      mask[static_cast<size_t>(y) * static_cast<size_t>(field.GetSizeX()) + static_cast<size_t>(x)] =
          field.GetPixel(x, y) ? 1 : 0;
  repair.DoPreviewImages();
}

/// Keeps the viewer alive as long as the widget that draws it (a child of that widget), and points it at
/// the tool's current image each time the window opens (the tool has its project and inputs by then).
class TMaskViewerHolder : public QObject {
public:
  TMaskViewerHolder(std::unique_ptr<TVImageForm> viewer, TImageRepairForm& repair, QObject* parent)
      : QObject(parent), Viewer(std::move(viewer)), Repair(repair) {}
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::Show) ShowCurrentImage(*Viewer, Repair);
    return QObject::eventFilter(watched, event);
  }
  std::unique_ptr<TVImageForm> Viewer;
  TImageRepairForm& Repair;
};

} // namespace

void RegisterImageRepairWindowExtension() {
  const std::string key = TToolRegistry::KeyFromClassName(TImageRepairForm::kClassName);
  RegisterToolWindowExtension(key, [](TQtToolWindow& window, TProjectDialogForm& tool) {
    auto* repair = dynamic_cast<TImageRepairForm*>(&tool);
    if (!repair || !window.ExtraArea()) return;
    auto viewer = std::make_unique<TVImageForm>();
    viewer->SetFormCaption(TImageRepairForm::kDrawFieldCaption);
    TVImageForm& shown = *viewer;
    auto* label = new QLabel(TImageRepairForm::kDrawFieldCaption, &window);
    window.ExtraArea()->addWidget(label);
    auto* widget = new TQtOpenGLWidget(&shown.GetOpenGLView(), &window);
    widget->setObjectName("RepairMaskView");
    widget->setMinimumSize(280, 220);
    window.ExtraArea()->addWidget(widget, 1);
    window.installEventFilter(new TMaskViewerHolder(std::move(viewer), *repair, widget));
    shown.OnDrawFieldChange = [&shown, repair] { HandOverMask(shown, *repair); };
    if (QComboBox* dataSets = window.DataSetBox())
      QObject::connect(dataSets, &QComboBox::activated, widget,
                       [&shown, repair] { ShowCurrentImage(shown, *repair); });
  });
}
