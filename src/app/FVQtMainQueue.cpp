#include "app/FVQtMainQueue.h"

#include <QMetaObject>

namespace ferrovane {

void FVQtMainQueue::post(std::function<void()> work) {
    QMetaObject::invokeMethod(context_, std::move(work), Qt::QueuedConnection);
}

}  // namespace ferrovane
