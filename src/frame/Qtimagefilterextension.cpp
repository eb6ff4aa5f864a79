// The image filter window's own widgets: the custom filters of the user image filter folder in a list
// (choosing one loads it into the Custom page), and Load and Save buttons that go through a file dialog.
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "project/Orvexdirectories.h"
#include "project/Toolregistry.h"
#include "tools/image/Imagefiltertool.h"

#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <filesystem>

namespace {

void FillFilterList(QComboBox& list) {
  list.blockSignals(true);
  list.clear();
  list.addItem("");
  for (const std::string& file : TImageFilterForm::GetUserFilterFiles())
    list.addItem(QFileInfo(QString::fromStdString(file)).fileName(), QString::fromStdString(file));
  list.setCurrentIndex(0);
  list.blockSignals(false);
}

} // namespace

void RegisterImageFilterWindowExtension() {
  const std::string key = TToolRegistry::KeyFromClassName(TImageFilterForm::kClassName);
  RegisterToolWindowExtension(key, [](TQtToolWindow& window, TProjectDialogForm& tool) {
    auto* filter = dynamic_cast<TImageFilterForm*>(&tool);
    if (!filter || !window.ExtraArea()) return;
    auto* row = new QWidget(&window);
    row->setObjectName("CustomFilterFiles");
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(new QLabel("Custom Filters", row));
    auto* list = new QComboBox(row);
    list->setObjectName("CustomFilterList");
    list->setMinimumWidth(140);
    layout->addWidget(list, 1);
    auto* load = new QPushButton("Load", row);
    auto* save = new QPushButton("Save", row);
    layout->addWidget(load);
    layout->addWidget(save);
    window.ExtraArea()->addWidget(row);
    FillFilterList(*list);

    QObject::connect(list, &QComboBox::activated, row, [filter, list, &window](int index) {
      const QString file = list->itemData(index).toString();
      if (!file.isEmpty() && filter->LoadCustomFilter(file.toStdString())) window.Panel()->Refresh();
    });
    QObject::connect(load, &QPushButton::clicked, row, [filter, &window] {
      const QString file = QFileDialog::getOpenFileName(
          &window, "Load Custom Filter", QString::fromStdString(TImageFilterForm::UserFilterFolder()),
          QString(), nullptr, QFileDialog::DontUseNativeDialog);
      if (!file.isEmpty() && filter->LoadCustomFilter(file.toStdString())) window.Panel()->Refresh();
    });
    QObject::connect(save, &QPushButton::clicked, row, [filter, list, &window] {
      const std::string folder = TImageFilterForm::UserFilterFolder();
      std::error_code error;
      if (!folder.empty()) std::filesystem::create_directories(folder, error);
      const QString file =
          QFileDialog::getSaveFileName(&window, "Save Custom Filter", QString::fromStdString(folder),
                                       QString(), nullptr, QFileDialog::DontUseNativeDialog);
      if (file.isEmpty()) return;
      // A failure is told to the user by the tool ("Save failed !").
      if (filter->SaveCustomFilter(file.toStdString())) FillFilterList(*list);
    });
  });
}
