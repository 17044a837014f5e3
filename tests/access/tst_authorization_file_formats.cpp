#include "access/AuthorizationFileFormats.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

using namespace Quorix;

namespace {

QJsonObject record(const QString &discordId, const QString &username, const QString &notes)
{
    return {{QStringLiteral("discord_id"), discordId},      {QStringLiteral("username"), username},
            {QStringLiteral("global_name"), username},      {QStringLiteral("status"), QStringLiteral("active")},
            {QStringLiteral("authorization_notes"), notes}, {QStringLiteral("expires_at"), QString()}};
}

QByteArray deeplyNested(int depth)
{
    return QByteArray("{\"authorizations\":[{\"discord_id\":\"123456789012345678\"}],\"x\":") + QByteArray(depth, '[')
           + QByteArray(depth, ']') + '}';
}

QByteArray lines(int count, const std::function<QByteArray(int)> &line)
{
    QByteArray text;
    for (int i = 0; i < count; ++i)
        text += line(i) + '\n';
    return text;
}

} // namespace

// What import files yield and what export files hold; the dialog only shows the outcome.
class TestAuthorizationFileFormats : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir directory;

private slots:
    void importFilesYieldTheirIds_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("expected");

        const QJsonArray exported{record(QStringLiteral("111111111111111111"), QStringLiteral("a,b"), QString()),
                                  record(QStringLiteral("22222222222222222222"), QStringLiteral("c"),
                                         QStringLiteral("first, second\nthird"))};
        QTest::newRow("exported csv re-imports")
                << "list.CSV" << AuthorizationFileFormats::exportCsv(exported)
                << QStringList{QStringLiteral("111111111111111111"), QStringLiteral("22222222222222222222")};
        QTest::newRow("text id among words, duplicates once")
                << "ids.txt"
                << QByteArray("please add 123456789012345678 to the list\n\n  123456789012345678  \nnone here\n")
                << QStringList{QStringLiteral("123456789012345678")};
        QTest::newRow("numeric json ids yield none")
                << "ids.json" << QByteArray("{\"authorizations\":[{\"discord_id\":123456789012345678}]}")
                << QStringList();
        QTest::newRow("16 digits are too short") << "ids.txt" << QByteArray("1234567890123456\n") << QStringList();
        QTest::newRow("21 digits give their first 20 in text") << "ids.txt" << QByteArray("123456789012345678901\n")
                                                               << QStringList{QStringLiteral("12345678901234567890")};
        QTest::newRow("21 digits stay whole in json")
                << "ids.json" << QByteArray("{\"authorizations\":[{\"discord_id\":\"123456789012345678901\"}]}")
                << QStringList{QStringLiteral("123456789012345678901")};
        QTest::newRow("json nested 10000 deep") << "deep.json" << deeplyNested(10000) << QStringList();

        QByteArray garbage(4 * 1024 * 1024, Qt::Uninitialized);
        QRandomGenerator random(7);
        random.fillRange(reinterpret_cast<quint32 *>(garbage.data()), garbage.size() / 4);
        QTest::newRow("binary garbage") << "garbage.txt" << garbage << QStringList();

        const QByteArray csv = "discord_id,username\n" + lines(100000, [](int i) {
                                   return QByteArray::number(500000000000000000LL + i % 1000) + ",u";
                               });
        QStringList thousand;
        for (int i = 0; i < 1000; ++i)
            thousand.append(QString::number(500000000000000000LL + i));
        QTest::newRow("csv of 100000 lines") << "big.csv" << csv << thousand;

        const QByteArray filler = lines(50 * 1024 * 1024 / 64, [](int) { return QByteArray(63, 'x'); });
        QTest::newRow("50 MB text") << "huge.txt"
                                    << QByteArray("777777777777777777\n") + filler + "888888888888888888\n"
                                    << QStringList{QStringLiteral("777777777777777777"),
                                                   QStringLiteral("888888888888888888")};
    }

    void importFilesYieldTheirIds()
    {
        QFETCH(QString, fileName);
        QFETCH(QByteArray, content);
        QFETCH(QStringList, expected);
        const QString path = directory.filePath(fileName);
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QCOMPARE(file.write(content), content.size());
        file.close();

        const AuthorizationFileFormats::ImportResult result = AuthorizationFileFormats::readImportFile(path);
        QCOMPARE(result.openError, QString());
        QCOMPARE(result.discordIds, expected);
    }

    void csvExportKeepsEveryRecordOnOneLine()
    {
        const QByteArray csv = AuthorizationFileFormats::exportCsv(
                {record(QStringLiteral("111111111111111111"), QStringLiteral("smith, j"),
                        QStringLiteral("paid, twice\r\nsee mail\nok"))});
        QCOMPARE(csv, QByteArray("discord_id,username,global_name,status,notes,expires_at\n"
                                 "111111111111111111,smith; j,smith; j,active,paid; twice see mail ok,\n"));
    }

    void unwritableTargetsLeaveNoFile_data()
    {
        QTest::addColumn<QString>("target");
        QTest::newRow("missing folder") << QStringLiteral("missing/list.json");
        QTest::newRow("a folder in the way") << QStringLiteral("taken");
    }

    void unwritableTargetsLeaveNoFile()
    {
        QFETCH(QString, target);
        QTemporaryDir folder;
        QVERIFY(QDir(folder.path()).mkdir(QStringLiteral("taken")));
        const QStringList before
                = QDir(folder.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);

        QVERIFY(!AuthorizationFileFormats::writeFile(folder.filePath(target), "{}").isEmpty());
        QCOMPARE(QDir(folder.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), before);
        QVERIFY(QFileInfo(folder.filePath(QStringLiteral("taken"))).isDir());
    }
};

QTEST_GUILESS_MAIN(TestAuthorizationFileFormats)
#include "tst_authorization_file_formats.moc"
