// The background tool's window: "Drop Spectrum" (a dropped spectrum becomes the reference of the constant
// method; the button reads "Clear Spectrum" while one is held and a click lets it go) and "Get Mask
// Average" (the average spectrum over the pixels drawn into the intensity image becomes the reference).
// The tool's viewers, the preview graph and the intensity image with its draw field, get windows beside
// the tool's window.
#include "common/Standardmessage.h"
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "frame/Qtviewerwindow.h"
#include "tools/spectral/Graphbackgroundsubtraction.h"
#include "viewers/Vimage.h"

#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QHBoxLayout>
#include <QMimeData>
#include <QPushButton>
#include <memory>

namespace {

void Tell(TGraphBackgroundSubtractionForm& tool, const std::string& text,
          TStandardMessageSeverityCategory severity = kSeverityInformation) {
  NotifyUser(text, tool.GetDialogName(), severity, false);
}

// The graph IDs a drop carries: the project manager's list of this session, else a plain number.
std::vector<int32_t> DroppedIDs(const QMimeData* mime) {
  if (!mime) return {};
  if (TQtViewerWindow::DecodeIDs) {
    std::vector<int32_t> ids = TQtViewerWindow::DecodeIDs(mime);
    if (!ids.empty()) return ids;
  }
  if (mime->hasText()) {
    QString text = mime->text().trimmed();
    if (text.startsWith("graph:")) text = text.mid(6);
    bool ok = false;
    const int id = text.toInt(&ok);
    if (ok && id > 0) return {id};
  }
  return {};
}

// The state of the window's own part: the intensity viewer of the tool's current opening.
struct TBackgroundControls {
  TGraphBackgroundSubtractionForm* Tool = nullptr;
  TQtToolWindow* Window = nullptr;
  QPushButton* Drop = nullptr;
  QPushButton* Average = nullptr;
  TVImageForm* Intensity = nullptr;

  // The intensity viewer while it belongs to the open tool (the clean-up releases the tool's viewers).
  TVImageForm* IntensityViewer() const {
    if (!Tool->GetIsActive()) return nullptr;
    for (TVCustomForm* viewer : Tool->GetCustomForms())
      if (viewer == Intensity) return Intensity;
    return nullptr;
  }
  void UpdateDropCaption() const {
    Drop->setText(Tool->GetIsActive() && Tool->HasReferenceSpectrum() ? "Clear Spectrum" : "Drop Spectrum");
  }
  // After the buttons set the reference: its field shows the new ID, the button its caption.
  void ShowReference() const {
    Window->Panel()->Refresh();
    UpdateDropCaption();
  }
};

// Keeps the drop button's caption with the "Reference Spectrum" parameter, whoever sets it.
class TReferenceCaption : public IUserParameterInputMask {
public:
  TReferenceCaption(std::shared_ptr<TBackgroundControls> controls, TUserParameter* parameter)
      : FControls(std::move(controls)), FParameter(parameter) {
    if (FParameter) FParameter->AddInputMask(this);
  }
  ~TReferenceCaption() override {
    if (FParameter) FParameter->RemoveInputMask(this);
  }
  void ShowParameter(const TUserParameter& /*parameter*/) override { FControls->UpdateDropCaption(); }
  void ShowState(bool, bool, TUserParameterFontColor) override {}

private:
  std::shared_ptr<TBackgroundControls> FControls;
  TUserParameter* FParameter;
};

// Watches the drop button (drags and drops) and the window (shown: the tool was opened).
class TBackgroundWatcher : public QObject {
public:
  TBackgroundWatcher(QObject* parent, std::shared_ptr<TBackgroundControls> controls)
      : QObject(parent), FControls(std::move(controls)),
        FCaption(FControls, FControls->Tool->Parameters().GetUserParameterByName(
                                TGraphBackgroundSubtractionForm::kReferenceSpectrum)) {}

  bool eventFilter(QObject* watched, QEvent* event) override {
    TBackgroundControls& c = *FControls;
    if (watched == c.Drop && event->type() == QEvent::DragEnter) {
      auto* drag = static_cast<QDragEnterEvent*>(event);
      if (c.Tool->GetIsActive() && DroppedIDs(drag->mimeData()).size() == 1) drag->acceptProposedAction();
      return true;
    }
    if (watched == c.Drop && event->type() == QEvent::Drop) {
      auto* drop = static_cast<QDropEvent*>(event);
      DropSpectrum(DroppedIDs(drop->mimeData()));
      drop->acceptProposedAction();
      return true;
    }
    if (event->type() == QEvent::Show && watched == parent()) ShowViewers(*static_cast<QWidget*>(parent()));
    return false;
  }

  void DropSpectrum(const std::vector<int32_t>& ids) {
    TBackgroundControls& c = *FControls;
    if (!c.Tool->GetIsActive()) return;
    std::string reason = "Drop one graph of a single spectrum.";
    if (ids.size() != 1 || !c.Tool->SetReferenceSpectrum(ids.front(), reason))
      Tell(*c.Tool, reason, kSeverityWarning);
    c.ShowReference();
  }

  // The intensity image with its draw field for the tool's current opening, and windows for the tool's
  // viewers beside the tool's window.
  void ShowViewers(QWidget& toolWindow) {
    TBackgroundControls& c = *FControls;
    c.UpdateDropCaption();
    if (!c.Tool->GetIsActive() || !c.Tool->GetProject()) return;
    if (!c.IntensityViewer()) {
      c.Intensity = nullptr;
      IToolViewerFactory* factory = IToolViewerFactory::GetFactory();
      const int32_t image = c.Tool->MakeIntensityImage();
      if (factory && image != 0)
        c.Intensity = dynamic_cast<TVImageForm*>(
            c.Tool->AddCustomForm(factory->CreateImageViewer(*c.Tool->GetProject(), image, false)));
      if (c.Intensity) {
        c.Intensity->MakeDrawFieldImage();
        c.Intensity->SetImageMouseMode(TImageMouseMode::DrawPen);
      }
    }
    static_cast<TQtToolWindow&>(toolWindow).ShowToolViewers([&c](TVCustomForm* viewer) {
      return viewer == c.Intensity ? QSize(720, 420) : QSize(700, 460);
    });
  }

  void GetMaskAverage() {
    TBackgroundControls& c = *FControls;
    if (!c.Tool->GetIsActive()) return;
    std::vector<bool> pixels;
    if (TVImageForm* viewer = c.IntensityViewer(); viewer && viewer->DrawField().Exists()) {
      const TImageDrawField& field = viewer->DrawField();
      const auto& flags = field.Flags();
      pixels.assign(flags.begin(), flags.end());
    }
    std::string message;
    if (pixels.empty() || c.Tool->GetMaskAverage(pixels, message) == 0)
      Tell(*c.Tool, message.empty() ? TGraphBackgroundSubtractionForm::kMaskEmptyMessage : message);
    c.ShowReference();
  }

private:
  std::shared_ptr<TBackgroundControls> FControls;
  TReferenceCaption FCaption;
};

// The buttons under the parameters and the watcher of the button and the window.
void ExtendBackgroundWindow(TQtToolWindow& window, TProjectDialogForm& form) {
  auto* tool = dynamic_cast<TGraphBackgroundSubtractionForm*>(&form);
  if (!tool) return;
  auto controls = std::make_shared<TBackgroundControls>();
  controls->Tool = tool;
  controls->Window = &window;
  auto* row = new QHBoxLayout;
  controls->Drop = new QPushButton("Drop Spectrum", &window);
  controls->Drop->setObjectName("Drop Spectrum");
  controls->Drop->setAcceptDrops(true);
  row->addWidget(controls->Drop);
  controls->Average = new QPushButton("Get Mask Average", &window);
  controls->Average->setObjectName("Get Mask Average");
  row->addWidget(controls->Average);
  row->addStretch();
  window.ExtraArea()->addLayout(row);

  auto* watcher = new TBackgroundWatcher(&window, controls);
  controls->Drop->installEventFilter(watcher);
  window.installEventFilter(watcher);
  QObject::connect(controls->Drop, &QPushButton::clicked, watcher, [controls] {
    TBackgroundControls& c = *controls;
    if (!c.Tool->GetIsActive()) return;
    if (c.Tool->HasReferenceSpectrum())
      c.Tool->ClearReferenceSpectrum();
    else
      Tell(*c.Tool, TGraphBackgroundSubtractionForm::kDropSpectrumMessage);
    c.ShowReference();
  });
  QObject::connect(controls->Average, &QPushButton::clicked, watcher,
                   [watcher] { watcher->GetMaskAverage(); });
}

} // namespace

void RegisterGraphBackgroundWindowExtension() {
  RegisterToolWindowExtension("GraphBackgroundSubtraction", ExtendBackgroundWindow);
}
