#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QNetworkReply;
class QSaveFile;

namespace Quorix {

// Streams the body of one download reply to disk while it arrives, so a large file never sits in memory. The file
// is written beside its final name and only takes that name on commit(); a download that fails, is cancelled or is
// abandoned leaves any older file of that name as it was. A JSON answer is the server refusing the download: it is
// kept in memory for the error message and nothing touches the disk. The bytes are hashed as they pass, so a file
// whose Repr-Digest (RFC 9530) does not match is thrown away instead of taking its name.
class DownloadSink : public QObject
{
    Q_OBJECT

public:
    // Turns the reply's Content-Disposition value into the full path to write, or an empty string when there is no
    // acceptable place for the file.
    using TargetResolver = std::function<QString(const QByteArray &contentDisposition)>;

    // The sink becomes a child of the reply and lives exactly as long as it.
    DownloadSink(QNetworkReply *reply, TargetResolver resolver);
    ~DownloadSink() override;

    enum class Outcome { Ready, Refusal, Damaged, Failed };
    using CommitDone = std::function<void(bool saved)>;

    // Takes in what the reply still holds and tells what the transfer delivered. Damaged and Failed throw the
    // written bytes away.
    Outcome finish();
    QByteArray refusalBody() const;

    // After finish() gave Ready: syncs the file and moves it under its final name on a worker thread, since the sync
    // of a large file takes long enough to freeze a window; done runs on context's thread afterwards.
    void commitInBackground(QObject *context, CommitDone done);
    // Throws away whatever was written so far.
    void discard();
    QString filePath() const;

signals:
    // Opening or writing the file failed while the transfer was still running.
    void saveFailed();

private slots:
    void onReplyReadyRead();

private:
    enum class Mode { Undecided, File, Refusal, Ignored, Failed };

    bool decide();
    bool consume();
    void fail();
    bool matchesClaimedDigest() const;

    QNetworkReply *reply = nullptr;
    TargetResolver resolver;
    Mode mode = Mode::Undecided;
    std::unique_ptr<QSaveFile> file;
    QByteArray refusal;
    bool refusalOversized = false;
    QString path;
    QCryptographicHash hash{QCryptographicHash::Sha256};
    bool digestClaimed = false;
    QByteArray claimedDigest;
};

} // namespace Quorix
