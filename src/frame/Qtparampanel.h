// One generic panel for any set of user parameters: a labelled control per parameter, built from the
// parameters' own description (kind, limits, entries), bound both ways.
#pragma once

#include "common/parameters/Userparameteradministrator.h"

#include <QWidget>
#include <functional>
#include <map>

class QFormLayout;

class TQtParamPanel : public QWidget {
public:
  /// Shows the parameters of administrator (not owned; it must outlive the panel's use).
  explicit TQtParamPanel(TUserParameterAdministrator& administrator, QWidget* parent = nullptr);
  ~TQtParamPanel() override;
  /// Shows every value again (after a change that didn't come from this panel).
  void Refresh();
  /// The control of the parameter named name (tests), null when none.
  QWidget* ControlOf(const std::string& name) const;
  /// Told after each value the user enters: the problem when it was refused (the control shows red and
  /// the parameter keeps its value), empty when it was taken.
  std::function<void(const std::string& problem)> OnProblem;

private:
  void Build();
  /// Sets the parameter from the control's text; a refused value shows the parameter's own again.
  void Apply(TUserParameter* parameter, const std::string& text);

  TUserParameterAdministrator& FAdministrator;
  QFormLayout* FLayout = nullptr;
  std::map<TUserParameter*, QWidget*> FControls;
  bool FUpdating = false; ///< set while values are shown, so that showing doesn't set them again
};
