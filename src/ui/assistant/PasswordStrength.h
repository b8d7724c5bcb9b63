#pragma once
// How strong a new password looks, from 0 to 100, and the word the password
// step shows for it. Widget-free.
#include <QString>

namespace qv::ui {

class QVPasswordStrength {
public:
    enum class Level { Weak, Good, Strong };

    // Length counts characters (code points). Special characters are
    // !@#$%^&*?_`~=-+()[{}]|\/. and digits are Unicode decimal digits.
    static int score(const QString& password);

    // 34 or less is weak, 35 to 60 good, above 60 strong.
    static Level levelOf(int score);
    static QString levelText(Level level);

    // The password step asks for better below these scores.
    static constexpr int kWeakAtMost = 34;
    static constexpr int kAcceptedFrom = 60;
};

} // namespace qv::ui
