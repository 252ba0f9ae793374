// NSFileManager(QMCreateFinderAlias): making an alias of a file or folder.
//
// On Linux an alias is a symbolic link to the target's absolute path. It is
// made by running "/bin/ln -s" (QMCommandOperation) in a fresh temporary
// directory, then moved into place, so the alias appears whole or not at all;
// the temporary directory is left behind. The calling thread is blocked while
// the command runs.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/URL.h"

#include <optional>

// True once an alias at `aliasFileURL` points at `withDestinationURL`.
//
// - Both URLs are required file URLs (assertions "aliasFileURL",
//   "destinationFileURL", "aliasFileURL.isFileURL",
//   "destinationFileURL.isFileURL", in that order).
// - A missing destination, or anything already at the alias path (a dangling
//   link included), gives false with the error cleared; nothing is changed
//   and no command runs.
// - A destination without a name (the root) and a temporary directory that
//   cannot be made are assertions.
// - A failing "ln" gives its error ("QMCommandOperation" domain, the exit
//   code); a failing move a POSIX-domain error.
[[nodiscard]] bool createAliasAtURL(const std::optional<platform::URL>& aliasFileURL,
                      const std::optional<platform::URL>& withDestinationURL, platform::ErrorRef* error = nullptr);
