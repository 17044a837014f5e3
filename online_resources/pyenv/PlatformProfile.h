#pragma once

#include <QString>
#include <QStringList>

namespace Quorix {

// Everything about running uv, Python, curl and the archivers that differs between operating systems. The
// environment manager asks one of these for every program and argument list, so that the Windows command lines can
// be checked on any machine without running them.
class PlatformProfile
{
public:
    enum class System { Windows, Linux, MacOS };

    struct Command
    {
        QString program;
        QStringList arguments;
    };

    // One way to unpack an archive: the same tool lists the members, shows where links point (no program when the
    // names alone decide) and extracts, so a missing or broken tool costs only its own attempt.
    struct ExtractionMethod
    {
        Command memberNames;
        Command longListing;
        Command extract;
    };

    static PlatformProfile windows();
    static PlatformProfile linuxGnu(const QString &cpu = QStringLiteral("x86_64"));
    static PlatformProfile macos(const QString &cpu = QStringLiteral("aarch64"));
    static PlatformProfile current();

    System system() const;
    // "uv.exe" on Windows, "uv" elsewhere: the file name and the name the messages use.
    QString uvFileName() const;
    QString uvPath(const QString &baseFolder) const;
    QString interpreterPath(const QString &environmentFolder) const;
    QString releaseAsset() const;
    // The configured override when there is one, else the latest release's asset for this platform.
    QString releaseUrl() const;
    // The archive's suffix follows the address, so an archive of the other kind keeps a truthful name.
    QString downloadFilePath(const QString &tempFolder, const QString &url) const;
    QStringList verifiedModules() const;
    QString verificationScript() const;
    QString defaultRequirements() const;
    // The default list as the create dialog names it.
    QString defaultRequirementsSummary() const;
    QString extractionFailureMessage(const QString &target) const;

    Command curlCommand(const QString &downloadFile, const QString &url) const;
    // Extraction methods in the order they are tried; each later one starts from an emptied folder.
    QList<ExtractionMethod> extractionMethods(const QString &archive, const QString &folder, bool isZip) const;

    Command versionProbeCommand(const QString &interpreter) const;
    Command verificationCommand(const QString &environmentFolder) const;
    Command createCommand(const QString &baseFolder, const QString &environmentFolder,
                          const QString &pythonVersion) const;
    Command installRequirementsCommand(const QString &baseFolder, const QString &environmentFolder,
                                       const QString &requirementsFile, bool reinstall,
                                       const QStringList &extraIndexUrls) const;
    Command installCommand(const QString &baseFolder, const QString &environmentFolder, const QStringList &specs,
                           const QStringList &extraIndexUrls) const;
    Command uninstallCommand(const QString &baseFolder, const QString &environmentFolder,
                             const QStringList &names) const;
    Command updateCommand(const QString &baseFolder, const QString &environmentFolder, const QString &name,
                          const QStringList &extraIndexUrls) const;
    Command listCommand(const QString &baseFolder, const QString &environmentFolder) const;

private:
    PlatformProfile(System system, const QString &asset);

    static QStringList extraIndexArguments(const QStringList &urls);
    static QString powerShellQuoted(QString text);

    System os;
    QString asset;
};

} // namespace Quorix
