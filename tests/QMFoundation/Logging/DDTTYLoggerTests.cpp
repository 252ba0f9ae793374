#include "QMFoundation/Logging/DDTTYLogger.h"

#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDTTYLoggerColorProfile.h"
#include "QMFoundation/Logging/internal/TerminalColors.h"

#include "Platform/System/ProcessInfo.h"
#include "tests/QMFoundation/Logging/RecordingLogger.h"
#include "tests/Support/AssertionCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using ddtty_internal::TerminalKind;

namespace {

// This process is a 16-colour terminal as far as the logger can tell; the
// other kinds are tried in programs of their own (DDTTYLoggerTerminalTests).
const bool sixteenColours = [] {
    ::setenv("TERM", "xterm-color", 1);
    ::unsetenv("NO_COLOR");
    return true;
}();

const std::string kEsc = "\x1b[";

// What the terminal logger writes to standard error while `body` runs; read
// as it comes, so that a line longer than a pipe holds does not stall.
template <typename Body>
std::string standardErrorOf(Body&& body)
{
    int pipeEnds[2];
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe";
        return {};
    }
    std::string text;
    std::thread reader([&text, fd = pipeEnds[0]] {
        char buffer[65536];
        ssize_t count = 0;
        while ((count = ::read(fd, buffer, sizeof buffer)) > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
        }
        ::close(fd);
    });
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(pipeEnds[1], STDERR_FILENO);
    ::close(pipeEnds[1]);
    body();
    ::dup2(saved, STDERR_FILENO);  // the last write end goes: the reader sees the end
    ::close(saved);
    reader.join();
    return text;
}

void logSync(int flag, const std::string& text, int context = 0, const platform::Value& tag = {})
{
    DDLog::log(false, DDLogLevelAll, flag, context, __FILE__, __func__, __LINE__, tag, "%s", text.c_str());
}

class PlainFormatter : public DDLogFormatter {
public:
    static DDLogFormatterRef create() { return platform::makeObject<PlainFormatter>(); }
    std::optional<std::string> formatLogMessage(const DDLogMessage& message) override { return message.logMsg(); }
};

class DDTTYLoggerTest : public logtest::LoggingTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sixteenColours);
        LoggingTest::SetUp();
        tty->clearAllColors();
        tty->setColorsEnabled(false);
        tty->setLogFormatter(PlainFormatter::create());
        DDLog::addLogger(tty);
        DDLog::flushLog();
    }

    const DDTTYLoggerRef& tty = DDTTYLogger::sharedInstance();
};

// --- What the terminal understands ------------------------------------------

TEST(TerminalKindTest, ChosenFromTermThenXcodeColorsAndSwitchedOffByNoColor)
{
    struct Row {
        const char* term;
        const char* xcodeColors;
        const char* noColor;
        TerminalKind kind;
    };
    const std::vector<Row> rows = {
        {"xterm-256color", nullptr, nullptr, TerminalKind::Colors256},
        {"xterm-color", nullptr, nullptr, TerminalKind::Colors16},
        {"XTERM-COLOR", nullptr, nullptr, TerminalKind::Colors16},
        {"screen.xterm-256Color", nullptr, nullptr, TerminalKind::Colors256},
        {"xterm-256", nullptr, nullptr, TerminalKind::None},  // no "color"
        {"xterm", nullptr, nullptr, TerminalKind::None},
        {"", "YES", nullptr, TerminalKind::None},  // TERM set, even empty: XcodeColors is not read
        {nullptr, "YES", nullptr, TerminalKind::RGBConsole},
        {nullptr, "yes", nullptr, TerminalKind::None},
        {nullptr, nullptr, nullptr, TerminalKind::None},
        {"xterm-256color", nullptr, "1", TerminalKind::None},
        {nullptr, "YES", "1", TerminalKind::None},
        {"xterm-256color", nullptr, "", TerminalKind::Colors256},  // an empty NO_COLOR does not count
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.term ? row.term : "(unset)") + " / " + (row.xcodeColors ? row.xcodeColors : "-") +
                     " / " + (row.noColor ? row.noColor : "-"));
        EXPECT_EQ(ddtty_internal::terminalKindFor(row.term, row.xcodeColors, row.noColor), row.kind);
    }
}

TEST(ColorProfileTest, CodesAreThoseOfTheNearestReferenceColour)
{
    struct Row {
        DDColor color;
        TerminalKind kind;
        std::string fgCode;
        std::string bgCode;
    };
    const std::vector<Row> rows = {
        {DDColor::fromRGB(214, 57, 30), TerminalKind::Colors16, kEsc + "31m", kEsc + "41m"},
        {DDColor::fromRGB(204, 121, 32), TerminalKind::Colors16, kEsc + "33m", kEsc + "43m"},
        {DDColor::fromRGB(255, 255, 255), TerminalKind::Colors16, kEsc + "1;37m", kEsc + "1;47m"},
        {DDColor::fromRGB(0, 0, 0), TerminalKind::Colors16, kEsc + "30m", kEsc + "40m"},
        {DDColor::fromRGB(214, 57, 30), TerminalKind::Colors256, kEsc + "38;5;166m", kEsc + "48;5;166m"},
        {DDColor::fromRGB(128, 128, 128), TerminalKind::Colors256, kEsc + "38;5;244m", kEsc + "48;5;244m"},
        {DDColor::fromRGB(0, 0, 0), TerminalKind::Colors256, kEsc + "38;5;16m", kEsc + "48;5;16m"},
        {DDColor::fromRGB(214, 57, 30), TerminalKind::RGBConsole, kEsc + "fg214,57,30;", kEsc + "bg214,57,30;"},
        {DDColor::fromRGB(214, 57, 30), TerminalKind::None, "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.fgCode));
        const auto profile = DDTTYLoggerColorProfile::create(row.color, row.color, 1, 0, row.kind);
        EXPECT_EQ(profile->fgCode(), row.fgCode);
        EXPECT_EQ(profile->bgCode(), row.bgCode);
        EXPECT_LE(profile->fgCode().size(), 23U);
    }
    EXPECT_EQ(DDTTYLoggerColorProfile::create(std::nullopt, std::nullopt, 1, 0, TerminalKind::Colors16)->resetCode(),
              kEsc + "0m");
    EXPECT_EQ(DDTTYLoggerColorProfile::create(std::nullopt, std::nullopt, 1, 0, TerminalKind::RGBConsole)->resetCode(),
              kEsc + ";");
    const auto onlyForeground =
        DDTTYLoggerColorProfile::create(DDColor{1.0, 0.5, 0.0}, std::nullopt, 2, 7, TerminalKind::Colors256);
    EXPECT_EQ(onlyForeground->bgCode(), "");
    EXPECT_THAT(onlyForeground->description(),
                testing::MatchesRegex("<DDTTYLoggerColorProfile: 0x[0-9a-f]+ mask:2 ctxt:7 fg:255,127,0 bg:0,0,0 "
                                      "fgCode:.\\[38;5;208m bgCode:>"));
}

// --- Lines ------------------------------------------------------------------

TEST_F(DDTTYLoggerTest, AnUnformattedLineCarriesTimeProcessAndThread)
{
    tty->setLogFormatter(nullptr);
    const std::string written = standardErrorOf([] { logSync(DDLogFlagInfo, "plain text"); });
    char thread[16];
    std::snprintf(thread, sizeof thread, "%lx", static_cast<long>(::syscall(SYS_gettid)));
    const std::regex shape("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d:\\d{3} " +
                           platform::ProcessInfo::processName() + "\\[" + std::to_string(::getpid()) + ":" + thread +
                           "\\] plain text\n");
    EXPECT_TRUE(std::regex_match(written, shape)) << testing::PrintToString(written);
}

// Every text gets a line end, even one that has one; long and invalid text
// is written whole.
TEST_F(DDTTYLoggerTest, EveryTextIsWrittenWholeWithALineEndOfItsOwn)
{
    const std::string big(200000, 'y');  // more than a pipe takes in one write
    const std::string invalid = "bad \xff\xfe utf-8";
    const std::string written = standardErrorOf([&] {
        logSync(DDLogFlagInfo, "one\n");
        logSync(DDLogFlagInfo, "two");
        logSync(DDLogFlagInfo, "");
        logSync(DDLogFlagInfo, big);
        logSync(DDLogFlagInfo, invalid);
    });
    EXPECT_EQ(written, "one\n\ntwo\n\n" + big + "\n" + invalid + "\n");
}

// --- Colours ----------------------------------------------------------------

TEST_F(DDTTYLoggerTest, EnablingColoursLoadsErrorAndWarningColours)
{
    const std::string disabled = standardErrorOf([] { logSync(DDLogFlagError, "e"); });
    EXPECT_EQ(disabled, "e\n");
    tty->setColorsEnabled(true);
    EXPECT_TRUE(tty->colorsEnabled());
    const std::string written = standardErrorOf([] {
        logSync(DDLogFlagError, "e");
        logSync(DDLogFlagWarning, "w");
        logSync(DDLogFlagInfo, "i");
    });
    EXPECT_EQ(written, kEsc + "31m" + "e\n" + kEsc + "0m" + kEsc + "33m" + "w\n" + kEsc + "0m" + "i\n");
}

TEST_F(DDTTYLoggerTest, AnExactContextWinsOverAnyContextAndTagsWinOverBoth)
{
    tty->setColorsEnabled(true);
    tty->clearColorsForAllFlags();
    const DDColor red = DDColor::fromRGB(194, 54, 33);    // 31m
    const DDColor green = DDColor::fromRGB(37, 188, 36);  // 32m
    const DDColor blue = DDColor::fromRGB(73, 46, 225);   // 34m
    tty->setForegroundColor(red, std::nullopt, DDLogFlagError);
    tty->setForegroundColor(green, std::nullopt, DDLogFlagError, 7);
    tty->setForegroundColor(blue, std::nullopt, DDLogFlagWarning, 7);
    tty->setForegroundColor(blue, std::nullopt, platform::Value("upload"));
    const std::string written = standardErrorOf([] {
        logSync(DDLogFlagError, "any", 3);
        logSync(DDLogFlagError, "seven", 7);
        logSync(3, "both", 7);  // matches the error and warning profiles: the first exact one wins
        logSync(DDLogFlagInfo, "tagged", 0, platform::Value("upload"));
        logSync(DDLogFlagInfo, "other tag", 0, platform::Value("download"));
    });
    EXPECT_EQ(written, kEsc + "31m" + "any\n" + kEsc + "0m" +        //
                           kEsc + "32m" + "seven\n" + kEsc + "0m" +  //
                           kEsc + "32m" + "both\n" + kEsc + "0m" +   //
                           kEsc + "34m" + "tagged\n" + kEsc + "0m" + //
                           "other tag\n");
}

TEST_F(DDTTYLoggerTest, ProfilesAreReplacedInPlaceAndClearedByExactMaskAndContext)
{
    tty->setColorsEnabled(true);
    tty->clearColorsForAllFlags();
    tty->setForegroundColor(DDColor::fromRGB(194, 54, 33), std::nullopt, DDLogFlagError);     // 31m
    tty->setForegroundColor(DDColor::fromRGB(73, 46, 225), std::nullopt, DDLogFlagError | 2);  // 34m
    // Among profiles for any context the last that matches wins; replacing
    // the first keeps it first, so the second still wins.
    tty->setForegroundColor(DDColor::fromRGB(37, 188, 36), std::nullopt, DDLogFlagError);  // 32m
    const std::string replaced = standardErrorOf([] { logSync(DDLogFlagError, "e"); });
    EXPECT_EQ(replaced, kEsc + "34m" + "e\n" + kEsc + "0m");

    tty->clearColorsForFlag(DDLogFlagError);  // context 0: the any-context profile stays
    EXPECT_EQ(standardErrorOf([] { logSync(DDLogFlagError, "e"); }), kEsc + "34m" + "e\n" + kEsc + "0m");
    tty->clearColorsForFlag(DDLogFlagError | 2, DDTTYLoggerAnyContext);
    EXPECT_EQ(standardErrorOf([] { logSync(DDLogFlagError, "e"); }), kEsc + "32m" + "e\n" + kEsc + "0m");

    tty->setForegroundColor(std::nullopt, DDColor::fromRGB(73, 46, 225), platform::Value(42));
    EXPECT_EQ(standardErrorOf([] { logSync(DDLogFlagInfo, "t", 0, platform::Value(42)); }),
              kEsc + "44m" + "t\n" + kEsc + "0m");
    tty->clearColorsForTag(platform::Value(42));
    tty->clearAllColors();
    EXPECT_EQ(standardErrorOf([] {
                  logSync(DDLogFlagInfo, "t", 0, platform::Value(42));
                  logSync(DDLogFlagError, "e");
              }),
              "t\ne\n");
}

TEST_F(DDTTYLoggerTest, ChangesAreRefusedOnTheGlobalQueueAndTagsMustHoldSomething)
{
    platform::AssertionFailure onGlobal;
    DDLog::loggingQueue()->sync([&] {
        onGlobal = testsupport::captureAssertion(
            [&] { tty->setForegroundColor(DDColor{}, std::nullopt, DDLogFlagError); });
    });
    EXPECT_EQ(onGlobal.description, "Core architecture requirement failure");
    EXPECT_EQ(onGlobal.file, "DDTTYLogger");

    const auto invalid = testsupport::captureAssertion(
        [&] { tty->setForegroundColor(DDColor{}, std::nullopt, platform::Value()); });
    EXPECT_EQ(invalid.description, "Invalid tag");

    platform::AssertionFailure onOwn;
    tty->loggerQueue()->sync([&] { onOwn = testsupport::captureAssertion([&] { tty->colorsEnabled(); }); });
    EXPECT_EQ(onOwn.description, "MUST access ivar directly, NOT via self.* syntax.");
    EXPECT_EQ(tty->loggerQueue()->label(), "cocoa.velmora.ttyLogger");
}

}  // namespace
