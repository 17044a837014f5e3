#pragma once

#include <PluginHost.h>

#include <QDialog>

class QLineEdit;
class QPushButton;

namespace Quorix {

// Stands in for the host's Discord sign-in: the developer types the identity the host would receive.
class SignInDialog : public QDialog
{
    Q_OBJECT

public:
    explicit SignInDialog(const UserIdentity &current, QWidget *parent = nullptr);

    UserIdentity identity() const;

private:
    void onDiscordIdEdited();

    QLineEdit *discordIdEdit;
    QLineEdit *usernameEdit;
    QLineEdit *globalNameEdit;
    QLineEdit *avatarHashEdit;
    QLineEdit *tokenEdit;
    QPushButton *signInButton = nullptr;
};

} // namespace Quorix
