#include "app/FVOverdueBanner.h"

#include "app/FVQtStrings.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>

namespace ferrovane {

FVOverdueBanner::FVOverdueBanner(QWidget* parent) : QFrame(parent) {
    setObjectName("overdueBanner");
    // A warning's colours whatever the theme: dark text on a pale amber band.
    setStyleSheet("#overdueBanner { background: #fff4d6; border: 1px solid #e2b340; border-radius: 4px; }"
                  "#overdueBanner QLabel { color: #3d2e00; }");
    auto* icon = new QLabel;
    icon->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(24, 24));
    label_ = new QLabel;
    label_->setObjectName("overdueText");
    label_->setWordWrap(true);
    label_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    backUpNow_ = new QPushButton(localized("bannerbackupnow"));
    backUpNow_->setObjectName("overdueBackUpNow");
    auto* line = new QHBoxLayout(this);
    line->setContentsMargins(8, 6, 8, 6);
    line->addWidget(icon, 0, Qt::AlignTop);
    line->addWidget(label_, 1);
    line->addWidget(backUpNow_, 0, Qt::AlignVCenter);
    setVisible(false);
}

void FVOverdueBanner::setText(const QString& text, bool offerBackUp) {
    label_->setText(text);
    backUpNow_->setVisible(offerBackUp);
    setVisible(!text.isEmpty());
}

QString FVOverdueBanner::text() const { return isHidden() ? QString() : label_->text(); }

}  // namespace ferrovane
