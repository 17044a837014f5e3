#pragma once

#include <QMessageBox>
#include <QObject>
#include <QString>
#include <QTimer>

namespace Quorix::Testing {

// Answers the next modal window the code under test opens, so flows run through the real QMessageBox and
// QFileDialog: a polling timer finds QApplication::activeModalWidget(), records its title and texts, then presses
// the chosen button or picks a file. It gives up by itself after the timeout, so a box that never appears cannot
// hang a test, and a box that appears unanswered is still closed.
class ModalAnswerer : public QObject
{
    Q_OBJECT

public:
    explicit ModalAnswerer(QObject *parent = nullptr);

    void pressButton(QMessageBox::StandardButton button, int timeoutMilliseconds = 5000);
    // The button's text without mnemonic ampersands, e.g. "Replace".
    void pressButton(const QString &buttonText, int timeoutMilliseconds = 5000);
    // Selects the file in a QFileDialog and accepts it.
    void chooseFile(const QString &filePath, int timeoutMilliseconds = 5000);

    bool answered() const { return isAnswered; }
    bool timedOut() const { return isTimedOut; }
    // What the answered window showed; the texts are empty for windows that are not message boxes.
    QString seenTitle() const { return title; }
    QString seenText() const { return text; }
    QString seenInformativeText() const { return informativeText; }
    // The texts of the window's buttons, in the order the window lists them.
    QStringList seenButtons() const { return buttons; }

    // Spins the event loop until the window was answered or the timeout ran out.
    bool waitForAnswer(int timeoutMilliseconds = 5000);

private:
    enum class Action { StandardButton, ButtonText, File };

    void arm(Action nextAction, int timeoutMilliseconds);
    void onPoll();
    bool answer(QWidget *window);

    QTimer pollTimer;
    QTimer giveUpTimer;
    Action action = Action::StandardButton;
    QMessageBox::StandardButton standardButton = QMessageBox::NoButton;
    QString buttonText;
    QString filePath;
    bool isAnswered = false;
    bool isTimedOut = false;
    QString title;
    QString text;
    QString informativeText;
    QStringList buttons;
};

} // namespace Quorix::Testing
