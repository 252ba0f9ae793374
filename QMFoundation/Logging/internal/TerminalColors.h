// How the terminal logger picks escape codes: what the terminal understands
// (from the environment, decided once per process) and the colour tables
// with their nearest-colour choice. Plumbing of DDTTYLogger and its profiles.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace ddtty_internal {

enum class TerminalKind {
    None,       // no codes at all
    Colors16,   // ESC [ 30m ... 1;47m
    Colors256,  // ESC [ 38;5;Nm and 48;5;Nm
    RGBConsole  // ESC [ fgR,G,B; (a debugger console that takes RGB codes)
};

// TERM containing "color" (any case) makes a colour terminal, 256 colours
// when it also contains "256". Without TERM, XcodeColors equal to "YES" makes
// the RGB console. NO_COLOR set and not empty turns all of it off. Null
// pointers stand for unset variables.
TerminalKind terminalKindFor(const char* term, const char* xcodeColors, const char* noColor);
// The kind for this process's environment, read on the first call.
TerminalKind processTerminalKind();

// Reference colours with their codes, three lists of one length.
struct ColorTable {
    std::vector<std::string> foregroundCodes;  // without the leading ESC [
    std::vector<std::string> backgroundCodes;
    std::vector<std::array<double, 3>> colors;  // components from 0 to 1
};
const ColorTable& colorTable16();
const ColorTable& colorTable256();

// The first entry nearest to (red, green, blue), components from 0 to 1, by
// Euclidean distance.
std::size_t codeIndexForColor(const ColorTable& table, double red, double green, double blue);

}  // namespace ddtty_internal
