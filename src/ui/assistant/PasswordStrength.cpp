#include "ui/assistant/PasswordStrength.h"

#include <QCoreApplication>
#include <algorithm>

namespace qv::ui {

namespace {

bool isSpecial(char32_t c) {
    static const std::u32string specials = U"!@#$%^&*?_`~=-+()[{}]|\\/.";
    return specials.find(c) != std::u32string::npos;
}

bool isLower(char32_t c) { return c >= U'a' && c <= U'z'; }
bool isUpper(char32_t c) { return c >= U'A' && c <= U'Z'; }
bool isLetter(char32_t c) { return isLower(c) || isUpper(c); }
bool isDigit(char32_t c) { return QChar::isDigit(c); }

} // namespace

int QVPasswordStrength::score(const QString& password) {
    const QList<uint> chars = password.toUcs4();
    const int n = int(chars.size());
    if (n < 4) return n;

    int digits = 0, specials = 0;
    bool lower = false, upper = false, letter = false;
    for (uint u : chars) {
        const auto c = char32_t(u);
        digits += isDigit(c);
        specials += isSpecial(c);
        lower |= isLower(c);
        upper |= isUpper(c);
        letter |= isLetter(c);
    }
    const bool digit = digits > 0, special = specials > 0, long9 = n >= 9;
    const bool onlyLetters = std::all_of(chars.begin(), chars.end(), [](uint c) { return isLetter(char32_t(c)); });
    const bool onlyDigits = std::all_of(chars.begin(), chars.end(), [](uint c) { return isDigit(char32_t(c)); });

    int s = n * 4;
    if (digits >= 3) s += 5;
    if (specials >= 1) s += 5;
    if (specials >= 2) s += 5;
    if (lower && upper) s += 5;
    // Each pair of kinds mixed, more so in a longer password.
    for (bool pair : {letter && digit, special && digit, special && letter})
        if (pair) s += long9 ? 15 : 10;
    if (onlyLetters || onlyDigits) s -= 10;
    return std::clamp(s, 0, 100);
}

QVPasswordStrength::Level QVPasswordStrength::levelOf(int score) {
    if (score <= kWeakAtMost) return Level::Weak;
    if (score <= 60) return Level::Good;
    return Level::Strong;
}

QString QVPasswordStrength::levelText(Level level) {
    switch (level) {
    case Level::Weak:
        return QCoreApplication::translate("QVPasswordStrength", "Weak");
    case Level::Good:
        return QCoreApplication::translate("QVPasswordStrength", "Good");
    case Level::Strong:
        return QCoreApplication::translate("QVPasswordStrength", "Strong");
    }
    return {};
}

} // namespace qv::ui
