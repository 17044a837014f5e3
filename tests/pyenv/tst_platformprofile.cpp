#include "pyenv/PlatformProfile.h"

#include <QtTest>

using Quorix::PlatformProfile;

class PlatformProfileTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void windowsProgramsAndPaths();
    void windowsEnvironmentCommandLines();
    void windowsBootstrapCommandLines();
    void windowsVerificationScript();
    void defaultRequirementsPerPlatform();
    void platformTexts_data();
    void platformTexts();
    void linuxCommandLines();
    void downloadFileFollowsTheArchiveKind();
};

void PlatformProfileTest::initTestCase()
{
    qunsetenv("QUORIX_UV_DOWNLOAD_URL");
}

void PlatformProfileTest::windowsProgramsAndPaths()
{
    const PlatformProfile windows = PlatformProfile::windows();
    QCOMPARE(windows.uvPath("C:/Users/u/AppData/Local/Quorix/python"),
             QStringLiteral("C:/Users/u/AppData/Local/Quorix/python/uv.exe"));
    QCOMPARE(windows.interpreterPath("C:/base/env1"), QStringLiteral("C:/base/env1/.qenv/Scripts/python.exe"));
    QCOMPARE(windows.releaseUrl(), QStringLiteral("https://github.com/astral-sh/uv/releases/latest/download/"
                                                  "uv-x86_64-pc-windows-msvc.zip"));
    QCOMPARE(windows.verifiedModules(), QStringList({"cv2", "win32api"}));
}

void PlatformProfileTest::windowsEnvironmentCommandLines()
{
    const PlatformProfile windows = PlatformProfile::windows();
    const QString base = "C:/base";
    const QString env = "C:/base/env1";
    const QString py = "C:/base/env1/.qenv/Scripts/python.exe";
    const QStringList indexes = {"https://one.example/simple", "https://two.example/simple"};

    const PlatformProfile::Command create = windows.createCommand(base, env, "3.12");
    QCOMPARE(create.program, QStringLiteral("C:/base/uv.exe"));
    QCOMPARE(create.arguments,
             QStringList({"venv", "--python", "3.12", "--python-preference", "only-managed", "C:/base/env1/.qenv"}));

    QCOMPARE(windows.installRequirementsCommand(base, env, env + "/requirements.txt", false, indexes).arguments,
             QStringList({"pip", "install", "-r", "C:/base/env1/requirements.txt", "--python", py, "--extra-index-url",
                          "https://one.example/simple", "--extra-index-url", "https://two.example/simple"}));
    QCOMPARE(windows.installRequirementsCommand(base, env, env + "/requirements.txt", true, {}).arguments,
             QStringList({"pip", "install", "-r", "C:/base/env1/requirements.txt", "--python", py, "--reinstall"}));
    QCOMPARE(windows.installCommand(base, env, {"numpy==1.26.0"}, indexes.mid(0, 1)).arguments,
             QStringList({"pip", "install", "numpy==1.26.0", "--python", py, "--extra-index-url",
                          "https://one.example/simple"}));
    QCOMPARE(windows.installCommand(base, env, {"numpy", "torch>=2"}, {}).arguments,
             QStringList({"pip", "install", "numpy", "torch>=2", "--python", py}));
    QCOMPARE(windows.uninstallCommand(base, env, {"numpy", "scipy"}).arguments,
             QStringList({"pip", "uninstall", "numpy", "scipy", "--python", py}));
    QCOMPARE(windows.updateCommand(base, env, "numpy", indexes).arguments,
             QStringList({"pip", "install", "--upgrade", "numpy", "--python", py, "--extra-index-url",
                          "https://one.example/simple", "--extra-index-url", "https://two.example/simple"}));
    const PlatformProfile::Command list = windows.listCommand(base, env);
    QCOMPARE(list.program, QStringLiteral("C:/base/uv.exe"));
    QCOMPARE(list.arguments, QStringList({"pip", "list", "--format", "json", "--python", py}));
    QCOMPARE(windows.versionProbeCommand(py).arguments, QStringList({"--version"}));
}

void PlatformProfileTest::windowsBootstrapCommandLines()
{
    const PlatformProfile windows = PlatformProfile::windows();
    const QString archive = "C:/Temp/uv_download.zip";
    const QString folder = "C:/Temp/uv_extract";

    const PlatformProfile::Command curl = windows.curlCommand(archive, windows.releaseUrl());
    QCOMPARE(curl.program, QStringLiteral("curl.exe"));
    QCOMPARE(curl.arguments, QStringList({"--fail", "--silent", "--show-error", "-L", "-o", archive,
                                          "--connect-timeout", "30", "--max-time", "300", windows.releaseUrl()}));

    // PowerShell lists and extracts first; tar.exe is only the fallback, with its own listing.
    const QStringList bypass{"-NoProfile", "-ExecutionPolicy", "Bypass", "-Command"};
    const QList<PlatformProfile::ExtractionMethod> methods = windows.extractionMethods(archive, folder, true);
    QCOMPARE(methods.size(), 2);
    QCOMPARE(methods.at(0).memberNames.program, QStringLiteral("powershell.exe"));
    QCOMPARE(methods.at(0).memberNames.arguments,
             bypass
                     + QStringList{"Add-Type -AssemblyName System.IO.Compression.FileSystem; $zip = "
                                   "[System.IO.Compression.ZipFile]::OpenRead('C:/Temp/uv_download.zip'); try { "
                                   "$zip.Entries | ForEach-Object { $_.FullName } } finally { $zip.Dispose() }"});
    QVERIFY(methods.at(0).longListing.program.isEmpty());
    QCOMPARE(methods.at(0).extract.program, QStringLiteral("powershell.exe"));
    QCOMPARE(methods.at(0).extract.arguments,
             bypass
                     + QStringList{"Expand-Archive -LiteralPath 'C:/Temp/uv_download.zip' -DestinationPath "
                                   "'C:/Temp/uv_extract' -Force"});
    QCOMPARE(methods.at(1).memberNames.program, QStringLiteral("tar.exe"));
    QCOMPARE(methods.at(1).memberNames.arguments, QStringList({"-tf", archive}));
    QCOMPARE(methods.at(1).longListing.arguments, QStringList({"-tvf", archive}));
    QCOMPARE(methods.at(1).extract.program, QStringLiteral("tar.exe"));
    QCOMPARE(methods.at(1).extract.arguments, QStringList({"-xf", archive, "-C", folder}));
    QVERIFY(windows.extractionMethods("C:/Users/O'Brien/uv.zip", folder, true)
                    .at(0)
                    .extract.arguments.last()
                    .startsWith("Expand-Archive -LiteralPath 'C:/Users/O''Brien/uv.zip' "));
    QCOMPARE(windows.downloadFilePath("C:/Temp", windows.releaseUrl()), archive);
}

void PlatformProfileTest::windowsVerificationScript()
{
    const PlatformProfile::Command verify = PlatformProfile::windows().verificationCommand("C:/base/env1");
    QCOMPARE(verify.program, QStringLiteral("C:/base/env1/.qenv/Scripts/python.exe"));
    QCOMPARE(verify.arguments,
             QStringList({"-c", "import sys\nfailed = []\nfor mod in ['cv2', 'win32api']:\n    try:\n        "
                                "__import__(mod)\n    except Exception as e:\n        failed.append(mod)\nif failed:\n"
                                "    print(','.join(failed))\n    sys.exit(1)\nsys.exit(0)\n"}));
    QVERIFY(PlatformProfile::linuxGnu().verificationScript().contains("for mod in ['cv2']:\n"));
}

void PlatformProfileTest::defaultRequirementsPerPlatform()
{
    const QString common = "# Quorix Default Python Environment\n\nnumpy\nscipy\nopencv-python\npillow\nimutils\n"
                           "requests\nmss\ncryptography\n";
    QCOMPARE(PlatformProfile::windows().defaultRequirements(), common + "pywinusb\npywin32\n");
    QCOMPARE(PlatformProfile::linuxGnu().defaultRequirements(), common);
    QCOMPARE(PlatformProfile::macos().defaultRequirements(), common);
}

void PlatformProfileTest::platformTexts_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("defaultSummary");
    QTest::addColumn<QString>("extractionFailure");
    const QString elsewhere = "Failed to extract UV archive.\n\nThe archive could not be unpacked.\n\nYou can manually "
                              "extract uv from the downloaded archive to:\n/b/uv";
    QTest::newRow("windows") << "windows"
                             << "numpy, scipy, opencv, pillow, pywin32"
                             << "Failed to extract UV archive.\n\nBoth PowerShell and tar extraction methods failed.\n"
                                "This may happen on custom Windows installations.\n\nYou can manually extract uv.exe "
                                "from the downloaded zip to:\n/b/uv";
    QTest::newRow("linux") << "linux"
                           << "numpy, scipy, opencv, pillow" << elsewhere;
    QTest::newRow("macos") << "macos"
                           << "numpy, scipy, opencv, pillow" << elsewhere;
}

void PlatformProfileTest::platformTexts()
{
    QFETCH(QString, system);
    const PlatformProfile profile = system == "windows" ? PlatformProfile::windows()
                                    : system == "linux" ? PlatformProfile::linuxGnu()
                                                        : PlatformProfile::macos();
    QFETCH(QString, defaultSummary);
    QFETCH(QString, extractionFailure);
    QCOMPARE(profile.defaultRequirementsSummary(), defaultSummary);
    QCOMPARE(profile.extractionFailureMessage("/b/uv"), extractionFailure);
}

void PlatformProfileTest::linuxCommandLines()
{
    const PlatformProfile gnu = PlatformProfile::linuxGnu("x86_64");
    QCOMPARE(gnu.uvPath("/home/u/.local/share/quorix/python"), QStringLiteral("/home/u/.local/share/quorix/python/uv"));
    QCOMPARE(gnu.interpreterPath("/b/env1"), QStringLiteral("/b/env1/.qenv/bin/python"));
    QCOMPARE(gnu.releaseAsset(), QStringLiteral("uv-x86_64-unknown-linux-gnu.tar.gz"));
    QCOMPARE(PlatformProfile::linuxGnu("arm64").releaseAsset(), QStringLiteral("uv-aarch64-unknown-linux-gnu.tar.gz"));
    QCOMPARE(PlatformProfile::macos("arm64").releaseAsset(), QStringLiteral("uv-aarch64-apple-darwin.tar.gz"));
    QCOMPARE(gnu.curlCommand("/tmp/uv_download.tar.gz", "http://h/a").program, QStringLiteral("curl"));

    const QList<PlatformProfile::ExtractionMethod> tar
            = gnu.extractionMethods("/tmp/a.tar.gz", "/tmp/uv_extract", false);
    QCOMPARE(tar.size(), 1);
    QCOMPARE(tar.at(0).extract.program, QStringLiteral("tar"));
    QCOMPARE(tar.at(0).extract.arguments, QStringList({"-xf", "/tmp/a.tar.gz", "-C", "/tmp/uv_extract"}));
    QCOMPARE(gnu.extractionMethods("/tmp/a.zip", "/tmp/x", true).at(0).extract.program, QStringLiteral("unzip"));
    QCOMPARE(gnu.createCommand("/b", "/b/env1", "3.11").program, QStringLiteral("/b/uv"));
}

void PlatformProfileTest::downloadFileFollowsTheArchiveKind()
{
    const PlatformProfile gnu = PlatformProfile::linuxGnu();
    QCOMPARE(gnu.downloadFilePath("/tmp", gnu.releaseUrl()), QStringLiteral("/tmp/uv_download.tar.gz"));
    QCOMPARE(gnu.downloadFilePath("/tmp", "http://127.0.0.1:1/uv.zip"), QStringLiteral("/tmp/uv_download.zip"));
    QCOMPARE(gnu.downloadFilePath("/tmp", "http://127.0.0.1:1/latest"), QStringLiteral("/tmp/uv_download.tar.gz"));
}

QTEST_GUILESS_MAIN(PlatformProfileTest)
#include "tst_platformprofile.moc"
