#pragma once

#include <QByteArray>
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
// kept in memory for the error message and nothing touches the disk.
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

    bool isRefusal() const;
    QByteArray refusalBody() const;

    // Writes what is still buffered and moves the file under its final name; false when it could not be saved.
    bool commit();
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

    QNetworkReply *reply = nullptr;
    TargetResolver resolver;
    Mode mode = Mode::Undecided;
    std::unique_ptr<QSaveFile> file;
    QByteArray refusal;
    bool refusalOversized = false;
    QString path;
};

} // namespace Quorix
