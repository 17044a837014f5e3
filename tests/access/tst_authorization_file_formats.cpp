#include "access/AuthorizationFileFormats.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

using namespace Quorix;

namespace {

QJsonObject record(const QString &discordId, const QString &username, const QString &notes)
{
    return {{"discord_id", discordId}, {"username", username},         {"global_name", username},
            {"status", "active"},      {"authorization_notes", notes}, {"expires_at", QString()}};
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

    QTemporaryDir directory;

private slots:
    void importFilesYieldTheirIds_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("expected");
        const QString id18 = "123456789012345678";
        const QJsonArray exported{record("111111111111111111", "a,b", QString()),
                                  record("22222222222222222222", "c", "first, second\nthird")};
        QTest::newRow("exported csv re-imports") << "list.CSV" << AuthorizationFileFormats::exportCsv(exported)
                                                 << QStringList{"111111111111111111", "22222222222222222222"};
        QTest::newRow("text id among words, once")
                << "ids.txt" << QByteArray("please add 123456789012345678 to it\n\n  123456789012345678  \nnone\n")
                << QStringList{id18};
        QTest::newRow("numeric json ids yield none")
                << "ids.json" << QByteArray("{\"authorizations\":[{\"discord_id\":123456789012345678}]}")
                << QStringList();
        QTest::newRow("16 digits are too short") << "ids.txt" << QByteArray("1234567890123456\n") << QStringList();
        QTest::newRow("17 digits are enough")
                << "ids.txt" << QByteArray("12345678901234567\n") << QStringList{"12345678901234567"};
        QTest::newRow("21 digits give their first 20 in text")
                << "ids.txt" << QByteArray("123456789012345678901\n") << QStringList{"12345678901234567890"};
        QTest::newRow("21 digits stay whole in json")
                << "ids.json" << QByteArray("{\"authorizations\":[{\"discord_id\":\"123456789012345678901\"}]}")
                << QStringList{"123456789012345678901"};
        QTest::newRow("json nested 10000 deep")
                << "deep.json"
                << "{\"authorizations\":[{\"discord_id\":\"" + id18.toUtf8() + "\"}],\"x\":" + QByteArray(10000, '[')
                           + QByteArray(10000, ']') + '}'
                << QStringList();
        QByteArray garbage(4 * 1024 * 1024, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(garbage.data()), garbage.size() / 4);
        QTest::newRow("binary garbage") << "garbage.txt" << garbage << QStringList();
        QStringList thousand;
        for (int i = 0; i < 1000; ++i)
            thousand.append(QString::number(500000000000000000LL + i));
        QTest::newRow("csv of 100000 lines")
                << "big.csv"
                << "discord_id,username\n"
                           + lines(100000,
                                   [](int i) { return QByteArray::number(500000000000000000LL + i % 1000) + ",u"; })
                << thousand;
        QTest::newRow("50 MB text") << "huge.txt"
                                    << "777777777777777777\n"
                                               + lines(50 * 1024 * 1024 / 64, [](int) { return QByteArray(63, 'x'); })
                                               + "888888888888888888\n"
                                    << QStringList{"777777777777777777", "888888888888888888"};
    }

    void importFilesYieldTheirIds()
    {
        QFETCH(QString, fileName);
        QFETCH(QByteArray, content);
        QFETCH(QStringList, expected);
        QFile file(directory.filePath(fileName));
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size());
        file.close();
        const AuthorizationFileFormats::ImportResult result = AuthorizationFileFormats::readImportFile(file.fileName());
        QCOMPARE(result.openError, QString());
        QCOMPARE(result.discordIds, expected);
    }

    void csvExportKeepsEveryRecordOnOneLine()
    {
        QCOMPARE(AuthorizationFileFormats::exportCsv(
                         {record("111111111111111111", "smith, j", "paid, twice\r\nsee mail\nok")}),
                 QByteArray("discord_id,username,global_name,status,notes,expires_at\n"
                            "111111111111111111,smith; j,smith; j,active,paid; twice see mail ok,\n"));
    }

    void unwritableTargetsLeaveNoFile()
    {
        QTemporaryDir folder;
        QVERIFY(QDir(folder.path()).mkdir("taken"));
        for (const char *target : {"missing/list.json", "taken"}) {
            QVERIFY(!AuthorizationFileFormats::writeFile(folder.filePath(target), "{}").isEmpty());
            QCOMPARE(QDir(folder.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                     QStringList{"taken"});
            QVERIFY(QFileInfo(folder.filePath("taken")).isDir());
        }
    }
};

QTEST_GUILESS_MAIN(TestAuthorizationFileFormats)
#include "tst_authorization_file_formats.moc"
