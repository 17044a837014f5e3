// Uploads 200 MB of weights to the reference server through OnlineResourcesAPI::uploadWeights and through
// curl -F, alternating, and prints each one's throughput and the client's peak memory growth. The server runs as a
// process of its own so that its buffering of whole bodies stays out of the client's figures.

#include "PatternFile.h"
#include "ProcessMemory.h"
#include "api/OnlineResourcesAPI.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>

namespace {

constexpr qint64 fileSize = 200LL * 1024 * 1024;
constexpr double megabyte = 1024.0 * 1024.0;
constexpr int rounds = 3;

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QString devLogin(const QString &origin)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(origin + QStringLiteral("/api/auth/dev-login")));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    const QJsonObject body{{QStringLiteral("discord_id"), QStringLiteral("512000000000000001")},
                           {QStringLiteral("username"), QStringLiteral("bench")}};
    QNetworkReply *reply = manager.post(request, QJsonDocument(body).toJson());
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    reply->deleteLater();
    return QJsonDocument::fromJson(reply->readAll()).object().value(QStringLiteral("token")).toString();
}

QString waitForSignIn(const QString &origin)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        const QString token = devLogin(origin);
        if (!token.isEmpty())
            return token;
        QThread::msleep(100);
    }
    return QString();
}

struct Measurement
{
    double seconds = 0;
    double peakGrowthMegabytes = 0;
    QString id;
};

Measurement uploadThroughApi(const QString &token, const QString &path, const QString &existingId)
{
    Quorix::OnlineResourcesAPI api;
    api.authToken = token;
    QJsonObject form{{QStringLiteral("name"), QStringLiteral("Bench weights")},
                     {QStringLiteral("description"), QStringLiteral("Two hundred megabytes of weights.")},
                     {QStringLiteral("visibility_type"), QStringLiteral("public")},
                     {QStringLiteral("version"), 1},
                     {QStringLiteral("encrypted"), false},
                     {QStringLiteral("onnx_file"), path}};
    if (!existingId.isEmpty())
        form.insert(QStringLiteral("existing_uuid"), existingId);

    Measurement measurement;
    QEventLoop loop;
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::weightsUploaded, &loop, [&](const QString &id) {
        measurement.id = id;
        loop.quit();
    });
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::errorOccurred, &loop, [&](const QString &error) {
        std::fprintf(stderr, "API upload failed: %s\n", qPrintable(error));
        loop.quit();
    });
    ProcessMemory::resetPeakResidentSize();
    const qint64 residentBefore = ProcessMemory::statusKilobytes("VmHWM:");
    QElapsedTimer timer;
    timer.start();
    api.uploadWeights(form);
    loop.exec();
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    measurement.peakGrowthMegabytes = (ProcessMemory::statusKilobytes("VmHWM:") - residentBefore) / 1024.0;
    return measurement;
}

Measurement uploadThroughCurl(const QString &origin, const QString &token, const QString &path,
                              const QString &existingId)
{
    QStringList arguments{QStringLiteral("-sS"),
                          QStringLiteral("-o"),
                          QStringLiteral("/dev/null"),
                          QStringLiteral("-w"),
                          QStringLiteral("%{http_code}"),
                          QStringLiteral("-H"),
                          QStringLiteral("Authorization: Bearer ") + token,
                          QStringLiteral("-H"),
                          QStringLiteral("X-Quorix-API-Version: 4"),
                          QStringLiteral("-F"),
                          QStringLiteral("name=Bench weights"),
                          QStringLiteral("-F"),
                          QStringLiteral("description=Two hundred megabytes of weights."),
                          QStringLiteral("-F"),
                          QStringLiteral("existing_uuid=") + existingId,
                          QStringLiteral("-F"),
                          QStringLiteral("onnx_file=@") + path,
                          origin + QStringLiteral("/api/scripts/onnx/upload")};
    QProcess curl;
    QElapsedTimer timer;
    timer.start();
    curl.start(QStringLiteral("curl"), arguments);
    curl.waitForFinished(-1);
    Measurement measurement;
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    const QByteArray status = curl.readAllStandardOutput();
    if (status != "200")
        std::fprintf(stderr, "curl upload answered %s %s\n", status.constData(),
                     curl.readAllStandardError().constData());
    else
        measurement.id = existingId;
    return measurement;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("bench.onnx"));
    if (!directory.isValid() || !PatternFile::write(path, fileSize)) {
        std::fprintf(stderr, "cannot write the test file\n");
        return 1;
    }

    const quint16 port = freePort();
    const QString origin = QStringLiteral("http://127.0.0.1:%1").arg(port);
    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(QStringLiteral(CATALOGUE_SERVER_PROGRAM),
                 {QStringLiteral("--data-dir"), directory.filePath(QStringLiteral("data")), QStringLiteral("--port"),
                  QString::number(port), QStringLiteral("--dev-login")});
    const QString token = server.waitForStarted() ? waitForSignIn(origin) : QString();
    if (token.isEmpty()) {
        std::fprintf(stderr, "the reference server did not start\n");
        return 1;
    }
    // The client reads the origin once, at its first use.
    qputenv("QUORIX_SERVER_URL", origin.toUtf8());

    // Every round replaces the one resource, so the server's disk holds one copy at a time.
    QString id;
    double bestApi = 1e9;
    double bestCurl = 1e9;
    double peakGrowth = 0;
    for (int round = 0; round < rounds; ++round) {
        const Measurement api = uploadThroughApi(token, path, id);
        if (api.id.isEmpty())
            return 1;
        id = api.id;
        const Measurement curl = uploadThroughCurl(origin, token, path, id);
        if (curl.id.isEmpty())
            return 1;
        std::printf("round %d: uploadWeights %.2f s (%.1f MB/s, peak RSS growth %.1f MB), curl -F %.2f s (%.1f MB/s)\n",
                    round + 1, api.seconds, fileSize / megabyte / api.seconds, api.peakGrowthMegabytes, curl.seconds,
                    fileSize / megabyte / curl.seconds);
        bestApi = std::min(bestApi, api.seconds);
        bestCurl = std::min(bestCurl, curl.seconds);
        peakGrowth = std::max(peakGrowth, api.peakGrowthMegabytes);
    }
    std::printf("best of %d: uploadWeights %.1f MB/s, curl -F %.1f MB/s, throughput ratio %.2f; client peak RSS "
                "growth at most %.1f MB\n",
                rounds, fileSize / megabyte / bestApi, fileSize / megabyte / bestCurl, bestCurl / bestApi, peakGrowth);
    server.terminate();
    server.waitForFinished(5000);
    return 0;
}
