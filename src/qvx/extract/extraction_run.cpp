#include "qvx/extract/extraction_run.h"

#include <sys/stat.h>

namespace tarnwick::qvx {

namespace {

mode_t currentUmask() {
    const mode_t mask = ::umask(077);
    ::umask(mask);
    return mask;
}

// In the order of Privilege.
constexpr const char* privilegeNames[] = {"owners", "set-id and sticky bits", "attributes outside of \"user.\"",
                                          "inode flags"};

}  // namespace

ExtractionRun::ExtractionRun(ExtractOptions options, int directory)
    : options_(std::move(options)),
      umask_(options_.preserve ? 0 : currentUmask()),
      budget_(directory, options_.limit, options_.fillsDisk) {}

Status ExtractionRun::stopIfFailed(const Status& charged) {
    if (charged) return {};
    if (!stopped_.exchange(true)) fail(charged.error());
    return systemError(ECANCELED);
}

std::string ExtractionRun::leftOut() const {
    std::string text;
    for (unsigned i = 0; i < std::size(privilegeNames); ++i)
        if (leftOut_ >> i & 1) text += (text.empty() ? "" : ", ") + std::string(privilegeNames[i]);
    return text;
}

}  // namespace tarnwick::qvx
