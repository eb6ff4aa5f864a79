// Exporting from the workbench: the file dialog names the files it will write and refuses a bad name while
// staying open; a MAT export lands in the chosen folder under the chosen name, a text export of a spectrum
// goes on the clipboard, and the filter's settings are stored after the export.
#include "FrameTestSupport.h"
#include "data/Registerdata.h"
#include "frame/Qtexportdialog.h"
#include "project/Demodataset.h"
#include "project/Orvexdirectories.h"
#include "project/Project.h"
#include "support/TestSupport.h"

#include <QClipboard>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QRadioButton>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

int FilterIndex(const TQtExporter& exporter, const std::string& name) {
  const std::vector<std::string> names = exporter.FilterNames();
  for (size_t i = 0; i < names.size(); ++i)
    if (names[i] == name) return static_cast<int>(i);
  return -1;
}

TEST(ExportDialogTest, FileAndClipboardExportsFromTheDialog) {
  oxtest::TempDir dir;
  const std::string settingsBefore = TOrvexDirectories::User.ExportFilterSettings;
  TOrvexDirectories::User.ExportFilterSettings = dir.Path().string() + "/settings/";
  fs::create_directories(TOrvexDirectories::User.ExportFilterSettings);
  RegisterDataClasses();
  TProject project;
  TDemoOptions options;
  options.SizeX = 6;
  options.SizeY = 4;
  options.SizeGraph = 32;
  const TDemoIDs ids = CreateDemoProject(project, options);

  TQtExporter exporter(project);
  const int matlab = FilterIndex(exporter, "Matlab"), graphAscii = FilterIndex(exporter, "Graph ASCII");
  ASSERT_GE(matlab, 0);
  ASSERT_GE(graphAscii, 0);

  // The map as a MAT file: a bad name first (the dialog stays and says why), then a good one.
  int asked = 0;
  std::string refusal;
  exporter.Ask = [&](TQtExportFileDialog& dialog) {
    ++asked;
    dialog.show();
    dialog.TargetButton(TExportFilterFileInfoGetterForm::tOneFile)->click();
    dialog.FolderEdit()->setText(QString::fromStdString(dir.Path().string()));
    dialog.FileNameEdit()->setText("bad/name");
    dialog.accept();
    refusal = dialog.MessageLine()->text().toStdString();
    EXPECT_NE(dialog.result(), QDialog::Accepted) << "a name with a slash is refused";
    dialog.FileNameEdit()->setText("map");
    EXPECT_EQ(dialog.Preview()->count(), 2);
    if (dialog.Preview()->count() == 2) {
      EXPECT_EQ(dialog.Preview()->item(0)->text().toStdString(), (dir.Path() / "map.mat").string());
      EXPECT_EQ(dialog.Preview()->item(1)->text().toStdString(), "Number of Files: 1");
    }
    if (const char* keep = std::getenv("ORVEX_SCREENSHOT_DIR"))
      dialog.grab().toImage().save(QString::fromStdString(std::string(keep) + "/exportdialog.png"));
    dialog.accept();
    return dialog.result() == QDialog::Accepted;
  };
  TExportResult result = exporter.Export(matlab, {ids.Map}, nullptr);
  EXPECT_EQ(asked, 1);
  EXPECT_FALSE(refusal.empty());
  ASSERT_TRUE(result.Errors.empty()) << result.Errors.front();
  ASSERT_EQ(result.Files.size(), 1u);
  const fs::path file = dir.Path() / "map.mat";
  ASSERT_TRUE(fs::exists(file));
  EXPECT_EQ(static_cast<int64_t>(fs::file_size(file)), result.Files[0].Bytes);
  EXPECT_TRUE(fs::exists(TOrvexDirectories::User.ExportFilterSettings + "ExportFilter Matlab Settings.oxh"))
      << "the filter's settings are kept after the export";

  // A spectrum as text on the clipboard: one line per point after the header.
  exporter.Ask = [&](TQtExportFileDialog& dialog) {
    dialog.TargetButton(TExportFilterFileInfoGetterForm::tClipboard)->click();
    EXPECT_EQ(dialog.Preview()->count(), 0) << "the clipboard writes no file";
    dialog.accept();
    return dialog.result() == QDialog::Accepted;
  };
  QApplication::clipboard()->clear();
  result = exporter.Export(graphAscii, {ids.TrueComponents.at(0)}, nullptr);
  ASSERT_TRUE(result.Errors.empty()) << result.Errors.front();
  EXPECT_TRUE(result.Files.empty());
  const QString text = QApplication::clipboard()->text();
  int numberLines = 0;
  for (const QString& line : text.split('\n', Qt::SkipEmptyParts))
    if (!line.startsWith('#')) ++numberLines;
  EXPECT_EQ(numberLines, 32) << text.toStdString();

  // Cancelled: nothing written, nothing on the clipboard changed.
  exporter.Ask = [](TQtExportFileDialog&) { return false; };
  QApplication::clipboard()->setText("kept");
  result = exporter.Export(graphAscii, {ids.TrueComponents.at(0)}, nullptr);
  EXPECT_FALSE(result.Started);
  EXPECT_EQ(QApplication::clipboard()->text().toStdString(), "kept");
  TOrvexDirectories::User.ExportFilterSettings = settingsBefore;
}

} // namespace
