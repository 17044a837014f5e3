#include "ArchiveExtractor.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>

namespace Quorix {

namespace {

constexpr int killGraceMs = 5000;

int remainingMs(const QDeadlineTimer &deadline)
{
    return int(qMax<qint64>(0, deadline.remainingTime()));
}

} // namespace

ArchiveExtractor::Verdict ArchiveExtractor::extract(const QList<PlatformProfile::ExtractionMethod> &methods,
                                                    const QString &folder, int limitMs)
{
    for (const PlatformProfile::ExtractionMethod &method : methods) {
        // A failed attempt may leave half an archive behind; every method starts from an empty folder.
        emptyFolder(folder);
        const QDeadlineTimer deadline(limitMs);
        const Inspection inspection = inspect(method, limitMs);
        if (inspection == Inspection::Unsafe) {
            QDir(folder).removeRecursively();
            return Verdict::Unsafe;
        }
        if (inspection == Inspection::Unreadable)
            continue;
        if (runBlocking(method.extract, remainingMs(deadline)).succeeded)
            return Verdict::Extracted;
    }
    QDir(folder).removeRecursively();
    return Verdict::Failed;
}

ArchiveExtractor::Inspection ArchiveExtractor::inspect(const PlatformProfile::ExtractionMethod &method, int limitMs)
{
    const QDeadlineTimer deadline(limitMs);
    const BlockingResult names = runBlocking(method.memberNames, remainingMs(deadline));
    if (!names.succeeded)
        return Inspection::Unreadable;
    const QStringList members = names.standardOutput.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &member : members) {
        if (!staysInside(member.trimmed()))
            return Inspection::Unsafe;
    }
    if (method.longListing.program.isEmpty())
        return Inspection::Safe;

    const BlockingResult listing = runBlocking(method.longListing, remainingMs(deadline));
    if (!listing.succeeded)
        return Inspection::Unreadable;
    const bool zipListing = method.longListing.program == QLatin1String("unzip");
    const QStringList lines = listing.standardOutput.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        const QChar kind = line.at(0);
        if (kind != QLatin1Char('l') && kind != QLatin1Char('h'))
            continue;
        // zip listings do not show where a link points, so links in zip archives are refused outright.
        if (zipListing)
            return Inspection::Unsafe;
        const QString separator = kind == QLatin1Char('l') ? QStringLiteral(" -> ") : QStringLiteral(" link to ");
        const qsizetype at = line.lastIndexOf(separator);
        if (at < 0 || !staysInside(line.mid(at + separator.size()).trimmed()))
            return Inspection::Unsafe;
    }
    return Inspection::Safe;
}

// A member may only name something below the extraction folder: no absolute paths, drive letters or parent steps.
bool ArchiveExtractor::staysInside(QString member)
{
    member.replace(QLatin1Char('\\'), QLatin1Char('/'));
    if (member.startsWith(QLatin1Char('/')) || (member.size() > 1 && member.at(1) == QLatin1Char(':')))
        return false;
    return !member.split(QLatin1Char('/')).contains(QStringLiteral(".."));
}

void ArchiveExtractor::emptyFolder(const QString &folder)
{
    QDir(folder).removeRecursively();
    QDir().mkpath(folder);
}

bool ArchiveExtractor::isZipFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && file.read(4) == QByteArrayLiteral("PK\x03\x04");
}

ArchiveExtractor::BlockingResult ArchiveExtractor::runBlocking(const PlatformProfile::Command &command, int limitMs)
{
    QProcess process;
    process.start(command.program, command.arguments);
    BlockingResult result;
    if (!process.waitForStarted(limitMs)) {
        result.standardError = process.errorString();
        return result;
    }
    if (!process.waitForFinished(limitMs)) {
        process.kill();
        process.waitForFinished(killGraceMs);
        result.standardError = process.errorString();
        return result;
    }
    result.standardOutput = QString::fromUtf8(process.readAllStandardOutput());
    result.standardError = QString::fromUtf8(process.readAllStandardError());
    result.succeeded = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return result;
}

} // namespace Quorix
