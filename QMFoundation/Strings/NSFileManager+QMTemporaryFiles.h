// NSFileManager(QMTemporaryFiles): fresh names under the system temporary
// directory ($TMPDIR, else /tmp), and files and directories made there.
//
// Every name carries a new random UUID, so each call gives a path that did not
// exist before; only the `create...` operations touch the file system. The
// caller removes what it creates.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <optional>
#include <string>
#include <string_view>

// "<tmp>/<UUID>", not created.
std::string temporaryDirectoryPath();
platform::URL temporaryDirectoryURL();

// Creates a new `temporaryDirectoryURL` (and any missing parents); nothing
// with the error set when that fails.
[[nodiscard]] std::optional<platform::URL> createTemporaryDirectory(platform::ErrorRef* error = nullptr);

// "<tmp>/<UUID>" or "<tmp>/<UUID>.<extension>", not created. An empty
// extension counts as none.
std::string temporaryFilePath();
std::string temporaryFilePathWithExtension(std::optional<std::string_view> extension);
platform::URL temporaryFileURL();
platform::URL temporaryFileURLWithExtension(std::optional<std::string_view> extension);

// Writes the contents (empty when nothing) to a new temporary file, atomically:
// the file appears complete or not at all. The file is readable by its owner
// only. Nothing with the error set when writing fails.
[[nodiscard]] std::optional<platform::URL> createTemporaryFileWithExtension(std::optional<std::string_view> extension,
                                                              const std::optional<platform::Data>& contents,
                                                              platform::ErrorRef* error = nullptr);
[[nodiscard]] std::optional<platform::URL> createTemporaryFileWithContents(const std::optional<platform::Data>& contents,
                                                             platform::ErrorRef* error = nullptr);
