#include "notify/QVUserDefaultsPreferencesProvider.h"

#include "toolkit/Log.h"
#include "notify/QVNotificationColor.h"

namespace qv {

QVUserDefaultsPreferencesProvider::QVUserDefaultsPreferencesProvider(QVUserDefaults& defaults) : defaults_(defaults) {}

Value QVUserDefaultsPreferencesProvider::fetchValueForPreference(const std::string& key) {
    Value stored = defaults_.objectForKey(key);
    if (stored.isNull() || key.find("Color") == std::string::npos) return stored;
    if (auto color = QVColorFromValue(stored)) return QVColorToValue(*color);
    QV_LOG_ERROR("the setting " + key + " is not a colour: " + stored.description());
    return Value();
}

} // namespace qv
