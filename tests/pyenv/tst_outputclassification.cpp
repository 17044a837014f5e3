#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

using Quorix::PythonEnvironmentManager;

class OutputClassificationTest : public QObject
{
    Q_OBJECT

private slots:
    void eachGroupGivesItsExplanation_data();
    void eachGroupGivesItsExplanation();
    void earlierGroupsWin_data();
    void earlierGroupsWin();
    void unrecognisedOutputIsPassedThroughTrimmed();
};

void OutputClassificationTest::eachGroupGivesItsExplanation_data()
{
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("opening");
    QTest::newRow("disk") << "error: No space left on device"
                          << "Not enough disk space.\n\n";
    QTest::newRow("tls") << "error: invalid peer certificate: SEC_E_UNTRUSTED_ROOT (schannel)"
                         << "TLS handshake failed.\n\n";
    QTest::newRow("timeout") << "Failed to download: operation timed out"
                             << "Connection timed out.\n\n";
    QTest::newRow("certificate") << "error: unable to get local issuer certificate"
                                 << "SSL/TLS certificate error.\n\n";
    QTest::newRow("proxy") << "HTTP status client error (407 Proxy Authentication Required)"
                           << "Proxy authentication required.\n\n";
    QTest::newRow("forbidden") << "HTTP status client error (403 Forbidden) for url"
                               << "Access denied (403 Forbidden).\n\n";
    QTest::newRow("dns") << "error: Could not resolve host: pypi.org"
                         << "DNS resolution failed.\n\n";
}

void OutputClassificationTest::eachGroupGivesItsExplanation()
{
    QFETCH(QString, output);
    QFETCH(QString, opening);
    const QString text = PythonEnvironmentManager::classifyOutput("\n  " + output + "  \n");
    QVERIFY2(text.startsWith(opening), qPrintable(text));
    QVERIFY(text.endsWith("Technical details: " + output));
}

void OutputClassificationTest::earlierGroupsWin_data()
{
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("opening");
    QTest::newRow("tls over timeout") << "TLS handshake eof; connection timeout"
                                      << "TLS handshake failed.\n\n";
    QTest::newRow("disk over everything")
            << "error: failed to flush file `C:\\x\\torch.dll`: There is not enough space on the disk. (os error 112)"
            << "Not enough disk space.\n\n";
    QTest::newRow("letter case ignored") << "CLIENT ERROR (CONNECT) while fetching"
                                         << "TLS handshake failed.\n\n";
    QTest::newRow("timeout over certificate") << "certificate fetch timed out"
                                              << "Connection timed out.\n\n";
}

void OutputClassificationTest::earlierGroupsWin()
{
    QFETCH(QString, output);
    QFETCH(QString, opening);
    QVERIFY2(PythonEnvironmentManager::classifyOutput(output).startsWith(opening), qPrintable(output));
}

void OutputClassificationTest::unrecognisedOutputIsPassedThroughTrimmed()
{
    QCOMPARE(PythonEnvironmentManager::classifyOutput("  error: No solution found when resolving\n"),
             QStringLiteral("error: No solution found when resolving"));
}

QTEST_GUILESS_MAIN(OutputClassificationTest)
#include "tst_outputclassification.moc"
