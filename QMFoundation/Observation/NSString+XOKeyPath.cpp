#include "QMFoundation/Observation/NSString+XOKeyPath.h"

platform::Set xo_keyPathsAsSetOfStrings(const std::string& keyPath)
{
    return platform::Set{platform::Value(keyPath)};
}
