#pragma once
// The search sheet: files of the open destination whose names contain every typed word, each
// with its versions in the archives; a chosen version can be shown in the file manager or restored.

#include "search/FVDestinationSearch.h"

#include <QDialog>
#include <QHash>

#include <memory>

class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QTreeWidget;

namespace ferrovane {

class FVDestinationSearchSheet : public QDialog, public FVDestinationSearchObserver {
    Q_OBJECT
public:
    FVDestinationSearchSheet(QWidget* window, FVMainQueue& mainQueue, const QString& destination);
    ~FVDestinationSearchSheet() override;

    const FVDestinationSearch& search() const { return *search_; }
    // The version that reveal would show for the result at row, as a full path.
    QString selectedVersionPath(int row) const;

    void searchResultsDidChange() override;
    void searchProgressDidChange(bool searching) override;

signals:
    // The user wants this version (a full path inside the destination) back.
    void restoreRequested(const QString& versionPath);

private:
    void connectControls();
    void currentRowChanged();
    void versionChosen(int versionIndex);
    void revealCurrent();
    int chosenIndex(const FVSearchResult& result) const;
    const FVSearchResult* resultAt(int row) const;

    std::shared_ptr<FVDestinationSearch> search_;
    QString destination_;
    // The chosen version's full path per logical path: results are regrouped on every match, and
    // a version that arrives later must not shift the choice.
    QHash<QString, QString> chosenVersions_;
    // Until the user picks a row, the first one is current, whatever order matches arrive in.
    bool userChoseRow_ = false;
    QLineEdit* field_;
    QProgressBar* spinner_;
    QTreeWidget* results_;
    QComboBox* versions_;
    QPushButton* reveal_;
    QPushButton* restore_;
    QLabel* status_;
};

}  // namespace ferrovane
