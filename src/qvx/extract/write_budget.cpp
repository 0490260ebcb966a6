#include "qvx/extract/write_budget.h"

namespace tarnwick::qvx {

Status WriteBudget::charge(std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    if (left_ && bytes > *left_)
        return Error{"extraction stopped, because it would write more than the limit of " + std::to_string(*limit_) +
                     " bytes"};
    if (left_) *left_ -= bytes;
    return checkSpace(bytes);
}

Status WriteBudget::chargeSpace(std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    return checkSpace(bytes);
}

Status WriteBudget::checkSpace(std::uint64_t bytes) {
    if (fillsDisk_) return {};
    Status charged = space_.charge(directory_, bytes);
    if (charged || charged.error().code != 0) return charged;
    return Error{"extraction stopped, because " + charged.error().text + "; --force uses all of it"};
}

}  // namespace tarnwick::qvx
