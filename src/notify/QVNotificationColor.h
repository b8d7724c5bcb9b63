#pragma once
// The colours of the notification panels: red, green, blue and alpha, each
// 0 to 1. A colour travels as a Value holding an array of four reals, which is
// also how the settings file stores it.
#include <optional>
#include <string>

#include "vault/Value.h"

namespace qv {

struct QVColor {
    double red = 0, green = 0, blue = 0, alpha = 1;
    bool operator==(const QVColor&) const = default;
};

inline constexpr QVColor QVColorWhite{1.0, 1.0, 1.0, 1.0};

Value QVColorToValue(const QVColor& color);
// Reads an array of three or four numbers in 0..1 (alpha 1 when left out), or
// text "#rrggbb" / "#rrggbbaa" as a user may write it into the settings file.
// Anything else gives nothing.
std::optional<QVColor> QVColorFromValue(const Value& value);

} // namespace qv
