// Runs a piece of code that must fail an assertion and hands back what the
// assertion handler saw, so a test can check the description, source file and
// method as well as the exception itself.
//
//   const auto failure = testsupport::captureAssertion([] { QMErrorDefinition::errorDefinitionWithDefinition({}); });
//   EXPECT_EQ(failure.description, "Invalid parameter not satisfying: errorDefinition");
#pragma once

#include "Platform/Foundation/Exception.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace testsupport {

template <typename Body>
platform::AssertionFailure captureAssertion(Body&& body)
{
    std::optional<platform::AssertionFailure> seen;
    const auto previous = platform::AssertionHandler::setObserver(
        [&](const platform::AssertionFailure& failure) { seen = failure; });
    std::optional<platform::Exception> raised;
    try {
        std::forward<Body>(body)();
    } catch (const platform::Exception& exception) {
        raised = exception;
    }
    platform::AssertionHandler::setObserver(previous);
    EXPECT_TRUE(raised.has_value()) << "no exception was raised";
    EXPECT_TRUE(seen.has_value()) << "the assertion handler saw nothing";
    if (raised && seen) {
        EXPECT_EQ(raised->name(), platform::NSInternalInconsistencyException);
        EXPECT_EQ(raised->reason(), seen->description);
    }
    return seen.value_or(platform::AssertionFailure{});
}

// Runs a piece of code that must raise the exception `name` (not through the
// assertion handler) and hands back its reason.
template <typename Body>
std::string raisedReason(std::string_view name, Body&& body)
{
    try {
        std::forward<Body>(body)();
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), name);
        return exception.reason();
    }
    ADD_FAILURE() << "nothing was raised";
    return {};
}

}  // namespace testsupport
