#include "Platform/System/ProcessInfo.h"

#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using platform::ProcessInfo;

namespace {

// Set only in the copy of this program that runChild starts.
constexpr const char* kChildVariable = "ZARVO_PROCESS_INFO_CHILD";

std::string hex(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string firstLineOf(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// In the copy of this program that runChild starts, this reports what
// ProcessInfo sees and ends the process before any test runs.
[[maybe_unused]] const bool reportedAsChild = [] {
    if (std::getenv(kChildVariable) == nullptr) {
        return false;
    }
    std::printf("name %s\n", ProcessInfo::processName().c_str());
    for (const auto& argument : ProcessInfo::arguments()) {
        std::printf("arg %s\n", hex(argument).c_str());
    }
    for (const auto& [name, value] : ProcessInfo::environment()) {
        std::printf("env %s %s\n", name.c_str(), hex(*value.string()).c_str());
    }
    std::fflush(stdout);
    std::_Exit(0);
}();

struct ChildReport {
    std::string name;
    std::vector<std::string> arguments;  // hex
    std::map<std::string, std::string> environment;  // name -> hex of the value
};

// Runs this test program again, as its own child, with exactly the given
// arguments and environment, and reads what ProcessInfo told the child.
ChildReport runChild(const std::vector<std::string>& arguments, std::map<std::string, std::string> environment)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    environment.emplace(kChildVariable, "1");
    const auto result = testsupport::runProgram(self, arguments, environment);
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    ChildReport report;
    std::istringstream lines(result.standardOutput);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("name ", 0) == 0) {
            report.name = line.substr(5);
        } else if (line.rfind("arg ", 0) == 0) {
            report.arguments.push_back(line.substr(4));
        } else if (line.rfind("env ", 0) == 0) {
            const auto separator = line.find(' ', 4);
            report.environment[line.substr(4, separator - 4)] = line.substr(separator + 1);
        }
    }
    return report;
}

}  // namespace

TEST(ProcessInfoArguments, AreTheBytesTheProcessWasStartedWith)
{
    const std::vector<std::string> given = {"two words", "", "caf\xC3\xA9", "\xFF not UTF-8", "--flag=a=b"};
    const auto report = runChild(given, {});
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    ASSERT_EQ(report.arguments.size(), given.size() + 1);
    EXPECT_EQ(report.arguments[0], hex(self));
    for (std::size_t index = 0; index < given.size(); ++index) {
        EXPECT_EQ(report.arguments[index + 1], hex(given[index])) << "argument " << index;
    }
    EXPECT_EQ(report.name, std::filesystem::path(self).filename().string());
}

TEST(ProcessInfoEnvironment, IsExactlyTheProcessEnvironment)
{
    const auto report = runChild({}, {{"PLAIN", "value"}, {"EMPTY", ""}, {"WITH_EQUALS", "a=b=c"}});
    const std::map<std::string, std::string> expected = {
        {"PLAIN", hex("value")}, {"EMPTY", ""}, {"WITH_EQUALS", hex("a=b=c")}, {kChildVariable, hex("1")}};
    EXPECT_EQ(report.environment, expected);
}

TEST(ProcessInfoEnvironment, SeesChangesMadeInTheProcess)
{
    ::setenv("ZARVO_PROCESS_INFO_PROBE", "before", 1);
    EXPECT_EQ(ProcessInfo::environment().get("ZARVO_PROCESS_INFO_PROBE"), platform::Value("before"));
    ::setenv("ZARVO_PROCESS_INFO_PROBE", "after", 1);
    EXPECT_EQ(ProcessInfo::environment().get("ZARVO_PROCESS_INFO_PROBE"), platform::Value("after"));
    ::unsetenv("ZARVO_PROCESS_INFO_PROBE");
    EXPECT_FALSE(ProcessInfo::environment().contains("ZARVO_PROCESS_INFO_PROBE"));
}

TEST(ProcessInfoEnvironment, TheFirstOfTwoDefinitionsCounts)
{
    // putenv's strings become part of the environment; two entries of one name
    // can only be made by hand.
    static char first[] = "ZARVO_TWICE=first";
    static char second[] = "ZARVO_TWICE=second";
    static char noSeparator[] = "ZARVO_NO_SEPARATOR";
    std::vector<char*> entries = {first, second, noSeparator, nullptr};
    char** const saved = environ;
    environ = entries.data();
    const auto variables = ProcessInfo::environment();
    environ = saved;
    EXPECT_EQ(variables.size(), 1U);
    EXPECT_EQ(variables.get("ZARVO_TWICE"), platform::Value("first"));
}

TEST(ProcessInfoHost, NamesTheHostAndKernelAsTheKernelDoes)
{
    EXPECT_EQ(ProcessInfo::hostName(), firstLineOf("/proc/sys/kernel/hostname"));
    EXPECT_EQ(ProcessInfo::kernelRelease(), firstLineOf("/proc/sys/kernel/osrelease"));
    EXPECT_EQ(ProcessInfo::processIdentifier(), std::stoi(std::filesystem::read_symlink("/proc/self").string()));
}

TEST(ProcessInfoHost, CountsProcessors)
{
    EXPECT_GE(ProcessInfo::activeProcessorCount(), 1U);
    EXPECT_GE(ProcessInfo::processorCount(), ProcessInfo::activeProcessorCount());
}

// The REST operation trusts servers blindly on "10.8" and before; the version
// must compare above it, component by component.
TEST(ProcessInfoHost, OperatingSystemVersionIsAboveTenEight)
{
    const auto version = ProcessInfo::operatingSystemVersion();
    EXPECT_EQ(version.majorVersion, 10);
    EXPECT_GT(version.minorVersion, 8);
    EXPECT_GE(version.patchVersion, 0);
}
