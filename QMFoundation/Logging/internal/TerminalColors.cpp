#include "QMFoundation/Logging/internal/TerminalColors.h"

#include "Platform/Foundation/Exception.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace ddtty_internal {

namespace {

constexpr const char* kAssertionSourceFile = "DDTTYLogger";

bool containsIgnoringCase(std::string_view text, std::string_view part)
{
    if (part.size() > text.size()) {
        return false;
    }
    for (std::size_t at = 0; at + part.size() <= text.size(); ++at) {
        std::size_t i = 0;
        while (i < part.size() && std::tolower(static_cast<unsigned char>(text[at + i])) ==
                                      std::tolower(static_cast<unsigned char>(part[i]))) {
            ++i;
        }
        if (i == part.size()) {
            return true;
        }
    }
    return false;
}

void checkTable(const ColorTable& table)
{
    if (table.foregroundCodes.size() != table.colors.size() || table.backgroundCodes.size() != table.colors.size()) {
        platform::AssertionHandler::handleFailure({__func__, kAssertionSourceFile, __LINE__,
                                                   "Invalid colors/codes array(s)"});
    }
}

}  // namespace

TerminalKind terminalKindFor(const char* term, const char* xcodeColors, const char* noColor)
{
    if (noColor != nullptr && *noColor != '\0') {
        return TerminalKind::None;
    }
    if (term != nullptr) {
        if (!containsIgnoringCase(term, "color")) {
            return TerminalKind::None;
        }
        return containsIgnoringCase(term, "256") ? TerminalKind::Colors256 : TerminalKind::Colors16;
    }
    if (xcodeColors != nullptr && std::string_view(xcodeColors) == "YES") {
        return TerminalKind::RGBConsole;
    }
    return TerminalKind::None;
}

TerminalKind processTerminalKind()
{
    static const TerminalKind kind =
        terminalKindFor(std::getenv("TERM"), std::getenv("XcodeColors"), std::getenv("NO_COLOR"));
    return kind;
}

// The tables are never destroyed: a program that switches colours on and
// returns from main at once has the logger queue build its profiles from
// them while exit() runs the destructors of statics.
const ColorTable& colorTable16()
{
    static const ColorTable* const table = [] {
        // How a common terminal renders its sixteen colours.
        static const int rgb[16][3] = {
            {0, 0, 0},       {194, 54, 33},   {37, 188, 36},   {173, 173, 39},  {73, 46, 225},   {211, 56, 211},
            {51, 187, 200},  {203, 204, 205}, {129, 131, 131}, {252, 57, 31},   {49, 231, 34},   {234, 236, 35},
            {88, 51, 255},   {249, 53, 248},  {20, 240, 240},  {233, 235, 235},
        };
        ColorTable made;
        for (int i = 0; i < 16; ++i) {
            const std::string bold = i < 8 ? "" : "1;";
            made.foregroundCodes.push_back(bold + std::to_string(30 + i % 8) + "m");
            made.backgroundCodes.push_back(bold + std::to_string(40 + i % 8) + "m");
            made.colors.push_back({rgb[i][0] / 255.0, rgb[i][1] / 255.0, rgb[i][2] / 255.0});
        }
        checkTable(made);
        return new ColorTable(std::move(made));
    }();
    return *table;
}

const ColorTable& colorTable256()
{
    static const ColorTable* const table = [] {
        // Numbers 16 to 231 are a 6x6x6 cube with these levels per
        // component, 232 to 255 a ramp of greys from 8 in steps of 10.
        static const int levels[6] = {0, 95, 135, 175, 215, 255};
        ColorTable made;
        for (int number = 16; number < 256; ++number) {
            int red = 0;
            int green = 0;
            int blue = 0;
            if (number < 232) {
                const int index = number - 16;
                red = levels[index / 36];
                green = levels[(index / 6) % 6];
                blue = levels[index % 6];
            } else {
                red = green = blue = 8 + 10 * (number - 232);
            }
            made.foregroundCodes.push_back("38;5;" + std::to_string(number) + "m");
            made.backgroundCodes.push_back("48;5;" + std::to_string(number) + "m");
            made.colors.push_back({red / 255.0, green / 255.0, blue / 255.0});
        }
        checkTable(made);
        return new ColorTable(std::move(made));
    }();
    return *table;
}

std::size_t codeIndexForColor(const ColorTable& table, double red, double green, double blue)
{
    double best = 100.0;
    std::size_t bestIndex = 0;
    for (std::size_t i = 0; i < table.colors.size(); ++i) {
        const auto& reference = table.colors[i];
        const double distance = std::sqrt(std::pow(reference[0] - red, 2) + std::pow(reference[1] - green, 2) +
                                          std::pow(reference[2] - blue, 2));
        if (distance < best) {
            best = distance;
            bestIndex = i;
        }
    }
    return bestIndex;
}

}  // namespace ddtty_internal
