#include "app/FVRunTreeModel.h"

#include "app/FVQtStrings.h"
#include "engine/run/FVNumber.h"

#include <QDateTime>
#include <QLocale>

#include <algorithm>
#include <map>

namespace ferrovane {

namespace {

// As a file manager orders names: runs of digits by their value ("report 2" before "report 10"),
// the rest without regard to case. Qt's collator does so only where it is built with ICU.
bool namedBefore(const QString& a, const QString& b) {
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            const qsizetype startA = i, startB = j;
            while (i < a.size() && a[i].isDigit()) ++i;
            while (j < b.size() && b[j].isDigit()) ++j;
            QStringView numberA = QStringView(a).mid(startA, i - startA), numberB = QStringView(b).mid(startB, j - startB);
            while (numberA.size() > 1 && numberA.front() == u'0') numberA = numberA.mid(1);
            while (numberB.size() > 1 && numberB.front() == u'0') numberB = numberB.mid(1);
            if (numberA.size() != numberB.size()) return numberA.size() < numberB.size();
            if (int order = numberA.compare(numberB)) return order < 0;
            continue;
        }
        if (int order = QStringView(a).mid(i, 1).compare(QStringView(b).mid(j, 1), Qt::CaseInsensitive)) return order < 0;
        ++i;
        ++j;
    }
    if ((a.size() - i) != (b.size() - j)) return a.size() - i < b.size() - j;
    return a < b;
}

}  // namespace

FVRunTreeModel::FVRunTreeModel(std::shared_ptr<const FVPointInTime> run, QObject* parent)
    : QAbstractItemModel(parent), run_(std::move(run)), root_(std::make_unique<Node>()) {
    root_->entry.type = FVManifestEntryType::Folder;
}

FVRunTreeModel::~FVRunTreeModel() { closing_ = true; }

FVRunTreeModel::Node* FVRunTreeModel::nodeOf(const QModelIndex& index) const {
    return index.isValid() ? static_cast<Node*>(index.internalPointer()) : root_.get();
}

QModelIndex FVRunTreeModel::indexOfNode(const Node* node) const {
    return node == root_.get() ? QModelIndex() : createIndex(node->row, 0, const_cast<Node*>(node));
}

std::string FVRunTreeModel::mirrorPath(const QModelIndex& index) const { return nodeOf(index)->entry.path; }

QModelIndex FVRunTreeModel::indexOf(const std::string& mirrorPath) const {
    const Node* node = root_.get();
    while (node->entry.path != mirrorPath) {
        const Node* next = nullptr;
        for (const auto& child : node->children) {
            const std::string& path = child->entry.path;
            if (mirrorPath.compare(0, path.size(), path) == 0 &&
                (mirrorPath.size() == path.size() || mirrorPath[path.size()] == '/')) {
                next = child.get();
                break;
            }
        }
        if (!next) return {};
        node = next;
    }
    return indexOfNode(node);
}

QModelIndex FVRunTreeModel::index(int row, int column, const QModelIndex& parent) const {
    const Node* node = nodeOf(parent);
    if (row < 0 || size_t(row) >= node->children.size() || column < 0 || column >= ColumnCount) return {};
    return createIndex(row, column, node->children[size_t(row)].get());
}

QModelIndex FVRunTreeModel::parent(const QModelIndex& child) const {
    if (!child.isValid()) return {};
    return indexOfNode(nodeOf(child)->parent);
}

int FVRunTreeModel::rowCount(const QModelIndex& parent) const {
    if (parent.column() > 0) return 0;
    return int(nodeOf(parent)->children.size());
}

int FVRunTreeModel::columnCount(const QModelIndex&) const { return ColumnCount; }

bool FVRunTreeModel::hasChildren(const QModelIndex& parent) const {
    const Node* node = nodeOf(parent);
    return node->isFolder() && (node->state != Node::State::Read || !node->children.empty());
}

bool FVRunTreeModel::canFetchMore(const QModelIndex& parent) const {
    const Node* node = nodeOf(parent);
    return node->isFolder() && node->state == Node::State::Unread;
}

void FVRunTreeModel::fetchMore(const QModelIndex& parent) {
    Node* node = nodeOf(parent);
    if (!canFetchMore(parent)) return;
    node->state = Node::State::Reading;
    ++loading_;
    reader_.async([this, node, run = run_, folder = node->entry.path] {
        if (closing_) return;
        std::string problem;
        std::vector<FVManifestEntry> entries = childrenOf(*run, folder, &problem);
        QMetaObject::invokeMethod(this, [this, node, entries = std::move(entries), problem]() mutable {
            folderRead(node, std::move(entries), QString::fromStdString(problem));
        }, Qt::QueuedConnection);
    });
}

std::vector<FVManifestEntry> FVRunTreeModel::childrenOf(const FVPointInTime& run, const std::string& folder,
                                                        std::string* problem) {
    std::map<std::string, FVManifestEntry> children;
    run.forEachAtOrBelow(folder, [&](const FVManifestEntry& entry) {
        if (entry.path.size() <= folder.size() + 1) return;
        const size_t end = entry.path.find('/', folder.size() + 1);
        std::string name = entry.path.substr(folder.size() + 1, end == std::string::npos ? end : end - folder.size() - 1);
        if (end == std::string::npos) {
            children[name] = entry;
        } else if (!children.count(name)) {
            FVManifestEntry passedThrough;
            passedThrough.path = entry.path.substr(0, end);
            passedThrough.type = FVManifestEntryType::Folder;
            children.emplace(std::move(name), std::move(passedThrough));
        }
    }, problem);
    // As a file manager lists them: "report 2" before "report 10".
    std::vector<std::pair<QString, FVManifestEntry>> named;
    named.reserve(children.size());
    for (auto& [name, entry] : children) named.emplace_back(qPath(name), std::move(entry));
    std::stable_sort(named.begin(), named.end(), [](const auto& a, const auto& b) { return namedBefore(a.first, b.first); });
    std::vector<FVManifestEntry> sorted;
    sorted.reserve(named.size());
    for (auto& [name, entry] : named) sorted.push_back(std::move(entry));
    return sorted;
}

void FVRunTreeModel::folderRead(Node* node, std::vector<FVManifestEntry> entries, const QString& problem) {
    --loading_;
    node->state = Node::State::Read;
    const QModelIndex parent = indexOfNode(node);
    if (!entries.empty()) {
        beginInsertRows(parent, 0, int(entries.size()) - 1);
        for (auto& entry : entries) {
            auto child = std::make_unique<Node>();
            child->entry = std::move(entry);
            child->parent = node;
            child->row = int(node->children.size());
            node->children.push_back(std::move(child));
        }
        endInsertRows();
    } else if (parent.isValid()) {
        emit dataChanged(parent, parent);  // no children after all: the view drops the expander
    }
    emit folderLoaded(problem);
}

QVariant FVRunTreeModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid()) return {};
    const FVManifestEntry& entry = nodeOf(index)->entry;
    const int column = index.column();
    if (role == Qt::DisplayRole) {
        if (column == NameColumn) return qPath(entry.path.substr(entry.path.rfind('/') + 1));
        if (column == SizeColumn && entry.type == FVManifestEntryType::File)
            return QString::fromStdString(FVNumber::formattedDiskSizeString(double(entry.size)));
        if (column == ModifiedColumn && entry.modificationTimeNs != 0)
            return QLocale().toString(QDateTime::fromMSecsSinceEpoch(entry.modificationTimeNs / 1000000), QLocale::ShortFormat);
    } else if (role == Qt::DecorationRole && column == NameColumn) {
        return icons_.icon(entry.type == FVManifestEntryType::Folder ? QFileIconProvider::Folder : QFileIconProvider::File);
    } else if (role == Qt::ToolTipRole && column == NameColumn) {
        auto original = run_->layout().originalPath(entry.path);
        QString tip = qPath(original.value_or(entry.path));
        if (entry.type == FVManifestEntryType::Link) tip += " → " + qPath(entry.linkTarget);
        return tip;
    } else if (role == Qt::TextAlignmentRole && column == SizeColumn) {
        return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
    }
    return {};
}

QVariant FVRunTreeModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
    case NameColumn: return localized("columnname");
    case SizeColumn: return localized("browsecolumnsize");
    case ModifiedColumn: return localized("browsecolumnmodified");
    default: return {};
    }
}

}  // namespace ferrovane
