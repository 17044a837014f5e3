#include "SignInDialog.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QRegularExpressionValidator>

namespace Quorix {

SignInDialog::SignInDialog(const UserIdentity &current, QWidget *parent)
    : QDialog(parent)
    , discordIdEdit(new QLineEdit(current.discordId, this))
    , usernameEdit(new QLineEdit(current.username, this))
    , globalNameEdit(new QLineEdit(current.globalName, this))
    , avatarHashEdit(new QLineEdit(current.avatarHash, this))
    , tokenEdit(new QLineEdit(current.sessionToken, this))
{
    setWindowTitle(tr("Sign In"));
    discordIdEdit->setPlaceholderText(tr("17-20 digit Discord ID"));
    discordIdEdit->setValidator(
            new QRegularExpressionValidator(QRegularExpression(QStringLiteral("\\d{0,20}")), discordIdEdit));
    tokenEdit->setEchoMode(QLineEdit::Password);

    auto *form = new QFormLayout(this);
    form->addRow(tr("Discord ID:"), discordIdEdit);
    form->addRow(tr("Username:"), usernameEdit);
    form->addRow(tr("Global name:"), globalNameEdit);
    form->addRow(tr("Avatar hash:"), avatarHashEdit);
    form->addRow(tr("Session token:"), tokenEdit);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    signInButton = buttons->button(QDialogButtonBox::Ok);
    signInButton->setText(tr("Sign In"));
    form->addRow(buttons);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(discordIdEdit, &QLineEdit::textChanged, this, &SignInDialog::onDiscordIdEdited);
    onDiscordIdEdited();
}

UserIdentity SignInDialog::identity() const
{
    return {discordIdEdit->text().trimmed(), usernameEdit->text().trimmed(), globalNameEdit->text().trimmed(),
            avatarHashEdit->text().trimmed(), tokenEdit->text().trimmed()};
}

void SignInDialog::onDiscordIdEdited()
{
    signInButton->setEnabled(discordIdEdit->text().length() >= 17);
}

} // namespace Quorix
