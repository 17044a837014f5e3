#include "PlatformProfile.h"

#include "core/Configuration.h"

#include <QCoreApplication>
#include <QSysInfo>
#include <QUrl>

namespace Quorix {

namespace {

const QString releaseBase = QStringLiteral("https://github.com/astral-sh/uv/releases/latest/download/");

QString asciiCpu(const QString &cpu)
{
    return cpu == QLatin1String("arm64") ? QStringLiteral("aarch64") : cpu;
}

} // namespace

PlatformProfile::PlatformProfile(System system, const QString &asset)
    : os(system)
    , asset(asset)
{ }

PlatformProfile PlatformProfile::windows()
{
    return PlatformProfile(System::Windows, QStringLiteral("uv-x86_64-pc-windows-msvc.zip"));
}

PlatformProfile PlatformProfile::linuxGnu(const QString &cpu)
{
    return PlatformProfile(System::Linux, QStringLiteral("uv-%1-unknown-linux-gnu.tar.gz").arg(asciiCpu(cpu)));
}

PlatformProfile PlatformProfile::macos(const QString &cpu)
{
    return PlatformProfile(System::MacOS, QStringLiteral("uv-%1-apple-darwin.tar.gz").arg(asciiCpu(cpu)));
}

PlatformProfile PlatformProfile::current()
{
#if defined(Q_OS_WIN)
    return windows();
#elif defined(Q_OS_MACOS)
    return macos(QSysInfo::currentCpuArchitecture());
#else
    return linuxGnu(QSysInfo::currentCpuArchitecture());
#endif
}

PlatformProfile::System PlatformProfile::system() const
{
    return os;
}

QString PlatformProfile::uvFileName() const
{
    return os == System::Windows ? QStringLiteral("uv.exe") : QStringLiteral("uv");
}

QString PlatformProfile::uvPath(const QString &baseFolder) const
{
    return baseFolder + QLatin1Char('/') + uvFileName();
}

QString PlatformProfile::interpreterPath(const QString &environmentFolder) const
{
    return environmentFolder
           + (os == System::Windows ? QStringLiteral("/.qenv/Scripts/python.exe")
                                    : QStringLiteral("/.qenv/bin/python"));
}

QString PlatformProfile::releaseAsset() const
{
    return asset;
}

QString PlatformProfile::releaseUrl() const
{
    const QString overridden = Configuration::uvDownloadUrlOverride();
    return overridden.isEmpty() ? releaseBase + asset : overridden;
}

QString PlatformProfile::downloadFilePath(const QString &tempFolder, const QString &url) const
{
    const QString path = QUrl(url).path();
    bool zip = asset.endsWith(QLatin1String(".zip"));
    if (path.endsWith(QLatin1String(".zip"), Qt::CaseInsensitive))
        zip = true;
    else if (path.endsWith(QLatin1String(".tar.gz"), Qt::CaseInsensitive))
        zip = false;
    return tempFolder + (zip ? QStringLiteral("/uv_download.zip") : QStringLiteral("/uv_download.tar.gz"));
}

QStringList PlatformProfile::verifiedModules() const
{
    if (os == System::Windows)
        return {QStringLiteral("cv2"), QStringLiteral("win32api")};
    return {QStringLiteral("cv2")};
}

QString PlatformProfile::verificationScript() const
{
    QStringList quoted;
    for (const QString &module : verifiedModules())
        quoted << QLatin1Char('\'') + module + QLatin1Char('\'');
    return QStringLiteral("import sys\n"
                          "failed = []\n"
                          "for mod in [%1]:\n"
                          "    try:\n"
                          "        __import__(mod)\n"
                          "    except Exception as e:\n"
                          "        failed.append(mod)\n"
                          "if failed:\n"
                          "    print(','.join(failed))\n"
                          "    sys.exit(1)\n"
                          "sys.exit(0)\n")
            .arg(quoted.join(QLatin1String(", ")));
}

QString PlatformProfile::defaultRequirements() const
{
    QString text = QStringLiteral("# Quorix Default Python Environment\n\n"
                                  "numpy\n"
                                  "scipy\n"
                                  "opencv-python\n"
                                  "pillow\n"
                                  "imutils\n"
                                  "requests\n"
                                  "mss\n"
                                  "cryptography\n");
    if (os == System::Windows)
        text += QStringLiteral("pywinusb\n"
                               "pywin32\n");
    return text;
}

QString PlatformProfile::defaultRequirementsSummary() const
{
    return os == System::Windows ? QStringLiteral("numpy, scipy, opencv, pillow, pywin32")
                                 : QStringLiteral("numpy, scipy, opencv, pillow");
}

QString PlatformProfile::extractionFailureMessage(const QString &target) const
{
    if (os == System::Windows)
        return QCoreApplication::translate("Quorix::PythonEnvironmentManager",
                                           "Failed to extract UV archive.\n\nBoth PowerShell and tar extraction "
                                           "methods failed.\nThis may happen on custom Windows installations.\n\n"
                                           "You can manually extract uv.exe from the downloaded zip to:\n%1")
                .arg(target);
    return QCoreApplication::translate("Quorix::PythonEnvironmentManager",
                                       "Failed to extract UV archive.\n\nThe archive could not be unpacked.\n\n"
                                       "You can manually extract uv from the downloaded archive to:\n%1")
            .arg(target);
}

PlatformProfile::Command PlatformProfile::curlCommand(const QString &downloadFile, const QString &url) const
{
    return {os == System::Windows ? QStringLiteral("curl.exe") : QStringLiteral("curl"),
            {QStringLiteral("--fail"), QStringLiteral("--silent"), QStringLiteral("--show-error"), QStringLiteral("-L"),
             QStringLiteral("-o"), downloadFile, QStringLiteral("--connect-timeout"), QStringLiteral("30"),
             QStringLiteral("--max-time"), QStringLiteral("300"), url}};
}

QList<PlatformProfile::ExtractionMethod> PlatformProfile::extractionMethods(const QString &archive,
                                                                            const QString &folder, bool isZip) const
{
    const QString tarProgram = os == System::Windows ? QStringLiteral("tar.exe") : QStringLiteral("tar");
    const ExtractionMethod tar{{tarProgram, {QStringLiteral("-tf"), archive}},
                               {tarProgram, {QStringLiteral("-tvf"), archive}},
                               {tarProgram, {QStringLiteral("-xf"), archive, QStringLiteral("-C"), folder}}};
    if (os == System::Windows) {
        const QStringList powershell{QStringLiteral("-NoProfile"), QStringLiteral("-ExecutionPolicy"),
                                     QStringLiteral("Bypass"), QStringLiteral("-Command")};
        // Expand-Archive never creates links, so the entry names are all there is to vet.
        const QString listing = QStringLiteral("Add-Type -AssemblyName System.IO.Compression.FileSystem; "
                                               "$zip = [System.IO.Compression.ZipFile]::OpenRead('%1'); "
                                               "try { $zip.Entries | ForEach-Object { $_.FullName } } "
                                               "finally { $zip.Dispose() }")
                                        .arg(powerShellQuoted(archive));
        const QString expand = QStringLiteral("Expand-Archive -LiteralPath '%1' -DestinationPath '%2' -Force")
                                       .arg(powerShellQuoted(archive), powerShellQuoted(folder));
        return {{{QStringLiteral("powershell.exe"), powershell + QStringList{listing}},
                 {},
                 {QStringLiteral("powershell.exe"), powershell + QStringList{expand}}},
                tar};
    }
    // GNU tar cannot read zip files; macOS's bsdtar can, and unzip is the usual tool for them on Linux.
    if (isZip && os == System::Linux)
        return {{{QStringLiteral("unzip"), {QStringLiteral("-Z1"), archive}},
                 {QStringLiteral("unzip"), {QStringLiteral("-Z"), archive}},
                 {QStringLiteral("unzip"),
                  {QStringLiteral("-q"), QStringLiteral("-o"), archive, QStringLiteral("-d"), folder}}}};
    return {tar};
}

QString PlatformProfile::powerShellQuoted(QString text)
{
    // Inside single quotes PowerShell reads a doubled quote as one, so a user name like O'Brien stays a path.
    return text.replace(QLatin1Char('\''), QStringLiteral("''"));
}

PlatformProfile::Command PlatformProfile::versionProbeCommand(const QString &interpreter) const
{
    return {interpreter, {QStringLiteral("--version")}};
}

PlatformProfile::Command PlatformProfile::verificationCommand(const QString &environmentFolder) const
{
    return {interpreterPath(environmentFolder), {QStringLiteral("-c"), verificationScript()}};
}

PlatformProfile::Command PlatformProfile::createCommand(const QString &baseFolder, const QString &environmentFolder,
                                                        const QString &pythonVersion) const
{
    return {uvPath(baseFolder),
            {QStringLiteral("venv"), QStringLiteral("--python"), pythonVersion, QStringLiteral("--python-preference"),
             QStringLiteral("only-managed"), environmentFolder + QStringLiteral("/.qenv")}};
}

PlatformProfile::Command PlatformProfile::installRequirementsCommand(const QString &baseFolder,
                                                                     const QString &environmentFolder,
                                                                     const QString &requirementsFile, bool reinstall,
                                                                     const QStringList &extraIndexUrls) const
{
    QStringList arguments{QStringLiteral("pip"), QStringLiteral("install"),  QStringLiteral("-r"),
                          requirementsFile,      QStringLiteral("--python"), interpreterPath(environmentFolder)};
    if (reinstall)
        arguments << QStringLiteral("--reinstall");
    return {uvPath(baseFolder), arguments + extraIndexArguments(extraIndexUrls)};
}

PlatformProfile::Command PlatformProfile::installCommand(const QString &baseFolder, const QString &environmentFolder,
                                                         const QStringList &specs,
                                                         const QStringList &extraIndexUrls) const
{
    return {uvPath(baseFolder), QStringList{QStringLiteral("pip"), QStringLiteral("install")} + specs
                                        + QStringList{QStringLiteral("--python"), interpreterPath(environmentFolder)}
                                        + extraIndexArguments(extraIndexUrls)};
}

PlatformProfile::Command PlatformProfile::uninstallCommand(const QString &baseFolder, const QString &environmentFolder,
                                                           const QStringList &names) const
{
    return {uvPath(baseFolder), QStringList{QStringLiteral("pip"), QStringLiteral("uninstall")} + names
                                        + QStringList{QStringLiteral("--python"), interpreterPath(environmentFolder)}};
}

PlatformProfile::Command PlatformProfile::updateCommand(const QString &baseFolder, const QString &environmentFolder,
                                                        const QString &name, const QStringList &extraIndexUrls) const
{
    return {uvPath(baseFolder),
            QStringList{QStringLiteral("pip"), QStringLiteral("install"), QStringLiteral("--upgrade"), name,
                        QStringLiteral("--python"), interpreterPath(environmentFolder)}
                    + extraIndexArguments(extraIndexUrls)};
}

PlatformProfile::Command PlatformProfile::listCommand(const QString &baseFolder, const QString &environmentFolder) const
{
    return {uvPath(baseFolder),
            {QStringLiteral("pip"), QStringLiteral("list"), QStringLiteral("--format"), QStringLiteral("json"),
             QStringLiteral("--python"), interpreterPath(environmentFolder)}};
}

QStringList PlatformProfile::extraIndexArguments(const QStringList &urls)
{
    QStringList arguments;
    for (const QString &url : urls)
        arguments << QStringLiteral("--extra-index-url") << url;
    return arguments;
}

} // namespace Quorix
