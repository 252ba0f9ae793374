// NSData(QMBinaryDetection): whether bytes look like a binary file rather
// than text, as version-control tools decide before showing a diff.
#pragma once

#include "Platform/Foundation/Value.h"

// Binary when three zero bytes in a row occur within the first 2048 bytes (the
// run must end inside them). Text otherwise, whatever follows.
bool isBinaryData(const platform::Data& data);
