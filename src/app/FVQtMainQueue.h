#pragma once
// The engine's main queue on Qt's event loop: work posted from any thread runs on the GUI thread.

#include "engine/run/FVMainQueue.h"

#include <QObject>

namespace ferrovane {

class FVQtMainQueue final : public FVMainQueue {
public:
    // Work still queued when the context object is destroyed is dropped, not run.
    explicit FVQtMainQueue(QObject* context) : context_(context) {}
    void post(std::function<void()> work) override;

private:
    QObject* context_;
};

}  // namespace ferrovane
