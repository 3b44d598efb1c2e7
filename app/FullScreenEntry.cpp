#include "app/FullScreenEntry.h"

namespace brisvale {

bool FullScreenEntry::update(bool requested, bool resized, bool state, Clock::time_point now) {
    if (requested && !requested_) {
        resizedSinceRequest_ = false;  // only a resize that answers this request counts
    }
    requested_ = requested;
    if (requested_ && resized) {
        resizedSinceRequest_ = true;
    }
    if (!state) {
        entered_ = false;
        stateSince_.reset();
        return false;
    }
    if (entered_) {
        return false;
    }
    if (!stateSince_) {
        stateSince_ = now;
    }
    if (resizedSinceRequest_ || now - *stateSince_ >= kSettleTime) {
        entered_ = true;
        resizedSinceRequest_ = false;
        return true;
    }
    return false;
}

std::optional<FullScreenEntry::Clock::time_point> FullScreenEntry::settlesAt() const {
    if (entered_ || !stateSince_) {
        return std::nullopt;
    }
    return *stateSince_ + kSettleTime;
}

} // namespace brisvale
