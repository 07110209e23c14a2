#include "platform/ChangeCoalescer.hpp"

namespace velto::platform {

ChangeCoalescer::ChangeCoalescer(double quietSeconds, double maximumDelaySeconds)
    : quietSeconds_(quietSeconds), maximumDelaySeconds_(maximumDelaySeconds) {}

void ChangeCoalescer::noteChange(double nowSeconds) {
    if (!pending_) {
        pending_ = true;
        firstChangeSeconds_ = nowSeconds;
    }
    lastChangeSeconds_ = nowSeconds;
}

bool ChangeCoalescer::takeSettled(double nowSeconds) {
    if (!pending_) return false;
    const bool quiet = nowSeconds - lastChangeSeconds_ >= quietSeconds_;
    const bool overdue = nowSeconds - firstChangeSeconds_ >= maximumDelaySeconds_;
    if (!quiet && !overdue) return false;
    pending_ = false;
    return true;
}

}  // namespace velto::platform
