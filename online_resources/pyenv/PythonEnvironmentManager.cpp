#include "PythonEnvironmentManager.h"

#include "ArchiveExtractor.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>
#include <QThreadPool>
#include <QTimer>

namespace Quorix {

namespace {

// uv can be very talkative while resolving large environments; only the tail matters for a failure message.
constexpr qsizetype outputLimit = 256 * 1024;
constexpr int curlLimitMs = 300000;
constexpr int extractionLimitMs = 120000;
constexpr int probeLimitMs = 5000;
constexpr int listingLimitMs = 30000;
constexpr int verificationDelayMs = 2000;
constexpr int verificationRuns = 3;

void appendBounded(QString &collected, const QString &text)
{
    collected += text;
    if (collected.size() > outputLimit)
        collected.remove(0, collected.size() - outputLimit);
}

bool removeFolder(const QString &path)
{
    QDir folder(path);
    return !folder.exists() || folder.removeRecursively();
}

struct ExtractionResult
{
    bool success = false;
    QString error;
};

QString findProgram(const QString &folder, const QString &programName)
{
    const QDir extractionDir(folder);
    if (QFileInfo(extractionDir.filePath(programName)).isFile())
        return extractionDir.filePath(programName);
    const QStringList entries = extractionDir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    for (const QString &entry : entries) {
        const QString candidate = extractionDir.filePath(entry) + QLatin1Char('/') + programName;
        if (QFileInfo(candidate).isFile())
            return candidate;
    }
    return QString();
}

ExtractionResult extractAndInstall(const PlatformProfile &profile, const QString &archive, const QString &folder,
                                   const QString &baseFolder)
{
    QDir().mkpath(baseFolder);
    const ArchiveExtractor::Verdict verdict = ArchiveExtractor::extract(
            profile.extractionMethods(archive, folder, ArchiveExtractor::isZipFile(archive)), folder,
            extractionLimitMs);
    QFile::remove(archive);

    const QString target = profile.uvPath(baseFolder);
    if (verdict == ArchiveExtractor::Verdict::Unsafe)
        return {false, PythonEnvironmentManager::tr("Failed to extract UV archive.\n\nThe archive holds entries that "
                                                    "would be written outside its folder.")};
    if (verdict == ArchiveExtractor::Verdict::Failed)
        return {false, profile.extractionFailureMessage(target)};

    const QString found = findProgram(folder, profile.uvFileName());
    bool installed = false;
    if (!found.isEmpty()) {
        QFile::remove(target);
        installed = QFile::copy(found, target);
    }
    removeFolder(folder);
    if (!installed)
        return {false,
                PythonEnvironmentManager::tr("Could not find %1 in extracted archive").arg(profile.uvFileName())};
    return {true, QString()};
}

struct OutputGroup
{
    QStringList markers;
    const char *text;
};

} // namespace

PythonEnvironmentManager::PythonEnvironmentManager(QObject *parent)
    : QObject(parent)
    , platform(PlatformProfile::current())
{
    qRegisterMetaType<Package>();
    qRegisterMetaType<QList<Package>>();
}

PythonEnvironmentManager *PythonEnvironmentManager::instance()
{
    static PythonEnvironmentManager *manager = new PythonEnvironmentManager();
    return manager;
}

const PlatformProfile &PythonEnvironmentManager::profile() const
{
    return platform;
}

QString PythonEnvironmentManager::baseFolder() const
{
    return QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) + QStringLiteral("/python");
}

QString PythonEnvironmentManager::uvPath() const
{
    return platform.uvPath(baseFolder());
}

QString PythonEnvironmentManager::environmentPath(const QString &name) const
{
    return baseFolder() + QLatin1Char('/') + name;
}

QString PythonEnvironmentManager::pythonPath(const QString &name) const
{
    return platform.interpreterPath(environmentPath(name));
}

bool PythonEnvironmentManager::isUvInstalled() const
{
    return QFileInfo(uvPath()).isFile();
}

QList<PythonEnvironmentManager::Environment> PythonEnvironmentManager::environments() const
{
    QList<Environment> result;
    const QDir base(baseFolder());
    const QStringList entries = base.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden);
    for (const QString &entry : entries) {
        if (entry.compare(platform.uvFileName(), Qt::CaseInsensitive) == 0)
            continue;
        if (!QFileInfo(base.filePath(entry) + QStringLiteral("/.qenv")).isDir())
            continue;
        Environment environment;
        environment.name = entry;
        environment.path = environmentPath(entry);
        environment.pythonPath = pythonPath(entry);
        environment.pythonExists = QFileInfo::exists(environment.pythonPath);
        environment.pythonVersion = pythonVersion(environment.pythonPath);
        result << environment;
    }
    return result;
}

QString PythonEnvironmentManager::pythonVersion(const QString &interpreter) const
{
    if (!QFileInfo::exists(interpreter))
        return QString();
    QProcess process;
    const PlatformProfile::Command probe = platform.versionProbeCommand(interpreter);
    process.start(probe.program, probe.arguments);
    if (!process.waitForFinished(probeLimitMs)) {
        process.kill();
        process.waitForFinished(probeLimitMs);
        return QString();
    }
    const QString text = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    return text.startsWith(QLatin1String("Python ")) ? text.mid(7) : QString();
}

QStringList PythonEnvironmentManager::extraIndexUrls(const QString &environmentFolder) const
{
    QFile file(environmentFolder + QStringLiteral("/index_urls.json"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList urls;
    const QJsonArray entries = QJsonDocument::fromJson(file.readAll()).object().value("extra_index_urls").toArray();
    for (const QJsonValue &entry : entries) {
        if (entry.isString())
            urls << entry.toString();
    }
    return urls;
}

bool PythonEnvironmentManager::isValidEnvironmentName(const QString &name)
{
    // Names reach the file system as one folder below the base folder: anything that could step out of it, name
    // the base folder itself, or that Windows would map to a device is refused; everything else is a folder name.
    static const QRegularExpression onlyDots(QStringLiteral("^\\.*$"));
    static const QRegularExpression forbidden(QStringLiteral("[/\\\\:\\x00-\\x1f\\x7f]"));
    static const QRegularExpression reserved(QStringLiteral("^(con|prn|aux|nul|com[1-9]|lpt[1-9])(\\..*)?$"),
                                             QRegularExpression::CaseInsensitiveOption);
    return !onlyDots.match(name).hasMatch() && !forbidden.match(name).hasMatch() && !reserved.match(name).hasMatch();
}

bool PythonEnvironmentManager::isPackageArgument(const QString &spec)
{
    // uv reads anything starting with a dash as one of its own options ("--index-url=...", "-e ."), never as a
    // package, so such text is refused instead of being passed on.
    return !spec.trimmed().isEmpty() && !spec.startsWith(QLatin1Char('-'));
}

QString PythonEnvironmentManager::classifyOutput(const QString &output)
{
    static const QList<OutputGroup> groups = {
            {{"os error 112", "os error 28", "not enough space", "no space left", "disk is full", "insufficient space",
              "failed to flush file"},
             QT_TR_NOOP("Not enough disk space.\n\nThis commonly happens when installing very large packages (for "
                        "example, CUDA-enabled PyTorch).\nFree up space on your system drive and try again.\n\n"
                        "Technical details: %1")},
            {{"schannel", "InitializeSecurityContext", "SEC_E_", "packet length too long", "record layer failure",
              "wrong version number", "handshake", "CloseNotify", "client error (Connect)", "connection reset"},
             QT_TR_NOOP(
                     "TLS handshake failed.\n\nThis is usually caused by:\n\u2022 Captive portal / hotspot login "
                     "intercepting HTTPS\n\u2022 Corporate proxy / firewall / SSL inspection\n\u2022 Antivirus HTTPS "
                     "scanning\n\nTry:\n\u2022 Open the UV download URL in your browser and ensure it downloads "
                     "correctly\n\u2022 If you are behind a proxy, set HTTP_PROXY and HTTPS_PROXY environment "
                     "variables\n\nTechnical details: %1")},
            {{"timed out", "timeout"},
             QT_TR_NOOP(
                     "Connection timed out.\n\nPossible causes:\n\u2022 Slow or unstable internet connection\n\u2022 "
                     "Server temporarily unavailable - try again later\n\u2022 Firewall blocking outbound "
                     "connections\n\nTechnical details: %1")},
            {{"certificate", "CERT_E_", "certificate verify", "untrusted", "self signed", "unable to get local issuer",
              "0x800b0109"},
             QT_TR_NOOP("SSL/TLS certificate error.\n\nPossible causes:\n\u2022 System date/time is incorrect\n\u2022 "
                        "Antivirus SSL scanning interfering with connections\n\u2022 Corporate proxy with custom "
                        "certificates\n\u2022 Outdated Windows root certificates - run Windows Update\n\nTechnical "
                        "details: %1")},
            {{"proxy", "407"},
             QT_TR_NOOP("Proxy authentication required.\n\nConfigure your proxy settings in Windows or set the "
                        "HTTP_PROXY and HTTPS_PROXY environment variables.\n\nTechnical details: %1")},
            {{"403", "forbidden"},
             QT_TR_NOOP("Access denied (403 Forbidden).\n\nPossible causes:\n\u2022 Rate limiting - wait a few minutes "
                        "and try again\n\u2022 Regional restrictions - a VPN may help\n\u2022 Corporate firewall "
                        "blocking the request\n\nTechnical details: %1")},
            {{"dns resolution failed", "could not resolve host", "failed to resolve", "name or service not known",
              "getaddrinfo"},
             QT_TR_NOOP("DNS resolution failed.\n\nPossible causes:\n\u2022 No internet connection\n\u2022 DNS server "
                        "issues - try using 8.8.8.8 or 1.1.1.1\n\u2022 Firewall blocking DNS queries\n\nTechnical "
                        "details: %1")},
    };
    const QString raw = output.trimmed();
    for (const OutputGroup &group : groups) {
        for (const QString &marker : group.markers) {
            if (raw.contains(marker, Qt::CaseInsensitive))
                return tr(group.text).arg(raw);
        }
    }
    return raw;
}

void PythonEnvironmentManager::downloadUv()
{
    if (isUvInstalled()) {
        emit uvDownloadFinished(true, QString());
        return;
    }
    // Calls made while a download is under way share its outcome, each still getting its own answer.
    if (pendingDownloadCalls++ > 0)
        return;

    const QString url = platform.releaseUrl();
    const QString downloadFile = platform.downloadFilePath(QDir::tempPath(), url);
    QNetworkRequest request{QUrl(url)};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    QNetworkReply *reply = network.get(request);
    connect(reply, &QNetworkReply::downloadProgress, this, &PythonEnvironmentManager::uvDownloadProgress);
    connect(reply, &QNetworkReply::finished, this, [this, reply, url, downloadFile] {
        reply->deleteLater();
        if (reply->error() != QNetworkReply::NoError) {
            startCurlFallback(url, downloadFile);
            return;
        }
        QSaveFile file(downloadFile);
        if (!file.open(QIODevice::WriteOnly) || file.write(reply->readAll()) < 0 || !file.commit()) {
            finishDownload(false, tr("Failed to create temporary file"));
            return;
        }
        startExtraction(downloadFile);
    });
}

void PythonEnvironmentManager::startCurlFallback(const QString &url, const QString &downloadFile)
{
    const PlatformProfile profile = platform;
    const QString base = baseFolder();
    const QString folder = QDir::tempPath() + QStringLiteral("/uv_extract");
    QThreadPool::globalInstance()->start([this, profile, url, downloadFile, base, folder] {
        const ArchiveExtractor::BlockingResult curl
                = ArchiveExtractor::runBlocking(profile.curlCommand(downloadFile, url), curlLimitMs);
        ExtractionResult result;
        if (curl.succeeded && QFileInfo::exists(downloadFile)) {
            result = extractAndInstall(profile, downloadFile, folder, base);
        } else {
            QFile::remove(downloadFile);
            result.error = tr("Download failed. Qt network error, and curl fallback also failed.\n\n%1")
                                   .arg(curl.standardError);
        }
        QMetaObject::invokeMethod(
                this, [this, result] { finishDownload(result.success, result.error); }, Qt::QueuedConnection);
    });
}

void PythonEnvironmentManager::startExtraction(const QString &downloadFile)
{
    const PlatformProfile profile = platform;
    const QString base = baseFolder();
    const QString folder = QDir::tempPath() + QStringLiteral("/uv_extract");
    QThreadPool::globalInstance()->start([this, profile, downloadFile, base, folder] {
        const ExtractionResult result = extractAndInstall(profile, downloadFile, folder, base);
        QMetaObject::invokeMethod(
                this, [this, result] { finishDownload(result.success, result.error); }, Qt::QueuedConnection);
    });
}

void PythonEnvironmentManager::finishDownload(bool success, const QString &error)
{
    const int calls = pendingDownloadCalls;
    pendingDownloadCalls = 0;
    for (int i = 0; i < calls; ++i)
        emit uvDownloadFinished(success, error);
}

bool PythonEnvironmentManager::ensureUv()
{
    if (isUvInstalled())
        return true;
    emit operationFinished(false, tr("UV is not installed"));
    return false;
}

void PythonEnvironmentManager::runProcess(const PlatformProfile::Command &command, ProcessHandler handler)
{
    auto *process = new QProcess(this);
    process->setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    auto result = std::make_shared<ProcessResult>();
    connect(process, &QProcess::readyReadStandardOutput, this, [this, process, result] {
        const QString text = QString::fromUtf8(process->readAllStandardOutput());
        appendBounded(result->output, text);
        appendBounded(result->standardOutput, text);
        emit operationProgress(text);
    });
    connect(process, &QProcess::readyReadStandardError, this, [this, process, result] {
        const QString text = QString::fromUtf8(process->readAllStandardError());
        appendBounded(result->output, text);
        emit operationProgress(text);
    });
    connect(process, &QProcess::finished, this, [process, result, handler](int exitCode, QProcess::ExitStatus status) {
        process->deleteLater();
        result->exitCode = exitCode;
        result->normalExit = status == QProcess::NormalExit;
        handler(*result);
    });
    // A program that cannot be started never reports finished, so its failure ends the operation here.
    connect(process, &QProcess::errorOccurred, this, [process, result, handler](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        process->deleteLater();
        appendBounded(result->output, process->errorString());
        handler(*result);
    });
    process->start(command.program, command.arguments);
}

void PythonEnvironmentManager::finishWithFailure(const QString &text, const ProcessResult &result)
{
    emit operationFinished(false, text.arg(classifyOutput(result.output)));
}

void PythonEnvironmentManager::createEnvironment(const QString &name, const QString &pythonVersion,
                                                 const QString &requirementsPath)
{
    if (!ensureUv())
        return;
    if (!isValidEnvironmentName(name)) {
        emit operationFinished(false, tr("Invalid environment name: %1").arg(name));
        return;
    }
    // Only a replacement may take the place of an existing folder; a failed create must never remove user files.
    if (QFileInfo::exists(environmentPath(name))) {
        emit operationFinished(false, tr("Environment '%1' already exists").arg(name));
        return;
    }
    runCreate(name, pythonVersion, tr("Creating environment '%1' with Python %2...").arg(name, pythonVersion),
              requirementsWriter(name, requirementsPath), [] {});
}

std::function<bool()> PythonEnvironmentManager::requirementsWriter(const QString &name,
                                                                   const QString &requirementsPath) const
{
    // The list is read now: a replacement may take it from the very folder that is about to be removed.
    std::optional<QByteArray> requirements;
    if (!requirementsPath.isEmpty()) {
        QFile file(requirementsPath);
        if (file.open(QIODevice::ReadOnly))
            requirements = file.readAll();
    } else {
        requirements = platform.defaultRequirements().toUtf8();
    }
    const QString target = environmentPath(name) + QStringLiteral("/requirements.txt");
    return [requirements, target] {
        if (!requirements)
            return false;
        QSaveFile file(target);
        return file.open(QIODevice::WriteOnly) && file.write(*requirements) >= 0 && file.commit();
    };
}

void PythonEnvironmentManager::runCreate(const QString &name, const QString &pythonVersion, const QString &startedText,
                                         std::function<bool()> placeRequirements,
                                         std::function<void()> discardRequirements)
{
    const QString folder = environmentPath(name);
    QDir().mkpath(folder);
    emit operationStarted(startedText);
    runProcess(platform.createCommand(baseFolder(), folder, pythonVersion),
               [this, name, folder, placeRequirements, discardRequirements](const ProcessResult &result) {
                   if (!result.succeeded()) {
                       QDir(folder).removeRecursively();
                       discardRequirements();
                       finishWithFailure(tr("Failed to create virtual environment.\n\n%1"), result);
                       return;
                   }
                   const bool hasRequirements = placeRequirements();
                   emit environmentCreated(name);
                   if (hasRequirements)
                       installRequirements(name, false);
                   else
                       emit operationFinished(true, QString());
               });
}

void PythonEnvironmentManager::createFromQenv(const QString &qenvFilePath)
{
    if (!ensureUv())
        return;
    QFile qenv(qenvFilePath);
    if (!qenv.open(QIODevice::ReadOnly)) {
        emit operationFinished(false, tr("Failed to open .qenv file"));
        return;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(qenv.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        emit operationFinished(false, tr("Invalid .qenv file format"));
        return;
    }
    const QJsonObject root = document.object();
    const QString name = root.value("name").toString();
    QString version = root.value("python").toString();
    const QJsonArray packages = root.value("packages").toArray();
    const QJsonArray extraIndexes = root.value("extra_index_urls").toArray();

    if (name.isEmpty()) {
        emit operationFinished(false, tr(".qenv file missing environment name"));
        return;
    }
    // The name becomes a folder name; anything but a plain word could reach outside the base folder.
    if (!isValidEnvironmentName(name)) {
        emit operationFinished(false, tr(".qenv file has an invalid environment name"));
        return;
    }
    if (version.isEmpty())
        version = QStringLiteral("3.11");
    if (!version.startsWith(QLatin1String("3."))) {
        emit operationFinished(false, tr("Invalid Python version: %1").arg(version));
        return;
    }
    const QString folder = environmentPath(name);
    if (QFileInfo::exists(folder)) {
        emit operationFinished(false, tr("Environment '%1' already exists").arg(name));
        return;
    }

    QDir().mkpath(folder);
    if (!extraIndexes.isEmpty()) {
        QSaveFile indexFile(folder + QStringLiteral("/index_urls.json"));
        if (indexFile.open(QIODevice::WriteOnly)) {
            indexFile.write(
                    QJsonDocument(QJsonObject{{"extra_index_urls", extraIndexes}}).toJson(QJsonDocument::Indented));
            indexFile.commit();
        }
    }
    const QString temporaryRequirements = QDir::tempPath() + QStringLiteral("/qenv_requirements.txt");
    QSaveFile requirements(temporaryRequirements);
    if (requirements.open(QIODevice::WriteOnly | QIODevice::Text)) {
        for (const QJsonValue &package : packages)
            requirements.write(package.toString().toUtf8() + '\n');
        requirements.commit();
    }

    const bool hasPackages = !packages.isEmpty();
    const QString target = folder + QStringLiteral("/requirements.txt");
    runCreate(
            name, version, tr("Creating environment '%1' from .qenv with Python %2...").arg(name, version),
            [temporaryRequirements, target, hasPackages] {
                QFile::remove(target);
                QFile::copy(temporaryRequirements, target);
                QFile::remove(temporaryRequirements);
                return hasPackages;
            },
            [temporaryRequirements] { QFile::remove(temporaryRequirements); });
}

void PythonEnvironmentManager::installRequirements(const QString &name, bool retry)
{
    const QString folder = environmentPath(name);
    const QString requirements = folder + QStringLiteral("/requirements.txt");
    if (!QFileInfo::exists(requirements)) {
        emit operationFinished(false, tr("No requirements.txt found"));
        return;
    }
    if (retry)
        emit operationProgress(tr("Retrying package installation..."));
    else
        emit operationStarted(tr("Installing packages for '%1'...").arg(name));
    runProcess(platform.installRequirementsCommand(baseFolder(), folder, requirements, retry, extraIndexUrls(folder)),
               [this, name, retry](const ProcessResult &result) {
                   if (!result.succeeded()) {
                       finishWithFailure(tr("Package installation failed.\n\n%1"), result);
                       return;
                   }
                   emit operationProgress(tr("Verifying critical imports..."));
                   verifyImports(name, retry, 0);
               });
}

void PythonEnvironmentManager::verifyImports(const QString &name, bool afterReinstall, int runsDone)
{
    const QString folder = environmentPath(name);
    if (!QFileInfo::exists(platform.interpreterPath(folder))) {
        emit operationFinished(false, tr("Python executable not found"));
        return;
    }
    runProcess(platform.verificationCommand(folder), [this, name, afterReinstall,
                                                      runsDone](const ProcessResult &result) {
        if (result.succeeded()) {
            emit packagesChanged(name);
            emit operationFinished(true, QString());
            return;
        }
        // Freshly written modules are sometimes not importable yet (scanners, slow disks); give them time first.
        if (runsDone + 1 < verificationRuns) {
            QTimer::singleShot(verificationDelayMs, this, [this, name, afterReinstall, runsDone] {
                verifyImports(name, afterReinstall, runsDone + 1);
            });
            return;
        }
        const QStringList failed = result.standardOutput.trimmed().split(QLatin1Char(','), Qt::SkipEmptyParts);
        const QString modules = failed.join(QLatin1String(", "));
        if (afterReinstall) {
            emit packagesChanged(name);
            emit operationFinished(
                    false,
                    tr("Critical imports failed after retry: %1\n\nTry reinstalling the environment.").arg(modules));
            return;
        }
        emit operationProgress(tr("Import verification failed for: %1. Retrying installation...").arg(modules));
        installRequirements(name, true);
    });
}

void PythonEnvironmentManager::syncEnvironment(const QString &name)
{
    if (!ensureUv())
        return;
    if (!isValidEnvironmentName(name) || !QFileInfo(environmentPath(name)).isDir()) {
        emit operationFinished(false, tr("Environment not found"));
        return;
    }
    installRequirements(name, false);
}

bool PythonEnvironmentManager::checkPackageOperation(const QString &envName, const QStringList &arguments)
{
    if (!ensureUv())
        return false;
    if (!isValidEnvironmentName(envName) || !QFileInfo(environmentPath(envName)).isDir()) {
        emit operationFinished(false, tr("Environment not found"));
        return false;
    }
    for (const QString &argument : arguments) {
        if (!isPackageArgument(argument)) {
            emit operationFinished(
                    false, tr("Operation failed.\n\n%1").arg(tr("'%1' is not a package specification").arg(argument)));
            return false;
        }
    }
    return true;
}

void PythonEnvironmentManager::runPackageOperation(const QString &envName, const QString &startedText,
                                                   const PlatformProfile::Command &command)
{
    emit operationStarted(startedText);
    runProcess(command, [this, envName](const ProcessResult &result) {
        if (!result.succeeded()) {
            finishWithFailure(tr("Operation failed.\n\n%1"), result);
            return;
        }
        if (!envName.isEmpty())
            emit packagesChanged(envName);
        emit operationFinished(true, QString());
    });
}

void PythonEnvironmentManager::installPackage(const QString &envName, const QString &packageSpec)
{
    if (!checkPackageOperation(envName, {packageSpec}))
        return;
    const QString folder = environmentPath(envName);
    runPackageOperation(envName, tr("Installing %1...").arg(packageSpec),
                        platform.installCommand(baseFolder(), folder, {packageSpec}, extraIndexUrls(folder)));
}

void PythonEnvironmentManager::installPackages(const QString &envName, const QStringList &packageSpecs)
{
    if (!checkPackageOperation(envName, packageSpecs))
        return;
    const QString folder = environmentPath(envName);
    runPackageOperation(envName, tr("Installing %1 packages...").arg(packageSpecs.size()),
                        platform.installCommand(baseFolder(), folder, packageSpecs, extraIndexUrls(folder)));
}

void PythonEnvironmentManager::uninstallPackage(const QString &envName, const QString &packageName)
{
    if (!checkPackageOperation(envName, {packageName}))
        return;
    runPackageOperation(envName, tr("Uninstalling %1...").arg(packageName),
                        platform.uninstallCommand(baseFolder(), environmentPath(envName), {packageName}));
}

void PythonEnvironmentManager::uninstallPackages(const QString &envName, const QStringList &packageNames)
{
    if (!checkPackageOperation(envName, packageNames))
        return;
    runPackageOperation(envName, tr("Uninstalling %1 packages...").arg(packageNames.size()),
                        platform.uninstallCommand(baseFolder(), environmentPath(envName), packageNames));
}

void PythonEnvironmentManager::updatePackage(const QString &envName, const QString &packageName)
{
    if (!checkPackageOperation(envName, {packageName}))
        return;
    const QString folder = environmentPath(envName);
    runPackageOperation(envName, tr("Updating %1...").arg(packageName),
                        platform.updateCommand(baseFolder(), folder, packageName, extraIndexUrls(folder)));
}

QList<PythonEnvironmentManager::Package> PythonEnvironmentManager::listPackages(const QString &envName)
{
    if (!ensureUv())
        return {};
    QList<Package> packages;
    if (isValidEnvironmentName(envName)) {
        const PlatformProfile::Command command = platform.listCommand(baseFolder(), environmentPath(envName));
        QProcess process;
        process.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
        process.start(command.program, command.arguments);
        if (process.waitForFinished(listingLimitMs)) {
            packages = parsePackageList(process.readAllStandardOutput());
        } else {
            process.kill();
            process.waitForFinished(probeLimitMs);
        }
    }
    emit packagesLoaded(packages);
    return packages;
}

void PythonEnvironmentManager::listPackagesAsync(const QString &envName)
{
    if (!isUvInstalled() || !isValidEnvironmentName(envName)) {
        QMetaObject::invokeMethod(
                this, [this] { emit packagesLoaded({}); }, Qt::QueuedConnection);
        return;
    }
    const PlatformProfile::Command command = platform.listCommand(baseFolder(), environmentPath(envName));
    auto *process = new QProcess(this);
    process->setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    auto *limit = new QTimer(process);
    limit->setSingleShot(true);
    connect(limit, &QTimer::timeout, process, &QProcess::kill);
    connect(process, &QProcess::finished, this, [this, process](int exitCode, QProcess::ExitStatus status) {
        process->deleteLater();
        const bool listed = status == QProcess::NormalExit && exitCode == 0;
        emit packagesLoaded(listed ? parsePackageList(process->readAllStandardOutput()) : QList<Package>());
    });
    connect(process, &QProcess::errorOccurred, this, [this, process](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        process->deleteLater();
        emit packagesLoaded({});
    });
    limit->start(listingLimitMs);
    process->start(command.program, command.arguments);
}

QList<PythonEnvironmentManager::Package> PythonEnvironmentManager::parsePackageList(const QByteArray &json)
{
    QList<Package> packages;
    const QJsonArray entries = QJsonDocument::fromJson(json).array();
    for (const QJsonValue &entry : entries) {
        const QJsonObject object = entry.toObject();
        packages << Package{object.value("name").toString(), object.value("version").toString()};
    }
    return packages;
}

bool PythonEnvironmentManager::deleteEnvironment(const QString &name)
{
    const QString folder = environmentPath(name);
    if (!isValidEnvironmentName(name) || !QFileInfo(folder).isDir())
        return false;
    if (!QDir(folder).removeRecursively())
        return false;
    emit environmentDeleted(name);
    return true;
}

void PythonEnvironmentManager::deleteEnvironmentAsync(const QString &name)
{
    const QString folder = environmentPath(name);
    // An empty or path-like name would point at the base folder or beyond it, never at an environment.
    if (!isValidEnvironmentName(name) || !QFileInfo(folder).isDir()) {
        emit operationFinished(false, tr("Environment not found"));
        return;
    }
    emit operationStarted(tr("Deleting environment '%1'...").arg(name));
    emit deleteStarted(name);
    QThreadPool::globalInstance()->start([this, name, folder] {
        const bool removed = removeFolder(folder);
        QMetaObject::invokeMethod(
                this,
                [this, name, removed] {
                    emit deleteFinished(name, removed);
                    if (removed) {
                        emit environmentDeleted(name);
                        emit operationFinished(true, QString());
                    } else {
                        emit operationFinished(false, tr("Failed to delete environment '%1'").arg(name));
                    }
                },
                Qt::QueuedConnection);
    });
}

void PythonEnvironmentManager::replaceEnvironmentAsync(const QString &name, const QString &pythonVersion,
                                                       const QString &requirementsPath)
{
    if (!ensureUv())
        return;
    if (!isValidEnvironmentName(name)) {
        emit operationFinished(false, tr("Invalid environment name: %1").arg(name));
        return;
    }
    const std::function<bool()> writeRequirements = requirementsWriter(name, requirementsPath);
    const QString folder = environmentPath(name);
    emit operationStarted(tr("Replacing environment '%1'...").arg(name));
    emit deleteStarted(name);
    QThreadPool::globalInstance()->start([this, name, folder, pythonVersion, writeRequirements] {
        const bool removed = removeFolder(folder);
        QMetaObject::invokeMethod(
                this,
                [this, name, pythonVersion, writeRequirements, removed] {
                    emit deleteFinished(name, removed);
                    if (!removed) {
                        emit operationFinished(false, tr("Failed to delete environment '%1'").arg(name));
                        return;
                    }
                    runCreate(name, pythonVersion,
                              tr("Creating environment '%1' with Python %2...").arg(name, pythonVersion),
                              writeRequirements, [] {});
                },
                Qt::QueuedConnection);
    });
}

} // namespace Quorix
