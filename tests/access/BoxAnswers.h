#pragma once

#include "ModalAnswerer.h"

#include <QList>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

namespace Quorix::Testing {

// Presses one button on each box that follows action, in order, and returns each box's title and text. All
// answerers are armed before action runs, since a later box may open inside a nested event loop.
inline QList<QStringList> answerBoxes(const std::function<void()> &action,
                                      const QList<QMessageBox::StandardButton> &buttons, int timeoutMs = 10000)
{
    std::vector<std::unique_ptr<ModalAnswerer>> answerers;
    for (QMessageBox::StandardButton button : buttons) {
        answerers.push_back(std::make_unique<ModalAnswerer>());
        answerers.back()->pressButton(button, timeoutMs);
    }
    action();
    QList<QStringList> seen;
    for (const auto &answerer : answerers) {
        answerer->waitForAnswer(timeoutMs);
        seen.append({answerer->seenTitle(), answerer->seenText()});
    }
    return seen;
}

} // namespace Quorix::Testing
