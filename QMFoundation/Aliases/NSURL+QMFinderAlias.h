// NSURL(QMFinderAlias): the file an alias points at. On Linux an alias is a
// symbolic link (see NSFileManager+QMCreateFinderAlias.h).
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/URL.h"

#include <optional>

// The file URL of the link's target; a relative target is taken from the
// link's own folder. A file that is not a link, or none at all, gives
// nothing and an error in the POSIX domain naming the path. The URL is
// required and must be a file URL ("aliasFileURL", "aliasFileURL.isFileURL").
[[nodiscard]] std::optional<platform::URL> fileURLFromAliasAtURL(const std::optional<platform::URL>& aliasFileURL,
                                                   platform::ErrorRef* error = nullptr);
