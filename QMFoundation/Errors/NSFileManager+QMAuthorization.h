// NSFileManager(QMAuthorization): file operations that would run with
// administrator rights. None is implemented: each raises
// "QMNotImplementedException" (see QMNotImplemented.h).
#pragma once

#include <string_view>

bool authorizedMovePath(std::string_view path, std::string_view toPath);
bool authorizedCopyPath(std::string_view path, std::string_view toPath);
bool authorizedMakeDirectory(std::string_view path);
