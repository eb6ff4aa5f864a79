// The generic parameter panel.
#include "frame/Qtparampanel.h"

#include "common/parameters/Parametertext.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <cfloat>

TQtParamPanel::TQtParamPanel(TUserParameterAdministrator& administrator, QWidget* parent)
    : QWidget(parent), FAdministrator(administrator) {
  FLayout = new QFormLayout(this);
  Build();
}

TQtParamPanel::~TQtParamPanel() = default;

QWidget* TQtParamPanel::ControlOf(const std::string& name) const {
  for (const auto& [parameter, control] : FControls)
    if (parameter->GetName() == name) return control;
  return nullptr;
}

void TQtParamPanel::Apply(TUserParameter* parameter, const std::string& text) {
  if (FUpdating) return;
  // Through the administrator, so that the checks across parameters apply too.
  const TUserParameterProblems problems =
      FAdministrator.SetParameterValuesFromText({parameter->GetName() + "=" + text});
  for (const auto& [each, control] : FControls) control->setStyleSheet(QString());
  if (problems.empty()) {
    Refresh();
    if (OnProblem) OnProblem(std::string());
    return;
  }
  if (QWidget* control = FControls.count(parameter) ? FControls.at(parameter) : nullptr)
    control->setStyleSheet("background-color: #ffc0c0");
  if (OnProblem) OnProblem(ParameterProblemsMessage(problems));
}

void TQtParamPanel::Build() {
  for (const TUserParameterInfo& info : FAdministrator.DescribeParameters()) {
    TUserParameter* parameter = info.Parameter;
    const QString caption = QString::fromStdString(info.Caption.empty() ? info.Name : info.Caption);
    QWidget* control = nullptr;
    switch (info.Kind) {
    case TUserParameterKind::Int: {
      auto* box = new QSpinBox(this);
      box->setRange(info.HasLowerLimit ? static_cast<int>(info.LowerLimit) : INT32_MIN,
                    info.HasUpperLimit ? static_cast<int>(info.UpperLimit) : INT32_MAX);
      box->setSingleStep(std::max(1, static_cast<int>(info.SmallIncrement)));
      connect(box, &QSpinBox::valueChanged, this,
              [this, parameter](int value) { Apply(parameter, std::to_string(value)); });
      control = box;
      break;
    }
    case TUserParameterKind::Float: {
      auto* box = new QDoubleSpinBox(this);
      box->setDecimals(6);
      box->setRange(info.HasLowerLimit ? info.LowerLimit : -FLT_MAX,
                    info.HasUpperLimit ? info.UpperLimit : FLT_MAX);
      box->setSingleStep(info.SmallIncrement > 0 ? info.SmallIncrement : 0.1);
      connect(box, &QDoubleSpinBox::valueChanged, this, [this, parameter](double value) {
        Apply(parameter, QString::number(value, 'g', 9).toStdString());
      });
      control = box;
      break;
    }
    case TUserParameterKind::Bool: {
      auto* box = new QCheckBox(this);
      if (info.EntryNames.size() == 2) box->setText(QString::fromStdString(info.EntryNames[1]));
      connect(box, &QCheckBox::toggled, this,
              [this, parameter](bool on) { Apply(parameter, on ? "true" : "false"); });
      control = box;
      break;
    }
    case TUserParameterKind::List: {
      auto* box = new QComboBox(this);
      for (const std::string& entry : info.EntryNames) box->addItem(QString::fromStdString(entry));
      connect(box, &QComboBox::currentTextChanged, this,
              [this, parameter](const QString& text) { Apply(parameter, text.toStdString()); });
      control = box;
      break;
    }
    case TUserParameterKind::String: {
      auto* edit = new QLineEdit(this);
      connect(edit, &QLineEdit::editingFinished, this,
              [this, parameter, edit] { Apply(parameter, edit->text().toStdString()); });
      control = edit;
      break;
    }
    case TUserParameterKind::Trigger:
    case TUserParameterKind::ContinuousAction: {
      auto* button = new QPushButton(caption, this);
      connect(button, &QPushButton::clicked, this, [parameter] {
        if (auto* trigger = dynamic_cast<TUserTriggerParameter*>(parameter)) trigger->Trigger();
      });
      FLayout->addRow(button);
      FControls[parameter] = button;
      continue;
    }
    default: { // collections: a heading; their members follow in the walk
      auto* label = new QLabel("<b>" + caption.toHtmlEscaped() + "</b>", this);
      FLayout->addRow(label);
      continue;
    }
    }
    control->setToolTip(QString::fromStdString(info.Description));
    control->setObjectName(QString::fromStdString(info.Name));
    FLayout->addRow(caption, control);
    FControls[parameter] = control;
  }
  Refresh();
}

void TQtParamPanel::Refresh() {
  FUpdating = true;
  for (const TUserParameterInfo& info : FAdministrator.DescribeParameters()) {
    auto found = FControls.find(info.Parameter);
    if (found == FControls.end()) continue;
    QWidget* control = found->second;
    control->setEnabled(info.Enabled);
    control->setVisible(info.Visible);
    if (auto* box = qobject_cast<QSpinBox*>(control))
      box->setValue(QString::fromStdString(info.Value).toInt());
    else if (auto* dbox = qobject_cast<QDoubleSpinBox*>(control))
      dbox->setValue(QString::fromStdString(info.Value).toDouble());
    else if (auto* check = qobject_cast<QCheckBox*>(control))
      check->setChecked(info.Value == "true");
    else if (auto* combo = qobject_cast<QComboBox*>(control))
      combo->setCurrentText(QString::fromStdString(info.Value));
    else if (auto* edit = qobject_cast<QLineEdit*>(control))
      edit->setText(QString::fromStdString(info.Value));
  }
  FUpdating = false;
}
