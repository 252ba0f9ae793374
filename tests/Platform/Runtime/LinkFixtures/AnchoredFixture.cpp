// A class whose source file holds nothing but its registration: the program
// links it only because the test names its anchor.
#include "Platform/Runtime/Class.h"

PLATFORM_CLASS_REGISTRATION(ZRTAnchoredFixture) = platform::ClassDescription("ZRTAnchoredFixture").superclass("NSObject");
