#pragma once

#include <QObject>
#include <QStringList>

namespace Quorix {
class PythonEnvironmentManager;
}

namespace Quorix::Testing {

// Writes down every signal of the environment manager in the order it arrives, as short "kind: text" lines, and waits
// for the end of an operation.
class OperationRecorder : public QObject
{
    Q_OBJECT

public:
    explicit OperationRecorder(PythonEnvironmentManager *manager);

    // Waits for operationFinished, then a little longer to catch a second one that must not come.
    // Generous: a loaded machine can take minutes over a real uv run, and a case that gives up early leaves the
    // manager busy for the next one.
    bool waitFinished(int limitMs = 240000);
    QStringList events(const QString &kind) const;
    QStringList all() const { return log; }
    int finishedCount() const { return finishes; }
    bool succeeded() const { return lastSuccess; }
    QString error() const { return lastError; }

private:
    QStringList log;
    int finishes = 0;
    bool lastSuccess = false;
    QString lastError;
};

} // namespace Quorix::Testing
