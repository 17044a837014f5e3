#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

namespace Quorix {

// The local weights folder (the application's data location + "/weights"): one file per UUID, named UUID.onnx or
// UUID.ennx, and "manifest.json", an object from UUID to what was known of the weights when they were downloaded.
// The manifest is only ever replaced whole; reading it keeps the entries that make sense and drops the rest, so a
// damaged or hand-edited file costs at most the entries it broke.
class WeightsLibrary
{
public:
    WeightsLibrary();

    QString folder() const;
    QString manifestPath() const;

    // A UUID that can name a file in the folder: no separators, no dots at either end, nothing empty.
    static bool isPlainId(const QString &uuid);
    // The file these weights were saved as, with either extension; empty when there is none or the ID is not plain.
    QString existingFile(const QString &uuid) const;
    // Removes the copies of these weights other than keptPath, left by an earlier download with the other extension.
    void removeOtherCopies(const QString &uuid, const QString &keptPath) const;

    // The well-formed entries of the manifest; empty when it is missing or unreadable.
    QJsonObject entries() const;
    // Adds or replaces one entry and writes the manifest again, whole and atomically.
    bool record(const QString &uuid, const QJsonObject &entry) const;

    // A manifest entry from a catalogue record and the saved file's size.
    static QJsonObject entryFor(const QJsonObject &record, qint64 size, const QDateTime &downloadedAt);
    static bool isWellFormedEntry(const QJsonObject &entry);

private:
    QString directory;
};

} // namespace Quorix
