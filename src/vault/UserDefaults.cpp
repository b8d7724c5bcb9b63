#include "vault/UserDefaults.h"

#include <QSettings>
#include <QStandardPaths>
#include <QVariant>
#include <cstdlib>
#include <filesystem>

#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"

namespace qv {

namespace {

QVariant toVariant(const Value& v) {
    switch (v.kind()) {
    case Value::Kind::Bool: return QVariant(v.toBool());
    case Value::Kind::Int: return QVariant(static_cast<qlonglong>(v.toInt()));
    case Value::Kind::Real: return QVariant(v.toDouble());
    case Value::Kind::String: return QVariant(QString::fromStdString(v.toString()));
    case Value::Kind::Array: {
        QVariantList list;
        for (const auto& item : *v.toArray()) list.append(toVariant(item));
        return list;
    }
    default: return QVariant();
    }
}

Value fromVariant(const QVariant& q) {
    switch (q.typeId()) {
    case QMetaType::Bool: return Value(q.toBool());
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong: return Value(static_cast<long long>(q.toLongLong()));
    case QMetaType::Double: return Value(q.toDouble());
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        auto arr = std::make_shared<Array>();
        for (const auto& item : q.toList()) arr->push_back(fromVariant(item));
        return Value(arr);
    }
    case QMetaType::QString: {
        // The settings file stores scalars as text; give numbers and flags back as such.
        QString s = q.toString();
        if (s == "true" || s == "false") return Value(s == "true");
        bool ok = false;
        qlonglong i = s.toLongLong(&ok);
        if (ok) return Value(static_cast<long long>(i));
        double d = s.toDouble(&ok);
        if (ok) return Value(d);
        return Value(s.toStdString());
    }
    default: return Value();
    }
}

} // namespace

QVUserDefaults& QVUserDefaults::standardUserDefaults() {
    static QVUserDefaults defaults;
    return defaults;
}

QSettings& QVUserDefaults::settings() {
    if (!settings_) {
        QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
        settings_ = std::make_unique<QSettings>(dir + "/Quillvane/Quillvane.conf", QSettings::IniFormat);
    }
    return *settings_;
}

void QVUserDefaults::registerDefaults(const Dict& defaults) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (const auto& [k, v] : defaults) registered_[k] = v;
}

Value QVUserDefaults::objectForKey(const std::string& key) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    QString qkey = QString::fromStdString(key);
    if (settings().contains(qkey)) return fromVariant(settings().value(qkey));
    return QVDictGet(registered_, key);
}

int64_t QVUserDefaults::integerForKey(const std::string& key) { return objectForKey(key).toInt(); }
bool QVUserDefaults::boolForKey(const std::string& key) { return objectForKey(key).toBool(); }
std::string QVUserDefaults::stringForKey(const std::string& key) { return objectForKey(key).toString(); }

void QVUserDefaults::setObject(const std::string& key, const Value& value) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (value.isNull())
        settings().remove(QString::fromStdString(key));
    else
        settings().setValue(QString::fromStdString(key), toVariant(value));
}

void QVUserDefaults::removeObjectForKey(const std::string& key) { setObject(key, Value()); }

bool QVUserDefaults::synchronize() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    settings().sync();
    return settings().status() == QSettings::NoError;
}

void QVUserDefaults::reopen() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    settings_.reset();
}

std::string QVResourcePath(const std::string& name, const std::string& type) {
    const std::string file = name + "." + type;
    std::vector<std::string> dirs;
    if (const char* env = std::getenv("QV_RESOURCE_DIR"); env && *env) dirs.emplace_back(env);
    dirs.emplace_back(QV_INSTALLED_RESOURCE_DIR);
    dirs.emplace_back(QV_RESOURCE_DIR);
    for (const auto& dir : dirs) {
        std::error_code ec;
        if (std::filesystem::is_regular_file(dir + "/" + file, ec)) return dir + "/" + file;
    }
    return {};
}

bool registerQuillvaneDefaults(QVError* error) {
    std::string path = QVResourcePath("QuillvaneDefaults", "plist");
    if (path.empty()) {
        QV_LOG_ERROR("resource QuillvaneDefaults.plist not found");
        QVSetAppError(error, QVErrorFailed, "The default settings (QuillvaneDefaults.plist) are missing.");
        return false;
    }
    auto bytes = QVReadFile(path, error);
    if (!bytes) return false;
    auto plist = QVPropertyListFromData(*bytes, error);
    if (!plist || !plist->toDict()) {
        QV_LOG_ERROR("couldn't read " + path);
        QVSetAppError(error, QVErrorFailed, "The default settings (QuillvaneDefaults.plist) are damaged.");
        return false;
    }
    QVUserDefaults::standardUserDefaults().registerDefaults(*plist->toDict());
    return true;
}

std::string QVDiskImageDestinationPath() {
    const Value value = QVUserDefaults::standardUserDefaults().objectForKey(QVDiskImageDestinationPathKey);
    std::string path = value.isURL() ? value.toURLPath() : value.isString() ? value.toString() : std::string();
    if (path.rfind("file://", 0) == 0) path = path.substr(7);
    return path;
}

} // namespace qv
