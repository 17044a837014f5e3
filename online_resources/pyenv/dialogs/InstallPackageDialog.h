#pragma once

#include <QDialog>

class QLineEdit;
class QPushButton;
class QRadioButton;

namespace Quorix {

// Asks for one package and an optional version and turns them into the requirement string uv installs.
class InstallPackageDialog : public QDialog
{
    Q_OBJECT

public:
    explicit InstallPackageDialog(QWidget *parent = nullptr);

    QString packageSpec() const;

private:
    void onInputChanged();

    QLineEdit *packageEdit = nullptr;
    QRadioButton *latestRadio = nullptr;
    QRadioButton *specificRadio = nullptr;
    QLineEdit *specificVersionEdit = nullptr;
    QRadioButton *constraintRadio = nullptr;
    QLineEdit *constraintEdit = nullptr;
    QPushButton *installButton = nullptr;
};

} // namespace Quorix
