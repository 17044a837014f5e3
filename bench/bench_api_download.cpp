// Downloads one large file from a local server through OnlineResourcesAPI and through curl, and prints the
// throughput and peak memory growth of each. The server runs on its own thread and hands the file to the kernel
// with sendfile(), so it is never what limits either client.
//
// Then the whole weights flow: 200 MB published on the reference catalogue server (its own process) and downloaded
// by the page's weights flow into the local weights library, digest check and durable commit included, against
// curl -o + sha256sum + sync in the same run. It also prints how late a 1 ms timer on the GUI thread ever ran during
// the download and the commit, which is the longest time the window could not repaint.

#include "PatternFile.h"
#include "ProcessMemory.h"
#include "ModalAnswerer.h"
#include "api/OnlineResourcesAPI.h"
#include "browser/WeightsDownloadFlow.h"
#include "browser/WeightsLibrary.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

namespace {

constexpr qint64 fileSize = 200LL * 1024 * 1024;
constexpr double megabyte = 1024.0 * 1024.0;

// A minimal HTTP/1.1 file server: every request, whatever its path, gets the one file.
class FileServer
{
public:
    explicit FileServer(const QString &path)
        : filePath(path.toStdString())
    {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        const int yes = 1;
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ::listen(listener, 8);
        socklen_t length = sizeof address;
        ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
        port = ntohs(address.sin_port);
        worker = std::thread([this] { run(); });
    }

    ~FileServer()
    {
        stopping = true;
        ::shutdown(listener, SHUT_RDWR);
        ::close(listener);
        worker.join();
    }

    quint16 serverPort() const { return port; }

private:
    void run()
    {
        while (!stopping) {
            const int client = ::accept(listener, nullptr, nullptr);
            if (client < 0)
                return;
            serve(client);
            ::close(client);
        }
    }

    void serve(int client)
    {
        std::string pending;
        char buffer[8192];
        for (;;) {
            const std::size_t headerEnd = pending.find("\r\n\r\n");
            if (headerEnd == std::string::npos) {
                const ssize_t received = ::recv(client, buffer, sizeof buffer, 0);
                if (received <= 0)
                    return;
                pending.append(buffer, std::size_t(received));
                continue;
            }
            pending.erase(0, headerEnd + 4);
            const int file = ::open(filePath.c_str(), O_RDONLY);
            const std::string header = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                                       "Content-Disposition: attachment; filename=\"large.gpc3\"\r\n"
                                       "Content-Length: "
                                       + std::to_string(fileSize) + "\r\n\r\n";
            ::send(client, header.data(), header.size(), MSG_NOSIGNAL);
            off_t offset = 0;
            while (offset < fileSize) {
                if (::sendfile(client, file, &offset, std::size_t(fileSize - offset)) <= 0)
                    break;
            }
            ::close(file);
        }
    }

    std::string filePath;
    int listener = -1;
    quint16 port = 0;
    std::atomic<bool> stopping{false};
    std::thread worker;
};

struct Measurement
{
    double seconds = 0;
    double peakGrowthMegabytes = 0;
    double secondsWithSync = 0;
    bool ok = false;
};

Measurement downloadThroughApi(const QString &directory)
{
    Quorix::OnlineResourcesAPI api;
    QEventLoop loop;
    bool ok = false;
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::scriptDownloaded, &loop, [&](const QString &path) {
        ok = QFileInfo(path).size() == fileSize;
        loop.quit();
    });
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::errorOccurred, &loop, [&](const QString &error) {
        std::fprintf(stderr, "API download failed: %s\n", qPrintable(error));
        loop.quit();
    });

    ProcessMemory::resetPeakResidentSize();
    const qint64 residentBefore = ProcessMemory::statusKilobytes("VmHWM:");
    QElapsedTimer timer;
    timer.start();
    api.downloadScript(QStringLiteral("large"), directory);
    loop.exec();
    Measurement measurement;
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    measurement.peakGrowthMegabytes = (ProcessMemory::statusKilobytes("VmHWM:") - residentBefore) / 1024.0;
    measurement.ok = ok;
    return measurement;
}

// The same transfer through a bare QNetworkAccessManager that throws the bytes away: the ceiling that the network
// library itself sets for any client built on it.
Measurement downloadThroughBareManager(const QString &url)
{
    QNetworkAccessManager manager;
    QNetworkRequest request{QUrl(url)};
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    QNetworkReply *reply = manager.get(request);
    reply->setReadBufferSize(1024 * 1024);
    qint64 received = 0;
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [&] { received += reply->readAll().size(); });
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QElapsedTimer timer;
    timer.start();
    loop.exec();
    received += reply->readAll().size();
    Measurement measurement;
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    measurement.ok = reply->error() == QNetworkReply::NoError && received == fileSize;
    reply->deleteLater();
    return measurement;
}

Measurement downloadThroughCurl(const QString &url, const QString &target)
{
    QProcess curl;
    QElapsedTimer timer;
    timer.start();
    curl.start(QStringLiteral("curl"), {QStringLiteral("-s"), QStringLiteral("-o"), target, url});
    curl.waitForFinished(-1);
    Measurement measurement;
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    // curl starts from nothing, so its whole peak is its growth.
    measurement.peakGrowthMegabytes = usage.ru_maxrss / 1024.0;
    measurement.ok = curl.exitCode() == 0 && QFileInfo(target).size() == fileSize;
    // The API's file is synced to disk before it takes its final name; this is the same transfer held to that.
    const int written = ::open(QFile::encodeName(target).constData(), O_RDONLY);
    ::fsync(written);
    ::close(written);
    measurement.secondsWithSync = timer.nsecsElapsed() / 1e9;
    return measurement;
}

QByteArray runCurl(const QStringList &arguments)
{
    QProcess curl;
    curl.start(QStringLiteral("curl"), arguments);
    curl.waitForFinished(-1);
    return curl.readAllStandardOutput();
}

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

// The reference catalogue server as a child process, so that serving never runs on the thread being measured.
class ReferenceServer
{
public:
    bool start(const QString &dataDirectory)
    {
        const QString program = QCoreApplication::applicationDirPath() + QStringLiteral("/catalogue-server");
        const quint16 port = freePort();
        process.start(program, {QStringLiteral("--data-dir"), dataDirectory, QStringLiteral("--port"),
                                QString::number(port), QStringLiteral("--dev-login")});
        if (!process.waitForStarted())
            return false;
        origin = QStringLiteral("http://127.0.0.1:%1").arg(port);
        for (int attempt = 0; attempt < 100; ++attempt) {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, port);
            if (socket.waitForConnected(100))
                return true;
            QThread::msleep(100);
        }
        return false;
    }

    ~ReferenceServer()
    {
        process.kill();
        process.waitForFinished();
    }

    QString origin;

private:
    QProcess process;
};

// Signs in through dev login and publishes the file as public weights; returns their ID.
QString publishWeights(const QString &origin, const QString &path)
{
    const QByteArray login = runCurl({QStringLiteral("-s"), QStringLiteral("-H"),
                                      QStringLiteral("Content-Type: application/json"), QStringLiteral("-d"),
                                      QStringLiteral(R"({"discord_id":"123456789012345678","username":"bench"})"),
                                      origin + QStringLiteral("/api/auth/dev-login")});
    const QString token = QJsonDocument::fromJson(login).object().value(QStringLiteral("token")).toString();
    const QByteArray upload
            = runCurl({QStringLiteral("-s"), QStringLiteral("-H"), QStringLiteral("Authorization: Bearer ") + token,
                       QStringLiteral("-H"), QStringLiteral("X-Quorix-API-Version: 4"), QStringLiteral("-F"),
                       QStringLiteral("name=Benchmark weights"), QStringLiteral("-F"),
                       QStringLiteral("description=Two hundred megabytes of weights"), QStringLiteral("-F"),
                       QStringLiteral("onnx_file=@%1;filename=bench.onnx").arg(path),
                       origin + QStringLiteral("/api/scripts/onnx/upload")});
    return QJsonDocument::fromJson(upload)
            .object()
            .value(QStringLiteral("data"))
            .toObject()
            .value(QStringLiteral("id"))
            .toVariant()
            .toString();
}

// The three stretches of the flow a stall can fall into.
enum Phase { Transfer, Commit, Recording, PhaseCount };
const char *const phaseNames[PhaseCount]
        = {"transfer (bytes arriving, hashed, written)", "commit (sync and rename on a worker)",
           "recording (manifest written, flow told)"};

struct FlowMeasurement
{
    double seconds = 0;
    double peakGrowthMegabytes = 0;
    double longestStallMilliseconds[PhaseCount] = {};
    bool ok = false;
};

// Watches the GUI thread with a 1 ms timer and keeps the worst lateness of a tick in each phase.
class StallMeter
{
public:
    StallMeter()
    {
        timer.setTimerType(Qt::PreciseTimer);
        timer.setInterval(1);
        QObject::connect(&timer, &QTimer::timeout, [this] {
            const qint64 now = clock.nsecsElapsed();
            worst[phase] = std::max(worst[phase], now - last - 1000000);
            last = now;
        });
    }

    void start()
    {
        clock.start();
        last = 0;
        timer.start();
    }
    // A tick that was late when the phase changed counts for the phase it was late in.
    void enter(Phase next)
    {
        const qint64 now = clock.nsecsElapsed();
        worst[phase] = std::max(worst[phase], now - last - 1000000);
        phase = next;
    }
    void stop(double *milliseconds)
    {
        enter(phase);
        timer.stop();
        for (int i = 0; i < PhaseCount; ++i)
            milliseconds[i] = std::max<qint64>(worst[i], 0) / 1e6;
    }

private:
    QTimer timer;
    QElapsedTimer clock;
    qint64 last = 0;
    qint64 worst[PhaseCount] = {};
    Phase phase = Transfer;
};

// The lateness an idle GUI thread sees on this machine, so the stalls below can be told from scheduling noise.
double idleStallMilliseconds(int milliseconds)
{
    StallMeter stalls;
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    stalls.start();
    loop.exec();
    double worst[PhaseCount] = {};
    stalls.stop(worst);
    return worst[Transfer];
}

FlowMeasurement downloadThroughWeightsFlow(const QString &weightsId)
{
    QWidget page;
    Quorix::OnlineResourcesAPI api;
    Quorix::WeightsDownloadFlow flow(&page, &api);
    StallMeter stalls;
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::downloadProgress, &flow,
                     [&stalls](qint64 received, qint64 total) {
                         if (received == total)
                             stalls.enter(Commit);
                     });
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::weightsDownloaded, &flow,
                     [&flow, &stalls](const QString &uuid, const QString &path) {
                         stalls.enter(Recording);
                         flow.save(path, uuid);
                     });
    FlowMeasurement measurement;
    QElapsedTimer timer;
    QEventLoop loop;
    QObject::connect(&flow, &Quorix::WeightsDownloadFlow::weightsSaved, &loop,
                     [&](const QString &, const QString &path) {
                         // Measured before the closing message box, which waits for the user.
                         measurement.seconds = timer.nsecsElapsed() / 1e9;
                         stalls.stop(measurement.longestStallMilliseconds);
                         measurement.ok = QFileInfo(path).size() == fileSize;
                         loop.quit();
                     });
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::downloadFailed, &loop,
                     [&](const QString &, const QString &error) {
                         std::fprintf(stderr, "weights flow failed: %s\n", qPrintable(error));
                         loop.quit();
                     });
    Quorix::Testing::ModalAnswerer closer;
    closer.pressButton(QMessageBox::Ok, 600000);

    ProcessMemory::resetPeakResidentSize();
    const qint64 residentBefore = ProcessMemory::statusKilobytes("VmHWM:");
    timer.start();
    stalls.start();
    flow.start(weightsId, QJsonObject{{QStringLiteral("id"), weightsId},
                                      {QStringLiteral("name"), QStringLiteral("Benchmark weights")}});
    loop.exec();
    measurement.peakGrowthMegabytes = (ProcessMemory::statusKilobytes("VmHWM:") - residentBefore) / 1024.0;
    closer.waitForAnswer(10000);
    return measurement;
}

double curlShaSync(const QString &url, const QString &target)
{
    QElapsedTimer timer;
    timer.start();
    runCurl({QStringLiteral("-s"), QStringLiteral("-o"), target, url});
    QProcess sha;
    sha.start(QStringLiteral("sha256sum"), {target});
    sha.waitForFinished(-1);
    QProcess sync;
    sync.start(QStringLiteral("sync"), {target});
    sync.waitForFinished(-1);
    const double seconds = timer.nsecsElapsed() / 1e9;
    return QFileInfo(target).size() == fileSize && sha.exitCode() == 0 ? seconds : -1;
}

int weightsFlowBenchmark(const QString &source, const QString &workspace)
{
    ReferenceServer server;
    if (!server.start(workspace + QStringLiteral("/catalogue"))) {
        std::fprintf(stderr, "the reference server did not start\n");
        return 1;
    }
    const QString weightsId = publishWeights(server.origin, source);
    if (weightsId.isEmpty()) {
        std::fprintf(stderr, "publishing the benchmark weights failed\n");
        return 1;
    }
    const QString url = server.origin + QStringLiteral("/api/scripts/onnx/download/") + weightsId;
    // The server hashes a file on its first download; this one pays for that so neither measured run does.
    runCurl({QStringLiteral("-s"), QStringLiteral("-o"), QStringLiteral("/dev/null"), url});

    const QString curlTarget = workspace + QStringLiteral("/curl-weights.bin");
    const double baseline = curlShaSync(url, curlTarget);
    QFile::remove(curlTarget);
    qputenv("QUORIX_SERVER_URL", server.origin.toUtf8());
    Quorix::WeightsLibrary library;
    QFile::remove(library.folder() + QLatin1Char('/') + weightsId + QStringLiteral(".onnx"));
    const double idle = idleStallMilliseconds(5000);
    const FlowMeasurement flow = downloadThroughWeightsFlow(weightsId);
    const QString saved = library.existingFile(weightsId);
    if (baseline < 0 || !flow.ok) {
        std::fprintf(stderr, "a weights download did not complete (curl %d, flow %d)\n", baseline >= 0, flow.ok);
        return 1;
    }
    const double sizeMegabytes = fileSize / megabyte;
    std::printf("\nweights flow, reference server -> %s\n", qPrintable(Quorix::WeightsLibrary().folder()));
    std::printf("weights flow (download, digest, commit): %8.1f MB/s  (%.3f s), peak RSS growth %.1f MB\n",
                sizeMegabytes / flow.seconds, flow.seconds, flow.peakGrowthMegabytes);
    std::printf("curl -o + sha256sum + sync:              %8.1f MB/s  (%.3f s)\n", sizeMegabytes / baseline, baseline);
    std::printf("throughput ratio flow/(curl + sha256sum + sync): %.2f\n", baseline / flow.seconds);
    const double *stalls = flow.longestStallMilliseconds;
    std::printf("longest GUI-thread stall (1 ms timer lateness) during download and commit: %.1f ms\n",
                std::max({stalls[Transfer], stalls[Commit], stalls[Recording]}));
    for (int phase = 0; phase < PhaseCount; ++phase)
        std::printf("    %-45s %.1f ms\n", phaseNames[phase], stalls[phase]);
    std::printf("    %-45s %.1f ms\n", "idle GUI thread for 5 s (scheduling noise)", idle);
    QFile::remove(saved);
    return 0;
}

} // namespace

// The weights flow runs in a second process of this program, since the server address is read once per process.
int runWeightsFlowProcess(const QString &source, const QString &workspace)
{
    std::fflush(stdout);
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--weights-flow"), source, workspace});
    child.waitForFinished(-1);
    return child.exitCode();
}

int main(int argc, char *argv[])
{
    if (argc == 4 && qstrcmp(argv[1], "--weights-flow") == 0) {
        QStandardPaths::setTestModeEnabled(true);
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        QApplication app(argc, argv);
        return weightsFlowBenchmark(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]));
    }

    QTemporaryDir workspace;
    const QString source = workspace.filePath(QStringLiteral("served.bin"));
    if (!PatternFile::write(source, fileSize)) {
        std::fprintf(stderr, "cannot write the %lld-byte test file\n", fileSize);
        return 1;
    }
    FileServer server(source);
    const QString origin = QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort());
    qputenv("QUORIX_SERVER_URL", origin.toUtf8());
    QStandardPaths::setTestModeEnabled(true);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);

    const QString apiDirectory = workspace.filePath(QStringLiteral("api"));
    const QString curlTarget = workspace.filePath(QStringLiteral("curl.bin"));
    QDir().mkpath(apiDirectory);

    const Measurement curl = downloadThroughCurl(origin + QStringLiteral("/api/scripts/download/large"), curlTarget);
    QFile::remove(curlTarget);
    const Measurement api = downloadThroughApi(apiDirectory);
    const Measurement bare = downloadThroughBareManager(origin + QStringLiteral("/api/scripts/download/large"));
    if (!curl.ok || !api.ok) {
        std::fprintf(stderr, "a download did not complete (curl %d, API %d)\n", curl.ok, api.ok);
        return 1;
    }

    const double sizeMegabytes = fileSize / megabyte;
    const double apiRate = sizeMegabytes / api.seconds;
    const double curlRate = sizeMegabytes / curl.seconds;
    std::printf("file size:              %.0f MB, written under %s\n", sizeMegabytes, qPrintable(workspace.path()));
    std::printf("OnlineResourcesAPI:     %8.1f MB/s  (%.3f s), peak RSS growth %.1f MB\n", apiRate, api.seconds,
                api.peakGrowthMegabytes);
    std::printf("curl -o:                %8.1f MB/s  (%.3f s), peak RSS %.1f MB\n", curlRate, curl.seconds,
                curl.peakGrowthMegabytes);
    if (bare.ok)
        std::printf("bare QNetworkAccessManager, bytes discarded: %8.1f MB/s  (%.3f s)\n", sizeMegabytes / bare.seconds,
                    bare.seconds);
    std::printf("curl -o, then fsync:    %8.1f MB/s  (%.3f s)\n", sizeMegabytes / curl.secondsWithSync,
                curl.secondsWithSync);
    std::printf("throughput ratio API/curl: %.2f (target >= 0.90)\n", apiRate / curlRate);
    std::printf("throughput ratio API/(curl + fsync): %.2f\n", apiRate * curl.secondsWithSync / sizeMegabytes);
    std::printf("API peak memory growth under 64 MB: %s\n", api.peakGrowthMegabytes < 64.0 ? "yes" : "no");
    return runWeightsFlowProcess(source, workspace.path());
}
