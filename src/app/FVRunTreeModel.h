#pragma once
// The files of one complete run, as its manifest records them, for a tree view: a folder's
// entries are read when the view first opens it, on a thread of the model's own, because each
// read streams the whole manifest. Folders a source's full path passes through are shown even
// where the run recorded nothing for them.

#include "engine/record/FVPointInTime.h"
#include "engine/run/FVSerialQueue.h"

#include <QAbstractItemModel>
#include <QFileIconProvider>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace ferrovane {

class FVRunTreeModel : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Column { NameColumn, SizeColumn, ModifiedColumn, ColumnCount };

    FVRunTreeModel(std::shared_ptr<const FVPointInTime> run, QObject* parent = nullptr);
    ~FVRunTreeModel() override;

    const FVPointInTime& run() const { return *run_; }
    // The path relative to the mirror of the entry at index.
    std::string mirrorPath(const QModelIndex& index) const;
    bool isFolder(const QModelIndex& index) const { return nodeOf(index)->isFolder(); }
    // The index of a mirror path among the entries read so far; invalid when not read yet.
    QModelIndex indexOf(const std::string& mirrorPath) const;
    // No folder read is under way.
    bool isIdle() const { return loading_ == 0; }

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    bool hasChildren(const QModelIndex& parent = {}) const override;
    bool canFetchMore(const QModelIndex& parent) const override;
    void fetchMore(const QModelIndex& parent) override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

signals:
    // A folder's entries have arrived (or could not be read: problem says why).
    void folderLoaded(const QString& problem);

private:
    struct Node {
        FVManifestEntry entry;  // entry.path is the mirror path; a folder the run passes through has only that
        Node* parent = nullptr;
        int row = 0;
        enum class State { Unread, Reading, Read } state = State::Unread;
        std::vector<std::unique_ptr<Node>> children;
        bool isFolder() const { return entry.type == FVManifestEntryType::Folder; }
    };

    Node* nodeOf(const QModelIndex& index) const;
    QModelIndex indexOfNode(const Node* node) const;
    // Runs on the reading thread: the entries directly in folder, sorted as a file manager sorts.
    static std::vector<FVManifestEntry> childrenOf(const FVPointInTime& run, const std::string& folder,
                                                   std::string* problem);
    void folderRead(Node* node, std::vector<FVManifestEntry> entries, const QString& problem);

    std::shared_ptr<const FVPointInTime> run_;
    std::unique_ptr<Node> root_;
    QFileIconProvider icons_;
    int loading_ = 0;
    std::atomic<bool> closing_{false};
    // Last: it is joined before anything a queued read could post to goes away.
    FVSerialQueue reader_;
};

}  // namespace ferrovane
