#include "QMFoundation/Errors/NSError+QMCommon.h"
#include "QMFoundation/Errors/NSException+QMCommon.h"
#include "QMFoundation/Errors/NSFileManager+QMAuthorization.h"
#include "QMFoundation/Errors/QMNotImplemented.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

using platform::Dictionary;
using platform::Error;
using platform::Exception;

namespace {

std::string addressOf(const void* pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

TEST(NSErrorQMCommon, ContainsAnErrorOnlyForPositiveCodes)
{
    EXPECT_FALSE(containsError(*Error::create("QMKeychainErrorDomain", -25300)));
    EXPECT_FALSE(containsError(*Error::create("d", 0)));
    EXPECT_TRUE(containsError(*Error::create("d", 1)));
}

TEST(NSErrorQMCommon, DescribesEveryPart)
{
    const auto error = Error::create("com.example", -3,
                                     Dictionary{{std::string(platform::NSLocalizedDescriptionKey), "Broke."}, {"id", 4}});
    EXPECT_EQ(fullDescription(*error), "<NSError " + error->addressString() + "> {\n"
                                           "\tDomain: com.example\n"
                                           "\tCode: -3\n"
                                           "\tDescription: Broke.\n"
                                           "\tReason: (null)\n"
                                           "\tUserInfo: {\n    NSLocalizedDescription = Broke.;\n    id = 4;\n}\n"
                                           "}");
}

TEST(NSExceptionQMCommon, DescribesAnExceptionThatWasOnlyMade)
{
    const Exception exception("SomethingException", "It went wrong.");
    EXPECT_EQ(fullDescription(exception), "NSException <" + addressOf(&exception) + "> {\n"
                                              "\t\tname: SomethingException\n"
                                              "\t\treason: It went wrong.\n"
                                              "\t\tuserInfo: (null)\n"
                                              "\t}");
}

TEST(NSExceptionQMCommon, AddsTheCallStackOfARaisedException)
{
    try {
        Exception::raise("SomethingException", "It went wrong.", Dictionary{{"k", "v"}});
    } catch (const Exception& exception) {
        const auto text = fullDescription(exception);
        const std::string head = "NSException <" + addressOf(&exception) + "> {\n"
                                 "\t\tname: SomethingException\n"
                                 "\t\treason: It went wrong.\n"
                                 "\t\tuserInfo: {\n    k = v;\n}\n"
                                 "\t\tcallStack: (\n    ";
        EXPECT_EQ(text.substr(0, head.size()), head);
        EXPECT_EQ(text.substr(text.size() - 5), "\n)\n\t}");
        ASSERT_FALSE(exception.callStackSymbols().empty());
        EXPECT_NE(text.find(exception.callStackSymbols().front()), std::string::npos);
        return;
    }
    FAIL() << "nothing was raised";
}

TEST(NotImplemented, PrivilegedFileOperationsRaise)
{
    const std::function<void()> operations[] = {
        [] { authorizedMovePath("/tmp/a", "/tmp/b"); },
        [] { authorizedCopyPath("/tmp/a", "/tmp/b"); },
        [] { authorizedMakeDirectory("/tmp/a"); },
    };
    for (const auto& operation : operations) {
        try {
            operation();
            ADD_FAILURE() << "nothing was raised";
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), QMNotImplementedException);
            EXPECT_EQ(exception.reason(), "Not implemented yet.");
        }
    }
}

}  // namespace
