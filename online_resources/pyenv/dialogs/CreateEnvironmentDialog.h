#pragma once

#include "pyenv/PlatformProfile.h"

#include <QDialog>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QRadioButton;

namespace Quorix {

// Asks for a new environment's name, Python version and requirements, and refuses what cannot be created.
class CreateEnvironmentDialog : public QDialog
{
    Q_OBJECT

public:
    explicit CreateEnvironmentDialog(QWidget *parent = nullptr);

    QString environmentName() const;
    QString pythonVersion() const;
    // Empty when the platform's default list is chosen.
    QString requirementsPath() const;

    // The folder that holds the environments, so that an existing name can be announced before it is replaced.
    void setEnvironmentsFolder(const QString &folder);
    void setPlatformProfile(const PlatformProfile &profile);

    void accept() override;

private:
    void onNameChanged();
    void onBrowseClicked();
    void showError(const QString &message);
    bool nameExists() const;

    QString environmentsFolder;
    QLineEdit *nameEdit = nullptr;
    QComboBox *pythonVersionCombo = nullptr;
    QRadioButton *defaultRequirementsRadio = nullptr;
    QRadioButton *fileRequirementsRadio = nullptr;
    QLineEdit *requirementsPathEdit = nullptr;
    QPushButton *browseButton = nullptr;
    QLabel *messageLabel = nullptr;
    QPushButton *createButton = nullptr;
};

} // namespace Quorix
