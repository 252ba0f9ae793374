#include "QMFoundation/Observation/NSArray+XOKeyPath.h"

const platform::Array& xo_keyPathsAsSetOfStrings(const platform::Array& keyPaths)
{
    return keyPaths;
}
