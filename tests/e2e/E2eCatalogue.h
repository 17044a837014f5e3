#pragma once

#include "CatalogueServerFixture.h"
#include "api/OnlineResourcesAPI.h"

#include <QEventLoop>
#include <QJsonObject>
#include <QSignalSpy>
#include <QStringList>
#include <QTemporaryDir>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <memory>

namespace Quorix::Testing {

// One reference server per test executable, reached through real API clients. The client reads the server origin
// once per process, so start() must run before the first OnlineResourcesAPI exists.
class E2eCatalogue
{
public:
    // What one client operation produced: the arguments of its own signal, or the text of errorOccurred.
    struct Outcome
    {
        QList<QVariant> arguments;
        QString error;
        bool answered() const { return !arguments.isEmpty() || !error.isEmpty(); }
    };

    static constexpr int replyTimeoutMilliseconds = 10000;

    explicit E2eCatalogue(const QStringList &administratorIds = {});

    bool start();
    QString error() const { return startError; }
    CatalogueServerFixture &server() { return fixture; }

    // A Discord ID nobody has used yet in this process.
    static QString newDiscordId();
    // A client signed in through the server's dev login, credentials filled as the browser fills them.
    std::unique_ptr<OnlineResourcesAPI> signIn(const QString &discordId, const QString &username);
    std::unique_ptr<OnlineResourcesAPI> anonymous();

    // Runs action and waits (bounded) until the client answers with signal or with errorOccurred.
    template<typename Signal>
    static Outcome await(OnlineResourcesAPI *api, Signal signal, const std::function<void()> &action)
    {
        QSignalSpy answered(api, signal);
        QSignalSpy failed(api, &OnlineResourcesAPI::errorOccurred);
        QEventLoop loop;
        QTimer timeout;
        timeout.setSingleShot(true);
        QObject::connect(api, signal, &loop, &QEventLoop::quit);
        QObject::connect(api, &OnlineResourcesAPI::errorOccurred, &loop, &QEventLoop::quit);
        QObject::connect(&timeout, &QTimer::timeout, &loop, &QEventLoop::quit);
        action();
        if (answered.isEmpty() && failed.isEmpty()) {
            timeout.start(replyTimeoutMilliseconds);
            loop.exec();
        }
        Outcome outcome;
        if (!answered.isEmpty())
            outcome.arguments = answered.first();
        if (!failed.isEmpty())
            outcome.error = failed.first().first().toString();
        return outcome;
    }

    // Writes content to a fresh file of that name and returns its path.
    QString writeFile(const QString &fileName, const QByteArray &content);
    QString newDirectory();

    // A complete upload form for the file at path; extra keys override or add fields.
    static QJsonObject scriptForm(const QString &name, const QString &path, const QJsonObject &extra = {});

    // Uploads through the client and returns the new ID, or an empty string with the client's error in *error.
    QString upload(OnlineResourcesAPI *api, const QString &name, const QString &fileName, const QByteArray &content,
                   const QJsonObject &extra = {}, QString *error = nullptr);
    // One page of the script list as the client delivers it.
    static QJsonObject listScripts(OnlineResourcesAPI *api, const QJsonObject &params);
    static QStringList idsOf(const QJsonObject &listReply, const QString &itemsKey = QStringLiteral("scripts"));

private:
    CatalogueServerFixture fixture;
    QTemporaryDir files;
    QString startError;
    int fileCounter = 0;
};

} // namespace Quorix::Testing
