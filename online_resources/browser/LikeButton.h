#pragma once

#include <QPushButton>

namespace Quorix {

// The heart on a card. A click, Space and an assistive tool's toggle or press all arrive as one click() and so as
// one clicked() signal, which asks the server for a like or an unlike; the button never flips itself. Its checked
// state, count and spoken name change only in showState(), which the card calls with the server's answer.
class LikeButton : public QPushButton
{
    Q_OBJECT

public:
    explicit LikeButton(QWidget *parent);

    // `disabledReason` is told to assistive tools along with the count while the button is disabled.
    void showState(bool liked, int likeCount, const QString &disabledReason);

protected:
    void nextCheckState() override;
    void paintEvent(QPaintEvent *event) override;
};

} // namespace Quorix
