// NSArray(QMComparing): the array comparator as one call on the old array.
#pragma once

#include "QMFoundation/Comparison/QMArrayComparator.h"

// Compares `array` (old) with `otherArray` (new) and calls `result` once,
// before returning; see QMArrayComparator for the results and their order.
void compareIndexesOfObjectsWithIndexesOfObjectsInArray(const platform::Array& array, const platform::Array& otherArray,
                                                        const QMArrayComparator::CompletionHandler& result);
void compareIndexesOfObjectsWithIndexesOfObjectsInArray(const platform::Array& array, const platform::Array& otherArray,
                                                        QMArrayComparator::Comparator usingComparator,
                                                        const QMArrayComparator::CompletionHandler& result);
