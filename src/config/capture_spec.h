// The two items of the configuration: the capture specification, and the key that archives are sealed to.
//
// Both come from one property-list dictionary: the file at the configuration path or, when that path is empty, the
// dictionary embedded in the executable (on internal builds without one, that of the test bundle). When a file is
// named, it is the only source: what it lacks is not read from elsewhere. Every failure silently gives an empty result.
#pragma once

#include <string>
#include <vector>

namespace tarnwick {

struct CaptureDirective {
    std::string DocString = "MISSING DATA 1";   // what the directive captures, for people
    std::string BasePath = "MISSING DATA 2";    // directory that is searched
    std::string Expression = "MISSING DATA 3";  // POSIX basic regular expression over whole paths
};

// The directives in reverse order of the configuration. Reads the configuration on every call.
std::vector<CaptureDirective> loadCaptureSpec(const std::string& configurationPath);

// The recipient's key line (archive_public_key.h).
std::string loadArchivePublicKey(const std::string& configurationPath);

}  // namespace tarnwick
