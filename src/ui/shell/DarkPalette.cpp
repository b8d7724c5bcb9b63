#include "ui/shell/DarkPalette.h"

namespace qv::ui {

QPalette darkPalette() {
    QPalette p;
    const QColor window(0x2b, 0x2b, 0x2e), base(0x1e, 0x1e, 0x20), text(0xe8, 0xe8, 0xe8);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window);
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, window.lighter(120));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::Highlight, QColor(0x3d, 0x7a, 0xd6));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::ToolTipBase, base);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::PlaceholderText, text.darker(160));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, text.darker(200));
    p.setColor(QPalette::Disabled, QPalette::WindowText, text.darker(200));
    p.setColor(QPalette::Disabled, QPalette::Text, text.darker(200));
    return p;
}

} // namespace qv::ui
