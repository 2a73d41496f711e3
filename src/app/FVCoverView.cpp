#include "app/FVCoverView.h"

#include "app/FVThinProgressBar.h"

#include <QEvent>
#include <QLabel>
#include <QPainter>
#include <QPropertyAnimation>
#include <QVBoxLayout>

#include <algorithm>

namespace ferrovane {

namespace {
constexpr int kSlideMilliseconds = 220;

void showText(QLabel* label, const QString& text) {
    label->setText(text);
    label->setVisible(!text.isEmpty());
}
}  // namespace

FVCoverView::FVCoverView(QWidget* parent)
    : QWidget(parent), message_(new QLabel), detail_(new QLabel), small_(new QLabel),
      progress_(new FVThinProgressBar), animation_(new QPropertyAnimation(this, "pos", this)) {
    setObjectName("coverView");
    setAutoFillBackground(true);
    for (QLabel* label : {message_, detail_, small_}) {
        label->setAlignment(Qt::AlignCenter);
        label->setWordWrap(true);
        label->hide();
    }
    message_->setObjectName("coverMessage");
    detail_->setObjectName("coverDetail");
    QFont big = message_->font();
    big.setPointSizeF(big.pointSizeF() * 1.35);
    message_->setFont(big);
    QFont little = small_->font();
    little.setPointSizeF(little.pointSizeF() * 0.85);
    small_->setFont(little);
    small_->setForegroundRole(QPalette::PlaceholderText);
    detail_->setForegroundRole(QPalette::PlaceholderText);
    progress_->setFixedWidth(320);
    progress_->setFixedHeight(6);
    progress_->hide();

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(40, 20, 40, 20);
    layout->addStretch(2);
    layout->addWidget(message_);
    layout->addSpacing(6);
    layout->addWidget(progress_, 0, Qt::AlignHCenter);
    layout->addSpacing(6);
    layout->addWidget(detail_);
    layout->addWidget(small_);
    layout->addStretch(3);

    animation_->setDuration(kSlideMilliseconds);
    animation_->setEasingCurve(QEasingCurve::OutCubic);
    openTimer_.setSingleShot(true);
    connect(&openTimer_, &QTimer::timeout, this, &FVCoverView::openView);

    parent->installEventFilter(this);
    setGeometry(parent->rect());
    raise();
}

bool FVCoverView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == parentWidget() && event->type() == QEvent::Resize) {
        animation_->stop();
        QRect r = parentWidget()->rect();
        if (wantShown_) setGeometry(r);
        else setGeometry(r.translated(0, -r.height()));
    }
    return QWidget::eventFilter(watched, event);
}

void FVCoverView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Base));
    // A faint edge where the view meets the list as it slides.
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawLine(rect().bottomLeft(), rect().bottomRight());
}

void FVCoverView::setMessage(const QString& message) { showText(message_, message); }
void FVCoverView::setDetailMessage(const QString& detail) { showText(detail_, detail); }
void FVCoverView::setSmallMessage(const QString& small) { showText(small_, small); }
QString FVCoverView::message() const { return message_->text(); }
QString FVCoverView::detailMessage() const { return detail_->text(); }

int FVCoverView::textBottom() const {
    layout()->activate();
    int bottom = 0;
    for (const QWidget* text : {static_cast<QWidget*>(message_), static_cast<QWidget*>(progress_),
                                static_cast<QWidget*>(detail_), static_cast<QWidget*>(small_)})
        if (!text->isHidden()) bottom = std::max(bottom, text->geometry().bottom());
    return mapToGlobal(QPoint(0, bottom)).y();
}

void FVCoverView::clearMessages() {
    setMessage({});
    setDetailMessage({});
    setSmallMessage({});
}

void FVCoverView::setProgress(double percent) {
    progress_->setVisible(percent >= 0);
    if (percent >= 0) progress_->setProgress(percent);
}

void FVCoverView::scrollIn(std::function<void()> done) {
    openTimer_.stop();
    wantShown_ = true;
    show();
    raise();
    slideTo(0, std::move(done));
}

void FVCoverView::setHeld(bool held) {
    held_ = held;
    if (held) openTimer_.stop();
}

void FVCoverView::openView() {
    openTimer_.stop();
    if (held_) return;
    wantShown_ = false;
    slideTo(-height(), [this] { hide(); });
}

void FVCoverView::openViewDelayedBy(double seconds) {
    if (!held_) openTimer_.start(static_cast<int>(seconds * 1000));
}

bool FVCoverView::isFullyShown() const {
    return wantShown_ && isVisible() && animation_->state() != QAbstractAnimation::Running && y() == 0;
}

bool FVCoverView::isFullyHidden() const { return !wantShown_ && !isVisible(); }

void FVCoverView::slideTo(int y, std::function<void()> done) {
    animation_->stop();
    animation_->disconnect(this);
    uint64_t generation = ++slideGeneration_;
    auto finish = [this, generation, done = std::move(done)] {
        if (generation != slideGeneration_) return;
        if (done) done();
        emit coverStateChanged();
    };
    emit coverStateChanged();
    if (pos().y() == y) {
        // Already there: still report asynchronously, as a slide would.
        QTimer::singleShot(0, this, finish);
        return;
    }
    animation_->setStartValue(pos());
    animation_->setEndValue(QPoint(0, y));
    connect(animation_, &QPropertyAnimation::finished, this, finish);
    animation_->start();
}

}  // namespace ferrovane
