// The PCA tool's window: "Calculate PCA" and "Randomize Drawfield", a toolbar for each of its masks (the
// spectral points and the principal components), "Current PC:" with "Add to Mask", "Del. from Mask" and
// "Show reconstructed Image", and windows for the tool's previews. The preview image's draw field is the
// tool's draw field.
#include "common/Standardmessage.h"
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "frame/Qtviewerwindow.h"
#include "tools/multivariate/Pcacore.h"
#include "tools/multivariate/Pcatool.h"
#include "viewers/Vimage.h"
#include "viewers/Vmultigraph.h"

#include <QCheckBox>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QSpinBox>
#include <memory>

namespace {

// The widgets of the window, kept for the refresh after each change of the tool.
struct TPCAControls {
  QPushButton* Calculate = nullptr;
  QPushButton* Randomize = nullptr;
  QSpinBox* SpectrumLower = nullptr;
  QSpinBox* SpectrumUpper = nullptr;
  QSpinBox* CurrentPC = nullptr;
  QPushButton* AddPC = nullptr;
  QPushButton* DeletePC = nullptr;
  QCheckBox* ShowReconstructed = nullptr;
  QSpinBox* PCLower = nullptr;
  QSpinBox* PCUpper = nullptr;
  QWidget* PCMaskBar = nullptr;
  QLabel* Status = nullptr;
};

QPushButton* AddButton(QHBoxLayout* row, const QString& text, QWidget* parent) {
  auto* button = new QPushButton(text, parent);
  button->setObjectName(text);
  row->addWidget(button);
  return button;
}

// Runs an action of the tool; what fails is told to the user.
void Guarded(TPCAForm& tool, const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& e) {
    NotifyUser(tool.GetDialogName() + ":\n\n" + e.what(), tool.GetDialogName(), kSeverityWarning, false);
  }
}

// A row of the mask's buttons with the range it works on (the upper bound exclusive, as the mask's
// buttons read it). mask() gives the mask of the open tool (null when closed).
QWidget* MakeMaskBar(const QString& title, QWidget* parent, QSpinBox*& lower, QSpinBox*& upper,
                     const std::function<TGraphMask*()>& mask) {
  auto* box = new QGroupBox(title, parent);
  box->setObjectName(title);
  auto* layout = new QVBoxLayout(box);
  auto* range = new QHBoxLayout;
  range->addWidget(new QLabel("From:", box));
  lower = new QSpinBox(box);
  lower->setObjectName(title + " From");
  range->addWidget(lower);
  range->addWidget(new QLabel("To (excl.):", box));
  upper = new QSpinBox(box);
  upper->setObjectName(title + " To");
  range->addWidget(upper);
  range->addStretch();
  layout->addLayout(range);
  auto* buttons = new QHBoxLayout;
  const std::pair<const char*, void (TGraphMask::*)(int)> commands[] = {
      {"Set All", &TGraphMask::SetAllButtonClick},         {"Clear All", &TGraphMask::ClearAllButtonClick},
      {"Invert All", &TGraphMask::InvertAllButtonClick},   {"Set Range", &TGraphMask::SetRangeButtonClick},
      {"Clear Range", &TGraphMask::ClearRangeButtonClick}, {"Crop Range", &TGraphMask::CropRangeButtonClick},
      {"Extract Mask", &TGraphMask::ExtractButtonClick}};
  for (const auto& [text, operation] : commands) {
    auto* button = new QPushButton(text, box);
    button->setObjectName(title + " " + text);
    QObject::connect(button, &QPushButton::clicked, box, [mask, operation] {
      if (TGraphMask* m = mask()) (m->*operation)(0);
    });
    buttons->addWidget(button);
  }
  layout->addLayout(buttons);
  return box;
}

void Refresh(TQtToolWindow& window, TPCAForm& tool, TPCAControls& c) {
  const bool open = tool.HasPreviews();
  const bool done = open && tool.IsPCADone();
  const int m = tool.GetComponentCount();
  c.Calculate->setEnabled(tool.IsCalculateEnabled());
  c.Randomize->setEnabled(open && tool.GetPreviewImageID() != 0);
  const int points = open && tool.SpectrumMask() ? tool.SpectrumMask()->GetMaskSize() : 0;
  for (QSpinBox* box : {c.SpectrumLower, c.SpectrumUpper}) {
    const QSignalBlocker block(box);
    box->setRange(0, points);
  }
  for (QSpinBox* box : {c.PCLower, c.PCUpper}) {
    const QSignalBlocker block(box);
    box->setRange(0, m);
  }
  {
    const QSignalBlocker block(c.CurrentPC);
    c.CurrentPC->setRange(0, std::max(0, m - 1));
    c.CurrentPC->setValue(tool.GetCurrentPC());
  }
  c.CurrentPC->setEnabled(done);
  c.AddPC->setEnabled(done);
  c.DeletePC->setEnabled(done);
  c.PCMaskBar->setEnabled(done);
  c.Status->setText(done ? QString("%1 components of %2 spectra; %3 PC(s) in the mask")
                               .arg(m)
                               .arg(static_cast<qlonglong>(tool.Core().PixelCount()))
                               .arg(tool.GetPCMaskCount())
                         : QString("%1 point(s) selected").arg(tool.GetSelectedCount()));
  window.Panel()->Refresh();
  window.Panel()->RefreshStates();
}

TVImageForm* PreviewViewer(TPCAForm& tool) {
  for (TVCustomForm* form : tool.GetCustomForms())
    if (auto* viewer = dynamic_cast<TVImageForm*>(form);
        viewer && viewer->GetImageColorID() == tool.GetPreviewImageID())
      return viewer;
  return nullptr;
}

TVMultiGraphForm* EigenValueViewer(TPCAForm& tool) {
  for (TVCustomForm* form : tool.GetCustomForms())
    if (auto* viewer = dynamic_cast<TVMultiGraphForm*>(form);
        viewer && viewer->IsDataUsed(tool.GetEigenValuesID()))
      return viewer;
  return nullptr;
}

// The eigenvalue graph after a calculation: the first components in view (at most 100), the spectral
// cursor on the current PC.
void ShowEigenValues(TPCAForm& tool) {
  TVMultiGraphForm* viewer = EigenValueViewer(tool);
  if (!viewer || !tool.IsPCADone()) return;
  viewer->SetXRange(-1, std::min(tool.GetComponentCount(), 100));
  viewer->SetCursor(tool.GetCurrentPC());
}

void ShowDrawField(TPCAForm& tool, TVImageForm& viewer) {
  const std::vector<uint8_t>& field = tool.GetDrawField();
  int32_t sizeX = 0, sizeY = 0;
  viewer.GetShownSize(sizeX, sizeY);
  if (sizeX <= 0 || static_cast<size_t>(sizeX) * static_cast<size_t>(sizeY) != field.size()) return;
  const std::unique_ptr<bool[]> flags(new bool[field.size()]);
  for (size_t k = 0; k < field.size(); ++k) flags[k] = field[k] != 0;
  viewer.DrawField().SetFromLinearArray(sizeX, sizeY, flags.get());
  viewer.DrawFieldChanged();
}

// What the user draws in the preview image goes to the tool after the viewer's own handling.
void LinkDrawField(TPCAForm& tool, TVImageForm& viewer) {
  TOpenGLView& view = viewer.GetOpenGLView();
  auto up = view.OnMouseUp;
  TVImageForm* shown = &viewer;
  view.OnMouseUp = [up, &tool, shown](int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) {
    if (up) up(x, y, button, shift);
    if (shown->DrawField().Exists()) tool.SetDrawField(shown->DrawField().Flags());
  };
}

} // namespace

void RegisterPCAWindowExtension() {
  RegisterToolWindowExtension("PCA", [](TQtToolWindow& window, TProjectDialogForm& form) {
    auto* tool = dynamic_cast<TPCAForm*>(&form);
    if (!tool) return;
    auto controls = std::make_shared<TPCAControls>();
    TPCAControls& c = *controls;
    QVBoxLayout* area = window.ExtraArea();

    auto* commands = new QHBoxLayout;
    c.Calculate = AddButton(commands, "Calculate PCA", &window);
    c.Randomize = AddButton(commands, "Randomize Drawfield", &window);
    commands->addStretch();
    area->addLayout(commands);

    area->addWidget(MakeMaskBar("Spectrum Mask", &window, c.SpectrumLower, c.SpectrumUpper,
                                [tool] { return tool->SpectrumMask(); }));

    auto* pcRow = new QHBoxLayout;
    pcRow->addWidget(new QLabel("Current PC:", &window));
    c.CurrentPC = new QSpinBox(&window);
    c.CurrentPC->setObjectName("Current PC");
    pcRow->addWidget(c.CurrentPC);
    c.AddPC = AddButton(pcRow, "Add to Mask", &window);
    c.DeletePC = AddButton(pcRow, "Del. from Mask", &window);
    c.ShowReconstructed = new QCheckBox("Show reconstructed Image", &window);
    c.ShowReconstructed->setObjectName("Show reconstructed Image");
    pcRow->addWidget(c.ShowReconstructed);
    pcRow->addStretch();
    area->addLayout(pcRow);
    c.PCMaskBar = MakeMaskBar("PC Mask", &window, c.PCLower, c.PCUpper, [tool] { return tool->PCMask(); });
    area->addWidget(c.PCMaskBar);
    c.Status = new QLabel(&window);
    c.Status->setObjectName("Status");
    area->addWidget(c.Status);

    TQtToolWindow* w = &window;
    QObject::connect(c.Calculate, &QPushButton::clicked, &window, [tool] {
      Guarded(*tool, [tool] {
        if (tool->CalculatePCA()) ShowEigenValues(*tool);
      });
    });
    QObject::connect(c.Randomize, &QPushButton::clicked, &window,
                     [tool] { Guarded(*tool, [tool] { tool->RandomizeDrawFieldCommand(); }); });
    QObject::connect(c.CurrentPC, &QSpinBox::valueChanged, &window, [tool](int pc) {
      Guarded(*tool, [tool, pc] { tool->SetCurrentPC(pc); });
      if (TVMultiGraphForm* viewer = EigenValueViewer(*tool)) viewer->SetCursor(tool->GetCurrentPC());
    });
    QObject::connect(c.AddPC, &QPushButton::clicked, &window, [tool] { tool->AddCurrentPCToMask(); });
    QObject::connect(c.DeletePC, &QPushButton::clicked, &window, [tool] { tool->DeleteCurrentPCFromMask(); });
    QObject::connect(c.ShowReconstructed, &QCheckBox::toggled, &window, [tool](bool on) {
      Guarded(*tool, [tool, on] { tool->SetShowReconstructedImage(on); });
    });

    QPointer<QWidget> guard(&window);
    tool->OnStateChanged = [tool, controls, guard, w] {
      if (guard) Refresh(*w, *tool, *controls);
    };
    tool->OnDrawFieldChanged = [tool] {
      if (TVImageForm* viewer = PreviewViewer(*tool)) ShowDrawField(*tool, *viewer);
    };
    tool->OnViewersOpened = [tool, controls, guard, w] {
      if (!guard) return;
      // The masks' range buttons read the spin boxes.
      if (TGraphMask* mask = tool->SpectrumMask())
        mask->SetRangeControls([c = controls] { return c->SpectrumLower->value(); },
                               [c = controls] { return c->SpectrumUpper->value(); });
      if (TGraphMask* mask = tool->PCMask())
        mask->SetRangeControls([c = controls] { return c->PCLower->value(); },
                               [c = controls] { return c->PCUpper->value(); });
      if (TVImageForm* viewer = PreviewViewer(*tool)) {
        viewer->MakeDrawFieldImage();
        LinkDrawField(*tool, *viewer);
      }
      {
        const QSignalBlocker block(controls->ShowReconstructed);
        controls->ShowReconstructed->setChecked(tool->GetShowReconstructedImage());
      }
      w->ShowToolViewers();
      Refresh(*w, *tool, *controls);
    };
  });
}
