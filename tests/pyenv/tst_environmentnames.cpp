#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

using Quorix::PythonEnvironmentManager;

class EnvironmentNamesTest : public QObject
{
    Q_OBJECT

private slots:
    void environmentNameCheck_data();
    void environmentNameCheck();
    void packageArgumentCheck_data();
    void packageArgumentCheck();
};

void EnvironmentNamesTest::environmentNameCheck_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("plain") << "vision" << true;
    QTest::newRow("version dots") << "cuda-12.1" << true;
    QTest::newRow("spaces") << "My Env" << true;
    QTest::newRow("inner double dot") << "a..b" << true;
    QTest::newRow("hidden") << ".cache" << true;
    QTest::newRow("unicode") << QString::fromUtf8("café") << true;
    QTest::newRow("device lookalike") << "console" << true;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("dot") << "." << false;
    QTest::newRow("parent") << ".." << false;
    QTest::newRow("only dots") << "..." << false;
    QTest::newRow("slash") << "a/b" << false;
    QTest::newRow("parent step") << "../python" << false;
    QTest::newRow("backslash") << "a\\b" << false;
    QTest::newRow("drive") << "c:env" << false;
    QTest::newRow("stream") << "env:stream" << false;
    QTest::newRow("newline") << "env\nname" << false;
    QTest::newRow("nul character") << QString("env") + QChar(0) << false;
    QTest::newRow("delete character") << QString("env") + QChar(0x7f) << false;
    QTest::newRow("device") << "NUL" << false;
    QTest::newRow("device lower case") << "con" << false;
    QTest::newRow("device with extension") << "aux.txt" << false;
    QTest::newRow("serial port") << "COM7" << false;
    QTest::newRow("printer port") << "lpt1" << false;
}

void EnvironmentNamesTest::environmentNameCheck()
{
    QFETCH(QString, name);
    QFETCH(bool, accepted);
    QCOMPARE(PythonEnvironmentManager::isValidEnvironmentName(name), accepted);
}

void EnvironmentNamesTest::packageArgumentCheck_data()
{
    QTest::addColumn<QString>("spec");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("name") << "numpy" << true;
    QTest::newRow("constraint") << "numpy>=1.20,<2.0" << true;
    QTest::newRow("marker") << "numpy; rm -rf ~" << true;
    QTest::newRow("index option") << "--index-url=http://127.0.0.1:1/evil" << false;
    QTest::newRow("editable") << "-e ." << false;
    QTest::newRow("short option") << "-r" << false;
    QTest::newRow("blank") << "  " << false;
}

void EnvironmentNamesTest::packageArgumentCheck()
{
    QFETCH(QString, spec);
    QFETCH(bool, accepted);
    QCOMPARE(PythonEnvironmentManager::isPackageArgument(spec), accepted);
}

QTEST_GUILESS_MAIN(EnvironmentNamesTest)
#include "tst_environmentnames.moc"
