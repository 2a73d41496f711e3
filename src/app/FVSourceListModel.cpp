#include "app/FVSourceListModel.h"

#include "app/FVQtStrings.h"
#include "engine/run/FVNumber.h"

#include <QDataStream>
#include <QDateTime>
#include <QFileInfo>
#include <QIODevice>
#include <QLocale>
#include <QMimeData>
#include <QUrl>

#include <algorithm>

namespace ferrovane {

FVSourceListModel::FVSourceListModel(BackupSetController& controller, QObject* parent)
    : QAbstractTableModel(parent), controller_(controller), rows_(controller.arrangedObjects()) {
    controller_.setChangeHandler([this](BackupSetChange change) { backupSetDidChange(change); });
}

FVSourceListModel::~FVSourceListModel() { controller_.setChangeHandler(nullptr); }

void FVSourceListModel::backupSetDidChange(BackupSetChange change) {
    if (change == BackupSetChange::Sizes) {
        if (!rows_.empty()) emit dataChanged(index(0, SizeColumn), index(int(rows_.size()) - 1, SizeColumn));
        emit summaryChanged();
        return;
    }
    if (changingMode_) return;  // setData reports the rows itself, keeping the open popups
    beginResetModel();
    rows_ = controller_.arrangedObjects();
    icons_.clear();
    endResetModel();
    emit summaryChanged();
}

FVSourceItemPtr FVSourceListModel::itemAt(int row) const {
    return row >= 0 && size_t(row) < rows_.size() ? rows_[size_t(row)] : nullptr;
}

int FVSourceListModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : int(rows_.size()); }
int FVSourceListModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : ColumnCount; }

QString FVSourceListModel::modeTitle(int64_t mode) {
    static const char* keys[] = {"modedisabled", "modebackup", "modeexclude", "modeexcludeany"};
    return mode >= 0 && mode <= 3 ? localized(keys[mode]) : QString::number(mode);
}

QVariant FVSourceListModel::data(const QModelIndex& index, int role) const {
    FVSourceItemPtr item = itemAt(index.row());
    if (!item) return {};
    const QString path = qPath(item->sourcePath());
    if (role == Qt::ToolTipRole) return path;
    switch (index.column()) {
    case NameColumn:
        if (role == Qt::DisplayRole) {
            auto name = item->value(FVSourceKey::sourcePathComponent);
            return name && name->string() ? qPath(*name->string()) : path;
        }
        if (role == Qt::DecorationRole) {
            auto cached = icons_.constFind(path);
            if (cached != icons_.constEnd()) return *cached;
            QIcon icon = iconProvider_.icon(QFileInfo(path));
            icons_.insert(path, icon);
            return icon;
        }
        break;
    case PathColumn:
        if (role == Qt::DisplayRole) return path;
        break;
    case ModeColumn:
        if (role == Qt::DisplayRole) return modeTitle(item->enabled());
        if (role == Qt::EditRole) return qlonglong(item->enabled());
        break;
    case SizeColumn:
        if (role == Qt::TextAlignmentRole) return int(Qt::AlignRight | Qt::AlignVCenter);
        if (role == Qt::DisplayRole) {
            if (item->enabled() != int64_t(FVSourceMode::Backup)) return QString();
            // What cannot be read measures nothing, which is not its size.
            if (item->value(FVSourceKey::lastUnreadableDate)) return QStringLiteral("—");
            auto size = item->value(FVSourceKey::sizeInMB);
            if (!size || size->integerValue() == -1) return localized("sourcesizecalculating");
            return QString::fromStdString(FVNumber::formattedDiskSizeString(size->doubleValue() * 1e6));
        }
        break;
    case LastRunColumn:
        if (role == Qt::DisplayRole) return lastRunText(*item);
        break;
    default:
        break;
    }
    return {};
}

void FVSourceListModel::setRunOutcome(FVRunOutcome outcome) {
    outcome_ = std::move(outcome);
    if (!rows_.empty()) emit dataChanged(index(0, LastRunColumn), index(int(rows_.size()) - 1, LastRunColumn));
}

QDateTime FVSourceListModel::dateOf(const FVSourceItem& item, const char* key) {
    auto value = item.value(key);
    const PlistDate* date = value ? value->get<PlistDate>() : nullptr;
    return date ? QDateTime::fromMSecsSinceEpoch(qint64(date->secondsSince1970 * 1000)) : QDateTime();
}

QString FVSourceListModel::lastRunText(const FVSourceItem& item) const {
    if (item.enabled() >= int64_t(FVSourceMode::ExcludePath)) return QString();  // exclusions never run
    // Only the source the stop interrupted is news; the others keep their last backup.
    if (outcome_.state() == FVRunOutcome::State::Stopped && item.enabled() == int64_t(FVSourceMode::Backup) &&
        !outcome_.interruptedSource().empty() && item.sourcePath() == outcome_.interruptedSource()) {
        const std::string when = FVRunOutcome::stamp(outcome_.time()).toStdString();
        if (!outcome_.destinationFailure().empty()) return localizedFormat("sourcelastdiskfailed", when);
        if (outcome_.interruptedCopied() < 0) return localizedFormat("sourcelaststopped", when);
        return QString::fromStdString(FVStrings::formatPlural("sourcelaststoppedcopied", outcome_.interruptedCopied(), when));
    }
    const QDateTime finished = dateOf(item, FVSourceKey::lastBackupDate);
    // The attempt that could not read it is news (first, as the column may cut the end); the
    // backup it kept is still there.
    if (item.value(FVSourceKey::lastUnreadableDate))
        return finished.isValid() ? localizedFormat("sourcelastunreadable", FVRunOutcome::stamp(finished).toStdString())
                                  : localized("sourceunreadable");
    if (!finished.isValid()) return localized("sourcenotbackedup");
    const std::string stamp = FVRunOutcome::stamp(finished).toStdString();
    long long errors = outcome_.state() == FVRunOutcome::State::Finished ? outcome_.errorCountFor(item.sourcePath()) : 0;
    if (errors > 0) return QString::fromStdString(FVStrings::formatPlural("sourcelastrunerrors", errors, stamp));
    const int64_t updated = item.integerValue(FVSourceKey::updatedFilesCount);
    if (updated == 0) return localizedFormat("sourcelastrununchanged", stamp);
    return localizedFormat("sourcelastrun", stamp, updated, item.integerValue(FVSourceKey::totalFilesCount));
}

QVariant FVSourceListModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    static const char* keys[] = {"columnname", "columnpath", "columnmode", "columnsize", "columnlastrun"};
    return section >= 0 && section < ColumnCount ? localized(keys[section]) : QVariant();
}

Qt::ItemFlags FVSourceListModel::flags(const QModelIndex& index) const {
    if (!index.isValid()) return Qt::ItemIsDropEnabled;
    Qt::ItemFlags flags = Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled;
    if (index.column() == ModeColumn) flags |= Qt::ItemIsEditable;
    return flags;
}

bool FVSourceListModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (!itemAt(index.row()) || index.column() != ModeColumn || role != Qt::EditRole) return false;
    return setMode({index.row()}, value.toLongLong());
}

bool FVSourceListModel::setMode(const QList<int>& rows, int64_t mode) {
    if (mode < 0 || mode > 3) return false;
    int first = rowCount(), last = -1;
    for (int row : rows) {
        FVSourceItemPtr item = itemAt(row);
        if (!item || item->enabled() == mode) continue;
        // A bare name or a pattern is no path: it can only be left out or disabled.
        if (!takesEveryMode(qPath(item->sourcePath())) &&
            (mode == int64_t(FVSourceMode::Backup) || mode == int64_t(FVSourceMode::ExcludePath)))
            continue;
        item->setValue(FVSourceKey::enabled, mode);
        first = std::min(first, row);
        last = std::max(last, row);
    }
    if (last < 0) return false;
    changingMode_ = true;
    controller_.evaluateItemModeChange();
    changingMode_ = false;
    emit dataChanged(index(first, 0), index(last, ColumnCount - 1));
    emit dataChanged(index(0, SizeColumn), index(rowCount() - 1, SizeColumn));
    emit summaryChanged();
    return true;
}

QStringList FVSourceListModel::mimeTypes() const { return {rowsMimeType, "text/uri-list"}; }

QMimeData* FVSourceListModel::mimeData(const QModelIndexList& indexes) const {
    QList<int> rows;
    for (const QModelIndex& index : indexes)
        if (!rows.contains(index.row())) rows << index.row();
    QByteArray encoded;
    QDataStream stream(&encoded, QIODevice::WriteOnly);
    stream << rows;
    auto* data = new QMimeData;
    data->setData(rowsMimeType, encoded);
    return data;
}

bool FVSourceListModel::canDropMimeData(const QMimeData* data, Qt::DropAction, int, int, const QModelIndex&) const {
    if (!acceptsDrops_) return false;
    if (data->hasFormat(rowsMimeType)) return true;
    const QList<QUrl> urls = data->urls();
    return std::any_of(urls.begin(), urls.end(), [](const QUrl& url) { return url.isLocalFile(); });
}

bool FVSourceListModel::dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                                     const QModelIndex& parent) {
    if (!canDropMimeData(data, action, row, column, parent)) return false;
    // A drop onto a row goes above it; a drop below the last row appends.
    int dropRow = row >= 0 ? row : parent.isValid() ? parent.row() : rowCount();
    if (data->hasFormat(rowsMimeType)) {
        QList<int> rows;
        QDataStream stream(data->data(rowsMimeType));
        stream >> rows;
        std::vector<size_t> indexes;
        for (int r : rows)
            if (r >= 0 && r < rowCount()) indexes.push_back(size_t(r));
        if (indexes.empty()) return false;
        size_t first = controller_.moveObjectsInArrangedObjectsFromIndexes(indexes, size_t(dropRow));
        std::sort(indexes.begin(), indexes.end());
        indexes.erase(std::unique(indexes.begin(), indexes.end()), indexes.end());
        emit rowsRearranged(int(first), int(indexes.size()));
        return true;
    }
    QStringList paths;
    for (const QUrl& url : data->urls())
        if (url.isLocalFile()) paths << url.toLocalFile();
    emit pathsDropped(paths, dropRow);
    return !paths.isEmpty();
}

}  // namespace ferrovane
