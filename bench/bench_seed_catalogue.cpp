// Seeds a catalogue server data directory for the load benchmark: 10,000 scripts and one large public weights file,
// placed the way an upload would leave them (the file under its id, its SHA-256 in the record) so that the server's
// start-up check keeps the file and downloads need not hash it first. Prints "weights ID", "file PATH" and
// "token TOKEN" (a session of the catalogue's author, for uploads) on separate lines.
#include "CatalogueFill.h"
#include "PatternFile.h"

#include <CatalogueDatabase.h>
#include <ResourceFiles.h>
#include <Sha256.h>

#include <QCoreApplication>
#include <QFile>
#include <QStringList>
#include <QTextStream>
#include <QUuid>

using namespace Quorix;

namespace {

constexpr int scriptCount = 10000;
constexpr qint64 defaultWeightsBytes = 500LL * 1024 * 1024;

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList arguments = QCoreApplication::arguments();
    bool sizeOk = true;
    const qint64 weightsBytes = arguments.size() > 2 ? arguments.at(2).toLongLong(&sizeOk) : defaultWeightsBytes;
    if (arguments.size() < 2 || arguments.size() > 3 || !sizeOk || weightsBytes <= 0) {
        err << "usage: bench_seed_catalogue DATA_DIR [WEIGHTS_BYTES]\n";
        return 2;
    }
    const QString directory = arguments.at(1);

    ResourceFiles files(directory);
    CatalogueDatabase database(directory + QStringLiteral("/catalogue.sqlite"));
    QString error;
    if (!files.prepare() || !database.open(&error)) {
        err << "bench_seed_catalogue: cannot use " << directory << ' ' << error << '\n';
        return 1;
    }
    const qint64 authorId = database.signIn(QStringLiteral("123456789012345678"), QStringLiteral("bench"), {}).id;
    if (!CatalogueFill::addScripts(database, authorId, scriptCount)) {
        err << "bench_seed_catalogue: cannot fill the catalogue\n";
        return 1;
    }
    // Small real files, so the start-up check finds every script complete and their downloads answer.
    const QByteArray script(100, '#');
    for (const QString &id : database.resourceIds()) {
        QFile file(files.resourceFile(id));
        if (!file.open(QIODevice::WriteOnly) || file.write(script) != script.size()) {
            err << "bench_seed_catalogue: cannot write " << file.fileName() << '\n';
            return 1;
        }
    }

    CatalogueDatabase::ResourceWrite weights;
    weights.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QString path = files.resourceFile(weights.id);
    if (!PatternFile::write(path, weightsBytes)) {
        err << "bench_seed_catalogue: cannot write " << path << '\n';
        return 1;
    }
    weights.kind = weights.subtype = QStringLiteral("onnx");
    weights.name = QStringLiteral("Load Bench Weights");
    weights.description = QStringLiteral("A large weights file for the load benchmark.");
    weights.visibility = QStringLiteral("public");
    weights.authorId = authorId;
    weights.fileName = QStringLiteral("load-bench.onnx");
    weights.fileSize = QFile(path).size();
    weights.sha256 = Sha256::ofFile(path);
    const QString token = database.createSession(authorId);
    if (weights.sha256.isEmpty() || !database.writeResource(weights, true) || token.isEmpty()) {
        err << "bench_seed_catalogue: cannot record the weights\n";
        return 1;
    }
    out << "weights " << weights.id << "\nfile " << path << "\ntoken " << token << '\n';
    return 0;
}
