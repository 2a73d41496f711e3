#pragma once
// The source list as a Qt table: a view of BackupSetController's items (which stay the model),
// with the mode as an editable column and drag and drop of rows and of files.

#include "app/FVRunOutcome.h"
#include "backupset/BackupSetController.h"

#include <QAbstractTableModel>
#include <QFileIconProvider>
#include <QHash>
#include <QIcon>

namespace ferrovane {

class FVSourceListModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { NameColumn, PathColumn, ModeColumn, SizeColumn, LastRunColumn, ColumnCount };
    static constexpr const char* rowsMimeType = "application/x-ferrovane-source-rows";

    explicit FVSourceListModel(BackupSetController& controller, QObject* parent = nullptr);
    ~FVSourceListModel() override;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    // Gives these rows the mode at once; false when none changed.
    bool setMode(const QList<int>& rows, int64_t mode);

    QStringList mimeTypes() const override;
    QMimeData* mimeData(const QModelIndexList& indexes) const override;
    Qt::DropActions supportedDropActions() const override { return Qt::MoveAction | Qt::CopyAction; }
    Qt::DropActions supportedDragActions() const override { return Qt::MoveAction; }
    bool canDropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                         const QModelIndex& parent) const override;
    bool dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                      const QModelIndex& parent) override;

    // No drops while the cover view lies over the list.
    void setAcceptsDrops(bool accepts) { acceptsDrops_ = accepts; }
    // The last run's outcome, shown in each row beside the item's own last backup.
    void setRunOutcome(FVRunOutcome outcome);
    static QString modeTitle(int64_t mode);
    // Whether an item of this path may be backed up or excluded as a path: an absolute path may,
    // a bare name (an exclude-name item's) is left out by name or disabled only.
    static bool takesEveryMode(const QString& path) { return path.startsWith('/'); }

signals:
    // Rows were reordered by dragging; the moved rows now stand at first .. first + count - 1.
    void rowsRearranged(int first, int count);
    // Files and folders dropped from elsewhere, to be added at row.
    void pathsDropped(const QStringList& paths, int row);
    // The summary line (totalSizeString) may have changed.
    void summaryChanged();

private:
    void backupSetDidChange(BackupSetChange change);
    FVSourceItemPtr itemAt(int row) const;
    QString lastRunText(const FVSourceItem& item) const;
    static QDateTime dateOf(const FVSourceItem& item, const char* key);

    BackupSetController& controller_;
    std::vector<FVSourceItemPtr> rows_;  // the controller's list as last shown
    bool acceptsDrops_ = false;
    FVRunOutcome outcome_;
    bool changingMode_ = false;
    mutable QHash<QString, QIcon> icons_;
    QFileIconProvider iconProvider_;
};

}  // namespace ferrovane
