#include "pyenv/PythonEnvironmentManager.h"

#include <QHash>
#include <QtTest>

using Quorix::PythonEnvironmentManager;

namespace {

// The whole explanation of each group as the user reads it; %1 takes the tool's trimmed output.
const QHash<QString, QString> explanations = {
        {QStringLiteral("disk"),
         QStringLiteral("Not enough disk space.\n\n"
                        "This commonly happens when installing very large packages (for example, CUDA-enabled "
                        "PyTorch).\nFree up space on your system drive and try again.\n\n"
                        "Technical details: %1")},
        {QStringLiteral("tls"),
         QStringLiteral(
                 "TLS handshake failed.\n\n"
                 "This is usually caused by:\n\u2022 Captive portal / hotspot login intercepting HTTPS\n\u2022 "
                 "Corporate proxy / firewall / SSL inspection\n\u2022 Antivirus HTTPS scanning\n\n"
                 "Try:\n\u2022 Open the UV download URL in your browser and ensure it downloads correctly\n\u2022 If "
                 "you are behind a proxy, set HTTP_PROXY and HTTPS_PROXY environment variables\n\n"
                 "Technical details: %1")},
        {QStringLiteral("timeout"),
         QStringLiteral("Connection timed out.\n\n"
                        "Possible causes:\n\u2022 Slow or unstable internet connection\n\u2022 Server temporarily "
                        "unavailable - try again later\n\u2022 Firewall blocking outbound connections\n\n"
                        "Technical details: %1")},
        {QStringLiteral("certificate"),
         QStringLiteral("SSL/TLS certificate error.\n\n"
                        "Possible causes:\n\u2022 System date/time is incorrect\n\u2022 Antivirus SSL scanning "
                        "interfering with connections\n\u2022 Corporate proxy with custom certificates\n\u2022 "
                        "Outdated Windows root certificates - run Windows Update\n\n"
                        "Technical details: %1")},
        {QStringLiteral("proxy"), QStringLiteral("Proxy authentication required.\n\n"
                                                 "Configure your proxy settings in Windows or set the HTTP_PROXY and "
                                                 "HTTPS_PROXY environment variables.\n\n"
                                                 "Technical details: %1")},
        {QStringLiteral("forbidden"),
         QStringLiteral("Access denied (403 Forbidden).\n\n"
                        "Possible causes:\n\u2022 Rate limiting - wait a few minutes and try again\n\u2022 Regional "
                        "restrictions - a VPN may help\n\u2022 Corporate firewall blocking the request\n\n"
                        "Technical details: %1")},
        {QStringLiteral("dns"),
         QStringLiteral("DNS resolution failed.\n\n"
                        "Possible causes:\n\u2022 No internet connection\n\u2022 DNS server issues - try using 8.8.8.8 "
                        "or 1.1.1.1\n\u2022 Firewall blocking DNS queries\n\n"
                        "Technical details: %1")},
};

} // namespace

// The manager's pure rules: which names and package arguments it accepts, and how it explains a tool's output.
class EnvironmentRulesTest : public QObject
{
    Q_OBJECT

private slots:
    void environmentNameCheck_data();
    void environmentNameCheck();
    void packageArgumentCheck_data();
    void packageArgumentCheck();
    void outputGetsItsGroupsWholeExplanation_data();
    void outputGetsItsGroupsWholeExplanation();
};

void EnvironmentRulesTest::environmentNameCheck_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("accepted");
    for (const char *name : {"vision", "cuda-12.1", "My Env", "a..b", ".cache", "café", "console"})
        QTest::newRow(name) << QString::fromUtf8(name) << true;
    for (const QString &name : {QString(), QString("."), QString(".."), QString("..."), QString("a/b"),
                                QString("../python"), QString("a\\b"), QString("c:env"), QString("env:stream"),
                                QString("env\nname"), QString("env") + QChar(0), QString("env") + QChar(0x7f),
                                QString("NUL"), QString("con"), QString("aux.txt"), QString("COM7"), QString("lpt1")})
        QTest::addRow("refused %s", name.toUtf8().toPercentEncoding().constData()) << name << false;
}

void EnvironmentRulesTest::environmentNameCheck()
{
    QFETCH(QString, name);
    QFETCH(bool, accepted);
    QCOMPARE(PythonEnvironmentManager::isValidEnvironmentName(name), accepted);
}

void EnvironmentRulesTest::packageArgumentCheck_data()
{
    QTest::addColumn<QString>("spec");
    QTest::addColumn<bool>("accepted");
    for (const char *spec : {"numpy", "numpy>=1.20,<2.0", "numpy; rm -rf ~"})
        QTest::newRow(spec) << QString(spec) << true;
    for (const char *spec : {"--index-url=http://127.0.0.1:1/evil", "-e .", "-r", "  "})
        QTest::newRow(spec) << QString(spec) << false;
}

void EnvironmentRulesTest::packageArgumentCheck()
{
    QFETCH(QString, spec);
    QFETCH(bool, accepted);
    QCOMPARE(PythonEnvironmentManager::isPackageArgument(spec), accepted);
}

void EnvironmentRulesTest::outputGetsItsGroupsWholeExplanation_data()
{
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("group"); // empty: passed through trimmed
    QTest::newRow("disk") << "error: No space left on device"
                          << "disk";
    QTest::newRow("tls") << "error: invalid peer certificate: SEC_E_UNTRUSTED_ROOT (schannel)"
                         << "tls";
    QTest::newRow("timeout") << "Failed to download: operation timed out"
                             << "timeout";
    QTest::newRow("certificate") << "error: unable to get local issuer certificate"
                                 << "certificate";
    QTest::newRow("proxy") << "HTTP status client error (407 Proxy Authentication Required)"
                           << "proxy";
    QTest::newRow("forbidden") << "HTTP status client error (403 Forbidden) for url"
                               << "forbidden";
    QTest::newRow("dns") << "error: Could not resolve host: pypi.org"
                         << "dns";
    // Earlier groups win when several match; letter case is ignored.
    QTest::newRow("tls over timeout") << "TLS handshake eof; connection timeout"
                                      << "tls";
    QTest::newRow("disk over everything")
            << "error: failed to flush file `C:\\x\\torch.dll`: There is not enough space on the disk. (os error 112)"
            << "disk";
    QTest::newRow("letter case ignored") << "CLIENT ERROR (CONNECT) while fetching"
                                         << "tls";
    QTest::newRow("timeout over certificate") << "certificate fetch timed out"
                                              << "timeout";
    QTest::newRow("surrounding blanks") << "\n  error: Could not resolve host: x  \n"
                                        << "dns";
    QTest::newRow("unrecognised") << "  error: No solution found when resolving\n"
                                  << "";
}

void EnvironmentRulesTest::outputGetsItsGroupsWholeExplanation()
{
    QFETCH(QString, output);
    QFETCH(QString, group);
    const QString expected = group.isEmpty() ? output.trimmed() : explanations.value(group).arg(output.trimmed());
    QCOMPARE(PythonEnvironmentManager::classifyOutput(output), expected);
}

QTEST_GUILESS_MAIN(EnvironmentRulesTest)
#include "tst_environmentrules.moc"
