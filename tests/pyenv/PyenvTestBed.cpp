#include "PyenvTestBed.h"

#include "pyenv/PythonEnvironmentManager.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

namespace Quorix::Testing {

namespace {

// Finished folders appear under their final name in one rename, so test programs running side by side either see
// a complete copy or make their own and discard it.
bool publish(const QString &staging, const QString &final)
{
    if (QDir().rename(staging, final))
        return true;
    QDir(staging).removeRecursively();
    return QFileInfo(final).isDir();
}

} // namespace

PyenvTestBed::PyenvTestBed()
{
    const QString root = QStringLiteral(PYENV_TEST_BUILD_DIR "/test-python");
    QDir().mkpath(root);
    const QString pythons = provisionPython(root);
    const QString indexes = pythons.isEmpty() ? QString() : provisionIndexes(root);
    if (indexes.isEmpty())
        return;

    QDir().mkpath(scratchPath("tmp"));
    qputenv("TMPDIR", scratchPath("tmp").toUtf8());
    qputenv("UV_PYTHON_INSTALL_DIR", pythons.toUtf8());
    qputenv("UV_PYTHON_DOWNLOADS", "never");
    qputenv("UV_CACHE_DIR", scratchPath("uv-cache").toUtf8());
    qputenv("UV_NO_PROGRESS", "1");
    qunsetenv("UV_INDEX_URL");
    qunsetenv("UV_EXTRA_INDEX_URL");
    qunsetenv("UV_FIND_LINKS");
    for (const QString &folder :
         {QStringLiteral("main"), QStringLiteral("extra"), QStringLiteral("extra-two"), QStringLiteral("demo")}) {
        const QString url = startIndex(indexes + QLatin1Char('/') + folder);
        if (url.isEmpty())
            return;
        indexUrls << url;
    }
    qputenv("UV_DEFAULT_INDEX", indexUrls.first().toUtf8());
}

PyenvTestBed::~PyenvTestBed()
{
    for (QProcess *server : servers) {
        server->kill();
        server->waitForFinished(5000);
        delete server;
    }
}

QString PyenvTestBed::writeFile(const QString &name, const QByteArray &content) const
{
    QFile file(scratchPath(name));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
        return {};
    return file.fileName();
}

QString PyenvTestBed::uvProgram()
{
    return QStandardPaths::findExecutable(QStringLiteral("uv"));
}

void PyenvTestBed::prepareBaseFolder(const PythonEnvironmentManager &manager, bool withUv) const
{
    QDir(manager.baseFolder()).removeRecursively();
    QDir().mkpath(manager.baseFolder());
    if (withUv)
        QFile::copy(uvProgram(), manager.uvPath());
}

PyenvTestBed::Outcome PyenvTestBed::run(const QString &program, const QStringList &arguments, int limitMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    Outcome outcome;
    if (!process.waitForFinished(limitMs)) {
        process.kill();
        process.waitForFinished();
        outcome.output = process.errorString();
        return outcome;
    }
    outcome.output = QString::fromUtf8(process.readAll());
    outcome.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return outcome;
}

QString PyenvTestBed::provisionPython(const QString &root)
{
    const QString pythons = root + QStringLiteral("/pythons");
    const Outcome facts = run(QStringLiteral("python3"),
                              {QStringLiteral("-c"), QStringLiteral("import sys, platform\n"
                                                                    "print(sys.base_prefix)\n"
                                                                    "print('%d.%d.%d' % sys.version_info[:3])\n"
                                                                    "print('%d.%d' % sys.version_info[:2])\n"
                                                                    "print(platform.machine())\n")});
    const QStringList lines = facts.output.trimmed().split(QLatin1Char('\n'));
    if (facts.exitCode != 0 || lines.size() != 4) {
        failure = QStringLiteral("python3 could not describe itself: ") + facts.output;
        return {};
    }
    const QString prefix = lines.at(0), version = lines.at(1), minor = lines.at(2), machine = lines.at(3);
    const QString name = QStringLiteral("cpython-%1-linux-%2-gnu").arg(version, machine);
    if (QFileInfo(pythons + QLatin1Char('/') + name + QStringLiteral("/bin/python") + minor).isFile())
        return pythons;

    // A real copy rather than links, since uv ignores linked installs; the site-packages of this machine and the
    // test suite of the standard library are left out to keep it small.
    const QString staging = root + QStringLiteral("/pythons.staging-%1").arg(QCoreApplication::applicationPid());
    const QString target = staging + QLatin1Char('/') + name;
    const QString script = QStringLiteral(
            "set -e\n"
            "mkdir -p \"$2/bin\" \"$2/lib\"\n"
            "cp \"$1/bin/python$3\" \"$2/bin/\"\n"
            "ln -s \"python$3\" \"$2/bin/python3\"\n"
            "ln -s \"python$3\" \"$2/bin/python\"\n"
            "for lib in \"$1\"/lib/libpython*.so*; do [ -e \"$lib\" ] && cp -a \"$lib\" \"$2/lib/\"; done\n"
            "(cd \"$1/lib\" && tar --exclude=\"python$3/site-packages\" --exclude=\"python$3/test\" "
            "--exclude=__pycache__ --exclude=\"python$3/config-*\" -cf - \"python$3\") | tar -xf - -C \"$2/lib\"\n"
            "mkdir -p \"$2/lib/python$3/site-packages\"\n");
    const Outcome copy = run(QStringLiteral("bash"),
                             {QStringLiteral("-c"), script, QStringLiteral("copy"), prefix, target, minor}, 600000);
    if (copy.exitCode != 0) {
        failure = QStringLiteral("copying the interpreter failed: ") + copy.output;
        QDir(staging).removeRecursively();
        return {};
    }
    if (QFileInfo(pythons).isDir()) {
        QDir(staging).removeRecursively();
        return pythons;
    }
    return publish(staging, pythons) ? pythons : QString();
}

QString PyenvTestBed::provisionIndexes(const QString &root)
{
    const QString indexes = root + QStringLiteral("/indexes");
    const QString maker = QStringLiteral(PYENV_TEST_SOURCE_DIR "/make_wheels.py");
    // The "demo" index holds stand-ins, by name and version, for what the reference server's demo environment
    // packages ask for.
    const QList<QStringList> sets = {
            {QStringLiteral("main"), QStringLiteral("quorix-cv2=1.0:cv2"),
             QStringLiteral("quorix-flaky-cv2=1.0:cv2:flaky"), QStringLiteral("quorix-alpha=1.0"),
             QStringLiteral("quorix-alpha=1.1"), QStringLiteral("quorix-beta=1.0"), QStringLiteral("quorix-gamma=1.0"),
             QStringLiteral("quorix-delta=1.0")},
            {QStringLiteral("extra"), QStringLiteral("quorix-extra=1.0")},
            {QStringLiteral("extra-two"), QStringLiteral("quorix-extra-two=1.0")},
            {QStringLiteral("demo"), QStringLiteral("numpy=1.26.4"), QStringLiteral("opencv-python=4.9.0.80:cv2"),
             QStringLiteral("pillow=10.2.0:PIL")},
    };
    QDir().mkpath(indexes);
    for (const QStringList &set : sets) {
        const QString folder = indexes + QLatin1Char('/') + set.first();
        if (QFileInfo(folder + QStringLiteral("/simple")).isDir())
            continue;
        const QString staging = folder + QStringLiteral(".staging-%1").arg(QCoreApplication::applicationPid());
        const Outcome made = run(QStringLiteral("python3"), QStringList{maker, staging} + set.mid(1));
        if (made.exitCode != 0) {
            failure = QStringLiteral("building wheels failed: ") + made.output;
            QDir(staging).removeRecursively();
            return {};
        }
        if (!publish(staging, folder))
            return {};
    }
    return indexes;
}

QString PyenvTestBed::startIndex(const QString &folder)
{
    // Python's own file server lists a folder as links, which is all a simple package index page is; it runs in its
    // own process, so the index keeps answering while the test thread waits on a child synchronously.
    auto *server = new QProcess;
    servers << server;
    // Python's errors come with the output, so a server that dies at start says why in the failure.
    server->setProcessChannelMode(QProcess::MergedChannels);
    server->start(QStringLiteral("python3"),
                  {QStringLiteral("-u"), QStringLiteral("-m"), QStringLiteral("http.server"), QStringLiteral("--bind"),
                   QStringLiteral("127.0.0.1"), QStringLiteral("--directory"), folder, QStringLiteral("0")});
    static const QRegularExpression portPattern(QStringLiteral("port (\\d+)"));
    QByteArray seen;
    QDeadlineTimer deadline(15000);
    while (!deadline.hasExpired() && server->waitForReadyRead(int(deadline.remainingTime()))) {
        seen += server->readAllStandardOutput();
        const QRegularExpressionMatch match = portPattern.match(QString::fromUtf8(seen));
        if (match.hasMatch())
            return QStringLiteral("http://127.0.0.1:%1/simple").arg(match.captured(1));
    }
    seen += server->readAllStandardOutput();
    failure = QStringLiteral("the package index did not start (%1): %2").arg(server->errorString(), QString::fromUtf8(seen));
    return {};
}

} // namespace Quorix::Testing
