// NSIndexPath(QMArraySupport): index paths to and from arrays of numbers.
#pragma once

#include "Platform/Foundation/Indexes.h"
#include "Platform/Foundation/Value.h"

#include <optional>

// The path made by appending each element's integer value in order: [1, 4]
// gives 1.4. Elements may be numbers or numeric strings (read as a string's
// integer value); a negative value wraps as an unsigned index does. Nothing
// for `indexes` is a programming error ("indexes"); any other element raises
// "NSInvalidArgumentException".
platform::IndexPath indexPathWithArray(const std::optional<platform::Array>& indexes);

// One number per position of the path, in order. Indexes above the largest
// signed 64-bit value come back wrapped, and read back to the same path.
platform::Array indexes(const platform::IndexPath& indexPath);
