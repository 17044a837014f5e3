#pragma once

#include <QDialog>

class QCheckBox;
class QComboBox;

namespace Quorix {

class SettingsManager;

// The host preferences a plugin reacts to: developer mode and the theme.
class PreferencesDialog : public QDialog
{
    Q_OBJECT

public:
    explicit PreferencesDialog(SettingsManager *settings, QWidget *parent = nullptr);

    // Writes the choices back to the settings.
    void save();

private:
    SettingsManager *settings;
    QCheckBox *developerModeBox;
    QComboBox *themeCombo;
};

} // namespace Quorix
