#include "QMFoundation/Logging/DDTTYLoggerColorProfile.h"

#include <algorithm>
#include <cstdio>

using ddtty_internal::TerminalKind;

namespace {

constexpr char kEscape = '\x1b';

std::uint8_t component(double value)
{
    return static_cast<std::uint8_t>(std::clamp(value, 0.0, 1.0) * 255.0);
}

}  // namespace

DDTTYLoggerColorProfileRef DDTTYLoggerColorProfile::create(std::optional<DDColor> foregroundColor,
                                                           std::optional<DDColor> backgroundColor, int flag,
                                                           int context)
{
    return create(foregroundColor, backgroundColor, flag, context, ddtty_internal::processTerminalKind());
}

DDTTYLoggerColorProfileRef DDTTYLoggerColorProfile::create(std::optional<DDColor> foregroundColor,
                                                           std::optional<DDColor> backgroundColor, int flag,
                                                           int context, TerminalKind kind)
{
    return platform::makeObject<DDTTYLoggerColorProfile>(foregroundColor, backgroundColor, flag, context, kind);
}

DDTTYLoggerColorProfile::DDTTYLoggerColorProfile(std::optional<DDColor> foregroundColor,
                                                 std::optional<DDColor> backgroundColor, int flag, int context,
                                                 TerminalKind kind)
    : mask_(flag), context_(context)
{
    if (foregroundColor) {
        fg_[0] = component(foregroundColor->red);
        fg_[1] = component(foregroundColor->green);
        fg_[2] = component(foregroundColor->blue);
    }
    if (backgroundColor) {
        bg_[0] = component(backgroundColor->red);
        bg_[1] = component(backgroundColor->green);
        bg_[2] = component(backgroundColor->blue);
    }
    if (kind == TerminalKind::Colors16 || kind == TerminalKind::Colors256) {
        const auto& table =
            kind == TerminalKind::Colors16 ? ddtty_internal::colorTable16() : ddtty_internal::colorTable256();
        if (foregroundColor) {
            fgCodeIndex_ = ddtty_internal::codeIndexForColor(table, foregroundColor->red, foregroundColor->green,
                                                             foregroundColor->blue);
            fgCode_ = std::string(1, kEscape) + "[" + table.foregroundCodes[fgCodeIndex_];
        }
        if (backgroundColor) {
            bgCodeIndex_ = ddtty_internal::codeIndexForColor(table, backgroundColor->red, backgroundColor->green,
                                                             backgroundColor->blue);
            bgCode_ = std::string(1, kEscape) + "[" + table.backgroundCodes[bgCodeIndex_];
        }
        resetCode_ = std::string(1, kEscape) + "[0m";
    } else if (kind == TerminalKind::RGBConsole) {
        char code[24];
        if (foregroundColor) {
            std::snprintf(code, sizeof code, "%c[fg%u,%u,%u;", kEscape, fg_[0], fg_[1], fg_[2]);
            fgCode_ = code;
        }
        if (backgroundColor) {
            std::snprintf(code, sizeof code, "%c[bg%u,%u,%u;", kEscape, bg_[0], bg_[1], bg_[2]);
            bgCode_ = code;
        }
        resetCode_ = std::string(1, kEscape) + "[;";
    }
}

std::string DDTTYLoggerColorProfile::description() const
{
    char text[256];
    std::snprintf(text, sizeof text, "<DDTTYLoggerColorProfile: %s mask:%i ctxt:%i fg:%u,%u,%u bg:%u,%u,%u fgCode:%s bgCode:%s>",
                  addressString().c_str(), mask_, context_, fg_[0], fg_[1], fg_[2], bg_[0], bg_[1], bg_[2],
                  fgCode_.c_str(), bgCode_.c_str());
    return text;
}
