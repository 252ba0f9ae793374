#include "QMFoundation/Errors/NSFileManager+QMAuthorization.h"

#include "QMFoundation/Errors/QMNotImplemented.h"

bool authorizedMovePath(std::string_view, std::string_view)
{
    raiseNotImplementedException();
}

bool authorizedCopyPath(std::string_view, std::string_view)
{
    raiseNotImplementedException();
}

bool authorizedMakeDirectory(std::string_view)
{
    raiseNotImplementedException();
}
