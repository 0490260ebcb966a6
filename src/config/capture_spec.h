// The two items of the configuration: the capture specification, and the key that archives are sealed to.
//
// Both come from one property-list dictionary: the file at the configuration path, or, when that path is empty, the
// dictionary embedded in the executable (on internal builds without one, that of the tests' bundle). A file that is
// named is the only source: what it lacks is not taken from elsewhere. Every failure gives an empty result, silently.
#pragma once

#include <string>
#include <vector>

namespace tarnwick {

struct CaptureDirective {
    std::string DocString = "MISSING DATA 1";   // what the directive captures, for people
    std::string BasePath = "MISSING DATA 2";    // directory that is searched
    std::string Expression = "MISSING DATA 3";  // POSIX basic regular expression over whole paths
};

// The directives from the last to the first as they stand in the configuration. Read afresh on every call.
std::vector<CaptureDirective> loadCaptureSpec(const std::string& configurationPath);

// The recipient's key line (archive_public_key.h).
std::string loadArchivePublicKey(const std::string& configurationPath);

}  // namespace tarnwick
