// DDTTYLoggerColorProfile: one colour rule of the terminal logger (a flag
// mask and a context, or a tag) with its escape codes made ready once.
//
//   auto red = DDColor::fromRGB(214, 57, 30);
//   auto profile = DDTTYLoggerColorProfile::create(red, std::nullopt, DDLogFlagError, DDTTYLoggerAnyContext);
//   profile->fgCode();   // "\x1b[1;31m" on a 16-colour terminal
//
// The codes depend on what the process's terminal understands, decided once
// from the environment (see DDTTYLogger.h); on a terminal without colours
// they are empty. Profiles are values once made; the logger only replaces
// them.
#pragma once

#include "QMFoundation/Logging/internal/TerminalColors.h"

#include "Platform/Foundation/Object.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

// A colour as calibrated RGB components from 0 to 1.
struct DDColor {
    double red = 0;
    double green = 0;
    double blue = 0;

    static DDColor fromRGB(int red, int green, int blue) { return {red / 255.0, green / 255.0, blue / 255.0}; }
    friend bool operator==(const DDColor&, const DDColor&) = default;
};

// The context that stands for every context.
inline constexpr int DDTTYLoggerAnyContext = 2147483647;

class DDTTYLoggerColorProfile;
using DDTTYLoggerColorProfileRef = std::shared_ptr<DDTTYLoggerColorProfile>;

class DDTTYLoggerColorProfile final : public platform::Object {
public:
    // A missing colour gives an empty code for its part.
    static DDTTYLoggerColorProfileRef create(std::optional<DDColor> foregroundColor,
                                             std::optional<DDColor> backgroundColor, int flag, int context);
    // The same for a terminal of the given kind, whatever the process has.
    static DDTTYLoggerColorProfileRef create(std::optional<DDColor> foregroundColor,
                                             std::optional<DDColor> backgroundColor, int flag, int context,
                                             ddtty_internal::TerminalKind kind);

    int mask() const { return mask_; }
    int context() const { return context_; }
    // 8-bit components, the calibrated ones times 255, truncated.
    std::uint8_t fg_r() const { return fg_[0]; }
    std::uint8_t fg_g() const { return fg_[1]; }
    std::uint8_t fg_b() const { return fg_[2]; }
    std::uint8_t bg_r() const { return bg_[0]; }
    std::uint8_t bg_g() const { return bg_[1]; }
    std::uint8_t bg_b() const { return bg_[2]; }
    // The index into the active colour table; 0 where no table applies.
    std::size_t fgCodeIndex() const { return fgCodeIndex_; }
    std::size_t bgCodeIndex() const { return bgCodeIndex_; }

    const std::string& fgCode() const { return fgCode_; }
    const std::string& bgCode() const { return bgCode_; }
    const std::string& resetCode() const { return resetCode_; }

    // "<DDTTYLoggerColorProfile: 0x... mask:1 ctxt:0 fg:214,57,30 bg:0,0,0 fgCode:... bgCode:...>"
    std::string description() const override;
    std::string className() const override { return "DDTTYLoggerColorProfile"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    DDTTYLoggerColorProfile(std::optional<DDColor> foregroundColor, std::optional<DDColor> backgroundColor, int flag,
                            int context, ddtty_internal::TerminalKind kind);

    int mask_;
    int context_;
    std::uint8_t fg_[3] = {0, 0, 0};
    std::uint8_t bg_[3] = {0, 0, 0};
    std::size_t fgCodeIndex_ = 0;
    std::size_t bgCodeIndex_ = 0;
    std::string fgCode_;
    std::string bgCode_;
    std::string resetCode_;
};
