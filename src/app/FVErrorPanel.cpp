#include "app/FVErrorPanel.h"

#include "app/FVQtStrings.h"
#include "app/FVScreenFit.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

#include <algorithm>

namespace ferrovane {

FVErrorPanel::FVErrorPanel(QWidget* window, const std::vector<std::string>& errors, const char* titleKey,
                           const char* messageKey)
    : QDialog(window), text_(new QPlainTextEdit) {
    setObjectName("errorPanel");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(localized(titleKey));
    FVScreenFit::resize(this, {620, 360});

    auto* heading = new QLabel(QString::fromStdString(FVStrings::formatPlural(messageKey, (long long)errors.size())));
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    QString joined;
    for (const std::string& error : errors) joined += QString::fromStdString(error) + '\n';
    text_->setReadOnly(true);
    text_->setPlainText(joined);

    auto* buttons = new QDialogButtonBox;
    QStringList emptied;
    for (const std::string& error : errors) {
        QString source = emptiedSourceIn(error);
        if (!source.isEmpty() && !emptied.contains(source)) emptied << source;
    }
    for (const QString& source : emptied) {
        QPushButton* confirm = buttons->addButton(localized("confirmemptybutton"), QDialogButtonBox::ActionRole);
        confirm->setObjectName("confirmEmptyButton");
        confirm->setToolTip(source);
        connect(confirm, &QPushButton::clicked, this, [this, source] { emit emptiedSourceConfirmationRequested(source); });
    }
    buttons->addButton(localized("closebutton"), QDialogButtonBox::AcceptRole);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(heading);
    layout->addWidget(text_, 1);
    layout->addWidget(buttons);
}

QString FVErrorPanel::emptiedSourceIn(const std::string& error) {
    static const std::string refusal = "Not removing the contents of ";
    static const std::string before = ": its source ";
    static const std::string after = " is empty";
    if (error.find(refusal) == std::string::npos) return {};
    size_t start = error.rfind(before);
    size_t end = error.rfind(after);
    if (start == std::string::npos || end == std::string::npos || end <= start + before.size()) return {};
    start += before.size();
    return qPath(error.substr(start, end - start));
}

void FVErrorPanel::openBelow(int top) {
    // A little room between the text and the panel's title bar.
    top += fontMetrics().height();
    const QWidget* window = parentWidget()->window();
    const QRect screen = window->screen()->availableGeometry();
    const int frameHeight = window->frameGeometry().height() - window->height();
    const int least = minimumSizeHint().height();
    // Within the window when it leaves room, else within the screen.
    const int bottom = std::min(screen.bottom(), std::max(window->frameGeometry().bottom(), top + least + frameHeight));
    const int height = std::max(least, std::min(this->height(), bottom - top - frameHeight));
    resize(width(), height);
    move(window->frameGeometry().center().x() - frameGeometry().width() / 2,
         std::max(screen.top(), std::min(top, screen.bottom() - height - frameHeight)));
    open();
}

QString FVErrorPanel::text() const { return text_->toPlainText(); }

}  // namespace ferrovane
