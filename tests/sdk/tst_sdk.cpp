#include "TemporaryHome.h"

#include <PluginHost.h>
#include <SettingsManager.h>
#include <ThemedIcon.h>
#include <ThemedToolButton.h>

#include <QApplication>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace Quorix;

namespace {

// The most frequent opaque colour of an icon rendering: the tint, whatever the antialiased edges look like.
QColor dominantColour(const QIcon &icon)
{
    const QImage image = icon.pixmap(24, 24).toImage().convertToFormat(QImage::Format_ARGB32);
    QHash<QRgb, int> counts;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            counts[image.pixel(x, y)] += qAlpha(image.pixel(x, y)) == 255;
    const auto best = std::max_element(counts.cbegin(), counts.cend());
    return best == counts.cend() || *best == 0 ? QColor(Qt::transparent) : QColor::fromRgba(best.key());
}

// The first argument of every emission the spy saw.
QVariantList firstArguments(const QSignalSpy &spy)
{
    QVariantList arguments;
    for (const QList<QVariant> &emission : spy)
        arguments.append(emission.value(0));
    return arguments;
}

const char *const redSquare = "<svg xmlns='http://www.w3.org/2000/svg' width='24' height='24' viewBox='0 0 24 24'>"
                              "<rect x='2' y='2' width='20' height='20' fill='red'/></svg>";

} // namespace

// What the host gives a plugin: the signed-in identity and its signals, the settings file, tinted icons.
class TestSdk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hostAnnouncesSignInUserChangeAndSignOut()
    {
        PluginHost host;
        QSignalSpy authentication(&host, &PluginHost::authenticationChanged);
        QSignalSpy user(&host, &PluginHost::userChanged);
        host.signOut();
        host.signIn({"123456789012345678", "neo", "Neo", "a1b2", "secret"});
        QCOMPARE(firstArguments(authentication), QVariantList{true});
        QCOMPARE((QStringList{host.getAuthenticatedDiscordId(), host.getAuthenticatedUsername(),
                              host.getAuthenticatedGlobalName(), host.getAuthenticatedAvatarHash(),
                              host.getAuthSessionToken()}),
                 (QStringList{"123456789012345678", "neo", "Neo", "a1b2", "secret"}));
        host.signIn({"223456789012345678", "trinity", {}, {}, "t2"});
        host.signOut();
        QVERIFY(!host.isUserAuthenticated() && host.getAuthSessionToken().isEmpty());
        QCOMPARE(firstArguments(authentication), (QVariantList{true, false}));
        QCOMPARE(firstArguments(user), (QVariantList{"123456789012345678", "223456789012345678", QString()}));
    }

    void pluginsAreFoundByIdOrNameUntilDeleted()
    {
        PluginHost host;
        auto *plugin = new QObject(&host);
        host.registerPlugin("gpc3_editor", "GPC 3", plugin);
        QCOMPARE(host.getPlugin("gpc3_editor"), plugin);
        QCOMPARE(host.getPlugin("GPC 3"), plugin);
        QVERIFY(!host.getPlugin("CV Python"));
        delete plugin;
        QVERIFY(!host.getPlugin("GPC 3"));
    }

    void settingsLandInTheWorkingDirectoryIni()
    {
        Testing::TemporaryHome home;
        SettingsManager *settings = SettingsManager::instance();
        QCOMPARE(settings->fileName(), home.filePath("quorix_settings.ini"));
        QSignalSpy changed(settings, &SettingsManager::valueChanged);
        settings->setValue("developerMode", true);
        settings->setPluginValue("FileExplorer", "lastWorkingDirectory", "/a");
        settings->setPluginValue("Other", "lastWorkingDirectory", "/b");
        QCOMPARE(changed.count(), 3);
        QSettings file(home.filePath("quorix_settings.ini"), QSettings::IniFormat);
        QCOMPARE(file.value("Application/developerMode").toBool(), true);
        QCOMPARE(settings->getPluginValue("FileExplorer", "lastWorkingDirectory").toString(), "/a");
        QCOMPARE(settings->getPluginValue("Other", "lastWorkingDirectory").toString(), "/b");
        QCOMPARE(settings->value("lastWorkingDirectory", 7).toInt(), 7);
    }

    void iconsTakeThePaletteColourAndFollowIt()
    {
        QTemporaryDir dir;
        const QString svg = dir.filePath("square.svg");
        QFile file(svg);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(redSquare);
        file.close();
        const QIcon icon = ThemedIcon::create(svg);
        QPalette palette = QApplication::palette();
        for (const QColor colour : {QColor(0x12, 0x34, 0x56), QColor(Qt::white)}) {
            palette.setColor(QPalette::Text, colour);
            QApplication::setPalette(palette);
            QCOMPARE(dominantColour(icon), colour);
        }
        QCOMPARE(dominantColour(ThemedIcon::create(svg, Qt::green)), QColor(Qt::green));
        QCOMPARE(dominantColour(ThemedIcon::create(dir.filePath("missing.svg"))).alpha(), 0);

        ThemedToolButton button(svg);
        palette.setColor(QPalette::ButtonText, QColor(0xaa, 0x00, 0xaa));
        button.setPalette(palette);
        QCOMPARE(dominantColour(button.icon()), QColor(0xaa, 0x00, 0xaa));
    }
};

QTEST_MAIN(TestSdk)
#include "tst_sdk.moc"
