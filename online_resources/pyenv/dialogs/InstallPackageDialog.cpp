#include "InstallPackageDialog.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

namespace Quorix {

InstallPackageDialog::InstallPackageDialog(QWidget *parent)
    : QDialog(parent)
{
    setWindowTitle(tr("Install Package"));
    setMinimumWidth(420);
    auto *layout = new QVBoxLayout(this);

    auto *form = new QFormLayout;
    packageEdit = new QLineEdit(this);
    packageEdit->setObjectName(QStringLiteral("packageEdit"));
    packageEdit->setPlaceholderText(tr("e.g. numpy, opencv-python, torch"));
    form->addRow(tr("Package:"), packageEdit);
    layout->addLayout(form);

    auto *versionGroup = new QGroupBox(tr("Version (optional)"), this);
    versionGroup->setObjectName(QStringLiteral("versionGroup"));
    auto *versionLayout = new QGridLayout(versionGroup);
    latestRadio = new QRadioButton(tr("Latest"), versionGroup);
    latestRadio->setObjectName(QStringLiteral("latestRadio"));
    latestRadio->setChecked(true);
    specificRadio = new QRadioButton(tr("Specific:"), versionGroup);
    specificRadio->setObjectName(QStringLiteral("specificRadio"));
    specificVersionEdit = new QLineEdit(versionGroup);
    specificVersionEdit->setObjectName(QStringLiteral("specificVersionEdit"));
    specificVersionEdit->setPlaceholderText(tr("e.g. 1.26.0"));
    // Captioned by radio buttons, which cannot be buddies, so the fields name themselves.
    specificVersionEdit->setAccessibleName(tr("Specific version"));
    constraintRadio = new QRadioButton(tr("Constraint:"), versionGroup);
    constraintRadio->setObjectName(QStringLiteral("constraintRadio"));
    constraintEdit = new QLineEdit(versionGroup);
    constraintEdit->setObjectName(QStringLiteral("constraintEdit"));
    constraintEdit->setPlaceholderText(tr("e.g. >=1.20,<2.0"));
    constraintEdit->setAccessibleName(tr("Version constraint"));
    versionLayout->addWidget(latestRadio, 0, 0, 1, 2);
    versionLayout->addWidget(specificRadio, 1, 0);
    versionLayout->addWidget(specificVersionEdit, 1, 1);
    versionLayout->addWidget(constraintRadio, 2, 0);
    versionLayout->addWidget(constraintEdit, 2, 1);
    layout->addWidget(versionGroup);

    auto *tipLabel = new QLabel(
            tr("Tip: Enter package names as they appear on PyPI.\nExamples: numpy, opencv-python, torch, tensorflow"),
            this);
    tipLabel->setObjectName(QStringLiteral("tipLabel"));
    tipLabel->setWordWrap(true);
    tipLabel->setStyleSheet(QStringLiteral("QLabel { color: gray; }"));
    layout->addWidget(tipLabel);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    installButton = buttons->addButton(tr("Install"), QDialogButtonBox::AcceptRole);
    installButton->setObjectName(QStringLiteral("installButton"));
    installButton->setDefault(true);
    buttons->button(QDialogButtonBox::Cancel)->setObjectName(QStringLiteral("cancelButton"));
    layout->addWidget(buttons);

    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    for (QLineEdit *edit : {packageEdit, specificVersionEdit, constraintEdit})
        connect(edit, &QLineEdit::textChanged, this, &InstallPackageDialog::onInputChanged);
    for (QRadioButton *radio : {latestRadio, specificRadio, constraintRadio})
        connect(radio, &QRadioButton::toggled, this, &InstallPackageDialog::onInputChanged);
    // Typing a version is choosing it; the user should not have to find the option first.
    connect(specificVersionEdit, &QLineEdit::textEdited, specificRadio, [this] { specificRadio->setChecked(true); });
    connect(constraintEdit, &QLineEdit::textEdited, constraintRadio, [this] { constraintRadio->setChecked(true); });
    onInputChanged();
}

QString InstallPackageDialog::packageSpec() const
{
    const QString name = packageEdit->text().trimmed();
    if (specificRadio->isChecked())
        return name + QStringLiteral("==") + specificVersionEdit->text().trimmed();
    if (constraintRadio->isChecked())
        return name + constraintEdit->text().trimmed();
    return name;
}

void InstallPackageDialog::onInputChanged()
{
    bool complete = !packageEdit->text().trimmed().isEmpty();
    if (specificRadio->isChecked())
        complete = complete && !specificVersionEdit->text().trimmed().isEmpty();
    else if (constraintRadio->isChecked())
        complete = complete && !constraintEdit->text().trimmed().isEmpty();
    installButton->setEnabled(complete);
}

} // namespace Quorix
