#include "LocalHttpServer.h"

#include <QHostAddress>
#include <QTcpSocket>

namespace Quorix::Testing {

LocalHttpServer::LocalHttpServer(QObject *parent)
    : QTcpServer(parent)
{
    listen(QHostAddress::LocalHost, 0);
    connect(this, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *client = nextPendingConnection()) {
            client->setParent(this);
            connect(client, &QTcpSocket::readyRead, this, &LocalHttpServer::onClientReadyRead);
            connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
        }
    });
}

QString LocalHttpServer::url(const QString &path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort()).arg(path);
}

void LocalHttpServer::setBody(const QByteArray &content)
{
    body = content;
}

void LocalHttpServer::setFailures(const QList<int> &statuses)
{
    failures = statuses;
}

QStringList LocalHttpServer::requests() const
{
    return requestLines;
}

void LocalHttpServer::onClientReadyRead()
{
    auto *client = qobject_cast<QTcpSocket *>(sender());
    QByteArray pending = client->property("pending").toByteArray() + client->readAll();
    if (!pending.contains("\r\n\r\n")) {
        client->setProperty("pending", pending);
        return;
    }
    client->setProperty("pending", QByteArray());
    requestLines << QString::fromLatin1(pending.left(pending.indexOf("\r\n")));

    const int status = failures.isEmpty() ? 200 : failures.takeFirst();
    const QByteArray content = status == 200 ? body : QByteArrayLiteral("unavailable\n");
    QByteArray response = "HTTP/1.1 " + QByteArray::number(status) + (status == 200 ? " OK" : " Error") + "\r\n";
    response += "Content-Type: application/octet-stream\r\nContent-Length: " + QByteArray::number(content.size())
                + "\r\nConnection: close\r\n\r\n" + content;
    client->write(response);
    client->disconnectFromHost();
}

} // namespace Quorix::Testing
