// Times an environment import through the manager against the same work typed by hand with uv, to show what the
// manager adds (process plumbing, file handling and the import verification).
#include "OperationRecorder.h"
#include "PyenvTestBed.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

using Quorix::PythonEnvironmentManager;
using Quorix::Testing::OperationRecorder;
using Quorix::Testing::PyenvTestBed;

namespace {

const QStringList packages = {"quorix-cv2", "quorix-alpha==1.1", "quorix-beta", "quorix-gamma", "quorix-delta"};

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

double throughManager(PythonEnvironmentManager *manager, const PyenvTestBed &bed, const QString &name)
{
    const QString path = bed.scratchPath(name + ".qenv");
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(QStringLiteral(R"({"name": "%1", "python": "3.11", "packages": ["%2"]})")
                       .arg(name, packages.join("\", \""))
                       .toUtf8());
    file.close();
    OperationRecorder recorder(manager);
    QElapsedTimer clock;
    clock.start();
    manager->createFromQenv(path);
    while (recorder.finishedCount() == 0)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    const double elapsed = clock.nsecsElapsed() / 1e6;
    if (!recorder.succeeded())
        std::fprintf(stderr, "manager run failed: %s\n", qPrintable(recorder.error()));
    return elapsed;
}

double byHand(const PyenvTestBed &bed, const QString &name)
{
    const QString folder = bed.scratchPath("by-hand/" + name);
    QDir().mkpath(folder);
    const QString requirements = folder + "/requirements.txt";
    QFile file(requirements);
    file.open(QIODevice::WriteOnly);
    file.write((packages.join('\n') + '\n').toUtf8());
    file.close();
    const QString uv = PyenvTestBed::uvProgram();
    const QString python = folder + "/.qenv/bin/python";
    QElapsedTimer clock;
    clock.start();
    const bool ok = PyenvTestBed::run(
                            uv, {"venv", "--python", "3.11", "--python-preference", "only-managed", folder + "/.qenv"})
                                    .exitCode
                            == 0
                    && PyenvTestBed::run(uv, {"pip", "install", "-r", requirements, "--python", python}).exitCode == 0
                    && PyenvTestBed::run(python, {"-c", "import cv2"}).exitCode == 0;
    const double elapsed = clock.nsecsElapsed() / 1e6;
    if (!ok)
        std::fprintf(stderr, "hand-typed run failed\n");
    return elapsed;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStandardPaths::setTestModeEnabled(true);
    PyenvTestBed bed;
    if (!bed.isReady() || PyenvTestBed::uvProgram().isEmpty()) {
        std::fprintf(stderr, "test bed not ready (is uv on PATH?): %s\n", qPrintable(bed.problem()));
        return 1;
    }
    PythonEnvironmentManager *manager = PythonEnvironmentManager::instance();
    bed.prepareBaseFolder(*manager, true);

    const int rounds = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 5;
    // One unmeasured round each fills uv's cache, so both sides measure the same warm work.
    throughManager(manager, bed, "warm");
    byHand(bed, "warm");
    QList<double> managed, manual;
    for (int i = 0; i < rounds; ++i) {
        managed << throughManager(manager, bed, QStringLiteral("env%1").arg(i));
        manual << byHand(bed, QStringLiteral("env%1").arg(i));
    }
    const double managerMs = median(managed);
    const double handMs = median(manual);
    std::printf("environment with %lld packages from a local index, median of %d rounds\n",
                static_cast<long long>(packages.size()), rounds);
    std::printf("  through the manager (.qenv import, verification included): %8.1f ms\n", managerMs);
    std::printf("  uv venv + uv pip install -r + python -c import, by hand:    %8.1f ms\n", handMs);
    std::printf("  ratio manager / by hand:                                    %8.2f\n", managerMs / handMs);
    QDir(manager->baseFolder()).removeRecursively();
    return 0;
}
