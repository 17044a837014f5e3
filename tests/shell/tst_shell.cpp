#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The development host as a user starts it: which plugins it loads, and the window it renders.
class TestShell : public QObject
{
    Q_OBJECT

    QTemporaryDir cwd;

    QByteArray runShell(const QStringList &arguments)
    {
        QProcess shell;
        shell.setWorkingDirectory(cwd.path());
        shell.start(qEnvironmentVariable("QUORIX_BINARY_DIR") + "/bin/quorix-shell", arguments);
        if (!shell.waitForFinished(60000) || shell.exitStatus() != QProcess::NormalExit || shell.exitCode() != 0)
            return "<failed>";
        return shell.readAllStandardOutput();
    }

private Q_SLOTS:
    void listsThePluginsOfItsFolder()
    {
        QCOMPARE(runShell({"--list-plugins"}), QByteArray("online_resources\tOnline Resources\t1.0.0\n"));
        QCOMPARE(runShell({"--list-plugins", "--plugin-dir", cwd.path()}), QByteArray());
    }

    void darkScreenshotShowsTheWindow()
    {
        const QString file = cwd.filePath("shot.png");
        QVERIFY(runShell({"--screenshot", file, "--settle-ms", "200", "--theme", "dark"}) != "<failed>");
        const QImage image(file);
        QVERIFY(image.width() >= 800 && image.height() >= 500);
        QVERIFY(QColor(image.pixel(image.width() / 2, image.height() - 40)).lightness() < 128);
    }
};

QTEST_GUILESS_MAIN(TestShell)
#include "tst_shell.moc"
