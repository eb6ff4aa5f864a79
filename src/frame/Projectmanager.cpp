// The project manager.
#include "frame/Projectmanager.h"

#include "project/Project.h"
#include "project/Projectactionform.h"

#include <QApplication>
#include <QFont>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLineEdit>
#include <QSortFilterProxyModel>
#include <QStyle>
#include <QTableView>
#include <QVBoxLayout>

namespace {

QString SizeText(int64_t bytes) {
  if (bytes <= 0) return QString();
  if (bytes < 1024) return QString::number(bytes) + " B";
  if (bytes < 1024 * 1024) return QString::number(static_cast<double>(bytes) / 1024.0, 'f', 1) + " KB";
  if (bytes < 1024ll * 1024 * 1024)
    return QString::number(static_cast<double>(bytes) / (1024.0 * 1024.0), 'f', 1) + " MB";
  return QString::number(static_cast<double>(bytes) / (1024.0 * 1024.0 * 1024.0), 'f', 2) + " GB";
}

QStyle::StandardPixmap IconOf(const TData& data) {
  if (data.InheritsFrom("TDText")) return QStyle::SP_FileDialogDetailedView;
  if (data.InheritsFrom("TDGraph")) return QStyle::SP_FileDialogListView;
  if (data.InheritsFrom("TDImage") || data.InheritsFrom("TDBitmap")) return QStyle::SP_DesktopIcon;
  return QStyle::SP_FileIcon;
}

} // namespace

TProjectManagerModel::TProjectManagerModel(TProject& project, QObject* parent)
    : QAbstractTableModel(parent), FProject(project) {
  Reload();
}

int TProjectManagerModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(FIDs.size());
}

int TProjectManagerModel::columnCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : ColumnCount;
}

int32_t TProjectManagerModel::IDOfRow(int row) const {
  return row >= 0 && row < static_cast<int>(FIDs.size()) ? FIDs[static_cast<size_t>(row)] : 0;
}

QVariant TProjectManagerModel::data(const QModelIndex& index, int role) const {
  const int32_t id = IDOfRow(index.row());
  const TData* data = FProject.FindData(id);
  if (!data) return {};
  if (role == Qt::DisplayRole || role == Qt::EditRole) {
    switch (index.column()) {
    case ColumnID:
      return role == Qt::EditRole ? QVariant(id) : QVariant(QString::number(id));
    case ColumnCaption:
      return QString::fromStdString(data->GetCaption());
    case ColumnClass:
      return QString::fromStdString(data->GetClassNameA());
    case ColumnSize:
      return SizeText(TProjectActionForm::GetDataObjectSize(data));
    case ColumnUsedBy:
      return QString::fromStdString(FProject.UsedByListAsString(id));
    default:
      return {};
    }
  }
  if (role == Qt::UserRole) { // sort keys
    if (index.column() == ColumnID) return id;
    if (index.column() == ColumnSize)
      return static_cast<qlonglong>(TProjectActionForm::GetDataObjectSize(data));
    return this->data(index, Qt::DisplayRole);
  }
  if (role == Qt::DecorationRole && index.column() == ColumnCaption)
    return QApplication::style()->standardIcon(IconOf(*data));
  if (role == Qt::FontRole && FActiveViewer && FActiveViewer->IsDataUsed(id)) {
    QFont font;
    font.setBold(true);
    return font;
  }
  return {};
}

QVariant TProjectManagerModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
  static const char* const kHeaders[] = {"ID", "Caption", "Class", "Size", "Used By"};
  return section >= 0 && section < ColumnCount ? QString(kHeaders[section]) : QVariant();
}

Qt::ItemFlags TProjectManagerModel::flags(const QModelIndex& index) const {
  Qt::ItemFlags f = QAbstractTableModel::flags(index) | Qt::ItemIsDragEnabled;
  if (index.column() == ColumnCaption) f |= Qt::ItemIsEditable;
  return f;
}

bool TProjectManagerModel::setData(const QModelIndex& index, const QVariant& value, int role) {
  if (role != Qt::EditRole || index.column() != ColumnCaption) return false;
  TData* data = FProject.FindData(IDOfRow(index.row()));
  if (!data) return false;
  data->SetCaption(value.toString().toStdString()); // reports the change; ObjectChanged updates the row
  return true;
}

QStringList TProjectManagerModel::mimeTypes() const {
  return {kMimeType};
}

QMimeData* TProjectManagerModel::mimeData(const QModelIndexList& indexes) const {
  std::vector<int32_t> ids;
  for (const QModelIndex& index : indexes) {
    const int32_t id = IDOfRow(index.row());
    if (id != 0 && std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  }
  return EncodeIDs(ids, SessionID);
}

QMimeData* TProjectManagerModel::EncodeIDs(const std::vector<int32_t>& ids, const std::string& sessionID) {
  std::string text = sessionID + ";";
  for (size_t i = 0; i < ids.size(); ++i) text += (i ? "," : "") + std::to_string(ids[i]);
  auto* mime = new QMimeData;
  mime->setData(kMimeType, QByteArray::fromStdString(text));
  return mime;
}

std::vector<int32_t> TProjectManagerModel::DecodeIDs(const QMimeData* mime, const std::string& sessionID) {
  if (!mime || !mime->hasFormat(kMimeType)) return {};
  const std::string text = mime->data(kMimeType).toStdString();
  const size_t split = text.find(';');
  if (split == std::string::npos || text.substr(0, split) != sessionID) return {};
  std::vector<int32_t> ids;
  for (const QString& part : QString::fromStdString(text.substr(split + 1)).split(',', Qt::SkipEmptyParts)) {
    bool ok = false;
    const int id = part.toInt(&ok);
    if (ok && id > 0) ids.push_back(id);
  }
  return ids;
}

void TProjectManagerModel::Reload() {
  beginResetModel();
  FIDs.clear();
  FIDs.reserve(FProject.DataList().size());
  for (const auto& data : FProject.DataList()) FIDs.push_back(data->GetID());
  endResetModel();
}

void TProjectManagerModel::ObjectChanged(int32_t id) {
  const auto it = std::lower_bound(FIDs.begin(), FIDs.end(), id);
  if (it == FIDs.end() || *it != id) return;
  const int row = static_cast<int>(it - FIDs.begin());
  emit dataChanged(index(row, 0), index(row, ColumnCount - 1));
}

void TProjectManagerModel::SetActiveViewer(TVCustomForm* viewer) {
  FActiveViewer = viewer;
  if (!FIDs.empty()) emit dataChanged(index(0, 0), index(static_cast<int>(FIDs.size()) - 1, ColumnCount - 1));
}

// ---------------------------------------------------------------------------------------------

TVProjectManagerForm::TVProjectManagerForm(TProject& project, const std::string& sessionID, QWidget* parent)
    : QWidget(parent), FProject(project) {
  setObjectName("ProjectManager");
  FModel = new TProjectManagerModel(project, this);
  FModel->SessionID = sessionID;
  FProxy = new QSortFilterProxyModel(this);
  FProxy->setSourceModel(FModel);
  FProxy->setSortRole(Qt::UserRole);
  FProxy->setFilterKeyColumn(-1);
  FProxy->setFilterCaseSensitivity(Qt::CaseInsensitive);
  FFilter = new QLineEdit(this);
  FFilter->setPlaceholderText("Filter");
  FFilter->setClearButtonEnabled(true);
  connect(FFilter, &QLineEdit::textChanged, FProxy, &QSortFilterProxyModel::setFilterFixedString);
  FView = new QTableView(this);
  FView->setModel(FProxy);
  FView->setSortingEnabled(true);
  FView->sortByColumn(TProjectManagerModel::ColumnID, Qt::AscendingOrder);
  FView->setSelectionBehavior(QAbstractItemView::SelectRows);
  FView->setSelectionMode(QAbstractItemView::ExtendedSelection);
  FView->setEditTriggers(QAbstractItemView::EditKeyPressed);
  FView->setDragEnabled(true);
  FView->setDragDropMode(QAbstractItemView::DragOnly);
  FView->verticalHeader()->hide();
  FView->verticalHeader()->setDefaultSectionSize(FView->fontMetrics().height() + 4);
  FView->horizontalHeader()->setStretchLastSection(true);
  FView->setColumnWidth(TProjectManagerModel::ColumnID, 50);
  FView->setColumnWidth(TProjectManagerModel::ColumnCaption, 220);
  connect(FView, &QTableView::doubleClicked, this, [this](const QModelIndex&) {
    if (OnShowSelection) OnShowSelection(SelectedIDs());
  });
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(2, 2, 2, 2);
  layout->addWidget(FFilter);
  layout->addWidget(FView);
}

std::vector<int32_t> TVProjectManagerForm::SelectedIDs() const {
  std::vector<int32_t> ids;
  QModelIndexList rows = FView->selectionModel()->selectedRows();
  std::sort(rows.begin(), rows.end(),
            [](const QModelIndex& a, const QModelIndex& b) { return a.row() < b.row(); });
  for (const QModelIndex& row : rows) ids.push_back(FModel->IDOfRow(FProxy->mapToSource(row).row()));
  return ids;
}

void TVProjectManagerForm::SelectIDs(const std::vector<int32_t>& ids) {
  QItemSelection selection;
  for (int row = 0; row < FModel->rowCount(); ++row)
    if (std::find(ids.begin(), ids.end(), FModel->IDOfRow(row)) != ids.end()) {
      const QModelIndex index = FProxy->mapFromSource(FModel->index(row, 0));
      if (index.isValid()) selection.select(index, index);
    }
  FView->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
}

void TVProjectManagerForm::DeleteSelection() {
  for (int32_t id : SelectedIDs()) FProject.DeleteData(id); // a locked object is refused with a message
}

void TVProjectManagerForm::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Delete) {
    DeleteSelection();
    return;
  }
  if (event->key() == Qt::Key_F2) {
    const QModelIndex current = FView->currentIndex();
    if (current.isValid()) FView->edit(current.siblingAtColumn(TProjectManagerModel::ColumnCaption));
    return;
  }
  QWidget::keyPressEvent(event);
}
