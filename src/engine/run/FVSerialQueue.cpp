#include "engine/run/FVSerialQueue.h"

namespace ferrovane {

FVSerialQueue::FVSerialQueue() : thread_([this] { loop_.run(); }) {}

FVSerialQueue::~FVSerialQueue() {
    loop_.stop(0);
    if (isCurrentThread()) thread_.detach();  // destroyed from its own task: nothing to wait for
    else thread_.join();
}

}  // namespace ferrovane
