#pragma once
// A check mark or a cross, drawn at the screen's own resolution: whether the
// two password fields hold the same text.
#include <QWidget>

namespace qv::ui {

class MatchMark : public QWidget {
    Q_OBJECT
public:
    explicit MatchMark(QWidget* parent = nullptr);
    bool isMatch() const { return match_; }
    void setMatch(bool match);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    bool match_ = false;
};

} // namespace qv::ui
