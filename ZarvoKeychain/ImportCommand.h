// ImportCommand: import-git-credentials, which moves the passwords of git's
// plain-text credential store into a keychain as internet passwords that
// zarvo-askpass and git-credential-zarvo find.
#pragma once

namespace keychaintool {

struct Command;
struct Options;

int importGitCredentials(const Command& command, const Options& options);

}  // namespace keychaintool
