#include "app/FVErrorPanel.h"

#include "app/FVQtStrings.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace ferrovane {

FVErrorPanel::FVErrorPanel(QWidget* window, const std::vector<std::string>& errors)
    : QDialog(window), text_(new QPlainTextEdit) {
    setObjectName("errorPanel");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(localized("errorpaneltitle"));
    resize(620, 360);

    auto* heading = new QLabel(localizedFormat("errorpanelmessage", errors.size()));
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    QString joined;
    for (const std::string& error : errors) joined += QString::fromStdString(error) + '\n';
    text_->setReadOnly(true);
    text_->setPlainText(joined);

    auto* buttons = new QDialogButtonBox;
    buttons->addButton(localized("closebutton"), QDialogButtonBox::AcceptRole);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(heading);
    layout->addWidget(text_, 1);
    layout->addWidget(buttons);
}

QString FVErrorPanel::text() const { return text_->toPlainText(); }

}  // namespace ferrovane
