#include "CreateEnvironmentDialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpression>
#include <QVBoxLayout>

namespace Quorix {

namespace {

const QString warningStyle = QStringLiteral("QLabel { color: #d08a00; }");
const QString errorStyle = QStringLiteral("QLabel { color: #e04040; }");

bool isAcceptedName(const QString &name)
{
    static const QRegularExpression namePattern(QStringLiteral("^[a-zA-Z0-9_-]+$"));
    return namePattern.match(name).hasMatch();
}

} // namespace

CreateEnvironmentDialog::CreateEnvironmentDialog(QWidget *parent)
    : QDialog(parent)
{
    setWindowTitle(tr("Create New Environment"));
    setMinimumWidth(460);
    auto *layout = new QVBoxLayout(this);

    auto *form = new QFormLayout;
    nameEdit = new QLineEdit(this);
    nameEdit->setObjectName(QStringLiteral("nameEdit"));
    nameEdit->setPlaceholderText(tr("environment-name"));
    form->addRow(tr("Name:"), nameEdit);
    pythonVersionCombo = new QComboBox(this);
    pythonVersionCombo->setObjectName(QStringLiteral("pythonVersionCombo"));
    pythonVersionCombo->addItems({QStringLiteral("3.14"), QStringLiteral("3.13"), QStringLiteral("3.12"),
                                  QStringLiteral("3.11"), QStringLiteral("3.10"), QStringLiteral("3.9"),
                                  QStringLiteral("3.8")});
    pythonVersionCombo->setCurrentIndex(0);
    form->addRow(tr("Python Version:"), pythonVersionCombo);
    layout->addLayout(form);

    auto *requirementsGroup = new QGroupBox(tr("Requirements"), this);
    requirementsGroup->setObjectName(QStringLiteral("requirementsGroup"));
    auto *requirementsLayout = new QGridLayout(requirementsGroup);
    defaultRequirementsRadio = new QRadioButton(requirementsGroup);
    defaultRequirementsRadio->setObjectName(QStringLiteral("defaultRequirementsRadio"));
    defaultRequirementsRadio->setChecked(true);
    fileRequirementsRadio = new QRadioButton(tr("Import from file:"), requirementsGroup);
    fileRequirementsRadio->setObjectName(QStringLiteral("fileRequirementsRadio"));
    requirementsPathEdit = new QLineEdit(requirementsGroup);
    requirementsPathEdit->setObjectName(QStringLiteral("requirementsPathEdit"));
    // The option beside it is a radio button, which cannot be a label's buddy; the field names itself.
    requirementsPathEdit->setAccessibleName(tr("Requirements file"));
    browseButton = new QPushButton(tr("Browse..."), requirementsGroup);
    browseButton->setObjectName(QStringLiteral("browseButton"));
    requirementsLayout->addWidget(defaultRequirementsRadio, 0, 0, 1, 3);
    requirementsLayout->addWidget(fileRequirementsRadio, 1, 0);
    requirementsLayout->addWidget(requirementsPathEdit, 1, 1);
    requirementsLayout->addWidget(browseButton, 1, 2);
    layout->addWidget(requirementsGroup);

    messageLabel = new QLabel(this);
    messageLabel->setObjectName(QStringLiteral("messageLabel"));
    messageLabel->setWordWrap(true);
    messageLabel->hide();
    layout->addWidget(messageLabel);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    createButton = buttons->addButton(tr("Create"), QDialogButtonBox::AcceptRole);
    createButton->setObjectName(QStringLiteral("createButton"));
    createButton->setDefault(true);
    buttons->button(QDialogButtonBox::Cancel)->setObjectName(QStringLiteral("cancelButton"));
    layout->addWidget(buttons);

    connect(buttons, &QDialogButtonBox::accepted, this, &CreateEnvironmentDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(nameEdit, &QLineEdit::textChanged, this, &CreateEnvironmentDialog::onNameChanged);
    connect(browseButton, &QPushButton::clicked, this, &CreateEnvironmentDialog::onBrowseClicked);
    connect(requirementsPathEdit, &QLineEdit::textEdited, fileRequirementsRadio,
            [this] { fileRequirementsRadio->setChecked(true); });
    setPlatformProfile(PlatformProfile::current());
}

QString CreateEnvironmentDialog::environmentName() const
{
    return nameEdit->text().trimmed();
}

QString CreateEnvironmentDialog::pythonVersion() const
{
    return pythonVersionCombo->currentText();
}

QString CreateEnvironmentDialog::requirementsPath() const
{
    return fileRequirementsRadio->isChecked() ? requirementsPathEdit->text().trimmed() : QString();
}

void CreateEnvironmentDialog::setEnvironmentsFolder(const QString &folder)
{
    environmentsFolder = folder;
    onNameChanged();
}

void CreateEnvironmentDialog::setPlatformProfile(const PlatformProfile &profile)
{
    defaultRequirementsRadio->setText(tr("Use default (%1)").arg(profile.defaultRequirementsSummary()));
}

void CreateEnvironmentDialog::accept()
{
    const QString name = environmentName();
    if (name.isEmpty()) {
        showError(tr("Environment name is required"));
        return;
    }
    if (!isAcceptedName(name)) {
        showError(tr("Name can only contain letters, numbers, hyphens, and underscores"));
        return;
    }
    if (fileRequirementsRadio->isChecked()) {
        const QString path = requirementsPath();
        if (path.isEmpty() || !QFileInfo(path).isFile()) {
            showError(tr("Please select a valid requirements file"));
            return;
        }
    }
    QDialog::accept();
}

void CreateEnvironmentDialog::onNameChanged()
{
    if (nameExists()) {
        messageLabel->setStyleSheet(warningStyle);
        messageLabel->setText(tr("Warning: An environment with this name already exists. It will be replaced."));
        messageLabel->show();
    } else {
        messageLabel->clear();
        messageLabel->hide();
    }
}

void CreateEnvironmentDialog::onBrowseClicked()
{
    const QString path = QFileDialog::getOpenFileName(this, tr("Select Requirements File"), QString(),
                                                      tr("Requirements Files (*.txt);;All Files (*)"));
    if (path.isEmpty())
        return;
    requirementsPathEdit->setText(path);
    fileRequirementsRadio->setChecked(true);
}

void CreateEnvironmentDialog::showError(const QString &message)
{
    messageLabel->setStyleSheet(errorStyle);
    messageLabel->setText(tr("Error: %1").arg(message));
    messageLabel->show();
}

bool CreateEnvironmentDialog::nameExists() const
{
    const QString name = environmentName();
    return !environmentsFolder.isEmpty() && isAcceptedName(name)
           && QFileInfo(environmentsFolder + QLatin1Char('/') + name).isDir();
}
} // namespace Quorix
