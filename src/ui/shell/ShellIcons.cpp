#include "ui/shell/ShellIcons.h"

static void initShellResources() { Q_INIT_RESOURCE(shell); }

namespace qv::ui {

QIcon shellIcon(ShellIcon which) {
    static const bool loaded = (initShellResources(), true);
    (void)loaded;
    switch (which) {
    case ShellIcon::Application:
        return QIcon::fromTheme(QStringLiteral("quillvane"), QIcon(QStringLiteral(":/quillvane/icons/quillvane.svg")));
    case ShellIcon::StatusMenu:
        return QIcon::fromTheme(QStringLiteral("quillvane-tray"),
                                QIcon(QStringLiteral(":/quillvane/icons/quillvane-tray.svg")));
    case ShellIcon::StatusMenuPressed:
        return QIcon::fromTheme(QStringLiteral("quillvane-tray-pressed"),
                                QIcon(QStringLiteral(":/quillvane/icons/quillvane-tray-pressed.svg")));
    case ShellIcon::AnchorOff:
        return QIcon(QStringLiteral(":/quillvane/icons/anchor-off.svg"));
    case ShellIcon::AnchorOn:
        return QIcon(QStringLiteral(":/quillvane/icons/anchor-on.svg"));
    }
    return {};
}

} // namespace qv::ui
