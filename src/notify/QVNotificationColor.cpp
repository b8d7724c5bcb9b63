#include "notify/QVNotificationColor.h"

#include <cmath>

namespace qv {

namespace {

std::optional<double> component(const Value& v) {
    if (!v.isNumber()) return std::nullopt;
    double d = v.toDouble();
    if (!std::isfinite(d) || d < 0.0 || d > 1.0) return std::nullopt;
    return d;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<QVColor> fromHex(const std::string& s) {
    if ((s.size() != 7 && s.size() != 9) || s[0] != '#') return std::nullopt;
    double parts[4] = {0, 0, 0, 1.0};
    for (size_t i = 1, n = 0; i < s.size(); i += 2, ++n) {
        int hi = hexDigit(s[i]), lo = hexDigit(s[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        parts[n] = (hi * 16 + lo) / 255.0;
    }
    return QVColor{parts[0], parts[1], parts[2], parts[3]};
}

} // namespace

Value QVColorToValue(const QVColor& color) {
    return Value::newArray({Value(color.red), Value(color.green), Value(color.blue), Value(color.alpha)});
}

std::optional<QVColor> QVColorFromValue(const Value& value) {
    if (value.isString()) return fromHex(value.toString());
    ArrayRef items = value.kind() == Value::Kind::Array ? value.toArray() : nullptr;
    if (!items || (items->size() != 3 && items->size() != 4)) return std::nullopt;
    double parts[4] = {0, 0, 0, 1.0};
    for (size_t i = 0; i < items->size(); ++i) {
        auto c = component((*items)[i]);
        if (!c) return std::nullopt;
        parts[i] = *c;
    }
    return QVColor{parts[0], parts[1], parts[2], parts[3]};
}

} // namespace qv
