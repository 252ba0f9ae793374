// The terminal logger on a real pseudo-terminal, one program per TERM
// setting, since the colours are chosen once per process.
#include "tests/Support/RunOnTerminal.h"
#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

const std::string kEsc = "\x1b[";

testsupport::TerminalResult runProbe(const std::map<std::string, std::string>& environment)
{
    return testsupport::runOnTerminal(testsupport::builtProgram("zarvo-terminal-log-probe"), {}, environment, {});
}

std::string escaped(const std::string& text)
{
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// Whether the screen has the line of `text`, with `code` right before its
// time stamp and `reset` right after its line end (which the terminal shows
// as "\r\n").
bool showsLine(const std::string& screen, const std::string& code, const std::string& text, const std::string& reset)
{
    // A line starts a screen line, or follows the reset of the line before.
    const std::regex line("(^|\n|\x1b\\[0m|\x1b\\[;)" + escaped(code) + R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3} [^\r\n]*\] )" +
                          escaped(text) + "\r\n" + escaped(reset));
    return std::regex_search(screen, line);
}

TEST(DDTTYLoggerTerminalTest, ColoursFollowTheTerminalKind)
{
    struct Row {
        std::map<std::string, std::string> environment;
        std::string errorCode;    // what comes before the error text
        std::string warningCode;  // and before the warning text
        std::string reset;
    };
    const std::vector<Row> rows = {
        {{{"TERM", "xterm-256color"}}, kEsc + "38;5;166m", kEsc + "38;5;172m", kEsc + "0m"},
        {{{"TERM", "xterm-color"}}, kEsc + "31m", kEsc + "33m", kEsc + "0m"},
        {{{"TERM", "xterm-color"}, {"XcodeColors", "YES"}}, kEsc + "31m", kEsc + "33m", kEsc + "0m"},
        {{{"XcodeColors", "YES"}}, kEsc + "fg214,57,30;", kEsc + "fg204,121,32;", kEsc + ";"},
        {{{"TERM", "xterm"}}, "", "", ""},
        {{{"TERM", "xterm-256color"}, {"NO_COLOR", "1"}}, "", "", ""},
    };
    for (const auto& row : rows) {
        std::string name;
        for (const auto& [key, value] : row.environment) {
            name += key + "=" + value + " ";
        }
        SCOPED_TRACE(name);
        const auto result = runProbe(row.environment);
        ASSERT_EQ(result.exitStatus, 0) << result.screen;
        EXPECT_TRUE(showsLine(result.screen, row.errorCode, "error line", row.reset))
            << testing::PrintToString(result.screen);
        EXPECT_TRUE(showsLine(result.screen, row.warningCode, "warning line", row.reset))
            << testing::PrintToString(result.screen);
        // Information has no profile: no code, and no reset either.
        EXPECT_TRUE(showsLine(result.screen, "", "info line", "")) << testing::PrintToString(result.screen);
        EXPECT_EQ(result.screen.find("info line\r\n\x1b"), std::string::npos);
        if (row.errorCode.empty()) {
            EXPECT_EQ(result.screen.find('\x1b'), std::string::npos) << testing::PrintToString(result.screen);
        }
    }
}

}  // namespace
