#include "QMFoundation/Comparison/NSArray+QMComparing.h"

void compareIndexesOfObjectsWithIndexesOfObjectsInArray(const platform::Array& array, const platform::Array& otherArray,
                                                        const QMArrayComparator::CompletionHandler& result)
{
    compareIndexesOfObjectsWithIndexesOfObjectsInArray(array, otherArray, nullptr, result);
}

void compareIndexesOfObjectsWithIndexesOfObjectsInArray(const platform::Array& array, const platform::Array& otherArray,
                                                        QMArrayComparator::Comparator usingComparator,
                                                        const QMArrayComparator::CompletionHandler& result)
{
    QMArrayComparator::create(array, otherArray, std::move(usingComparator))->compareWithCompletionHandler(result);
}
