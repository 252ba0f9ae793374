// The same as AnchoredFixture.cpp, but nothing refers to it: the linker leaves
// it out, and its class is never registered.
#include "Platform/Runtime/Class.h"

PLATFORM_CLASS_REGISTRATION(ZRTUnanchoredFixture) =
    platform::ClassDescription("ZRTUnanchoredFixture").superclass("NSObject");
