// quillvane: the desktop application. Everything it shows lives in the qv_ui
// library; this is only the entry point. One instance runs per user: a second
// start asks the first, over the session bus, to show itself and ends.
#include <QApplication>
#include <QDBusConnection>

#include "app/LayerWiring.h"
#include "app/ScriptingBus.h"
#include "toolkit/Log.h"
#include "ui/shell/AppDelegate.h"
#include "ui/shell/DarkPalette.h"
#include "ui/shell/ScriptingService.h"
#include "ui/shell/ShellIcons.h"
#include "ui/shell/Termination.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    // --verbose: the log also on standard error, as with qv.
    if (QApplication::arguments().contains(QStringLiteral("--verbose"))) qv::QVLogSetStderr(true);
    QApplication::setApplicationName(QStringLiteral("quillvane"));
    QApplication::setApplicationDisplayName(QStringLiteral("Quillvane"));
    QApplication::setDesktopFileName(QStringLiteral("quillvane"));
    QApplication::setWindowIcon(qv::ui::shellIcon(qv::ui::ShellIcon::Application));
    // --dark (not in the help): the dark palette on any desktop, to look at the screens in it.
    if (QApplication::arguments().contains(QStringLiteral("--dark"))) {
        QApplication::setStyle(QStringLiteral("Fusion"));
        QApplication::setPalette(qv::ui::darkPalette());
    }

    qv::ui::AppDelegate delegate;
    qv::ui::ScriptingService service([&delegate] { return delegate.dbmaster(); }, [&delegate] { delegate.reopen(); });
    if (!service.registerOn(QDBusConnection::sessionBus())) {
        if (qv::QVCallRunningInstanceShow()) return 0;
        qv::QVLogInfo("no session bus name: running without scripting and without the one-instance check");
    }

    qv::QVConnectLayers();
    delegate.setShowPanelAtStart(!QApplication::arguments().contains(QStringLiteral("--hidden")));
    int exitCode = 0;
    if (!delegate.applicationDidFinishLaunching(&exitCode)) return exitCode;
    qv::ui::quitOnTerminationSignals();
    return app.exec();
}
