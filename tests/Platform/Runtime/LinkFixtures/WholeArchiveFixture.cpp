// Nothing refers to this file either; its library is linked whole instead.
#include "Platform/Runtime/Class.h"

PLATFORM_CLASS_REGISTRATION(ZRTWholeArchiveFixture) =
    platform::ClassDescription("ZRTWholeArchiveFixture").superclass("NSObject");
