#include <CatalogueServerFixture.h>

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

namespace {

const QString authorId = QStringLiteral("111111111111111111");

QString idOf(const CatalogueServerFixture::Reply &reply)
{
    return reply.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();
}

} // namespace

// The real program killed at each named point of an upload, an update and a delete: after a restart every listed
// resource downloads complete old or complete new bytes, and nothing staged or orphaned is left.
class CatalogueServerRecoveryTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aCrashLeavesOldOrNewBytes_data()
    {
        QTest::addColumn<QByteArray>("point");
        QTest::addColumn<QString>("action");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("logged");
        QTest::newRow("new upload before commit") << QByteArray("before-commit") << QStringLiteral("upload")
                                                  << QStringLiteral("absent") << QStringLiteral("rolled back");
        QTest::newRow("new upload after commit") << QByteArray("after-commit") << QStringLiteral("upload")
                                                 << QStringLiteral("new") << QStringLiteral("finished the file");
        QTest::newRow("update before commit") << QByteArray("before-commit") << QStringLiteral("update")
                                              << QStringLiteral("old") << QStringLiteral("rolled back");
        QTest::newRow("update after commit") << QByteArray("after-commit") << QStringLiteral("update")
                                             << QStringLiteral("new") << QStringLiteral("finished the file");
        QTest::newRow("update between renames") << QByteArray("during-publish") << QStringLiteral("update")
                                                << QStringLiteral("new") << QStringLiteral("finished the file");
        QTest::newRow("delete after commit") << QByteArray("after-delete-commit") << QStringLiteral("delete")
                                             << QStringLiteral("absent") << QStringLiteral("no resource owns");
    }

    void aCrashLeavesOldOrNewBytes()
    {
        QFETCH(QByteArray, point);
        QFETCH(QString, action);
        QFETCH(QString, expected);
        QFETCH(QString, logged);
        CatalogueServerFixture server;
        QVERIFY2(server.startProcess(), qPrintable(server.error()));
        const QString token = server.signIn(authorId, QStringLiteral("author"));
        const QByteArray oldBytes(300000, 'o');
        const QByteArray newBytes(400000, 'n');
        QString id;
        if (action != QLatin1String("upload")) {
            id = idOf(server.uploadScript(token, QStringLiteral("kept.gpc3"), oldBytes));
            QVERIFY(!id.isEmpty());
        }

        QVERIFY2(server.startProcess({}, {{QStringLiteral("QUORIX_SERVER_CRASH_AT"), QString::fromLatin1(point)}}),
                 qPrintable(server.error()));
        if (action == QLatin1String("delete")) {
            server.remove(id, token);
        } else {
            const CatalogueServerFixture::UploadFile picture{QStringLiteral("header_image"), QStringLiteral("h.png"),
                                                             png()};
            QList<QPair<QString, QString>> fields{{QStringLiteral("name"), QStringLiteral("Crash test")},
                                                  {QStringLiteral("description"), QStringLiteral("Killed on purpose")}};
            if (!id.isEmpty())
                fields.append({QStringLiteral("existing_uuid"), id});
            server.upload(QStringLiteral("upload"), token, fields,
                          {{QStringLiteral("script_file"), QStringLiteral("kept.gpc3"), newBytes}, picture});
        }
        QVERIFY2(server.waitForProcessEnd(), server.processOutput().constData());

        QVERIFY2(server.startProcess(), qPrintable(server.error()));
        QVERIFY2(server.processOutput().contains(logged.toUtf8()), server.processOutput().constData());
        const QJsonArray listed
                = server.get(QStringLiteral("?limit=100")).json.value(QStringLiteral("scripts")).toArray();
        QCOMPARE(listed.size(), expected == QLatin1String("absent") ? 0 : 1);
        for (const QJsonValue &record : listed) {
            const auto download = server.get(QStringLiteral("download/") + record.toObject().value("id").toString());
            QCOMPARE(download.status, 200);
            QCOMPARE(download.body, expected == QLatin1String("new") ? newBytes : oldBytes);
            QCOMPARE(download.header("repr-digest"),
                     "sha-256=:" + QCryptographicHash::hash(download.body, QCryptographicHash::Sha256).toBase64()
                             + ':');
        }
        for (const QString &folder : {QStringLiteral("staging"), QStringLiteral("files"), QStringLiteral("images")}) {
            const QStringList left = QDir(server.dataDirectory() + QLatin1Char('/') + folder).entryList(QDir::Files);
            QVERIFY2(left.filter(QStringLiteral(".new")).isEmpty()
                             && (folder != QLatin1String("staging") || left.isEmpty()),
                     qPrintable(left.join(QLatin1Char(' '))));
            if (expected == QLatin1String("absent"))
                QCOMPARE(left, QStringList());
        }
    }

private:
    static QByteArray png()
    {
        QImage image(64, 32, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        image.save(&buffer, "PNG");
        return bytes;
    }
};

QTEST_MAIN(CatalogueServerRecoveryTest)
#include "tst_catalogue_server_recovery.moc"
