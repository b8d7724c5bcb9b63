#pragma once
// What the panel and the window both show: the password screen or the folder
// list, one at a time, and the status line below them.
#include <QColor>
#include <QWidget>

class QLabel;
class QStackedWidget;

namespace qv::ui {

class FolderListScreen;
class PasswordScreen;

class ShellContent : public QWidget {
    Q_OBJECT
public:
    explicit ShellContent(QWidget* parent = nullptr);

    PasswordScreen* passwordScreen() const { return password_; }
    FolderListScreen* folderListScreen() const { return folders_; }

    // Whether the password screen is the one on show (the interface is locked).
    bool isLocked() const;
    bool folderListIsOnTop() const;
    void showPasswordScreen();
    void showFolderList();

    void setStatusText(const QString& text, const QColor& color = QColor());
    QString statusText() const;

signals:
    void screenChanged();

private:
    QStackedWidget* stack_;
    PasswordScreen* password_;
    FolderListScreen* folders_;
    QLabel* status_;
};

} // namespace qv::ui
