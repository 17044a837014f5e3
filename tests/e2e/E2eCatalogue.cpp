#include "E2eCatalogue.h"

#include "core/Configuration.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>

#include <atomic>

namespace Quorix::Testing {

E2eCatalogue::E2eCatalogue(const QStringList &administratorIds)
    : fixture(false, administratorIds)
{ }

bool E2eCatalogue::start()
{
    if (!fixture.start()) {
        startError = fixture.error();
        return false;
    }
    qputenv("QUORIX_SERVER_URL", fixture.origin().toUtf8());
    // Too late if a client was built before: the origin is fixed at its first reading.
    if (Configuration::serverOrigin() != fixture.origin()) {
        startError = QStringLiteral("The server origin was read before the test server started");
        return false;
    }
    return true;
}

QString E2eCatalogue::newDiscordId()
{
    static std::atomic<qint64> next{0};
    return QString::number(310000000000000000LL + ++next);
}

std::unique_ptr<OnlineResourcesAPI> E2eCatalogue::signIn(const QString &discordId, const QString &username)
{
    auto api = std::make_unique<OnlineResourcesAPI>();
    api->authToken = fixture.signIn(discordId, username);
    api->discordUsername = username;
    api->discordGlobalName = username.toUpper();
    return api;
}

std::unique_ptr<OnlineResourcesAPI> E2eCatalogue::anonymous()
{
    return std::make_unique<OnlineResourcesAPI>();
}

QString E2eCatalogue::newDirectory()
{
    const QString path = files.filePath(QStringLiteral("dir%1").arg(++fileCounter));
    QDir().mkpath(path);
    return path;
}

QString E2eCatalogue::writeFile(const QString &fileName, const QByteArray &content)
{
    const QString path = newDirectory() + QLatin1Char('/') + fileName;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return path;
}

QJsonObject E2eCatalogue::scriptForm(const QString &name, const QString &path, const QJsonObject &extra)
{
    QJsonObject form{{QStringLiteral("name"), name},
                     {QStringLiteral("description"), QStringLiteral("Published by the end-to-end tests")},
                     {QStringLiteral("tags"), QStringLiteral("e2e")},
                     {QStringLiteral("version"), 1},
                     {QStringLiteral("visibility_type"), QStringLiteral("public")},
                     {QStringLiteral("script_file"), path}};
    for (auto it = extra.begin(); it != extra.end(); ++it)
        form.insert(it.key(), it.value());
    return form;
}

QString E2eCatalogue::upload(OnlineResourcesAPI *api, const QString &name, const QString &fileName,
                             const QByteArray &content, const QJsonObject &extra, QString *error)
{
    const QJsonObject form = scriptForm(name, writeFile(fileName, content), extra);
    const Outcome outcome = await(api, &OnlineResourcesAPI::scriptUploaded, [&] { api->uploadScript(form); });
    if (error)
        *error = outcome.answered() ? outcome.error : QStringLiteral("no answer");
    return outcome.arguments.isEmpty() ? QString() : outcome.arguments.first().toString();
}

QJsonObject E2eCatalogue::listScripts(OnlineResourcesAPI *api, const QJsonObject &params)
{
    const Outcome outcome = await(api, &OnlineResourcesAPI::scriptsLoaded, [&] { api->fetchScripts(params); });
    return outcome.arguments.isEmpty() ? QJsonObject() : outcome.arguments.first().toJsonObject();
}

QStringList E2eCatalogue::idsOf(const QJsonObject &listReply, const QString &itemsKey)
{
    QStringList ids;
    for (const QJsonValue &record : listReply.value(itemsKey).toArray())
        ids.append(record.toObject().value(QStringLiteral("id")).toString());
    return ids;
}

} // namespace Quorix::Testing
