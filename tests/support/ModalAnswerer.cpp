#include "ModalAnswerer.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDeadlineTimer>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QLineEdit>
#include <QPushButton>

namespace Quorix::Testing {

namespace {

QString plainText(const QAbstractButton *button)
{
    return button->text().remove(QLatin1Char('&'));
}

} // namespace

ModalAnswerer::ModalAnswerer(QObject *parent)
    : QObject(parent)
{
    pollTimer.setInterval(20);
    connect(&pollTimer, &QTimer::timeout, this, &ModalAnswerer::onPoll);
    giveUpTimer.setSingleShot(true);
    connect(&giveUpTimer, &QTimer::timeout, this, [this] {
        pollTimer.stop();
        isTimedOut = true;
    });
}

void ModalAnswerer::pressButton(QMessageBox::StandardButton button, int timeoutMilliseconds)
{
    standardButton = button;
    arm(Action::StandardButton, timeoutMilliseconds);
}

void ModalAnswerer::pressButton(const QString &text, int timeoutMilliseconds)
{
    buttonText = text;
    arm(Action::ButtonText, timeoutMilliseconds);
}

void ModalAnswerer::chooseFile(const QString &path, int timeoutMilliseconds)
{
    filePath = path;
    arm(Action::File, timeoutMilliseconds);
}

bool ModalAnswerer::waitForAnswer(int timeoutMilliseconds)
{
    const QDeadlineTimer deadline(timeoutMilliseconds);
    while (!isAnswered && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return isAnswered;
}

void ModalAnswerer::arm(Action nextAction, int timeoutMilliseconds)
{
    action = nextAction;
    isAnswered = false;
    isTimedOut = false;
    title.clear();
    text.clear();
    informativeText.clear();
    buttons.clear();
    giveUpTimer.start(timeoutMilliseconds);
    pollTimer.start();
}

void ModalAnswerer::onPoll()
{
    QWidget *window = QApplication::activeModalWidget();
    if (!window || !window->isVisible())
        return;
    title = window->windowTitle();
    buttons.clear();
    if (auto *box = qobject_cast<QMessageBox *>(window)) {
        text = box->text();
        informativeText = box->informativeText();
        const auto boxButtons = box->buttons();
        for (const QAbstractButton *button : boxButtons)
            buttons.append(plainText(button));
    }
    if (answer(window)) {
        isAnswered = true;
        pollTimer.stop();
        giveUpTimer.stop();
    }
}

bool ModalAnswerer::answer(QWidget *window)
{
    if (action == Action::File) {
        auto *dialog = qobject_cast<QFileDialog *>(window);
        if (!dialog)
            return false;
        // selectFile() leaves a focused name field alone and selects in the list instead, which is empty until the
        // folder has been read in the background; typing the name is what works at any moment.
        const QFileInfo file(filePath);
        dialog->setDirectory(file.absolutePath());
        if (auto *nameEdit = dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
            nameEdit->setText(file.fileName());
        else
            dialog->selectFile(filePath);
        // accept() is protected on QFileDialog; the slot runs the dialog's own checks of the chosen name.
        QMetaObject::invokeMethod(dialog, "accept", Qt::QueuedConnection);
        return true;
    }

    QAbstractButton *target = nullptr;
    if (action == Action::StandardButton) {
        if (auto *box = qobject_cast<QMessageBox *>(window))
            target = box->button(standardButton);
        else if (auto *buttonBox = window->findChild<QDialogButtonBox *>())
            target = buttonBox->button(QDialogButtonBox::StandardButton(int(standardButton)));
    } else {
        const auto candidates = window->findChildren<QAbstractButton *>();
        for (QAbstractButton *button : candidates) {
            if (button->isVisible() && plainText(button) == buttonText) {
                target = button;
                break;
            }
        }
    }
    if (!target)
        return false;
    target->click();
    return true;
}

} // namespace Quorix::Testing
