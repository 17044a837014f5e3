#pragma once

#include <QByteArray>
#include <QList>
#include <QStringList>
#include <QTcpServer>

namespace Quorix::Testing {

// Answers every GET on 127.0.0.1 with one body, after a queue of failure statuses has been used up; keeps the
// request lines it saw. Enough to stand in for a release download host.
class LocalHttpServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit LocalHttpServer(QObject *parent = nullptr);

    QString url(const QString &path) const;
    void setBody(const QByteArray &body);
    // Statuses answered, one per request, before the body is served.
    void setFailures(const QList<int> &statuses);
    QStringList requests() const;

private:
    void onClientReadyRead();

    QByteArray body;
    QList<int> failures;
    QStringList requestLines;
};

} // namespace Quorix::Testing
