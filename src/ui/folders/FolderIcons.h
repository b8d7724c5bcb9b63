#pragma once
// The folder list's pictures, drawn from the SVGs in folders.qrc at the screen's
// pixel ratio so that they stay sharp at any scale, and inked in the palette's
// colours so that they read on light and dark backgrounds alike.
#include <QColor>
#include <QPixmap>
#include <QSize>
#include <QString>

namespace qv::ui {

// The picture `name` (a file of icons/ without ".svg": "Folder", "Info",
// "InfoPressed", "Cancel", "Locked", ...) at `size` logical pixels for a screen
// of pixel ratio `dpr`. The SVG's `currentColor` is drawn in `ink`, its cut-outs
// in `paper`. A null pixmap for an unknown name.
QPixmap folderPicture(const QString& name, QSize size, qreal dpr, const QColor& ink, const QColor& paper);

} // namespace qv::ui
