#include "signal/EarliestDeliveryLine.hpp"

#include <algorithm>
#include <cmath>

namespace velto {

EarliestDeliveryLine::EarliestDeliveryLine(double windowSeconds, double binSeconds)
    : binSeconds_(binSeconds),
      window_(static_cast<size_t>(std::ceil(windowSeconds / binSeconds)) + 1),
      hull_(window_.size()) {}

void EarliestDeliveryLine::clear() {
    windowStart_ = windowCount_ = 0;
    binOpen_ = false;
    hasLine_ = false;
    slope_ = anchorX_ = anchorY_ = scatter_ = 0;
}

void EarliestDeliveryLine::add(double x, double y) {
    if (binOpen_ && x - binStartX_ >= binSeconds_) closeBin();
    if (!binOpen_) {
        binOpen_ = true;
        binStartX_ = x;
        bin_ = {x, y};
    } else if (y > bin_.y) {
        bin_ = {x, y};
    }
}

void EarliestDeliveryLine::closeBin() {
    binOpen_ = false;
    const auto capacity = static_cast<int64_t>(window_.size());
    if (windowCount_ == capacity) {
        windowStart_ = (windowStart_ + 1) % capacity;
        --windowCount_;
    }
    if (windowCount_ == 0 && !hasLine_) firstX_ = bin_.x;
    window_[static_cast<size_t>((windowStart_ + windowCount_) % capacity)] = bin_;
    ++windowCount_;
    lastX_ = bin_.x;
    fit();
}

void EarliestDeliveryLine::fit() {
    const auto capacity = static_cast<int64_t>(window_.size());
    // The upper hull, left to right (Andrew's monotone chain): points come in order of x.
    int64_t size = 0;
    double meanX = 0;
    for (int64_t i = 0; i < windowCount_; ++i) {
        const Point& p = window_[static_cast<size_t>((windowStart_ + i) % capacity)];
        meanX += p.x;
        while (size >= 2) {
            const Point& o = hull_[static_cast<size_t>(size - 2)];
            const Point& a = hull_[static_cast<size_t>(size - 1)];
            // a on or below the chord from o to p: not on the upper hull.
            if ((a.x - o.x) * (p.y - o.y) - (a.y - o.y) * (p.x - o.x) < 0) break;
            --size;
        }
        hull_[static_cast<size_t>(size++)] = p;
    }
    if (size < 2 || hull_[static_cast<size_t>(size - 1)].x - hull_[0].x <= 0) return;
    meanX /= static_cast<double>(windowCount_);
    // The hull's edge above the mean arrival: the supporting line closest to all points.
    int64_t edge = 0;
    while (edge + 2 < size && hull_[static_cast<size_t>(edge + 1)].x < meanX) ++edge;
    const Point& left = hull_[static_cast<size_t>(edge)];
    const Point& right = hull_[static_cast<size_t>(edge + 1)];
    slope_ = (right.y - left.y) / (right.x - left.x);
    anchorX_ = left.x;
    anchorY_ = left.y;
    hasLine_ = true;
    double depth = 0;
    for (int64_t i = 0; i < windowCount_; ++i) {
        const Point& p = window_[static_cast<size_t>((windowStart_ + i) % capacity)];
        depth += valueAt(p.x) - p.y;
    }
    scatter_ = depth / static_cast<double>(windowCount_);
}

}  // namespace velto
