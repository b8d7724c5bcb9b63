#pragma once
// The application on the session bus (names in app/ScriptingBus.h): the
// one running instance owns the bus name. Show() brings the application
// forward; UnlockFolder and LockFolder run the folder's task and answer once
// it has ended, so the caller waits while the screen stays live. Passwords
// that come over the bus are never logged.
#include <QDBusConnection>
#include <QDBusContext>
#include <QObject>
#include <functional>

#include "vault/DBMaster.h"

namespace qv::ui {

class ScriptingService : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.marrowfen.Quillvane3")
public:
    ScriptingService(std::function<DBMasterRef()> master, std::function<void()> show, QObject* parent = nullptr);

    // Takes the bus name and puts the object on `bus`. False when another
    // process owns the name (or there is no bus).
    bool registerOn(QDBusConnection bus);

public slots:
    void Show();
    bool UnlockFolder(const QString& mountpath, const QString& password, QString& message);
    bool LockFolder(const QString& mountpath, const QString& password, QString& message);

private:
    void answerLater(const QString& mountpath, const QString& password, bool unlock);

    std::function<DBMasterRef()> master_;
    std::function<void()> show_;
};

} // namespace qv::ui
