#pragma once
// Answers the notification centre's preferences from the user defaults. A key
// naming a colour gives the stored colour as four reals, or nothing (and a log
// line) when what is stored isn't a colour, so that the built-in default applies.
#include "vault/UserDefaults.h"
#include "notify/QVNotificationCenter.h"

namespace qv {

class QVUserDefaultsPreferencesProvider : public PreferencesProvider {
public:
    explicit QVUserDefaultsPreferencesProvider(QVUserDefaults& defaults = QVUserDefaults::standardUserDefaults());
    Value fetchValueForPreference(const std::string& key) override;

private:
    QVUserDefaults& defaults_;
};

} // namespace qv
