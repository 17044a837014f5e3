#include "ModalAnswerer.h"
#include "OperationRecorder.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "pyenv/PythonEnvironmentManager.h"
#include "pyenv/dialogs/CreateEnvironmentDialog.h"
#include "pyenv/dialogs/InstallPackageDialog.h"
#include "pyenv/dialogs/PythonEnvironmentDialog.h"

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QTableWidget>
#include <QtTest>

#include <functional>

using Quorix::CreateEnvironmentDialog;
using Quorix::InstallPackageDialog;
using Quorix::PlatformProfile;
using Quorix::PythonEnvironmentDialog;
using Quorix::PythonEnvironmentManager;
using Quorix::Testing::ModalAnswerer;
using Quorix::Testing::OperationRecorder;
using Quorix::Testing::PyenvTestBed;

namespace {

template<typename T>
T *child(QWidget *parent, const char *name)
{
    T *found = parent->findChild<T *>(QString::fromLatin1(name));
    if (!found)
        qWarning("no child named %s", name);
    return found;
}

void typeInto(QWidget *dialog, const char *name, const QString &text)
{
    QLineEdit *edit = child<QLineEdit>(dialog, name);
    edit->clear();
    QTest::keyClicks(edit, text);
}

} // namespace

class EnvironmentDialogsTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void packageSpecification_data();
    void packageSpecification();
    void createValidation_data();
    void createValidation();
    void createOffersPythonVersionsAndTheDefaultList();
    void createInstallUninstallUpdateFromTheWindow();
    void badPackageInputEndsInTheManagersMessage_data();
    void badPackageInputEndsInTheManagersMessage();
    void importSyncAndDeleteFromTheWindow();

private:
    // Runs act on the next modal window with this title, from inside its event loop.
    void whenModal(const QString &title, const std::function<void(QWidget *)> &act);
    QStringList tableRows(PythonEnvironmentDialog &dialog);
    void createDirectly(const QString &env, const QByteArray &requirements);
    void installThroughDialog(PythonEnvironmentDialog &dialog, const QString &name, const char *option,
                              const char *field = nullptr, const QString &value = QString());

    Quorix::Testing::TemporaryHome home;
    PyenvTestBed bed;
    PythonEnvironmentManager *manager = nullptr;
};

void EnvironmentDialogsTest::initTestCase()
{
    QVERIFY2(bed.isReady(), qPrintable(bed.problem()));
    QVERIFY2(!PyenvTestBed::uvProgram().isEmpty(), "uv must be on PATH (scripts/setup-python-tools)");
    manager = PythonEnvironmentManager::instance();
}

void EnvironmentDialogsTest::init()
{
    bed.prepareBaseFolder(*manager, true);
    QFile::remove(home.filePath("quorix_settings.ini"));
}

void EnvironmentDialogsTest::whenModal(const QString &title, const std::function<void(QWidget *)> &act)
{
    auto *poll = new QTimer(this);
    poll->setInterval(20);
    connect(poll, &QTimer::timeout, this, [poll, title, act] {
        QWidget *window = QApplication::activeModalWidget();
        if (!window || !window->isVisible() || window->windowTitle() != title)
            return;
        poll->stop();
        poll->deleteLater();
        act(window);
    });
    poll->start();
    QTimer::singleShot(60000, poll, &QObject::deleteLater);
}

QStringList EnvironmentDialogsTest::tableRows(PythonEnvironmentDialog &dialog)
{
    QStringList rows;
    QTableWidget *table = child<QTableWidget>(&dialog, "packageTable");
    for (int row = 0; row < table->rowCount(); ++row) {
        const QTableWidgetItem *name = table->item(row, 0);
        const QTableWidgetItem *version = table->item(row, 1);
        rows << (name ? name->text() : QString()) + (version ? " " + version->text() : QString());
    }
    return rows;
}

void EnvironmentDialogsTest::createDirectly(const QString &env, const QByteArray &requirements)
{
    OperationRecorder recorder(manager);
    manager->createEnvironment(env, "3.11", bed.writeFile(env + ".txt", requirements));
    QVERIFY(recorder.waitFinished());
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.error()));
}

void EnvironmentDialogsTest::installThroughDialog(PythonEnvironmentDialog &dialog, const QString &name,
                                                  const char *option, const char *field, const QString &value)
{
    whenModal("Install Package", [=](QWidget *install) {
        typeInto(install, "packageEdit", name);
        child<QRadioButton>(install, option)->click();
        if (field)
            typeInto(install, field, value);
        child<QPushButton>(install, "installButton")->click();
    });
    child<QPushButton>(&dialog, "installButton")->click();
}

void EnvironmentDialogsTest::packageSpecification_data()
{
    QTest::addColumn<QStringList>("typed"); // name, option, version, constraint
    QTest::addColumn<QString>("spec");
    QTest::addColumn<bool>("installEnabled");
    QTest::newRow("latest") << QStringList{" numpy ", "latestRadio", "", ""} << "numpy" << true;
    QTest::newRow("latest ignores other fields")
            << QStringList{"numpy", "latestRadio", "1.0", ">=2"} << "numpy" << true;
    QTest::newRow("specific") << QStringList{"numpy", "specificRadio", " 1.26.0 ", ""} << "numpy==1.26.0" << true;
    QTest::newRow("constraint") << QStringList{"numpy", "constraintRadio", "", " >=1.20,<2.0"} << "numpy>=1.20,<2.0"
                                << true;
    QTest::newRow("no name") << QStringList{"  ", "latestRadio", "", ""} << "" << false;
    QTest::newRow("specific without version")
            << QStringList{"numpy", "specificRadio", "  ", ">=1"} << "numpy==" << false;
    QTest::newRow("constraint without text") << QStringList{"numpy", "constraintRadio", "1.0", ""} << "numpy" << false;
    QTest::newRow("version without name") << QStringList{"", "specificRadio", "1.0", ""} << "==1.0" << false;
}

void EnvironmentDialogsTest::packageSpecification()
{
    QFETCH(QStringList, typed);
    QFETCH(QString, spec);
    QFETCH(bool, installEnabled);
    InstallPackageDialog dialog;
    typeInto(&dialog, "packageEdit", typed.at(0));
    typeInto(&dialog, "specificVersionEdit", typed.at(2));
    typeInto(&dialog, "constraintEdit", typed.at(3));
    child<QRadioButton>(&dialog, qPrintable(typed.at(1)))->click();
    QCOMPARE(dialog.packageSpec(), spec);
    QCOMPARE(child<QPushButton>(&dialog, "installButton")->isEnabled(), installEnabled);
}

void EnvironmentDialogsTest::createValidation_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("requirements"); // "default", a file name in the scratch folder, or empty
    QTest::addColumn<QString>("message");
    const QString characters = "Error: Name can only contain letters, numbers, hyphens, and underscores";
    const QString noFile = "Error: Please select a valid requirements file";
    QTest::newRow("empty") << "  " << "default" << "Error: Environment name is required";
    QTest::newRow("space") << "my env" << "default" << characters;
    QTest::newRow("dot") << "cuda-12.1" << "default" << characters;
    QTest::newRow("no file") << "vision" << "" << noFile;
    QTest::newRow("missing file") << "vision" << "missing.txt" << noFile;
    QTest::newRow("default list") << "vision_2" << "default" << "";
    QTest::newRow("file") << "vision-2" << "present.txt" << "";
    QTest::newRow("existing") << "existing" << "default"
                              << "Warning: An environment with this name already exists. It will be replaced.";
}

void EnvironmentDialogsTest::createValidation()
{
    QFETCH(QString, name);
    QFETCH(QString, requirements);
    QFETCH(QString, message);
    QDir().mkpath(manager->environmentPath("existing"));
    bed.writeFile("present.txt", "quorix-alpha\n");
    const QString path = requirements.isEmpty() ? QString() : bed.scratchPath(requirements);

    CreateEnvironmentDialog dialog;
    dialog.setEnvironmentsFolder(manager->baseFolder());
    typeInto(&dialog, "nameEdit", name);
    if (requirements != "default") {
        child<QRadioButton>(&dialog, "fileRequirementsRadio")->click();
        typeInto(&dialog, "requirementsPathEdit", path);
    }
    child<QPushButton>(&dialog, "createButton")->click();
    QCOMPARE(child<QLabel>(&dialog, "messageLabel")->text(), message);
    const bool accepted = message.isEmpty() || message.startsWith("Warning");
    QCOMPARE(dialog.result() == QDialog::Accepted, accepted);
    if (accepted) {
        QCOMPARE(dialog.environmentName(), name);
        QCOMPARE(dialog.requirementsPath(), requirements == "default" ? QString() : path);
    }
}

void EnvironmentDialogsTest::createOffersPythonVersionsAndTheDefaultList()
{
    CreateEnvironmentDialog dialog;
    QComboBox *versions = child<QComboBox>(&dialog, "pythonVersionCombo");
    QStringList entries;
    for (int i = 0; i < versions->count(); ++i)
        entries << versions->itemText(i);
    QCOMPARE(entries, QStringList({"3.14", "3.13", "3.12", "3.11", "3.10", "3.9", "3.8"}));
    QCOMPARE(dialog.pythonVersion(), QStringLiteral("3.14"));
    QRadioButton *defaults = child<QRadioButton>(&dialog, "defaultRequirementsRadio");
    QVERIFY(defaults->isChecked());
    QCOMPARE(defaults->text(), QStringLiteral("Use default (numpy, scipy, opencv, pillow)"));
    dialog.setPlatformProfile(PlatformProfile::windows());
    QCOMPARE(defaults->text(), QStringLiteral("Use default (numpy, scipy, opencv, pillow, pywin32)"));
}

void EnvironmentDialogsTest::createInstallUninstallUpdateFromTheWindow()
{
    PythonEnvironmentDialog dialog(manager);
    dialog.show();
    QListWidget *list = child<QListWidget>(&dialog, "environmentList");
    QTRY_COMPARE(list->count(), 1);
    QCOMPARE(list->item(0)->text(), QStringLiteral("No environments found. Click 'New' to create one."));
    QCOMPARE(child<QLabel>(&dialog, "detailsLabel")->text(), QStringLiteral("Select an environment to view details"));

    const QString requirements = bed.writeFile("vision.txt", "quorix-cv2\nquorix-alpha==1.0\n");
    whenModal("Create New Environment", [=](QWidget *create) {
        typeInto(create, "nameEdit", "vision");
        child<QComboBox>(create, "pythonVersionCombo")->setCurrentText("3.11");
        child<QRadioButton>(create, "fileRequirementsRadio")->click();
        typeInto(create, "requirementsPathEdit", requirements);
        child<QPushButton>(create, "createButton")->click();
    });
    ModalAnswerer setCurrent;
    setCurrent.pressButton(QMessageBox::Yes, 120000);
    child<QPushButton>(&dialog, "newButton")->click();
    QVERIFY(!child<QPushButton>(&dialog, "newButton")->isEnabled());
    QVERIFY(setCurrent.waitForAnswer(120000));
    QCOMPARE(setCurrent.seenText(), QStringLiteral("Environment 'vision' was created successfully.\n\nWould you like "
                                                   "to set it as your current Python environment?"));
    QSettings settings(home.filePath("quorix_settings.ini"), QSettings::IniFormat);
    QCOMPARE(settings.value("Application/pythonPath").toString(), manager->pythonPath("vision"));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-alpha 1.0", "quorix-cv2 1.0"}));
    QVERIFY(child<QLabel>(&dialog, "detailsLabel")->text().endsWith("Status: Ready"));

    // While an install runs nothing else may start on the environment, nor may it be chosen as the host's Python.
    OperationRecorder install(manager);
    installThroughDialog(dialog, "quorix-beta", "latestRadio");
    for (const char *name : {"newButton", "deleteButton", "installButton", "syncButton", "importButton",
                             "setCurrentButton", "selectButton"})
        QVERIFY2(!child<QPushButton>(&dialog, name)->isEnabled(), name);
    QVERIFY(install.waitFinished());
    QVERIFY2(install.succeeded(), qPrintable(install.error()));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-alpha 1.0", "quorix-beta 1.0", "quorix-cv2 1.0"}));
    QVERIFY(child<QPushButton>(&dialog, "syncButton")->isEnabled());

    QTableWidget *table = child<QTableWidget>(&dialog, "packageTable");
    table->selectRow(0);
    OperationRecorder update(manager);
    child<QPushButton>(&dialog, "updateButton")->click();
    QVERIFY(update.waitFinished());
    QCOMPARE(update.events("started"), QStringList({"Updating quorix-alpha..."}));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-alpha 1.1", "quorix-beta 1.0", "quorix-cv2 1.0"}));

    table->setSelectionMode(QAbstractItemView::MultiSelection);
    table->selectRow(0);
    table->selectRow(1);
    OperationRecorder uninstall(manager);
    ModalAnswerer confirm;
    confirm.pressButton(QMessageBox::Yes);
    child<QPushButton>(&dialog, "uninstallButton")->click();
    QCOMPARE(confirm.seenTitle(), QStringLiteral("Uninstall Packages"));
    QCOMPARE(confirm.seenText(), QStringLiteral("Uninstall 2 package(s)?"));
    QVERIFY(uninstall.waitFinished());
    QCOMPARE(uninstall.events("started"), QStringList({"Uninstalling 2 packages..."}));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));

    QFile::remove(home.filePath("quorix_settings.ini"));
    child<QPushButton>(&dialog, "selectButton")->click();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QSettings selected(home.filePath("quorix_settings.ini"), QSettings::IniFormat);
    QCOMPARE(selected.value("Application/pythonPath").toString(), manager->pythonPath("vision"));
}

void EnvironmentDialogsTest::badPackageInputEndsInTheManagersMessage_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("constraint");
    QTest::addColumn<QString>("detail"); // empty: whatever uv says
    QTest::newRow("shell text") << "quorix-beta; rm -rf ~" << "" << "";
    QTest::newRow("index option") << "--index-url=http://127.0.0.1:1/evil" << ""
                                  << "'--index-url=http://127.0.0.1:1/evil' is not a package specification";
    QTest::newRow("unsatisfiable") << "quorix-beta" << ">=9" << "";
}

void EnvironmentDialogsTest::badPackageInputEndsInTheManagersMessage()
{
    QFETCH(QString, name);
    QFETCH(QString, constraint);
    QFETCH(QString, detail);
    createDirectly("plain", "quorix-cv2\n");
    PythonEnvironmentDialog dialog(manager);
    dialog.show();
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));

    OperationRecorder recorder(manager);
    ModalAnswerer failure;
    failure.pressButton(QMessageBox::Ok, 60000);
    if (constraint.isEmpty())
        installThroughDialog(dialog, name, "latestRadio");
    else
        installThroughDialog(dialog, name, "constraintRadio", "constraintEdit", constraint);
    QVERIFY(failure.waitForAnswer(60000));
    QVERIFY(recorder.waitFinished());
    QVERIFY(!recorder.succeeded());
    QCOMPARE(failure.seenText(), "Operation failed: " + recorder.error());
    QVERIFY2(recorder.error().startsWith("Operation failed.\n\n"), qPrintable(recorder.error()));
    if (!detail.isEmpty())
        QCOMPARE(recorder.error(), "Operation failed.\n\n" + detail);
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));
    QVERIFY(child<QPushButton>(&dialog, "installButton")->isEnabled());
}

void EnvironmentDialogsTest::importSyncAndDeleteFromTheWindow()
{
    createDirectly("work", "quorix-cv2\n");
    PythonEnvironmentDialog dialog(manager);
    dialog.show();
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));

    // The list is placed the way Import... leaves it; the file dialog itself is not driven here.
    const QString good = bed.writeFile("good.txt", "quorix-cv2\nquorix-gamma\n");
    const QString target = manager->environmentPath("work") + "/requirements.txt";
    QVERIFY(QFile::remove(target) && QFile::copy(good, target));
    OperationRecorder sync(manager);
    child<QPushButton>(&dialog, "syncButton")->click();
    QVERIFY(sync.waitFinished());
    QVERIFY2(sync.succeeded(), qPrintable(sync.error()));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0", "quorix-gamma 1.0"}));
    QFile copied(target);

    bed.writeFile("good.txt", "quorix-cv2\nthis is not a requirement ===\n");
    QVERIFY(QFile::remove(copied.fileName()) && QFile::copy(good, copied.fileName()));
    OperationRecorder broken(manager);
    ModalAnswerer failure;
    failure.pressButton(QMessageBox::Ok, 60000);
    child<QPushButton>(&dialog, "syncButton")->click();
    QVERIFY(failure.waitForAnswer(60000));
    QVERIFY(broken.waitFinished());
    QVERIFY2(broken.error().startsWith("Package installation failed.\n\n"), qPrintable(broken.error()));
    QCOMPARE(failure.seenText(), "Operation failed: " + broken.error());

    OperationRecorder removal(manager);
    ModalAnswerer confirm;
    confirm.pressButton(QMessageBox::Yes);
    child<QPushButton>(&dialog, "deleteButton")->click();
    QCOMPARE(confirm.seenTitle(), QStringLiteral("Delete Environment"));
    QCOMPARE(confirm.seenText(), QStringLiteral("Are you sure you want to delete 'work'?\n\nThis will remove all "
                                                "packages and files in the environment."));
    QCOMPARE(confirm.seenButtons(), QStringList({"&Yes", "&No"}).replaceInStrings("&", ""));
    QVERIFY(removal.waitFinished());
    QVERIFY(!QFileInfo::exists(manager->environmentPath("work")));
    QListWidget *list = child<QListWidget>(&dialog, "environmentList");
    QTRY_COMPARE(list->item(0)->text(), QStringLiteral("No environments found. Click 'New' to create one."));
    QVERIFY(!child<QPushButton>(&dialog, "deleteButton")->isEnabled());
}

QTEST_MAIN(EnvironmentDialogsTest)
#include "tst_environmentdialogs.moc"
