#include "DemoCatalogue.h"

#include "CatalogueDatabase.h"
#include "DemoArtwork.h"
#include "QenvPackage.h"
#include "ResourceFiles.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QUuid>
#include <QtConcurrentMap>

#include <numeric>

namespace Quorix {

namespace {

struct DemoItem
{
    const char *name;
    const char *subtype;
    const char *description;
    const char *tags;
};

const DemoItem scripts[] = {
        {"Anti-Recoil Pro", "gpc3", "Smooth vertical and horizontal recoil compensation with per-weapon profiles.",
         "recoil,fps,aim"},
        {"Rapid Fire Toggle", "gpc3", "Toggle rapid fire on any trigger with an adjustable rate and LED feedback.",
         "rapid-fire,fps"},
        {"Jump Shot Assist", "gpc3", "Jumps the moment you fire so you are harder to hit in close fights.",
         "movement,fps,combat"},
        {"Auto Sprint", "gbc3", "Sprints whenever the left stick is pushed forward past a threshold you choose.",
         "movement,quality-of-life"},
        {"Quick Scope Timing", "gpc3", "Times aim-down-sight and fire for snipers, tuned for 60 and 120 Hz.",
         "sniper,aim,fps"},
        {"Strafe Helper", "gpc3", "Adds a configurable strafe pattern while aiming to make tracking harder.",
         "movement,combat"},
        {"Drop Shot", "gbc3", "Goes prone the instant you open fire; one button to enable or disable.", "combat,fps"},
        {"Turbo Melee", "gpc3", "Repeats melee while the button is held, with a safe minimum interval.",
         "melee,combat"},
        {"Burst Fire Control", "gpc3", "Turns full-auto into controlled three-round bursts for long range.",
         "fps,aim,recoil"},
        {"Slide Cancel", "gpc3", "Performs the slide cancel input sequence with frame-accurate timing.",
         "movement,fps"},
        {"Bunny Hop", "gbc3", "Keeps your momentum with timed jumps while the stick is held.", "movement"},
        {"Perfect Reload", "gpc3", "Hits the active reload window every time in games that have one.",
         "reload,quality-of-life"},
        {"Dead Zone Tuner", "gpc3", "Measures your stick drift and applies the smallest dead zone that hides it.",
         "controller,calibration"},
        {"Stick Curve Editor", "gpc3", "Exponential, linear or S-curve response for both sticks, switchable in game.",
         "controller,aim"},
        {"Racing Throttle Smoother", "gbc3", "Eases throttle input for racing games so wheelspin is easier to manage.",
         "racing,controller"},
        {"Fighting Game Combo Macro", "gpc3", "Records a combo once and replays it with the original timing.",
         "fighting,macro"},
        {"Button Remapper", "gpc3", "Remap any button to any other, with profiles saved to slots.",
         "controller,quality-of-life"},
        {"Rumble Tester", "gbc3", "Runs each rumble motor through a pattern to check your controller.",
         "controller,diagnostics"},
        {"Crosshair Overlay", "python", "Draws a clean crosshair overlay from the capture feed, any colour and size.",
         "overlay,cv"},
        {"Health Bar Reader", "python", "Reads the health bar from the screen and exposes it to your device script.",
         "cv,ocr,hud"},
        {"Minimap Tracker", "python", "Finds the player arrow on the minimap and reports heading and position.",
         "cv,minimap"},
        {"Kill Feed OCR", "python", "Reads the kill feed with OCR and logs your session statistics.", "cv,ocr,stats"},
        {"Capture Latency Benchmark", "python", "Measures frame capture latency and jitter of your capture card.",
         "benchmark,capture"},
        {"YOLO Object Finder", "python", "Runs a YOLO model on the capture feed and draws the detections.",
         "cv,yolo,onnx"},
        {"Colour Calibration Helper", "python",
         "Shows test patterns and measures how your capture card shifts colours.", "calibration,capture"},
        {"Motion Heatmap", "python", "Builds a heatmap of on-screen movement over a match.", "cv,stats"},
        {"Frame Time Logger", "python", "Logs frame times from the capture feed and plots stutter.", "benchmark,stats"},
        {"Scoreboard Parser", "python", "Parses the end-of-match scoreboard into a CSV file.", "ocr,stats"},
        {"Ammo Counter Reader", "python", "Reads the ammo counter and signals your script before you run dry.",
         "cv,ocr,hud"},
        {"Aim Trainer Targets", "python", "Spawns virtual targets over the feed for warm-up routines.",
         "aim,training,overlay"},
        {"LED Profile Indicator", "gbc3", "Shows the active profile with the controller light bar colour.",
         "controller,quality-of-life"},
        {"Anti-Idle", "gpc3", "Nudges the stick every few minutes so lobbies do not kick you.", "quality-of-life"},
};

// The demo user's own private script, with an access list to manage: signed-in users, one grant that expires and
// one still pending because its Discord ID has never signed in.
const DemoItem privateScript
        = {"Tournament Aim Kit", "gpc3", "Private tuning for our tournament roster; access is granted per player.",
           "aim,tournament"};

struct DemoGrant
{
    const char *discordId;
    const char *notes;
    int expiresInDays;
};

const DemoGrant privateScriptGrants[] = {
        {"700000000000000003", "Roster sub, season two", 0},
        {"231456789012345678", "Co-author, tests every build", 0},
        {"700000000000000007", "Trial month", 45},
        {"700000000000000012", "", 0},
        {"812345678901234567", "Invited at the LAN final", 0},
};

struct DemoEnvironment
{
    const char *name;
    const char *python;
    const char *packages;
    const char *indexes;
    const char *description;
};

const DemoEnvironment environments[] = {
        {"CV Base (CPU)", "3.11", "numpy==1.26.4,opencv-python==4.9.0.80,pillow==10.2.0", "",
         "Everything the computer-vision scripts need on a machine without a GPU."},
        {"Torch CUDA 12.1", "3.11", "torch==2.2.1,torchvision==0.17.1,numpy==1.26.4,opencv-python==4.9.0.80",
         "https://download.pytorch.org/whl/cu121", "PyTorch with CUDA 12.1 for training and running models."},
        {"ONNX Runtime GPU", "3.10", "onnxruntime-gpu==1.17.1,numpy==1.26.4,opencv-python-headless==4.9.0.80", "",
         "Fast inference for the ONNX weights in this catalogue on NVIDIA GPUs."},
        {"YOLOv8 Toolkit", "3.11",
         "ultralytics==8.1.24,torch==2.2.1,torchvision==0.17.1,opencv-python==4.9.0.80,pyyaml==6.0.1",
         "https://download.pytorch.org/whl/cu118", "Train and export YOLOv8 detectors, with CUDA 11.8 wheels."},
        {"OCR Toolkit", "3.10", "easyocr==1.7.1,opencv-python==4.9.0.80,numpy==1.26.4,rapidfuzz==3.6.1", "",
         "Text recognition for HUD readers and scoreboard parsers."},
        {"Minimal NumPy", "3.12", "numpy==1.26.4", "", "The smallest environment: NumPy only, for quick experiments."},
};

// The package's "name" becomes a folder on the user's machine, so it is the catalogue name reduced to letters, digits
// and dashes: "CV Base (CPU)" installs as "cv-base-cpu".
QString environmentFolderName(const QString &catalogueName)
{
    static const QRegularExpression separators(QStringLiteral("[^a-z0-9]+"));
    QString folder = catalogueName.toLower().replace(separators, QStringLiteral("-"));
    while (folder.startsWith(QLatin1Char('-')))
        folder.remove(0, 1);
    while (folder.endsWith(QLatin1Char('-')))
        folder.chop(1);
    return folder;
}

struct DemoWeights
{
    const char *name;
    const char *fileName;
    bool encrypted;
    int kilobytes;
    const char *description;
};

const DemoWeights weights[] = {
        {"YOLOv8n Players", "yolov8n-players.onnx", false, 96, "Nano detector for player models, 640x640 input."},
        {"Crosshair Classifier", "crosshair-classifier.onnx", false, 48, "Tells whether a crosshair is on target."},
        {"HUD Digit Reader", "hud-digits.onnx", true, 64, "Reads health and ammo digits from HUD crops."},
        {"Minimap Segmenter", "minimap-seg.onnx", false, 128, "Segments walls, players and objectives on minimaps."},
        {"Scope Detector Pro", "scope-detector.onnx", true, 80, "Detects scope overlays across popular shooters."},
};

struct DemoUser
{
    const char *discordId;
    const char *username;
    const char *globalName;
};

const DemoUser authors[] = {
        {DemoCatalogue::demoUserDiscordId, DemoCatalogue::demoUsername, DemoCatalogue::demoGlobalName},
        {"231456789012345678", "frame_perfect", "Frame Perfect"},
        {"345678901234567890", "visionary", "Visionary"},
        {"456789012345678901", "stickdrift", "Stick Drift"},
        {"567890123456789012", "model_maker", "Model Maker"},
        {"678901234567890123", "pyguru", ""},
};

QByteArray scriptSource(const DemoItem &item)
{
    if (QByteArray(item.subtype) == "python")
        return QByteArray("\"\"\"") + item.name + ": " + item.description
               + "\"\"\"\nimport cv2\nimport numpy as np\n\n\ndef process(frame: np.ndarray) -> np.ndarray:\n"
                 "    gray = cv2.cvtColor(frame, cv2.COLOR_BGR2GRAY)\n    return frame\n";
    return QByteArray("// ") + item.name + "\n// " + item.description
           + "\n\nint enabled = TRUE;\n\nmain {\n    if (event_press(PS5_OPTIONS)) enabled = !enabled;\n"
             "    if (enabled && get_val(PS5_R2)) {\n        combo_run(action);\n    }\n}\n\n"
             "combo action {\n    set_val(PS5_R2, 100);\n    wait(40);\n    wait(20);\n}\n";
}

QString fileNameFor(const QString &name, const QString &subtype)
{
    QString base = name.toLower();
    base.replace(QLatin1Char(' '), QLatin1Char('_'));
    base.remove(QLatin1Char('('));
    base.remove(QLatin1Char(')'));
    return base + QLatin1Char('.') + (subtype == QLatin1String("python") ? QStringLiteral("py") : subtype);
}

} // namespace

DemoCatalogue::DemoCatalogue(CatalogueDatabase *database, const QString &dataDirectory)
    : database(database)
    , dataDirectory(dataDirectory)
{ }

bool DemoCatalogue::seedIfEmpty(QString *error)
{
    if (database->resourceCount() != 0)
        return true;
    QRandomGenerator random(20240611);
    QList<qint64> authorIds;
    for (const DemoUser &author : authors)
        authorIds.append(database->signIn(QString::fromLatin1(author.discordId), QString::fromLatin1(author.username),
                                          QString::fromLatin1(author.globalName))
                                 .id);
    QList<qint64> fans;
    for (int i = 0; i < 40; ++i)
        fans.append(database->signIn(QStringLiteral("7000000000000000%1").arg(i, 2, 10, QLatin1Char('0')),
                                     QStringLiteral("fan_%1").arg(i), QString())
                            .id);

    QList<CatalogueDatabase::ResourceWrite> writes;
    QList<QByteArray> contents;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    auto base = [&](const QString &name, const QString &kind, const QString &subtype, const QString &description,
                    const QString &tags) {
        CatalogueDatabase::ResourceWrite write;
        write.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
        write.kind = kind;
        write.subtype = subtype;
        write.name = name;
        write.description = description;
        write.instructions = QStringLiteral("Download, open it in Quorix and adjust the settings at the top to taste.");
        write.tags = tags.split(QLatin1Char(','), Qt::SkipEmptyParts);
        write.version = 1.0 + int(random.bounded(8)) * 0.25;
        const int roll = int(random.bounded(10));
        write.visibility = roll < 7   ? QStringLiteral("public")
                           : roll < 9 ? QStringLiteral("purchasable")
                                      : QStringLiteral("private");
        write.authorId = authorIds.at(int(random.bounded(authorIds.size())));
        write.created = now.addSecs(-qint64(random.bounded(400 * 24 * 3600)));
        write.imageType = QStringLiteral("png");
        return write;
    };
    for (const DemoItem &item : scripts) {
        const QString name = QString::fromUtf8(item.name);
        CatalogueDatabase::ResourceWrite write
                = base(name, QStringLiteral("script"), QString::fromLatin1(item.subtype),
                       QString::fromUtf8(item.description), QString::fromLatin1(item.tags));
        write.fileName = fileNameFor(name, write.subtype);
        contents.append(scriptSource(item));
        writes.append(write);
    }
    for (const DemoEnvironment &environment : environments) {
        const QString name = QString::fromUtf8(environment.name);
        CatalogueDatabase::ResourceWrite write
                = base(name, QStringLiteral("qenv"), QStringLiteral("qenv"), QString::fromUtf8(environment.description),
                       QStringLiteral("environment,python"));
        const QStringList packages = QString::fromLatin1(environment.packages).split(QLatin1Char(','));
        const QStringList indexes
                = QString::fromLatin1(environment.indexes).split(QLatin1Char(','), Qt::SkipEmptyParts);
        const QByteArray content
                = QJsonDocument(QJsonObject{{QStringLiteral("name"), environmentFolderName(name)},
                                            {QStringLiteral("python"), QString::fromLatin1(environment.python)},
                                            {QStringLiteral("packages"), QJsonArray::fromStringList(packages)},
                                            {QStringLiteral("extra_index_urls"), QJsonArray::fromStringList(indexes)}})
                          .toJson();
        QString qenvError;
        write.metadata = QenvPackage::parse(content, &qenvError).metadata();
        write.fileName = fileNameFor(name, QStringLiteral("qenv"));
        contents.append(content);
        writes.append(write);
    }
    for (const DemoWeights &item : weights) {
        const QString name = QString::fromUtf8(item.name);
        CatalogueDatabase::ResourceWrite write
                = base(name, QStringLiteral("onnx"), QStringLiteral("onnx"), QString::fromUtf8(item.description),
                       QStringLiteral("onnx,model"));
        write.encrypted = item.encrypted;
        write.fileName = QString::fromLatin1(item.fileName);
        QByteArray content(item.kilobytes * 1024, Qt::Uninitialized);
        random.fillRange(reinterpret_cast<quint32 *>(content.data()), content.size() / 4);
        contents.append(content);
        writes.append(write);
    }

    // Built without drawing on the random sequence, so every other demo resource stays as it was.
    CatalogueDatabase::ResourceWrite privateWrite;
    privateWrite.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    privateWrite.kind = QStringLiteral("script");
    privateWrite.subtype = QString::fromLatin1(privateScript.subtype);
    privateWrite.name = QString::fromUtf8(privateScript.name);
    privateWrite.description = QString::fromUtf8(privateScript.description);
    privateWrite.instructions = QStringLiteral("Load it on slot 1; the roster's profiles are on slots 2 to 5.");
    privateWrite.tags = QString::fromLatin1(privateScript.tags).split(QLatin1Char(','));
    privateWrite.version = 2.0;
    privateWrite.visibility = QStringLiteral("private");
    privateWrite.authorId = authorIds.first();
    privateWrite.created = now.addDays(-12);
    privateWrite.imageType = QStringLiteral("png");
    privateWrite.fileName = fileNameFor(privateWrite.name, privateWrite.subtype);
    contents.append(scriptSource(privateScript));
    writes.append(privateWrite);

    ResourceFiles files(dataDirectory);
    if (!files.prepare()) {
        *error = QStringLiteral("Cannot create the storage folders");
        return false;
    }
    // Drawing is most of a first start; the pictures are drawn side by side, each from a seed taken in order.
    QList<quint32> seeds;
    for (int i = 0; i < writes.size(); ++i)
        seeds.append(random.generate());
    QList<int> order(writes.size());
    std::iota(order.begin(), order.end(), 0);
    const QList<DemoArtwork::Pictures> drawn = QtConcurrent::blockingMapped(order, [&](int i) {
        return DemoArtwork::pictures(writes.at(i).name, writes.at(i).subtype, seeds.at(i));
    });
    for (int i = 0; i < writes.size(); ++i) {
        CatalogueDatabase::ResourceWrite &write = writes[i];
        write.fileSize = contents.at(i).size();
        write.sha256 = QCryptographicHash::hash(contents.at(i), QCryptographicHash::Sha256);
        const DemoArtwork::Pictures &pictures = drawn.at(i);
        write.imageSha256 = QCryptographicHash::hash(pictures.header, QCryptographicHash::Sha256);
        if (!files.stage(files.resourceFile(write.id), contents.at(i))
            || !files.stage(files.headerImage(write.id), pictures.header)
            || !files.stage(files.thumbnailImage(write.id), pictures.thumbnail)) {
            *error = files.errorString();
            return false;
        }
    }

    database->transaction();
    bool ok = true;
    for (const CatalogueDatabase::ResourceWrite &write : std::as_const(writes)) {
        ok = ok && database->writeResource(write, true);
        const qint64 downloads = qint64(random.bounded(60)) * qint64(random.bounded(90));
        database->setCounters(write.id, downloads, downloads * 3 + random.bounded(400));
        const double appeal = random.generateDouble();
        for (qint64 fan : std::as_const(fans)) {
            bool liked = false;
            int count = 0;
            if (random.generateDouble() < appeal * 0.6)
                database->toggleLike(write.id, fan, &liked, &count);
        }
        // Give the demo user access to other authors' restricted work, so both sides of the rules show.
        if (write.visibility != QLatin1String("public") && write.authorId != authorIds.first()
            && random.bounded(2) == 0) {
            QString code;
            database->grant(write.id, QString::fromLatin1(demoUserDiscordId), QStringLiteral("Beta tester"), QString(),
                            &code);
        }
    }
    for (const DemoGrant &grant : privateScriptGrants) {
        const QString expires
                = grant.expiresInDays > 0 ? CatalogueDatabase::timestamp(now.addDays(grant.expiresInDays)) : QString();
        QString code;
        ok = ok
             && database->grant(privateWrite.id, QString::fromLatin1(grant.discordId), QString::fromUtf8(grant.notes),
                                expires, &code)
                        != CatalogueDatabase::GrantOutcome::Failed;
    }
    if (!ok || !database->commit()) {
        database->rollback();
        *error = QStringLiteral("Cannot store the demo catalogue");
        return false;
    }
    return files.publish();
}

} // namespace Quorix
