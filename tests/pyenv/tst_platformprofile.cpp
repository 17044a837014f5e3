#include "pyenv/PlatformProfile.h"

#include <QtTest>

using Quorix::PlatformProfile;

class PlatformProfileTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qunsetenv("QUORIX_UV_DOWNLOAD_URL"); }
    void commandLines_data();
    void commandLines();
    void pathsAndTexts_data();
    void pathsAndTexts();
};

void PlatformProfileTest::commandLines_data()
{
    QTest::addColumn<QStringList>("command"); // program, then arguments
    QTest::addColumn<QStringList>("expected");

    const PlatformProfile windows = PlatformProfile::windows(), gnu = PlatformProfile::linuxGnu("x86_64");
    const QString base = "C:/base", env = "C:/base/env1", py = "C:/base/env1/.qenv/Scripts/python.exe",
                  uv = "C:/base/uv.exe", requirements = "C:/base/env1/requirements.txt";
    const QString zip = "C:/Temp/uv_download.zip", folder = "C:/Temp/uv_extract";
    const QStringList one{"--extra-index-url", "https://one/simple"}, two{"--extra-index-url", "https://two/simple"};
    const QStringList indexes{"https://one/simple", "https://two/simple"};
    const QStringList powershell{"powershell.exe", "-NoProfile", "-ExecutionPolicy", "Bypass", "-Command"};
    const auto row = [](const char *tag, const PlatformProfile::Command &command, const QStringList &expected) {
        QTest::newRow(tag) << QStringList(command.program) + command.arguments << expected;
    };
    const QList<PlatformProfile::ExtractionMethod> methods = windows.extractionMethods(zip, folder, true);
    const QList<PlatformProfile::ExtractionMethod> tar = gnu.extractionMethods("/t/a.tar.gz", "/t/x", false);

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
        {"curl.exe", "--fail", "--silent", "--show-error", "-L", "-o", zip, "--connect-timeout", "30", "--max-time",
         "300", "https://h/uv.zip"});
    // PowerShell lists and extracts first; tar.exe is only the fallback, with its own listing.
    row("powershell listing", methods.at(0).memberNames,
        powershell
                + QStringList{"Add-Type -AssemblyName System.IO.Compression.FileSystem; $zip = "
                              "[System.IO.Compression.ZipFile]::OpenRead('C:/Temp/uv_download.zip'); try { "
                              "$zip.Entries | ForEach-Object { $_.FullName } } finally { $zip.Dispose() }"});
    row("powershell has no long listing", methods.at(0).longListing, {""});
    row("powershell extraction", methods.at(0).extract,
        powershell
                + QStringList{"Expand-Archive -LiteralPath 'C:/Temp/uv_download.zip' -DestinationPath "
                              "'C:/Temp/uv_extract' -Force"});
    row("tar.exe listing", methods.at(1).memberNames, {"tar.exe", "-tf", zip});
    row("tar.exe long listing", methods.at(1).longListing, {"tar.exe", "-tvf", zip});
    row("tar.exe extraction", methods.at(1).extract, {"tar.exe", "-xf", zip, "-C", folder});
    row("quote in a path", windows.extractionMethods("C:/O'Brien/uv.zip", folder, true).at(0).extract,
        powershell
                + QStringList{"Expand-Archive -LiteralPath 'C:/O''Brien/uv.zip' -DestinationPath "
                              "'C:/Temp/uv_extract' -Force"});
    row("no second method elsewhere", tar.value(1).extract, {""});
    row("tar elsewhere", tar.at(0).extract, {"tar", "-xf", "/t/a.tar.gz", "-C", "/t/x"});
    row("unzip for a zip elsewhere", gnu.extractionMethods("/t/a.zip", "/t/x", true).at(0).extract,
        {"unzip", "-q", "-o", "/t/a.zip", "-d", "/t/x"});
    row("curl elsewhere", gnu.curlCommand("/t/a", "http://h/a"),
        {"curl", "--fail", "--silent", "--show-error", "-L", "-o", "/t/a", "--connect-timeout", "30", "--max-time",
         "300", "http://h/a"});
    row("create elsewhere", gnu.createCommand("/b", "/b/env1", "3.11"),
        {"/b/uv", "venv", "--python", "3.11", "--python-preference", "only-managed", "/b/env1/.qenv"});
}

void PlatformProfileTest::commandLines()
{
    QFETCH(QStringList, command);
    QFETCH(QStringList, expected);
    QCOMPARE(command, expected);
}

void PlatformProfileTest::pathsAndTexts_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");

    const PlatformProfile windows = PlatformProfile::windows(), gnu = PlatformProfile::linuxGnu("x86_64");
    const QString defaults = "# Quorix Default Python Environment\n\nnumpy\nscipy\nopencv-python\npillow\nimutils\n"
                             "requests\nmss\ncryptography\n";
    const QString elsewhere = "Failed to extract UV archive.\n\nThe archive could not be unpacked.\n\nYou can manually "
                              "extract uv from the downloaded archive to:\n/b/uv";
    QTest::newRow("windows uv") << windows.uvPath("C:/q/python") << "C:/q/python/uv.exe";
    QTest::newRow("windows interpreter") << windows.interpreterPath("C:/b/e") << "C:/b/e/.qenv/Scripts/python.exe";
    QTest::newRow("windows release")
            << windows.releaseUrl()
            << "https://github.com/astral-sh/uv/releases/latest/download/uv-x86_64-pc-windows-msvc.zip";
    QTest::newRow("windows verified modules") << windows.verifiedModules().join(',') << "cv2,win32api";
    QTest::newRow("windows download file")
            << windows.downloadFilePath("C:/Temp", windows.releaseUrl()) << "C:/Temp/uv_download.zip";
    QTest::newRow("windows defaults") << windows.defaultRequirements() << defaults + "pywinusb\npywin32\n";
    QTest::newRow("windows summary") << windows.defaultRequirementsSummary() << "numpy, scipy, opencv, pillow, pywin32";
    QTest::newRow("windows extraction failure")
            << windows.extractionFailureMessage("/b/uv")
            << "Failed to extract UV archive.\n\nBoth PowerShell and tar extraction methods failed.\nThis may happen "
               "on custom Windows installations.\n\nYou can manually extract uv.exe from the downloaded zip to:\n/b/uv";
    QTest::newRow("linux uv") << gnu.uvPath("/h/python") << "/h/python/uv";
    QTest::newRow("linux interpreter") << gnu.interpreterPath("/b/e") << "/b/e/.qenv/bin/python";
    QTest::newRow("linux release") << gnu.releaseAsset() << "uv-x86_64-unknown-linux-gnu.tar.gz";
    QTest::newRow("linux arm release") << PlatformProfile::linuxGnu("arm64").releaseAsset()
                                       << "uv-aarch64-unknown-linux-gnu.tar.gz";
    QTest::newRow("macos release") << PlatformProfile::macos("arm64").releaseAsset()
                                   << "uv-aarch64-apple-darwin.tar.gz";
    QTest::newRow("linux verified modules") << gnu.verifiedModules().join(',') << "cv2";
    QTest::newRow("linux defaults") << gnu.defaultRequirements() << defaults;
    QTest::newRow("macos defaults") << PlatformProfile::macos().defaultRequirements() << defaults;
    QTest::newRow("linux summary") << gnu.defaultRequirementsSummary() << "numpy, scipy, opencv, pillow";
    QTest::newRow("linux extraction failure") << gnu.extractionFailureMessage("/b/uv") << elsewhere;
    QTest::newRow("macos extraction failure")
            << PlatformProfile::macos().extractionFailureMessage("/b/uv") << elsewhere;
    QTest::newRow("linux download file") << gnu.downloadFilePath("/t", gnu.releaseUrl()) << "/t/uv_download.tar.gz";
    QTest::newRow("zip address") << gnu.downloadFilePath("/t", "http://h/uv.zip") << "/t/uv_download.zip";
    QTest::newRow("address without suffix") << gnu.downloadFilePath("/t", "http://h/latest") << "/t/uv_download.tar.gz";
}

void PlatformProfileTest::pathsAndTexts()
{
    QFETCH(QString, actual);
    QFETCH(QString, expected);
    QCOMPARE(actual, expected);
}

QTEST_GUILESS_MAIN(PlatformProfileTest)
#include "tst_platformprofile.moc"
