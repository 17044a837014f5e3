#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

// The built catalogue-server program, driven by curl: a client that shares no code with ours.
class CatalogueServerProgramTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("curl")).isEmpty())
            QSKIP("curl is not installed");
        program = qEnvironmentVariable("QUORIX_BINARY_DIR") + QStringLiteral("/bin/catalogue-server");
        QVERIFY2(QFileInfo::exists(program), qPrintable(program));
    }

    void helpDescribesTheOptions()
    {
        QProcess process;
        process.start(program, {QStringLiteral("--help")});
        QVERIFY(process.waitForFinished(10000));
        const QString help = QString::fromUtf8(process.readAllStandardOutput());
        for (const char *option : {"--data-dir", "--port", "--bind", "--seed-demo", "--dev-login", "--admin-ids"})
            QVERIFY2(help.contains(QLatin1String(option)), option);
    }

    void unusableDataFoldersStopTheStart_data()
    {
        QTest::addColumn<QString>("directory");
        QTest::addColumn<QString>("message");
        // The tests may run as root, whom permissions do not stop; /proc refuses new files to everyone.
        QTest::newRow("not writable") << QStringLiteral("/proc/self") << QStringLiteral("is not writable");
        QTest::newRow("under a file") << QStringLiteral("/proc/self/status/data")
                                      << QStringLiteral("Cannot use the data directory");
    }

    void unusableDataFoldersStopTheStart()
    {
        QFETCH(QString, directory);
        QFETCH(QString, message);
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program,
                      {QStringLiteral("--data-dir"), directory, QStringLiteral("--port"), QStringLiteral("0")});
        QVERIFY(process.waitForFinished(10000));
        QCOMPARE(process.exitCode(), 1);
        QVERIFY2(process.readAll().contains(message.toUtf8()), qPrintable(message));
    }

    void curlUploadsAndDownloadsTheSameBytes()
    {
        QTemporaryDir data;
        QProcess server;
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.start(program, {QStringLiteral("--data-dir"), data.path(), QStringLiteral("--port"), QStringLiteral("0"),
                               QStringLiteral("--dev-login")});
        QVERIFY(server.waitForStarted(10000));
        QString origin;
        static const QRegularExpression listening(QStringLiteral("listening on (http://\\S+)"));
        for (int attempt = 0; attempt < 100 && origin.isEmpty(); ++attempt) {
            server.waitForReadyRead(100);
            origin = listening.match(QString::fromUtf8(server.peek(4096))).captured(1);
        }
        QVERIFY2(!origin.isEmpty(), server.readAll().constData());

        const QJsonObject login
                = QJsonDocument::fromJson(
                          curl({QStringLiteral("-X"), QStringLiteral("POST"), QStringLiteral("-d"),
                                QStringLiteral(R"({"discord_id":"123456789012345678","username":"curl"})"),
                                origin + QStringLiteral("/api/auth/dev-login")}))
                          .object();
        const QString token = login.value(QStringLiteral("token")).toString();
        QVERIFY(!token.isEmpty());

        QTemporaryDir files;
        QByteArray content(200000, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(content.data()), content.size() / 4);
        const QString scriptPath = files.filePath(QStringLiteral("binary script.gpc3"));
        QFile script(scriptPath);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(content);
        script.close();

        const QJsonObject uploaded
                = QJsonDocument::fromJson(curl({QStringLiteral("-H"), QStringLiteral("Authorization: Bearer ") + token,
                                                QStringLiteral("-H"), QStringLiteral("Expect:"), QStringLiteral("-F"),
                                                QStringLiteral("name=Curl upload"), QStringLiteral("-F"),
                                                QStringLiteral("description=Uploaded by curl in a test"),
                                                QStringLiteral("-F"), QStringLiteral("tags=curl,test"),
                                                QStringLiteral("-F"), QStringLiteral("script_file=@") + scriptPath,
                                                origin + QStringLiteral("/api/scripts/upload")}))
                          .object();
        QCOMPARE(uploaded.value(QStringLiteral("success")).toBool(), true);
        const QString id = uploaded.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();

        const QString downloaded = files.filePath(QStringLiteral("downloaded"));
        const QByteArray headers = curl({QStringLiteral("-D"), QStringLiteral("-"), QStringLiteral("-o"), downloaded,
                                         origin + QStringLiteral("/api/scripts/download/") + id});
        QVERIFY2(headers.contains("Content-Disposition: attachment; filename=\"binary script.gpc3\""),
                 headers.constData());
        QFile result(downloaded);
        QVERIFY(result.open(QIODevice::ReadOnly));
        QCOMPARE(result.readAll(), content);

        server.terminate();
        QVERIFY(server.waitForFinished(10000));
    }

private:
    QByteArray curl(const QStringList &arguments)
    {
        QProcess process;
        process.start(QStringLiteral("curl"),
                      QStringList{QStringLiteral("-sS"), QStringLiteral("--max-time"), QStringLiteral("30"),
                                  QStringLiteral("--noproxy"), QStringLiteral("*")}
                              + arguments);
        if (!process.waitForFinished(40000))
            return {};
        return process.readAllStandardOutput();
    }

    QString program;
};

QTEST_MAIN(CatalogueServerProgramTest)
#include "tst_catalogue_server_program.moc"
