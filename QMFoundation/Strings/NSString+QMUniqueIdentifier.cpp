#include "QMFoundation/Strings/NSString+QMUniqueIdentifier.h"

#include <uuid/uuid.h>

std::string uniqueIdentifier()
{
    uuid_t identifier;
    uuid_generate_random(identifier);
    char text[37];
    uuid_unparse_upper(identifier, text);
    return text;
}

std::string stringWithUUID()
{
    return uniqueIdentifier();
}
