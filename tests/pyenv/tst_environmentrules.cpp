#include "pyenv/PlatformProfile.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QHash>
#include <QtTest>

using Quorix::PlatformProfile;
using Quorix::PythonEnvironmentManager;

namespace {

// The whole explanation of each group as the user reads it; %1 takes the tool's trimmed output.
const QHash<QString, QString> explanations = {
        {"disk", "Not enough disk space.\n\nThis commonly happens when installing very large packages (for example, "
                 "CUDA-enabled PyTorch).\nFree up space on your system drive and try again.\n\nTechnical details: %1"},
        {"tls", "TLS handshake failed.\n\nThis is usually caused by:\n\u2022 Captive portal / hotspot login "
                "intercepting HTTPS\n\u2022 Corporate proxy / firewall / SSL inspection\n\u2022 Antivirus HTTPS "
                "scanning\n\nTry:\n\u2022 Open the UV download URL in your browser and ensure it downloads correctly\n"
                "\u2022 If you are behind a proxy, set HTTP_PROXY and HTTPS_PROXY environment variables\n\n"
                "Technical details: %1"},
        {"timeout", "Connection timed out.\n\nPossible causes:\n\u2022 Slow or unstable internet connection\n\u2022 "
                    "Server temporarily unavailable - try again later\n\u2022 Firewall blocking outbound connections"
                    "\n\nTechnical details: %1"},
        {"certificate", "SSL/TLS certificate error.\n\nPossible causes:\n\u2022 System date/time is incorrect\n\u2022 "
                        "Antivirus SSL scanning interfering with connections\n\u2022 Corporate proxy with custom "
                        "certificates\n\u2022 Outdated Windows root certificates - run Windows Update\n\n"
                        "Technical details: %1"},
        {"proxy", "Proxy authentication required.\n\nConfigure your proxy settings in Windows or set the HTTP_PROXY "
                  "and HTTPS_PROXY environment variables.\n\nTechnical details: %1"},
        {"forbidden", "Access denied (403 Forbidden).\n\nPossible causes:\n\u2022 Rate limiting - wait a few minutes "
                      "and try again\n\u2022 Regional restrictions - a VPN may help\n\u2022 Corporate firewall "
                      "blocking the request\n\nTechnical details: %1"},
        {"dns", "DNS resolution failed.\n\nPossible causes:\n\u2022 No internet connection\n\u2022 DNS server issues - "
                "try using 8.8.8.8 or 1.1.1.1\n\u2022 Firewall blocking DNS queries\n\nTechnical details: %1"},
};

} // namespace

// The pure rules of the environment code: command lines and texts per platform, accepted names and package
// arguments, and how a tool's output is explained.
class EnvironmentRulesTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qunsetenv("QUORIX_UV_DOWNLOAD_URL"); }
    void platformProfile_data();
    void platformProfile();
    void inputCheck_data();
    void inputCheck();
    void outputGetsItsGroupsWholeExplanation_data();
    void outputGetsItsGroupsWholeExplanation();
};

void EnvironmentRulesTest::platformProfile_data()
{
    QTest::addColumn<QStringList>("actual"); // a command as program then arguments, or one text
    QTest::addColumn<QStringList>("expected");

    const PlatformProfile windows = PlatformProfile::windows(), gnu = PlatformProfile::linuxGnu("x86_64"),
                          mac = PlatformProfile::macos("arm64");
    const QString base = "C:/base", env = "C:/base/env1", py = "C:/base/env1/.qenv/Scripts/python.exe",
                  uv = "C:/base/uv.exe", requirements = "C:/base/env1/requirements.txt";
    const QString zip = "C:/Temp/uv_download.zip", folder = "C:/Temp/uv_extract";
    const QStringList one{"--extra-index-url", "https://one/simple"}, two{"--extra-index-url", "https://two/simple"};
    const QStringList indexes{"https://one/simple", "https://two/simple"};
    const QStringList powershell{"powershell.exe", "-NoProfile", "-ExecutionPolicy", "Bypass", "-Command"};
    const auto row = [](const char *tag, const PlatformProfile::Command &command, const QStringList &expected) {
        QTest::newRow(tag) << QStringList(command.program) + command.arguments << expected;
    };
    const auto text = [](const char *tag, const QString &actual, const QString &expected) {
        QTest::newRow(tag) << QStringList{actual} << QStringList{expected};
    };
    const QList<PlatformProfile::ExtractionMethod> methods = windows.extractionMethods(zip, folder, true);
    const QList<PlatformProfile::ExtractionMethod> tar = gnu.extractionMethods("/t/a.tar.gz", "/t/x", false);
    const QStringList curl{"--fail", "--silent", "--show-error", "-L", "-o"}, limits{"--connect-timeout", "30",
                                                                                     "--max-time", "300"};

    row("create", windows.createCommand(base, env, "3.12"),
        {uv, "venv", "--python", "3.12", "--python-preference", "only-managed", "C:/base/env1/.qenv"});
    row("install requirements", windows.installRequirementsCommand(base, env, requirements, false, indexes),
        QStringList{uv, "pip", "install", "-r", requirements, "--python", py} + one + two);
    row("reinstall requirements", windows.installRequirementsCommand(base, env, requirements, true, {}),
        {uv, "pip", "install", "-r", requirements, "--python", py, "--reinstall"});
    row("install", windows.installCommand(base, env, {"numpy==1.26.0", "torch>=2"}, indexes.mid(0, 1)),
        QStringList{uv, "pip", "install", "numpy==1.26.0", "torch>=2", "--python", py} + one);
    row("uninstall", windows.uninstallCommand(base, env, {"numpy", "scipy"}),
        {uv, "pip", "uninstall", "numpy", "scipy", "--python", py});
    row("update", windows.updateCommand(base, env, "numpy", indexes),
        QStringList{uv, "pip", "install", "--upgrade", "numpy", "--python", py} + one + two);
    row("list", windows.listCommand(base, env), {uv, "pip", "list", "--format", "json", "--python", py});
    row("version probe", windows.versionProbeCommand(py), {py, "--version"});
    row("verification", windows.verificationCommand(env),
        {py, "-c",
         "import sys\nfailed = []\nfor mod in ['cv2', 'win32api']:\n    try:\n        __import__(mod)\n    except "
         "Exception as e:\n        failed.append(mod)\nif failed:\n    print(','.join(failed))\n    sys.exit(1)\n"
         "sys.exit(0)\n"});
    row("curl", windows.curlCommand(zip, "https://h/uv.zip"),
        QStringList{"curl.exe"} + curl + QStringList{zip} + limits + QStringList{"https://h/uv.zip"});
    // PowerShell lists and extracts first; tar.exe is only the fallback, with its own listing.
    row("powershell listing", methods.at(0).memberNames,
        powershell
                + QStringList{"Add-Type -AssemblyName System.IO.Compression.FileSystem; $zip = "
                              "[System.IO.Compression.ZipFile]::OpenRead('C:/Temp/uv_download.zip'); try { "
                              "$zip.Entries | ForEach-Object { $_.FullName } } finally { $zip.Dispose() }"});
    row("powershell has no long listing", methods.at(0).longListing, {""});
    row("powershell extraction", methods.at(0).extract,
        powershell + QStringList{"Expand-Archive -LiteralPath 'C:/Temp/uv_download.zip' -DestinationPath "
                                 "'C:/Temp/uv_extract' -Force"});
    row("tar.exe listing", methods.at(1).memberNames, {"tar.exe", "-tf", zip});
    row("tar.exe long listing", methods.at(1).longListing, {"tar.exe", "-tvf", zip});
    row("tar.exe extraction", methods.at(1).extract, {"tar.exe", "-xf", zip, "-C", folder});
    row("quote in a path", windows.extractionMethods("C:/O'Brien/uv.zip", folder, true).at(0).extract,
        powershell + QStringList{"Expand-Archive -LiteralPath 'C:/O''Brien/uv.zip' -DestinationPath "
                                 "'C:/Temp/uv_extract' -Force"});
    row("no second method elsewhere", tar.value(1).extract, {""});
    row("tar elsewhere", tar.at(0).extract, {"tar", "-xf", "/t/a.tar.gz", "-C", "/t/x"});
    row("unzip for a zip elsewhere", gnu.extractionMethods("/t/a.zip", "/t/x", true).at(0).extract,
        {"unzip", "-q", "-o", "/t/a.zip", "-d", "/t/x"});
    row("curl elsewhere", gnu.curlCommand("/t/a", "http://h/a"),
        QStringList{"curl"} + curl + QStringList{"/t/a"} + limits + QStringList{"http://h/a"});
    row("create elsewhere", gnu.createCommand("/b", "/b/env1", "3.11"),
        {"/b/uv", "venv", "--python", "3.11", "--python-preference", "only-managed", "/b/env1/.qenv"});

    const QString defaults = "# Quorix Default Python Environment\n\nnumpy\nscipy\nopencv-python\npillow\nimutils\n"
                             "requests\nmss\ncryptography\n";
    text("windows uv", windows.uvPath("C:/q/python"), "C:/q/python/uv.exe");
    text("windows interpreter", windows.interpreterPath("C:/b/e"), "C:/b/e/.qenv/Scripts/python.exe");
    text("windows release", windows.releaseUrl(),
         "https://github.com/astral-sh/uv/releases/latest/download/uv-x86_64-pc-windows-msvc.zip");
    text("windows verified modules", windows.verifiedModules().join(','), "cv2,win32api");
    text("windows download file", windows.downloadFilePath("C:/Temp", windows.releaseUrl()), zip);
    text("windows defaults", windows.defaultRequirements(), defaults + "pywinusb\npywin32\n");
    text("windows extraction failure", windows.extractionFailureMessage("/b/uv"),
         "Failed to extract UV archive.\n\nBoth PowerShell and tar extraction methods failed.\nThis may happen on "
         "custom Windows installations.\n\nYou can manually extract uv.exe from the downloaded zip to:\n/b/uv");
    text("linux uv", gnu.uvPath("/h/python"), "/h/python/uv");
    text("linux interpreter", gnu.interpreterPath("/b/e"), "/b/e/.qenv/bin/python");
    text("linux release", gnu.releaseAsset(), "uv-x86_64-unknown-linux-gnu.tar.gz");
    text("linux arm release", PlatformProfile::linuxGnu("arm64").releaseAsset(), "uv-aarch64-unknown-linux-gnu.tar.gz");
    text("macos release", mac.releaseAsset(), "uv-aarch64-apple-darwin.tar.gz");
    text("linux verified modules", gnu.verifiedModules().join(','), "cv2");
    text("linux defaults", gnu.defaultRequirements(), defaults);
    text("linux download file", gnu.downloadFilePath("/t", gnu.releaseUrl()), "/t/uv_download.tar.gz");
    text("zip address", gnu.downloadFilePath("/t", "http://h/uv.zip"), "/t/uv_download.zip");
    text("address without suffix", gnu.downloadFilePath("/t", "http://h/latest"), "/t/uv_download.tar.gz");
}

void EnvironmentRulesTest::platformProfile()
{
    QFETCH(QStringList, actual);
    QFETCH(QStringList, expected);
    QCOMPARE(actual, expected);
}

void EnvironmentRulesTest::inputCheck_data()
{
    QTest::addColumn<bool>("package"); // a package argument, else an environment name
    QTest::addColumn<QString>("input");
    QTest::addColumn<bool>("accepted");
    for (const char *name : {"vision", "cuda-12.1", "My Env", "a..b", ".cache", "café", "console"})
        QTest::addRow("name %s", name) << false << QString::fromUtf8(name) << true;
    for (const QString &name : {QString(), QString("."), QString(".."), QString("..."), QString("a/b"),
                                QString("../python"), QString("a\\b"), QString("c:env"), QString("env:stream"),
                                QString("env\nname"), QString("env") + QChar(0), QString("env") + QChar(0x7f),
                                QString("NUL"), QString("con"), QString("aux.txt"), QString("COM7"), QString("lpt1")})
        QTest::addRow("refused name %s", name.toUtf8().toPercentEncoding().constData()) << false << name << false;
    for (const char *spec : {"numpy", "numpy>=1.20,<2.0", "numpy; rm -rf ~"})
        QTest::addRow("package %s", spec) << true << QString(spec) << true;
    for (const char *spec : {"--index-url=http://127.0.0.1:1/evil", "-e .", "-r", "  "})
        QTest::addRow("refused package %s", spec) << true << QString(spec) << false;
}

void EnvironmentRulesTest::inputCheck()
{
    QFETCH(bool, package);
    QFETCH(QString, input);
    QFETCH(bool, accepted);
    QCOMPARE(package ? PythonEnvironmentManager::isPackageArgument(input)
                     : PythonEnvironmentManager::isValidEnvironmentName(input),
             accepted);
}

void EnvironmentRulesTest::outputGetsItsGroupsWholeExplanation_data()
{
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("group"); // empty: passed through trimmed
    QTest::newRow("disk") << "error: No space left on device" << "disk";
    QTest::newRow("tls") << "error: invalid peer certificate: SEC_E_UNTRUSTED_ROOT (schannel)" << "tls";
    QTest::newRow("timeout") << "Failed to download: operation timed out" << "timeout";
    QTest::newRow("certificate") << "error: unable to get local issuer certificate" << "certificate";
    QTest::newRow("proxy") << "HTTP status client error (407 Proxy Authentication Required)" << "proxy";
    QTest::newRow("forbidden") << "HTTP status client error (403 Forbidden) for url" << "forbidden";
    QTest::newRow("dns") << "error: Could not resolve host: pypi.org" << "dns";
    // Earlier groups win when several match; letter case is ignored.
    QTest::newRow("tls over timeout") << "TLS handshake eof; connection timeout" << "tls";
    QTest::newRow("disk over everything")
            << "error: failed to flush file `C:\\x\\torch.dll`: There is not enough space on the disk. (os error 112)"
            << "disk";
    QTest::newRow("letter case ignored") << "CLIENT ERROR (CONNECT) while fetching" << "tls";
    QTest::newRow("timeout over certificate") << "certificate fetch timed out" << "timeout";
    QTest::newRow("surrounding blanks") << "\n  error: Could not resolve host: x  \n" << "dns";
    QTest::newRow("unrecognised") << "  error: No solution found when resolving\n" << "";
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
