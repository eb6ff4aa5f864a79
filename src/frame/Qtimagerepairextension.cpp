// The image repair window's own widget: "Draw your Mask here", an image viewer on the current image whose
// draw field is the repair mask. Each stroke hands the field to the tool and recalculates the preview; a
// change of the current image points the viewer at it with a fresh field.
#include "frame/Qtopenglwidget.h"
#include "frame/Qttoolwindow.h"
#include "project/Project.h"
#include "tools/image/Imagerepairtool.h"
#include "viewers/Vimage.h"

#include <QComboBox>
#include <QLabel>
#include <QVBoxLayout>
#include <memory>

namespace {

/// Keeps the viewer alive as long as the widget that draws it (a child of that widget).
class TMaskViewerHolder : public QObject {
public:
  TMaskViewerHolder(std::unique_ptr<TVImageForm> viewer, QObject* parent)
      : QObject(parent), Viewer(std::move(viewer)) {}
  std::unique_ptr<TVImageForm> Viewer;
};

/// Points the viewer at the tool's current image, with an empty draw field of its size, the pen ready.
void ShowCurrentImage(TVImageForm& viewer, TImageRepairForm& repair) {
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

} // namespace

void RegisterImageRepairWindowExtension() {
  RegisterToolWindowExtension(TImageRepairForm::kClassName,
                              [](TQtToolWindow& window, TProjectDialogForm& tool) {
                                auto* repair = dynamic_cast<TImageRepairForm*>(&tool);
                                if (!repair || !window.ExtraArea() || !repair->GetProject()) return;
                                auto viewer = std::make_unique<TVImageForm>();
                                viewer->SetProject(repair->GetProject());
                                viewer->SetFormCaption(TImageRepairForm::kDrawFieldCaption);
                                TVImageForm& shown = *viewer;
                                auto* label = new QLabel(TImageRepairForm::kDrawFieldCaption, &window);
                                window.ExtraArea()->addWidget(label);
                                auto* widget = new TQtOpenGLWidget(&shown.GetOpenGLView(), &window);
                                widget->setObjectName("RepairMaskView");
                                widget->setMinimumSize(280, 220);
                                window.ExtraArea()->addWidget(widget, 1);
                                new TMaskViewerHolder(std::move(viewer), widget);
                                ShowCurrentImage(shown, *repair);
                                shown.OnDrawFieldChange = [&shown, repair] { HandOverMask(shown, *repair); };
                                if (QComboBox* dataSets = window.DataSetBox())
                                  QObject::connect(dataSets, &QComboBox::activated, widget,
                                                   [&shown, repair] { ShowCurrentImage(shown, *repair); });
                              });
}
