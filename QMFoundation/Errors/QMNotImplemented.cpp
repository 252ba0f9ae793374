#include "QMFoundation/Errors/QMNotImplemented.h"

#include "Platform/Foundation/Exception.h"

void raiseNotImplementedException()
{
    platform::Exception::raise(QMNotImplementedException, "Not implemented yet.");
}
