// The project manager: every object of the project in a sortable, filterable table (ID, caption, class,
// size, used by); double-click shows the selection, IDs drag onto viewers and tools, Delete deletes, F2
// renames; the objects of the active viewer are shown in bold.
#pragma once

#include "data/Dcustom.h"

#include <QAbstractTableModel>
#include <QMimeData>
#include <QWidget>
#include <functional>
#include <string>
#include <vector>

class TProject;
class TVCustomForm;
class QLineEdit;
class QSortFilterProxyModel;
class QTableView;

/// The table over the project's objects. Rows follow the project's list (sorted by ID); the model is reset
/// when objects come or go and updates a row when one changes.
class TProjectManagerModel : public QAbstractTableModel {
public:
  enum TColumn { ColumnID = 0, ColumnCaption, ColumnClass, ColumnSize, ColumnUsedBy, ColumnCount };
  static constexpr const char* kMimeType = "application/x-orvex-idlist";

  explicit TProjectManagerModel(TProject& project, QObject* parent = nullptr);

  int rowCount(const QModelIndex& parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  bool setData(const QModelIndex& index, const QVariant& value, int role) override;
  QStringList mimeTypes() const override;
  QMimeData* mimeData(const QModelIndexList& indexes) const override;
  Qt::DropActions supportedDragActions() const override { return Qt::CopyAction; }

  /// The object's ID of a row, 0 out of range.
  int32_t IDOfRow(int row) const;
  /// Whole list again (objects came or went).
  void Reload();
  /// One object changed.
  void ObjectChanged(int32_t id);
  /// Objects of this viewer are shown in bold (null: none).
  void SetActiveViewer(TVCustomForm* viewer);

  /// The drag format: "session;id,id,..." in UTF-8 under kMimeType.
  static QMimeData* EncodeIDs(const std::vector<int32_t>& ids, const std::string& sessionID);
  /// IDs of a drag made by this session; empty for anything else.
  static std::vector<int32_t> DecodeIDs(const QMimeData* mime, const std::string& sessionID);

  /// The session whose drags are accepted.
  std::string SessionID;

private:
  TProject& FProject;
  std::vector<int32_t> FIDs;
  TVCustomForm* FActiveViewer = nullptr;
};

/// The docked form: filter line and table.
class TVProjectManagerForm : public QWidget {
public:
  TVProjectManagerForm(TProject& project, const std::string& sessionID, QWidget* parent = nullptr);

  TProjectManagerModel& Model() { return *FModel; }
  QTableView* View() const { return FView; }
  QLineEdit* Filter() const { return FFilter; }
  /// IDs of the selected rows, in the order shown.
  std::vector<int32_t> SelectedIDs() const;
  /// Selects the rows of ids (tests, and after a show).
  void SelectIDs(const std::vector<int32_t>& ids);

  /// Double-click: show the selection.
  std::function<void(const std::vector<int32_t>&)> OnShowSelection;

protected:
  void keyPressEvent(class QKeyEvent* event) override;

private:
  void DeleteSelection();

  TProject& FProject;
  TProjectManagerModel* FModel;
  QSortFilterProxyModel* FProxy;
  QTableView* FView;
  QLineEdit* FFilter;
};
