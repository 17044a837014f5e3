#include "PreferencesDialog.h"

#include <SettingsManager.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>

namespace Quorix {

PreferencesDialog::PreferencesDialog(SettingsManager *settings, QWidget *parent)
    : QDialog(parent)
    , settings(settings)
    , developerModeBox(new QCheckBox(tr("Developer mode (publish resources)"), this))
    , themeCombo(new QComboBox(this))
{
    setWindowTitle(tr("Preferences"));
    developerModeBox->setChecked(settings->value(QStringLiteral("developerMode"), false).toBool());
    themeCombo->addItem(tr("Light"), QStringLiteral("light"));
    themeCombo->addItem(tr("Dark"), QStringLiteral("dark"));
    const int themeIndex = themeCombo->findData(settings->value(QStringLiteral("appearance/theme"), QStringLiteral("light")));
    themeCombo->setCurrentIndex(qMax(0, themeIndex));

    auto *form = new QFormLayout(this);
    form->addRow(developerModeBox);
    form->addRow(tr("Theme:"), themeCombo);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    form->addRow(buttons);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
}

void PreferencesDialog::save()
{
    settings->setValue(QStringLiteral("developerMode"), developerModeBox->isChecked());
    settings->setValue(QStringLiteral("appearance/theme"), themeCombo->currentData().toString());
}

} // namespace Quorix
