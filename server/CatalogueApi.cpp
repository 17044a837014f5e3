#include "CatalogueApi.h"

#include "CrashPoint.h"
#include "MultipartForm.h"
#include "QenvPackage.h"
#include "ResourceFiles.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUuid>

#include <cmath>

namespace Quorix {

namespace {

const QString authenticationRequired = QStringLiteral("Authentication required");
const QString notFound = QStringLiteral("Resource not found");

bool isResourceId(const QString &id)
{
    static const QRegularExpression pattern(
            QStringLiteral("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$"));
    return pattern.match(id).hasMatch();
}

bool isDiscordId(const QString &id)
{
    static const QRegularExpression pattern(QStringLiteral("^\\d{17,20}$"));
    return pattern.match(id).hasMatch();
}

bool isVisibility(const QString &value)
{
    return value == QLatin1String("public") || value == QLatin1String("private")
           || value == QLatin1String("purchasable");
}

// Reads an optional integer query item within bounds; false when it is present but not acceptable.
bool readInteger(const ApiRequest &request, const QString &key, int minimum, int maximum, int *value)
{
    if (!request.hasQueryItem(key))
        return true;
    bool ok = false;
    const int parsed = request.queryValue(key).toInt(&ok);
    if (!ok || parsed < minimum || parsed > maximum)
        return false;
    *value = parsed;
    return true;
}

// An absent body counts as an empty object; anything else must be one JSON object.
bool readJsonBody(const ApiRequest &request, QJsonObject *object, ApiResponse *failure)
{
    if (request.body.size() > CatalogueApi::jsonBodyLimit) {
        *failure = ApiResponse::error(413, QStringLiteral("Request body too large"));
        return false;
    }
    if (request.body.trimmed().isEmpty()) {
        *object = {};
        return true;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(request.body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        *failure = ApiResponse::error(400, QStringLiteral("Invalid JSON body"));
        return false;
    }
    *object = document.object();
    return true;
}

// A string member that may be absent; false when present with another type or too long.
bool readString(const QJsonObject &object, const QString &key, int maximumLength, QString *value)
{
    const QJsonValue member = object.value(key);
    if (member.isUndefined() || member.isNull()) {
        value->clear();
        return true;
    }
    if (!member.isString() || member.toString().size() > maximumLength)
        return false;
    *value = member.toString().trimmed();
    return true;
}

bool isDeletion(const ApiRequest &request)
{
    return request.method == "DELETE"
           || request.queryValue(QStringLiteral("_method")).toUpper() == QLatin1String("DELETE")
           || request.header("x-http-method-override").toUpper() == "DELETE"
           || request.body.trimmed() == "_method=DELETE";
}

// Control characters and the bidirectional embeddings, overrides and isolates can make a name show as something it is
// not ("exe.gpc3" shown for "3cpg.exe"), or break the lines and headers it is written into.
bool hasHiddenCharacters(const QString &text)
{
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if (u < 0x20 || (u >= 0x7f && u < 0xa0) || (u >= 0x202a && u <= 0x202e) || (u >= 0x2066 && u <= 0x2069)
            || u == 0x200e || u == 0x200f || u == 0x061c)
            return true;
    }
    return false;
}

QString kindOfPath(const QString &kind)
{
    return kind.isEmpty() ? QStringLiteral("script") : kind;
}

QString limitText(qint64 bytes)
{
    return QStringLiteral("%1MB").arg(bytes / (1024 * 1024));
}

} // namespace

CatalogueApi::CatalogueApi(CatalogueDatabase *database, const Settings &settings)
    : database(database)
    , settings(settings)
    , imageLinks(settings.dataDirectory)
{ }

BodyPolicy CatalogueApi::bodyPolicy(const ApiRequest &head)
{
    BodyPolicy policy;
    policy.limit = jsonBodyLimit;
    policy.refusal = QStringLiteral("Request body too large");
    const QStringList &path = head.segments;
    const bool upload
            = head.method == "POST" && path.size() >= 3 && path.size() <= 4 && path.at(0) == QLatin1String("api")
              && path.at(1) == QLatin1String("scripts") && path.last() == QLatin1String("upload")
              && (path.size() == 3 || path.at(2) == QLatin1String("qenv") || path.at(2) == QLatin1String("onnx"));
    if (!upload)
        return policy;
    const bool weights = path.size() == 4 && path.at(2) == QLatin1String("onnx");
    const qint64 fileLimit = weights ? weightsLimit : scriptLimit;
    policy.multipart = true;
    policy.limit = fileLimit + imageLimit + formOverhead;
    policy.refusal = QStringLiteral("File too large (max %1)").arg(limitText(fileLimit));
    policy.formLimits.text = formOverhead;
    policy.formLimits.files
            = {{weights ? QStringLiteral("onnx_file") : QStringLiteral("script_file"), fileLimit, policy.refusal},
               {QStringLiteral("header_image"), imageLimit,
                QStringLiteral("Image too large (max %1)").arg(limitText(imageLimit))}};
    return policy;
}

std::optional<ApiResponse> CatalogueApi::admit(const ApiRequest &head)
{
    const CatalogueDatabase::User user = identify(head);
    if (!user.isValid())
        return forClient(head, ApiResponse::error(401, authenticationRequired));
    if (user.banned)
        return forClient(head, ApiResponse::error(403, QStringLiteral("Your account has been banned from uploading")));
    return std::nullopt;
}

ApiResponse CatalogueApi::handle(const ApiRequest &request)
{
    Context context{request, identify(request), {}};
    context.caller.userId = context.user.id;
    context.caller.administrator = isAdministrator(context.user);
    return forClient(request, route(context));
}

ApiResponse CatalogueApi::forClient(const ApiRequest &request, ApiResponse response)
{
    // The plugin (API version 4) reads a refusal from the body of a successful reply and turns any HTTP error status
    // into a bare transport message, which would hide our reason from the user. 413 keeps its status: the plugin
    // reports it as the upload size limit.
    if (request.header("x-quorix-api-version") == "4" && response.status >= 400 && response.status < 500
        && response.status != 413)
        response.status = 200;
    return response;
}

QString CatalogueApi::sessionToken(const ApiRequest &request)
{
    static const QRegularExpression bearer(QStringLiteral("^Bearer ([0-9a-f]{64})$"));
    return bearer.match(QString::fromLatin1(request.header("authorization"))).captured(1);
}

// Who is asking comes from the session alone: the profile was stored at sign-in, and what a client puts in its
// headers never changes it, or any signed-in user could appear as another.
CatalogueDatabase::User CatalogueApi::identify(const ApiRequest &request)
{
    const QString token = sessionToken(request);
    if (token.isEmpty())
        return {};
    return database->userForToken(token, settings.sessionLifetimeSeconds);
}

ApiResponse CatalogueApi::signOut(Context &context)
{
    if (!context.user.isValid())
        return ApiResponse::error(401, authenticationRequired);
    database->endSession(sessionToken(context.request));
    return ApiResponse::json({{QStringLiteral("success"), true}});
}

ApiResponse CatalogueApi::refuseBanned(const Context &context)
{
    if (!context.user.isValid())
        return ApiResponse::error(401, authenticationRequired);
    if (context.user.banned)
        return ApiResponse::error(403, QStringLiteral("Your account has been banned"));
    return {};
}

bool CatalogueApi::isAdministrator(const CatalogueDatabase::User &user) const
{
    return user.isValid() && settings.administratorIds.contains(user.discordId);
}

ApiResponse CatalogueApi::route(Context &context)
{
    const QStringList &path = context.request.segments;
    const QByteArray &method = context.request.method;
    const bool get = method == "GET" || method == "HEAD";
    const bool post = method == "POST";
    const ApiResponse wrongMethod = ApiResponse::error(405, QStringLiteral("Method not allowed"));

    if (path.size() == 3 && path.at(0) == QLatin1String("images")
        && (path.at(2) == QLatin1String("header") || path.at(2) == QLatin1String("thumbnail")))
        return get ? image(context, path.at(1), path.at(2)) : wrongMethod;
    if (path == QStringList{QStringLiteral("api"), QStringLiteral("auth"), QStringLiteral("sign-out")})
        return post ? signOut(context) : wrongMethod;
    if (path == QStringList{QStringLiteral("api"), QStringLiteral("auth"), QStringLiteral("dev-login")}) {
        if (!settings.devLogin)
            return ApiResponse::error(404, QStringLiteral("Not found"));
        return post ? devLogin(context) : wrongMethod;
    }
    if (path.size() < 2 || path.at(0) != QLatin1String("api") || path.at(1) != QLatin1String("scripts"))
        return ApiResponse::error(404, QStringLiteral("Not found"));

    const QStringList rest = path.mid(2);
    if (rest.isEmpty())
        return get ? list(context, QString()) : wrongMethod;
    const QString first = rest.at(0);
    if (first == QLatin1String("qenv") || first == QLatin1String("onnx"))
        return routeKind(context, first, rest.mid(1));

    if (rest.size() == 1) {
        if (first == QLatin1String("upload"))
            return post ? upload(context, QString()) : wrongMethod;
        if (first == QLatin1String("liked"))
            return get ? liked(context) : wrongMethod;
        if (first == QLatin1String("check-existing"))
            return post ? checkExisting(context) : wrongMethod;
        if (first == QLatin1String("claim-authorizations"))
            return post ? claim(context) : wrongMethod;
    }
    if (rest.size() == 2) {
        const QString &argument = rest.at(1);
        if (first == QLatin1String("authorizations"))
            return get ? listAuthorizations(context, argument) : wrongMethod;
        if (first == QLatin1String("authorize"))
            return post ? authorize(context, argument) : wrongMethod;
        if (first == QLatin1String("bulk-authorize"))
            return post ? bulkAuthorize(context, argument) : wrongMethod;
        if (first == QLatin1String("revoke"))
            return post ? revoke(context, argument) : wrongMethod;
        if (first == QLatin1String("ban"))
            return post ? ban(context, argument, true) : wrongMethod;
        if (first == QLatin1String("unban"))
            return post ? ban(context, argument, false) : wrongMethod;
        if (first == QLatin1String("visibility"))
            return post ? updateVisibility(context, argument) : wrongMethod;
    }
    return routeKind(context, QString(), rest);
}

ApiResponse CatalogueApi::routeKind(Context &context, const QString &kind, const QStringList &rest)
{
    const QByteArray &method = context.request.method;
    const bool get = method == "GET" || method == "HEAD";
    const bool post = method == "POST";
    const ApiResponse wrongMethod = ApiResponse::error(405, QStringLiteral("Method not allowed"));
    if (rest.size() == 1) {
        const QString &first = rest.at(0);
        if (first == QLatin1String("list") && !kind.isEmpty())
            return get ? list(context, kind) : wrongMethod;
        if (first == QLatin1String("upload") && !kind.isEmpty())
            return post ? upload(context, kind) : wrongMethod;
        if (post || method == "DELETE")
            return isDeletion(context.request) ? removeResource(context, kind, first) : wrongMethod;
        return wrongMethod;
    }
    if (rest.size() == 2) {
        const QString &first = rest.at(0);
        if (first == QLatin1String("details"))
            return get ? details(context, kind, rest.at(1)) : wrongMethod;
        if (first == QLatin1String("download"))
            return get ? download(context, kind, rest.at(1)) : wrongMethod;
        if (first == QLatin1String("like"))
            return post ? toggleLike(context, kind, rest.at(1)) : wrongMethod;
    }
    return ApiResponse::error(404, QStringLiteral("Not found"));
}

ApiResponse CatalogueApi::devLogin(Context &context)
{
    QJsonObject body;
    ApiResponse failure;
    if (!readJsonBody(context.request, &body, &failure))
        return failure;
    QString discordId;
    QString username;
    QString globalName;
    if (!readString(body, QStringLiteral("discord_id"), 20, &discordId) || !isDiscordId(discordId))
        return ApiResponse::error(400, QStringLiteral("discord_id must be a 17 to 20 digit string"));
    if (!readString(body, QStringLiteral("username"), 32, &username) || username.isEmpty())
        return ApiResponse::error(400, QStringLiteral("username must be a string of 1 to 32 characters"));
    if (!readString(body, QStringLiteral("global_name"), 64, &globalName))
        return ApiResponse::error(400, QStringLiteral("global_name must be a string of at most 64 characters"));
    const CatalogueDatabase::User user = database->signIn(discordId, username, globalName);
    const QString token = user.isValid() ? database->createSession(user.id) : QString();
    if (token.isEmpty())
        return ApiResponse::error(503, QStringLiteral("Cannot create a session"));
    return ApiResponse::json({{QStringLiteral("success"), true},
                              {QStringLiteral("token"), token},
                              {QStringLiteral("user"), QJsonObject{{QStringLiteral("discord_id"), user.discordId},
                                                                   {QStringLiteral("username"), user.username},
                                                                   {QStringLiteral("global_name"), user.globalName}}}});
}

ApiResponse CatalogueApi::list(Context &context, const QString &kind)
{
    const ApiRequest &request = context.request;
    CatalogueDatabase::ListRequest query;
    query.kind = kindOfPath(kind);
    if (!readInteger(request, QStringLiteral("page"), 1, 1000000, &query.page))
        return ApiResponse::error(400, QStringLiteral("page must be a whole number from 1"));
    if (!readInteger(request, QStringLiteral("limit"), 1, 100, &query.limit))
        return ApiResponse::error(400, QStringLiteral("limit must be a whole number from 1 to 100"));
    query.sort = request.hasQueryItem(QStringLiteral("sort")) ? request.queryValue(QStringLiteral("sort"))
                                                              : QStringLiteral("popular");
    static const QStringList sorts{QStringLiteral("popular"), QStringLiteral("newest"), QStringLiteral("oldest"),
                                   QStringLiteral("my_liked")};
    if (!sorts.contains(query.sort))
        return ApiResponse::error(400, QStringLiteral("sort must be popular, newest, oldest or my_liked"));
    query.search = request.queryValue(QStringLiteral("search")).trimmed();
    if (query.search.size() > 100)
        return ApiResponse::error(400, QStringLiteral("search must be at most 100 characters"));
    if (kind.isEmpty()) {
        const QString type = request.queryValue(QStringLiteral("type")).toLower();
        // The browser's one device-script filter covers both GPC3 and GBC3 sources.
        if (type == QLatin1String("gpc3"))
            query.subtypes = {QStringLiteral("gpc3"), QStringLiteral("gbc3")};
        else if (type == QLatin1String("gbc3"))
            query.subtypes = {QStringLiteral("gbc3")};
        else if (type == QLatin1String("py") || type == QLatin1String("python"))
            query.subtypes = {QStringLiteral("python")};
        else if (!type.isEmpty() && type != QLatin1String("all"))
            return ApiResponse::error(400, QStringLiteral("type must be all, gpc3, gbc3 or py"));
    }

    // Building the JSON of a page costs several times the lookups behind it, so a page that looks the same to every
    // caller of its kind is built once per state of the catalogue and origin.
    QString sharedKey;
    qint64 writes = 0;
    if (query.search.isEmpty() && query.sort != QLatin1String("my_liked")
        && (context.caller.administrator || context.caller.userId <= 0)) {
        writes = database->writeCount(query.kind);
        sharedKey = QStringList{kind, query.subtypes.join(QLatin1Char(',')), query.sort, QString::number(query.page),
                                QString::number(query.limit),
                                context.caller.administrator ? QStringLiteral("administrator") : QString(),
                                request.origin}
                            .join(QLatin1Char('\n'));
        const SharedListPage *cached = sharedListPages.object(sharedKey);
        if (cached && cached->writes == writes)
            return ApiResponse::bytes(cached->body, "application/json");
    }

    CatalogueDatabase::ListPage page;
    if (query.sort != QLatin1String("my_liked") || context.user.isValid())
        page = database->list(query, context.caller);
    QJsonArray records;
    for (const QJsonValue &record : std::as_const(page.records))
        records.append(withOrigin(record.toObject(), request.origin));
    const QString itemsKey = kind == QLatin1String("qenv")   ? QStringLiteral("environments")
                             : kind == QLatin1String("onnx") ? QStringLiteral("weights")
                                                             : QStringLiteral("scripts");
    const QString totalKey = kind == QLatin1String("qenv")   ? QStringLiteral("total_environments")
                             : kind == QLatin1String("onnx") ? QStringLiteral("total_weights")
                                                             : QStringLiteral("total_scripts");
    const int totalPages = qMax(1, (page.total + query.limit - 1) / query.limit);
    ApiResponse response
            = ApiResponse::json({{QStringLiteral("success"), true},
                                 {itemsKey, records},
                                 {QStringLiteral("pagination"), QJsonObject{{QStringLiteral("current_page"), query.page},
                                                                            {QStringLiteral("total_pages"), totalPages},
                                                                            {QStringLiteral("per_page"), query.limit},
                                                                            {totalKey, page.total}}}});
    if (!sharedKey.isEmpty())
        sharedListPages.insert(sharedKey, new SharedListPage{response.body, writes}, response.body.size());
    return response;
}

ApiResponse CatalogueApi::findVisible(Context &context, const QString &kind, const QString &id,
                                      CatalogueDatabase::Resource *resource)
{
    if (!isResourceId(id))
        return ApiResponse::error(400, QStringLiteral("Invalid resource ID"));
    *resource = database->resource(id);
    if (!resource->isValid() || (!kind.isEmpty() && resource->kind != kind)
        || !database->canSee(*resource, context.caller))
        return ApiResponse::error(404, notFound);
    return {};
}

ApiResponse CatalogueApi::details(Context &context, const QString &kind, const QString &id)
{
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findVisible(context, kind, id, &resource);
    if (failure.status != 200)
        return failure;
    database->countView(id);
    return ApiResponse::success(withOrigin(database->record(id, context.caller), context.request.origin));
}

ApiResponse CatalogueApi::download(Context &context, const QString &kind, const QString &id)
{
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findVisible(context, kind, id, &resource);
    if (failure.status != 200)
        return failure;
    if (!database->canDownload(resource, context.caller))
        return ApiResponse::error(context.user.isValid() ? 403 : 401,
                                  context.user.isValid()
                                          ? QStringLiteral("You are not authorized to download this resource")
                                          : authenticationRequired);
    const QString path = ResourceFiles(settings.dataDirectory).resourceFile(id);
    if (!QFileInfo::exists(path))
        return ApiResponse::error(410, QStringLiteral("The file of this resource is missing"));
    if (context.request.method != "HEAD")
        database->countDownload(id, context.caller);
    QString name = resource.fileName;
    // Encrypted weights only run inside Quorix, which recognises them by this extension.
    if (resource.kind == QLatin1String("onnx") && resource.encrypted)
        name = QFileInfo(name).completeBaseName() + QStringLiteral(".ennx");
    ApiResponse response = ApiResponse::file(path, "application/octet-stream", name);
    response.reprDigest
            = resource.sha256.isEmpty() ? digests.reprDigest(path) : "sha-256=:" + resource.sha256.toBase64() + ':';
    return response;
}

ApiResponse CatalogueApi::upload(Context &context, const QString &kind)
{
    if (!context.user.isValid())
        return ApiResponse::error(401, authenticationRequired);
    if (context.user.banned)
        return ApiResponse::error(403, QStringLiteral("Your account has been banned from uploading"));
    const bool weights = kind == QLatin1String("onnx");
    const qint64 fileLimit = weights ? weightsLimit : scriptLimit;
    if (!context.request.form)
        return ApiResponse::error(400, QStringLiteral("Expected a multipart/form-data body"));
    const MultipartForm &form = *context.request.form;
    if (form.status() != 0)
        return ApiResponse::error(form.status(), form.error());

    CatalogueDatabase::ResourceWrite write;
    write.authorId = context.user.id;
    write.name = form.text(QStringLiteral("name")).trimmed();
    write.description = form.text(QStringLiteral("description")).trimmed();
    write.instructions = form.text(QStringLiteral("instructions")).trimmed();
    if (hasHiddenCharacters(write.name))
        return ApiResponse::error(
                400, QStringLiteral("Name must not contain control characters or text direction overrides"));
    if (write.name.size() < 3 || write.name.size() > 100)
        return ApiResponse::error(400, QStringLiteral("Name must be between 3 and 100 characters"));
    if (write.description.size() < 10 || write.description.size() > 5000)
        return ApiResponse::error(400, QStringLiteral("Description must be between 10 and 5000 characters"));
    if (write.instructions.size() > 10000)
        return ApiResponse::error(400, QStringLiteral("Instructions must be at most 10000 characters"));
    for (const QString &part : form.text(QStringLiteral("tags")).split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString tag = part.trimmed().toLower().remove(QLatin1Char('#'));
        if (tag.isEmpty())
            continue;
        if (tag.size() > 64 || write.tags.size() >= 20)
            return ApiResponse::error(400, QStringLiteral("Up to 20 tags of at most 64 characters are allowed"));
        if (!write.tags.contains(tag))
            write.tags.append(tag);
    }
    if (form.has(QStringLiteral("version"))) {
        bool ok = false;
        write.version = form.text(QStringLiteral("version")).trimmed().toDouble(&ok);
        if (!ok || !std::isfinite(write.version) || write.version <= 0 || write.version >= 100)
            return ApiResponse::error(400, QStringLiteral("Version must be a number above 0 and below 100"));
    }
    write.visibility = form.has(QStringLiteral("visibility_type"))
                               ? form.text(QStringLiteral("visibility_type")).trimmed()
                               : QStringLiteral("public");
    if (!isVisibility(write.visibility))
        return ApiResponse::error(400, QStringLiteral("visibility_type must be public, private or purchasable"));
    if (weights) {
        const QString encrypted = form.text(QStringLiteral("encrypted")).trimmed().toLower();
        if (!encrypted.isEmpty() && encrypted != QLatin1String("0") && encrypted != QLatin1String("1")
            && encrypted != QLatin1String("true") && encrypted != QLatin1String("false"))
            return ApiResponse::error(400, QStringLiteral("encrypted must be 0 or 1"));
        write.encrypted = encrypted == QLatin1String("1") || encrypted == QLatin1String("true");
    }

    const QString existingId = form.text(QStringLiteral("existing_uuid")).trimmed();
    CatalogueDatabase::Resource existing;
    if (!existingId.isEmpty()) {
        if (!isResourceId(existingId))
            return ApiResponse::error(400, QStringLiteral("Invalid resource ID"));
        existing = database->resource(existingId);
        if (!existing.isValid())
            return ApiResponse::error(404, notFound);
        if (existing.authorId != context.user.id)
            return ApiResponse::error(403, QStringLiteral("You can only update your own resources"));
    }

    const MultipartForm::Part *file = form.part(weights ? QStringLiteral("onnx_file") : QStringLiteral("script_file"));
    if (file && !file->isFile)
        file = nullptr;
    if (!file && !existing.isValid())
        return ApiResponse::error(400, weights ? QStringLiteral("Weights file is required")
                                               : QStringLiteral("Script file is required"));
    if (file) {
        const QString fileName = QFileInfo(file->fileName).fileName();
        const QString extension = QFileInfo(fileName).suffix().toLower();
        if (hasHiddenCharacters(fileName))
            return ApiResponse::error(
                    400, QStringLiteral("File name must not contain control characters or text direction overrides"));
        if (kind == QLatin1String("qenv") && extension != QLatin1String("qenv"))
            return ApiResponse::error(400, QStringLiteral("Environment packages must be .qenv files"));
        if (fileName.isEmpty() || fileName.size() > 255)
            return ApiResponse::error(400, QStringLiteral("The file needs a name of at most 255 characters"));
        if (weights && extension == QLatin1String("onnx")) {
            write.kind = write.subtype = QStringLiteral("onnx");
        } else if (!weights && extension == QLatin1String("qenv")) {
            write.kind = write.subtype = QStringLiteral("qenv");
        } else if (!weights
                   && (extension == QLatin1String("gpc3") || extension == QLatin1String("gbc3")
                       || extension == QLatin1String("py"))) {
            write.kind = QStringLiteral("script");
            write.subtype = extension == QLatin1String("py") ? QStringLiteral("python") : extension;
        } else {
            return ApiResponse::error(400, weights ? QStringLiteral("Weights must be an .onnx file")
                                                   : QStringLiteral("Unsupported file type: .%1").arg(extension));
        }
        if (file->size > fileLimit)
            return ApiResponse::error(413, QStringLiteral("File too large (max %1)").arg(limitText(fileLimit)));
        if (file->size == 0)
            return ApiResponse::error(400, QStringLiteral("The file is empty"));
        if (write.kind == QLatin1String("qenv")) {
            QString qenvError;
            const QenvPackage package = QenvPackage::parse(form.contents(*file), &qenvError);
            if (!qenvError.isEmpty())
                return ApiResponse::error(400, qenvError);
            write.metadata = package.metadata();
        }
        write.fileName = fileName;
        write.fileSize = file->size;
        write.replaceFile = true;
    } else {
        write.kind = existing.kind;
        write.subtype = existing.subtype;
    }
    if (existing.isValid() && existing.kind != write.kind)
        return ApiResponse::error(400, QStringLiteral("An update must keep the kind of the resource"));
    if (!weights && write.kind == QLatin1String("onnx"))
        return ApiResponse::error(400, QStringLiteral("Weights are published through onnx/upload"));

    QByteArray thumbnail;
    QByteArray header;
    if (const MultipartForm::Part *imagePart = form.part(QStringLiteral("header_image"));
        imagePart && imagePart->size > 0) {
        if (imagePart->size > imageLimit)
            return ApiResponse::error(413, QStringLiteral("Image too large (max %1)").arg(limitText(imageLimit)));
        header = form.contents(*imagePart);
        QBuffer buffer(&header);
        QImageReader reader(&buffer);
        const QByteArray format = reader.format();
        const QImage picture = reader.read();
        if (picture.isNull() || !(format == "png" || format == "jpeg" || format == "webp"))
            return ApiResponse::error(400, QStringLiteral("The header image must be a PNG, JPEG or WebP picture"));
        QBuffer out(&thumbnail);
        out.open(QIODevice::WriteOnly);
        picture.scaled(560, 286, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation).save(&out, "PNG");
        write.imageType = QString::fromLatin1(format);
        write.replaceImage = true;
    }

    write.id = existing.isValid() ? existing.id : QUuid::createUuid().toString(QUuid::WithoutBraces);
    ResourceFiles files(settings.dataDirectory);
    if (file)
        write.sha256 = file->sha256;
    if (write.replaceImage)
        write.imageSha256 = QCryptographicHash::hash(header, QCryptographicHash::Sha256);
    if (!files.prepare() || (file && !files.stageFile(files.resourceFile(write.id), file->stagedPath))
        || (write.replaceImage
            && (!files.stage(files.headerImage(write.id), header)
                || !files.stage(files.thumbnailImage(write.id), thumbnail))))
        return ApiResponse::error(507, QStringLiteral("Cannot store the upload"));
    CrashPoint::reach("before-commit");
    if (!database->transaction())
        return ApiResponse::error(503, QStringLiteral("The catalogue is busy"));
    if (!database->writeResource(write, !existing.isValid()) || !database->commit()) {
        database->rollback();
        return ApiResponse::error(503, QStringLiteral("Cannot store the upload"));
    }
    // The record is committed: a failed rename now is finished by the next start, not undone.
    files.publish();
    QJsonObject record = withOrigin(database->record(write.id, context.caller), context.request.origin);
    return ApiResponse::json(
            {{QStringLiteral("success"), true},
             {QStringLiteral("message"), existing.isValid() ? QStringLiteral("Updated") : QStringLiteral("Uploaded")},
             {QStringLiteral("data"), record}});
}

ApiResponse CatalogueApi::removeResource(Context &context, const QString &kind, const QString &id)
{
    if (ApiResponse refusal = refuseBanned(context); refusal.status != 200)
        return refusal;
    if (!isResourceId(id))
        return ApiResponse::error(400, QStringLiteral("Invalid resource ID"));
    const CatalogueDatabase::Resource resource = database->resource(id);
    if (!resource.isValid() || (!kind.isEmpty() && resource.kind != kind))
        return ApiResponse::error(404, notFound);
    if (resource.authorId != context.user.id && !context.caller.administrator)
        return ApiResponse::error(403, QStringLiteral("Only the author or an administrator can delete this resource"));
    if (!database->transaction())
        return ApiResponse::error(503, QStringLiteral("The catalogue is busy"));
    if (!database->deleteResource(id) || !database->commit()) {
        database->rollback();
        return ApiResponse::error(503, QStringLiteral("Cannot delete the resource"));
    }
    CrashPoint::reach("after-delete-commit");
    ResourceFiles(settings.dataDirectory).removeResource(id);
    return ApiResponse::success(QJsonObject{{QStringLiteral("id"), id}});
}

ApiResponse CatalogueApi::toggleLike(Context &context, const QString &kind, const QString &id)
{
    if (ApiResponse refusal = refuseBanned(context); refusal.status != 200)
        return refusal;
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findVisible(context, kind, id, &resource);
    if (failure.status != 200)
        return failure;
    bool likedNow = false;
    int count = 0;
    if (!database->toggleLike(id, context.user.id, &likedNow, &count))
        return ApiResponse::error(503, QStringLiteral("Cannot record the like"));
    return ApiResponse::success(
            QJsonObject{{QStringLiteral("liked"), likedNow}, {QStringLiteral("like_count"), count}});
}

ApiResponse CatalogueApi::liked(Context &context)
{
    if (!context.user.isValid())
        return ApiResponse::error(401, authenticationRequired);
    return ApiResponse::success(QJsonArray::fromStringList(database->likedIds(context.caller)));
}

ApiResponse CatalogueApi::checkExisting(Context &context)
{
    if (!context.user.isValid())
        return ApiResponse::error(401, authenticationRequired);
    QJsonObject body;
    ApiResponse failure;
    if (!readJsonBody(context.request, &body, &failure))
        return failure;
    QString name;
    QString type;
    if (!readString(body, QStringLiteral("name"), 255, &name) || name.isEmpty())
        return ApiResponse::error(400, QStringLiteral("name must be a file name"));
    if (!readString(body, QStringLiteral("script_type"), 16, &type))
        return ApiResponse::error(400, QStringLiteral("script_type must be a string"));
    type = type.toLower();
    QString kind = QStringLiteral("script");
    QStringList subtypes;
    if (type == QLatin1String("gpc3") || type == QLatin1String("gbc3"))
        subtypes = {type};
    else if (type == QLatin1String("py") || type == QLatin1String("python"))
        subtypes = {QStringLiteral("python")};
    else if (type == QLatin1String("qenv") || type == QLatin1String("onnx")) {
        kind = type;
        subtypes = {type};
    } else
        return ApiResponse::error(400, QStringLiteral("script_type must be gpc3, gbc3, py, qenv or onnx"));
    const QString id = database->findOwnResource(context.user.id, QFileInfo(name).fileName(), kind, subtypes);
    QJsonObject reply{{QStringLiteral("success"), true}, {QStringLiteral("exists"), !id.isEmpty()}};
    if (!id.isEmpty())
        reply.insert(QStringLiteral("data"), withOrigin(database->record(id, context.caller), context.request.origin));
    return ApiResponse::json(reply);
}

ApiResponse CatalogueApi::findManaged(Context &context, const QString &id, CatalogueDatabase::Resource *resource,
                                      bool toWrite)
{
    if (!context.user.isValid())
        return ApiResponse::error(401, authenticationRequired);
    if (toWrite && context.user.banned)
        return refuseBanned(context);
    if (!isResourceId(id))
        return ApiResponse::error(400, QStringLiteral("Invalid resource ID"));
    *resource = database->resource(id);
    if (!resource->isValid())
        return ApiResponse::error(404, notFound);
    if (resource->authorId != context.user.id && !context.caller.administrator)
        return ApiResponse::error(403, QStringLiteral("Only the author can manage access to this resource"));
    return {};
}

ApiResponse CatalogueApi::listAuthorizations(Context &context, const QString &id)
{
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findManaged(context, id, &resource, false);
    if (failure.status != 200)
        return failure;
    int offset = 0;
    int limit = 500;
    if (!readInteger(context.request, QStringLiteral("offset"), 0, 10000000, &offset)
        || !readInteger(context.request, QStringLiteral("limit"), 1, 500, &limit))
        return ApiResponse::error(400, QStringLiteral("offset must be 0 or more and limit from 1 to 500"));
    const QString search = context.request.queryValue(QStringLiteral("search")).trimmed();
    if (search.size() > 100)
        return ApiResponse::error(400, QStringLiteral("search must be at most 100 characters"));
    return ApiResponse::success(database->authorizations(id, offset, limit, search));
}

ApiResponse CatalogueApi::authorize(Context &context, const QString &id)
{
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findManaged(context, id, &resource, true);
    if (failure.status != 200)
        return failure;
    QJsonObject body;
    if (!readJsonBody(context.request, &body, &failure))
        return failure;
    QString discordId;
    QString notes;
    QString expires;
    if (!readString(body, QStringLiteral("discord_id"), 20, &discordId) || !isDiscordId(discordId))
        return ApiResponse::error(400, QStringLiteral("Invalid Discord ID format"));
    if (!readString(body, QStringLiteral("notes"), 500, &notes))
        return ApiResponse::error(400, QStringLiteral("notes must be a string of at most 500 characters"));
    if (!readString(body, QStringLiteral("expires_at"), 64, &expires))
        return ApiResponse::error(400, QStringLiteral("expires_at must be an ISO 8601 date"));
    if (!expires.isEmpty()) {
        const QDateTime when = QDateTime::fromString(expires, Qt::ISODate);
        if (!when.isValid() || when <= QDateTime::currentDateTimeUtc())
            return ApiResponse::error(400, QStringLiteral("expires_at must be an ISO 8601 date in the future"));
        expires = CatalogueDatabase::timestamp(when);
    }
    if (discordId == resource.authorDiscordId)
        return ApiResponse::error(400, QStringLiteral("The author already has access"));
    QString code;
    switch (database->grant(id, discordId, notes, expires, &code)) {
    case CatalogueDatabase::GrantOutcome::Granted:
        return ApiResponse::json({{QStringLiteral("success"), true},
                                  {QStringLiteral("message"), QStringLiteral("Access granted to %1").arg(discordId)},
                                  {QStringLiteral("pending"), false}});
    case CatalogueDatabase::GrantOutcome::Pending:
        return ApiResponse::json(
                {{QStringLiteral("success"), true},
                 {QStringLiteral("message"),
                  QStringLiteral("User %1 has not signed in yet. Access becomes active when they do.").arg(discordId)},
                 {QStringLiteral("pending"), true},
                 {QStringLiteral("authorization_code"), code}});
    case CatalogueDatabase::GrantOutcome::AlreadyAuthorized:
        return ApiResponse::error(
                409, QStringLiteral("User with Discord ID %1 is already authorized/pending.").arg(discordId));
    case CatalogueDatabase::GrantOutcome::Failed:
        break;
    }
    return ApiResponse::error(503, QStringLiteral("Cannot record the authorization"));
}

ApiResponse CatalogueApi::bulkAuthorize(Context &context, const QString &id)
{
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findManaged(context, id, &resource, true);
    if (failure.status != 200)
        return failure;
    QJsonObject body;
    if (!readJsonBody(context.request, &body, &failure))
        return failure;
    const QJsonValue ids = body.value(QStringLiteral("discord_ids"));
    if (!ids.isArray() || ids.toArray().isEmpty() || ids.toArray().size() > 1000)
        return ApiResponse::error(400, QStringLiteral("discord_ids must be an array of 1 to 1000 IDs"));
    QString notes;
    if (!readString(body, QStringLiteral("notes"), 500, &notes))
        return ApiResponse::error(400, QStringLiteral("notes must be a string of at most 500 characters"));
    int granted = 0;
    int already = 0;
    int missing = 0;
    QJsonArray errors;
    if (!database->transaction())
        return ApiResponse::error(503, QStringLiteral("The catalogue is busy"));
    for (const QJsonValue &value : ids.toArray()) {
        const QString discordId = value.toString();
        if (!value.isString() || !isDiscordId(discordId)) {
            errors.append(QJsonObject{{QStringLiteral("discord_id"), value},
                                      {QStringLiteral("error"), QStringLiteral("Invalid Discord ID format")}});
            continue;
        }
        // A bulk import only reaches people who have signed in; single grants can wait for the others.
        if (discordId == resource.authorDiscordId) {
            ++already;
            continue;
        }
        if (!database->userByDiscordId(discordId).isValid()) {
            ++missing;
            continue;
        }
        QString code;
        switch (database->grant(id, discordId, notes, QString(), &code)) {
        case CatalogueDatabase::GrantOutcome::Granted:
        case CatalogueDatabase::GrantOutcome::Pending:
            ++granted;
            break;
        case CatalogueDatabase::GrantOutcome::AlreadyAuthorized:
            ++already;
            break;
        case CatalogueDatabase::GrantOutcome::Failed:
            errors.append(QJsonObject{{QStringLiteral("discord_id"), discordId},
                                      {QStringLiteral("error"), QStringLiteral("Cannot record the authorization")}});
            break;
        }
    }
    if (!database->commit()) {
        database->rollback();
        return ApiResponse::error(503, QStringLiteral("Cannot record the authorizations"));
    }
    return ApiResponse::success(QJsonObject{{QStringLiteral("granted"), granted},
                                            {QStringLiteral("already_authorized"), already},
                                            {QStringLiteral("not_found"), missing},
                                            {QStringLiteral("errors"), errors}});
}

ApiResponse CatalogueApi::revoke(Context &context, const QString &id)
{
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findManaged(context, id, &resource, true);
    if (failure.status != 200)
        return failure;
    QJsonObject body;
    if (!readJsonBody(context.request, &body, &failure))
        return failure;
    const QJsonValue user = body.value(QStringLiteral("user_id"));
    qint64 userId = 0;
    QString discordId;
    if (user.isDouble() && user.toDouble() >= 1 && user.toDouble() == qint64(user.toDouble()))
        userId = qint64(user.toDouble());
    else if (user.isString() && isDiscordId(user.toString()))
        discordId = user.toString();
    else
        return ApiResponse::error(400, QStringLiteral("user_id must be a user number or a Discord ID"));
    QString reason;
    if (!readString(body, QStringLiteral("reason"), 500, &reason))
        return ApiResponse::error(400, QStringLiteral("reason must be a string of at most 500 characters"));
    if (!database->revoke(id, userId, discordId))
        return ApiResponse::error(404, QStringLiteral("Authorization not found"));
    return ApiResponse::json(
            {{QStringLiteral("success"), true}, {QStringLiteral("message"), QStringLiteral("Authorization revoked")}});
}

ApiResponse CatalogueApi::claim(Context &context)
{
    if (ApiResponse refusal = refuseBanned(context); refusal.status != 200)
        return refusal;
    const int claimed = database->claimPending(context.user);
    return ApiResponse::json({{QStringLiteral("success"), true}, {QStringLiteral("claimed"), claimed}});
}

ApiResponse CatalogueApi::ban(Context &context, const QString &discordId, bool banned)
{
    if (!context.user.isValid())
        return ApiResponse::error(401, authenticationRequired);
    if (!context.caller.administrator)
        return ApiResponse::error(403, QStringLiteral("Administrator rights required"));
    if (!isDiscordId(discordId))
        return ApiResponse::error(400, QStringLiteral("Invalid Discord ID format"));
    if (banned && settings.administratorIds.contains(discordId))
        return ApiResponse::error(400, QStringLiteral("Administrators cannot be banned"));
    QJsonObject body;
    ApiResponse failure;
    if (!readJsonBody(context.request, &body, &failure))
        return failure;
    QString reason;
    if (!readString(body, QStringLiteral("reason"), 500, &reason))
        return ApiResponse::error(400, QStringLiteral("reason must be a string of at most 500 characters"));
    if (!database->setBanned(discordId, banned, reason))
        return ApiResponse::error(503, QStringLiteral("Cannot record the ban"));
    return ApiResponse::json(
            {{QStringLiteral("success"), true},
             {QStringLiteral("message"), banned ? QStringLiteral("User banned") : QStringLiteral("User unbanned")},
             {QStringLiteral("data"), QJsonObject{{QStringLiteral("id"), discordId}}}});
}

ApiResponse CatalogueApi::updateVisibility(Context &context, const QString &id)
{
    CatalogueDatabase::Resource resource;
    ApiResponse failure = findManaged(context, id, &resource, true);
    if (failure.status != 200)
        return failure;
    QJsonObject body;
    if (!readJsonBody(context.request, &body, &failure))
        return failure;
    QString visibility;
    if (!readString(body, QStringLiteral("visibility_type"), 16, &visibility) || !isVisibility(visibility))
        return ApiResponse::error(400, QStringLiteral("visibility_type must be public, private or purchasable"));
    QJsonObject record = database->record(id, context.caller);
    CatalogueDatabase::ResourceWrite write;
    write.id = id;
    write.kind = resource.kind;
    write.subtype = resource.subtype;
    write.name = record.value(QStringLiteral("name")).toString();
    write.description = record.value(QStringLiteral("description")).toString();
    write.instructions = record.value(QStringLiteral("instructions")).toString();
    for (const QJsonValue &tag : record.value(QStringLiteral("tags")).toArray())
        write.tags.append(tag.toString());
    write.version = record.value(QStringLiteral("version")).toDouble();
    write.visibility = visibility;
    write.encrypted = resource.encrypted;
    if (!database->writeResource(write, false))
        return ApiResponse::error(503, QStringLiteral("Cannot change the visibility"));
    return ApiResponse::success(
            QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("visibility_type"), visibility}});
}

ApiResponse CatalogueApi::image(Context &context, const QString &id, const QString &which)
{
    if (!isResourceId(id))
        return ApiResponse::error(400, QStringLiteral("Invalid resource ID"));
    const CatalogueDatabase::Resource resource = database->resource(id);
    // A picture says as much as the record it belongs to, so it is shown to the same people: those who may see the
    // record now, and those who were sent its signed address with it.
    const bool mayLook = database->canSee(resource, context.caller)
                         || imageLinks.accepts(id, which, context.request.queryValue(QStringLiteral("key")));
    if (!resource.hasImage || resource.authorBanned || !mayLook)
        return ApiResponse::error(404, QStringLiteral("Image not found"));
    const ResourceFiles files(settings.dataDirectory);
    const bool header = which == QLatin1String("header");
    const QString path = header ? files.headerImage(id) : files.thumbnailImage(id);
    if (!QFileInfo::exists(path))
        return ApiResponse::error(404, QStringLiteral("Image not found"));
    const QByteArray type = header ? "image/" + resource.imageType.toLatin1() : QByteArray("image/png");
    return ApiResponse::file(path, type, QString());
}

QString CatalogueApi::signedImagePath(const QString &path) const
{
    static const QRegularExpression imagePath(QStringLiteral("^/images/([^/?]+)/(header|thumbnail)$"));
    const QRegularExpressionMatch match = imagePath.match(path);
    if (!match.hasMatch())
        return path;
    return path + QStringLiteral("?key=") + imageLinks.key(match.captured(1), match.captured(2));
}

QJsonObject CatalogueApi::withOrigin(QJsonObject record, const QString &origin) const
{
    if (record.isEmpty())
        return record;
    const QString thumbnail = record.value(QStringLiteral("thumbnail")).toString();
    if (!thumbnail.isEmpty())
        record.insert(QStringLiteral("thumbnail"), origin + signedImagePath(thumbnail));
    QJsonObject images = record.value(QStringLiteral("images")).toObject();
    for (const QString &key : images.keys()) {
        QJsonObject entry = images.value(key).toObject();
        entry.insert(QStringLiteral("url"), origin + signedImagePath(entry.value(QStringLiteral("url")).toString()));
        images.insert(key, entry);
    }
    if (!images.isEmpty())
        record.insert(QStringLiteral("images"), images);
    return record;
}

} // namespace Quorix
