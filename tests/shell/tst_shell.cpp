#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class TestShell : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void listsTheLoadedPlugin();
    void screenshotShowsTheWindow();
    void unknownPluginFolderListsNothing();

private:
    static QString shellProgram();
    static QProcess *runShell(const QStringList &arguments, QTemporaryDir &workingDirectory, QObject *parent);
};

QString TestShell::shellProgram()
{
    return qEnvironmentVariable("QUORIX_BINARY_DIR") + QStringLiteral("/bin/quorix-shell");
}

QProcess *TestShell::runShell(const QStringList &arguments, QTemporaryDir &workingDirectory, QObject *parent)
{
    auto *process = new QProcess(parent);
    process->setWorkingDirectory(workingDirectory.path());
    process->setProgram(shellProgram());
    process->setArguments(arguments);
    process->start();
    return process;
}

void TestShell::listsTheLoadedPlugin()
{
    QTemporaryDir cwd;
    QProcess *shell = runShell({QStringLiteral("--list-plugins")}, cwd, this);
    QVERIFY(shell->waitForFinished(60000));
    QCOMPARE(shell->exitStatus(), QProcess::NormalExit);
    QCOMPARE(shell->exitCode(), 0);
    QCOMPARE(QString::fromUtf8(shell->readAllStandardOutput()),
             QStringLiteral("online_resources\tOnline Resources\t1.0.0\n"));
}

void TestShell::screenshotShowsTheWindow()
{
    QTemporaryDir cwd;
    const QString file = cwd.filePath(QStringLiteral("shot.png"));
    QProcess *shell = runShell({QStringLiteral("--screenshot"), file, QStringLiteral("--settle-ms"),
                                QStringLiteral("200"), QStringLiteral("--theme"), QStringLiteral("dark")},
                               cwd, this);
    QVERIFY(shell->waitForFinished(60000));
    QCOMPARE(shell->exitCode(), 0);
    const QImage image(file);
    QVERIFY(!image.isNull());
    QVERIFY(image.width() >= 800 && image.height() >= 500);
    // Dark theme: the window background is dark, not the default light grey.
    QVERIFY(QColor(image.pixel(image.width() / 2, image.height() - 40)).lightness() < 128);
}

void TestShell::unknownPluginFolderListsNothing()
{
    QTemporaryDir cwd;
    QProcess *shell = runShell({QStringLiteral("--list-plugins"), QStringLiteral("--plugin-dir"), cwd.path()}, cwd, this);
    QVERIFY(shell->waitForFinished(60000));
    QCOMPARE(shell->exitCode(), 0);
    QVERIFY(shell->readAllStandardOutput().isEmpty());
}

QTEST_GUILESS_MAIN(TestShell)
#include "tst_shell.moc"
