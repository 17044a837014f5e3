#include "OperationRecorder.h"

#include "pyenv/PythonEnvironmentManager.h"

#include <QTest>

namespace Quorix::Testing {

OperationRecorder::OperationRecorder(PythonEnvironmentManager *manager)
{
    const auto note = [this](const QString &kind) {
        return [this, kind](const QString &text) {
            log << kind + ": " + text;
        };
    };
    connect(manager, &PythonEnvironmentManager::operationStarted, this, note("started"));
    connect(manager, &PythonEnvironmentManager::operationProgress, this, note("progress"));
    connect(manager, &PythonEnvironmentManager::environmentCreated, this, note("created"));
    connect(manager, &PythonEnvironmentManager::environmentDeleted, this, note("deleted"));
    connect(manager, &PythonEnvironmentManager::packagesChanged, this, note("changed"));
    connect(manager, &PythonEnvironmentManager::deleteStarted, this, note("deleteStarted"));
    connect(manager, &PythonEnvironmentManager::deleteFinished, this, [this](const QString &name, bool success) {
        log << "deleteFinished: " + name + (success ? " ok" : " failed");
    });
    connect(manager, &PythonEnvironmentManager::operationFinished, this, [this](bool success, const QString &error) {
        ++finishes;
        lastSuccess = success;
        lastError = error;
        log << "finished: " + error;
    });
}

bool OperationRecorder::waitFinished(int limitMs)
{
    const bool finished = QTest::qWaitFor([this] { return finishes > 0; }, limitMs);
    QTest::qWait(150);
    return finished;
}

QStringList OperationRecorder::events(const QString &kind) const
{
    QStringList texts;
    for (const QString &line : log) {
        if (line.startsWith(kind + ": "))
            texts << line.mid(kind.size() + 2);
    }
    return texts;
}

} // namespace Quorix::Testing
