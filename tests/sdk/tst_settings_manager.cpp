#include "TemporaryHome.h"

#include <SettingsManager.h>

#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QtTest>

using namespace Quorix;

class TestSettingsManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void valuesLandInTheWorkingDirectoryIni();
    void pluginValuesAreKeptApartPerPlugin();
    void missingValuesGiveTheDefault();

private:
    Testing::TemporaryHome home;
};

void TestSettingsManager::initTestCase()
{
    QCOMPARE(SettingsManager::instance(), SettingsManager::instance());
    QCOMPARE(SettingsManager::instance()->fileName(), home.filePath(QStringLiteral("quorix_settings.ini")));
}

void TestSettingsManager::valuesLandInTheWorkingDirectoryIni()
{
    SettingsManager *settings = SettingsManager::instance();
    QSignalSpy changed(settings, &SettingsManager::valueChanged);
    settings->setValue(QStringLiteral("developerMode"), true);
    settings->setValue(QStringLiteral("appearance/theme"), QStringLiteral("dark"));
    QCOMPARE(changed.count(), 2);

    QVERIFY(QFile::exists(home.filePath(QStringLiteral("quorix_settings.ini"))));
    QSettings file(home.filePath(QStringLiteral("quorix_settings.ini")), QSettings::IniFormat);
    QCOMPARE(file.value(QStringLiteral("Application/developerMode")).toBool(), true);
    QCOMPARE(file.value(QStringLiteral("Application/appearance/theme")).toString(), QStringLiteral("dark"));
    QCOMPARE(settings->value(QStringLiteral("developerMode")).toBool(), true);
}

void TestSettingsManager::pluginValuesAreKeptApartPerPlugin()
{
    SettingsManager *settings = SettingsManager::instance();
    settings->setPluginValue(QStringLiteral("FileExplorer"), QStringLiteral("lastWorkingDirectory"), QStringLiteral("/a"));
    settings->setPluginValue(QStringLiteral("Other"), QStringLiteral("lastWorkingDirectory"), QStringLiteral("/b"));
    QCOMPARE(settings->getPluginValue(QStringLiteral("FileExplorer"), QStringLiteral("lastWorkingDirectory")).toString(),
             QStringLiteral("/a"));
    QCOMPARE(settings->getPluginValue(QStringLiteral("Other"), QStringLiteral("lastWorkingDirectory")).toString(),
             QStringLiteral("/b"));
    QVERIFY(!settings->value(QStringLiteral("lastWorkingDirectory")).isValid());
}

void TestSettingsManager::missingValuesGiveTheDefault()
{
    SettingsManager *settings = SettingsManager::instance();
    QCOMPARE(settings->value(QStringLiteral("neverWritten"), 7).toInt(), 7);
    QCOMPARE(settings->getPluginValue(QStringLiteral("Nobody"), QStringLiteral("key"), QStringLiteral("x")).toString(),
             QStringLiteral("x"));
}

QTEST_GUILESS_MAIN(TestSettingsManager)
#include "tst_settings_manager.moc"
