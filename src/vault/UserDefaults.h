#pragma once
// User defaults: the settings under their QV... keys, stored with QSettings in
// ~/.config/Quillvane/Quillvane.conf (XDG_CONFIG_HOME), read at the point of use,
// with fallback values registered from the bundled "QuillvaneDefaults.plist".
#include <memory>
#include <mutex>
#include <string>

#include "toolkit/QVError.h"
#include "vault/Value.h"

class QSettings;

namespace qv {

class QVUserDefaults {
public:
    static QVUserDefaults& standardUserDefaults();

    // Fallback values for keys the user never set; later registrations win.
    void registerDefaults(const Dict& defaults);
    Value objectForKey(const std::string& key);
    int64_t integerForKey(const std::string& key);
    bool boolForKey(const std::string& key);
    std::string stringForKey(const std::string& key);
    void setObject(const std::string& key, const Value& value);
    void removeObjectForKey(const std::string& key);
    bool synchronize();

    // Drops the open settings file, so that the next access reopens it from
    // XDG_CONFIG_HOME (tests that redirect it between cases).
    void reopen();

private:
    QSettings& settings();
    std::recursive_mutex mutex_;
    std::unique_ptr<QSettings> settings_;
    Dict registered_;
};

// Where the bundled resources are: $QV_RESOURCE_DIR, the installed share
// directory, or the source tree's resources/ for a build that was not installed.
std::string QVResourcePath(const std::string& name, const std::string& type);

// The key of the folder chosen for new images, and its value as a plain path
// (kept as a path or a file URL); "" when unset.
inline constexpr const char* QVDiskImageDestinationPathKey = "QVDiskImageDestinationPath";
std::string QVDiskImageDestinationPath();

// Reads "QuillvaneDefaults" of type "plist" and registers it as the fallback values.
bool registerQuillvaneDefaults(QVError* error = nullptr);

} // namespace qv
